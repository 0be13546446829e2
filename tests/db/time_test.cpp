// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/syscall.h>

#include "db/connection.h"
#include "db/sdbl.h"
#include "support/messages.h"

using support::prints_only_from;

namespace {

timespec given_time{-1, 0};  // below 0: the machine's own

}  // namespace

// This program's clock can be given.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock != CLOCK_REALTIME || given_time.tv_sec < 0)
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = given_time;
  return 0;
}

namespace {

int usec(const timespec& start, const timespec& now) {
  given_time = now;
  const int result = Sdbl::usec_to_now(&start);
  given_time = {-1, 0};
  return result;
}

}  // namespace

TEST(Bcd, packs_eight_decimal_digits_and_loses_those_above) {
  const std::pair<uint32_t, uint32_t> cases[] = {
      {0, 0}, {1234, 0x1234}, {99999999, 0x99999999}, {100000000, 0}, {4294967295u, 0x94967295}};
  for (const auto& [number, bcd] : cases)
    EXPECT_EQ(Sdbl::bin_to_bcd(number), bcd) << number;
}

TEST(Bcd, unpacks_eight_digits_and_adds_the_value_of_nibbles_above_9) {
  const std::pair<uint32_t, int> cases[] = {{0, 0},     {0x20101115, 20101115},     {0x99999999, 99999999}, {0xA, 10},
                                            {0x1F, 25}, {0xFFFFFFFF, 15 * 11111111}};
  for (const auto& [bcd, number] : cases)
    EXPECT_EQ(Sdbl::bcd_to_int(bcd), number) << bcd;
}

TEST(Epoch, is_utc_whatever_the_zone_and_carries_days_and_hours_that_do_not_exist_over) {
  const struct {
    const char* legend;
    int ymd, hms, epoch;
  } cases[] = {
      {"a new year", 0x20100101, 0x000000, 1262304000},       {"and later", 0x20100101, 0x010203, 1262304000 + 3723},
      {"in summer", 0x20100701, 0x120000, 1277985600},        {"the first second", 0x19700101, 0x000000, 0},
      {"the last of 32 bits", 0x20380119, 0x031407, INT_MAX}, {"the first of 32 bits", 0x19011213, 0x204552, INT_MIN},
      {"day 32", 0x20091232, 0x000000, 1262304000},           {"hour 24", 0x20091231, 0x240000, 1262304000},
      {"month 13", 0x20091301, 0x000000, 1262304000},         {"second 165", 0x20100101, 0x0000FF, 1262304000 + 165},
  };
  for (const char* zone : {"UTC0", "EET-2EEST", "PST8PDT"}) {
    setenv("TZ", zone, 1);
    tzset();
    for (const auto& c : cases)
      EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(c.ymd, c.hms), c.epoch) << zone << ": " << c.legend;
  }
  unsetenv("TZ");
  tzset();
}

TEST(Epoch, what_does_not_fit_32_bits_is_minus_1_and_printed) {
  const struct {
    int ymd, hms;
    const char* time;
  } cases[] = {
      {0x20380119, 0x031408, "Y:138, mon 0, mday 19, hour 3, min 14, sec 8"},
      {0x19011213, 0x204551, "Y:1, mon 11, mday 13, hour 20, min 45, sec 51"},
      // An undefined start time is broadcast as all ones.
      {-1, -1, "Y:14765, mon 164, mday 165, hour 165, min 165, sec 165"},
      // The second before 1970 is taken for a failure.
      {0x19691231, 0x235959, "Y:69, mon 11, mday 31, hour 23, min 59, sec 59"},
  };
  for (const auto& c : cases)
    EXPECT_THAT([&] { EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(c.ymd, c.hms), -1); },
                prints_only_from(0, "ERROR: Cannot convert time " + std::string(c.time) + " to epoch\n"));
}

TEST(Clock, of_32_bits_shows_the_last_second_when_it_has_none_for_the_time) {
  const std::pair<int32_t, int64_t> narrow[] = {
      {0, 0}, {1772388000, 1772388000}, {INT32_MAX, INT32_MAX}, {INT32_MIN, INT32_MAX}, {-1, INT32_MAX}};
  for (const auto& [read, shown] : narrow)
    EXPECT_EQ(sdbl::clock_shows(read), shown) << read;
  for (const int64_t read : {int64_t{-1}, int64_t{2147483648}, int64_t{3786912000}})
    EXPECT_EQ(sdbl::clock_shows(read), read);
}

TEST(Usec_to_now, is_exact_within_a_second) {
  EXPECT_EQ(usec({100, 0}, {100, 0}), 0);
  EXPECT_EQ(usec({100, 100000000}, {100, 300000999}), 200000);
  EXPECT_EQ(usec({100, 0}, {100, 999999999}), 999999);
  EXPECT_EQ(usec({100, 5000}, {100, 2000}), -3) << "the clock was set back";
}

// What is left of the first second, and a whole one for each boundary.
TEST(Usec_to_now, quirk_nanoseconds_of_the_reading_are_not_used_across_a_second) {
  EXPECT_EQ(usec({100, 900000000}, {101, 100000000}), 1100000) << "0.2 s later";
  EXPECT_EQ(usec({100, 900000000}, {101, 999999999}), 1100000);
  EXPECT_EQ(usec({100, 0}, {101, 0}), 2000000);
  EXPECT_EQ(usec({100, 999999999}, {103, 500000000}), 3000000);
}

TEST(Usec_to_now, saturates) {
  EXPECT_EQ(usec({100, 0}, {100100, 0}), INT_MAX);
  EXPECT_EQ(usec({100100, 0}, {100, 0}), INT_MIN);
  EXPECT_EQ(usec({0, 0}, {2000000000, 0}), INT_MAX);
  EXPECT_EQ(usec({100, 0}, {100 + 2146, 0}), 2147000000) << "the last that fits";
}

TEST(Usec_to_now, reads_the_system_clock) {
  timespec start{};
  clock_gettime(CLOCK_REALTIME, &start);
  start.tv_sec -= 2;
  const int elapsed = Sdbl::usec_to_now(&start);
  EXPECT_GE(elapsed, 2000000);
  EXPECT_LT(elapsed, 60000000);
}
