#include <time.h>

#include <climits>
#include <gtest/gtest.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "support/support.h"

using support::stderr_of;

namespace {

timespec now() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return t;
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
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100101, 0x000000), 1262304000);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20100101, 0x010203), 1262304000 + 3723);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x19700101, 0x000000), 0);
  EXPECT_EQ(Sdbl::ymd_hms_to_tzepoch(0x20380119, 0x031407), INT_MAX);
}

TEST(Epoch, what_does_not_fit_32_bits_is_minus_1_and_printed) {
  int epoch = 0;
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(0x20380119, 0x031408); }),
            "ERROR: Cannot convert time Y:138, mon 0, mday 19, hour 3, min 14, sec 8 to epoch\n");
  EXPECT_EQ(epoch, -1);
  // An undefined start time is broadcast as all ones.
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(-1, -1); }),
            "ERROR: Cannot convert time Y:14765, mon 164, mday 165, hour 165, min 165, sec 165 to epoch\n");
  EXPECT_EQ(epoch, -1);
  verbosity_kelvo = -1;
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(-1, -1); }), "");
  verbosity_kelvo = 0;
}

TEST(Epoch, the_second_before_1970_is_taken_for_a_failure) {
  int epoch = 0;
  EXPECT_EQ(stderr_of([&] { epoch = Sdbl::ymd_hms_to_tzepoch(0x19691231, 0x235959); }),
            "ERROR: Cannot convert time Y:69, mon 11, mday 31, hour 23, min 59, sec 59 to epoch\n");
  EXPECT_EQ(epoch, -1);
}

TEST(Usec_to_now, is_exact_within_a_second) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    timespec start = now();
    if (start.tv_nsec > 900000000 || start.tv_nsec < 100000)
      continue;
    start.tv_nsec -= 100000;
    const int usec = Sdbl::usec_to_now(&start);
    EXPECT_GE(usec, 100);
    EXPECT_LT(usec, 100000);
    return;
  }
}

// A reading 1.3 s after the start says what is left of the first second plus one whole second for each boundary.
TEST(Usec_to_now, quirk_nanoseconds_of_the_reading_are_not_used_across_a_second) {
  timespec start = now();
  start.tv_sec -= 1;
  start.tv_nsec = 900000000;
  int usec = Sdbl::usec_to_now(&start);
  if (now().tv_sec != start.tv_sec + 1)
    usec -= 1000000;  // the clock went over a second between the two readings
  EXPECT_EQ(usec, 1100000);
}

TEST(Usec_to_now, saturates) {
  timespec start = now();
  start.tv_sec -= 100000;
  EXPECT_EQ(Sdbl::usec_to_now(&start), INT_MAX);
  start.tv_sec += 200000;
  EXPECT_EQ(Sdbl::usec_to_now(&start), INT_MIN);
  start.tv_sec = 0;
  EXPECT_EQ(Sdbl::usec_to_now(&start), INT_MAX);
}
