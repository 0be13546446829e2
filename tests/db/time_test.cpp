// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/syscall.h>

#include "base/messages.h"
#include "db/sdbl.h"
#include "support/messages.h"
#include "support/support.h"

using support::messages_at;
using support::stderr_of;

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

TEST(Bcd, packs_eight_decimal_digits) {
  EXPECT_EQ(Sdbl::bin_to_bcd(0), 0u);
  EXPECT_EQ(Sdbl::bin_to_bcd(1234), 0x1234u);
  EXPECT_EQ(Sdbl::bin_to_bcd(99999999), 0x99999999u);
}

TEST(Bcd, digits_above_the_eighth_are_lost) {
  EXPECT_EQ(Sdbl::bin_to_bcd(100000000), 0u);
  EXPECT_EQ(Sdbl::bin_to_bcd(4294967295u), 0x94967295u);
}

TEST(Bcd, unpacks_eight_digits) {
  EXPECT_EQ(Sdbl::bcd_to_int(0), 0);
  EXPECT_EQ(Sdbl::bcd_to_int(0x20101115), 20101115);
  EXPECT_EQ(Sdbl::bcd_to_int(0x99999999), 99999999);
}

TEST(Bcd, nibbles_above_9_add_their_value) {
  EXPECT_EQ(Sdbl::bcd_to_int(0xA), 10);
  EXPECT_EQ(Sdbl::bcd_to_int(0x1F), 25);
  EXPECT_EQ(Sdbl::bcd_to_int(0xFFFFFFFF), 15 * 11111111);
}

TEST(Epoch, is_utc_whatever_the_zone) {
  for (const char* zone : {"UTC0", "EET-2EEST", "PST8PDT"}) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100101, 0x000000), 1262304000) << zone;
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100101, 0x010203), 1262304000 + 3723) << zone;
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100701, 0x120000), 1277985600) << zone << ", in summer";
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x19700101, 0x000000), 0) << zone;
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20380119, 0x031407), INT_MAX) << zone;
    EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x19011213, 0x204552), INT_MIN) << zone;
  }
  unsetenv("TZ");
  tzset();
}

TEST(Epoch, days_and_hours_that_do_not_exist_are_carried_over) {
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20091232, 0x000000), 1262304000);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20091231, 0x240000), 1262304000);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20091301, 0x000000), 1262304000);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100101, 0x0000FF), 1262304000 + 165);
}

TEST(Epoch, what_does_not_fit_32_bits_is_minus_1_and_printed) {
  int epoch = 0;
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(0x20380119, 0x031408); }),
            "ERROR: Cannot convert time Y:138, mon 0, mday 19, hour 3, min 14, sec 8 to epoch\n");
  EXPECT_EQ(epoch, -1);
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(0x19011213, 0x204551); }),
            "ERROR: Cannot convert time Y:1, mon 11, mday 13, hour 20, min 45, sec 51 to epoch\n");
  EXPECT_EQ(epoch, -1);
  // An undefined start time is broadcast as all ones.
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(-1, -1); }),
            "ERROR: Cannot convert time Y:14765, mon 164, mday 165, hour 165, min 165, sec 165 to epoch\n");
  EXPECT_EQ(epoch, -1);
  EXPECT_EQ(messages_at(-1, [&] { epoch = Sdbl::ymd_hms_to_tzepoch(-1, -1); }), "");
  verbosity_kelvo = 0;
}

TEST(Epoch, the_second_before_1970_is_taken_for_a_failure) {
  int epoch = 0;
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(0x19691231, 0x235959); }),
            "ERROR: Cannot convert time Y:69, mon 11, mday 31, hour 23, min 59, sec 59 to epoch\n");
  EXPECT_EQ(epoch, -1);
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
