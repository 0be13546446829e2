// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/times.h"

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "base/log.h"

namespace sdbl {

namespace {

constexpr int DIGITS = 8;
constexpr long NSEC_PER_SEC = 1000000000;
constexpr int USEC_PER_SEC = 1000000;
constexpr int MOST_SECONDS = 3000;  // more microseconds than an int holds

}  // namespace

unsigned bin_to_bcd(unsigned value) {
  unsigned bcd = 0;
  for (int digit = 0; digit < DIGITS; ++digit, value /= 10)
    bcd |= value % 10 << (4 * digit);
  return bcd;
}

int bcd_to_int(unsigned bcd) {
  int value = 0;
  for (int digit = DIGITS - 1; digit >= 0; --digit)
    value = value * 10 + static_cast<int>(bcd >> (4 * digit) & 0xF);
  return value;
}

int ymd_hms_to_tzepoch(int ymd_bcd, int hms_bcd) {
  const auto ymd = static_cast<unsigned>(ymd_bcd);
  const auto hms = static_cast<unsigned>(hms_bcd);
  tm date{};
  date.tm_year = bcd_to_int(ymd >> 16) - 1900;
  date.tm_mon = bcd_to_int(ymd >> 8 & 0xFF) - 1;
  date.tm_mday = bcd_to_int(ymd & 0xFF);
  date.tm_hour = bcd_to_int(hms >> 16 & 0xFF);
  date.tm_min = bcd_to_int(hms >> 8 & 0xFF);
  date.tm_sec = bcd_to_int(hms & 0xFF);
  date.tm_yday = -1;
  date.tm_isdst = -1;
  tm normalised = date;
  const int64_t epoch = timegm(&normalised);
  if (epoch == -1 || epoch > std::numeric_limits<int32_t>::max() || epoch < std::numeric_limits<int32_t>::min()) {
    KLOG(VERB_ERROR, "ERROR: Cannot convert time Y:%d, mon %d, mday %d, hour %d, min %d, sec %d to epoch\n",
         date.tm_year, date.tm_mon, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
    return -1;
  }
  return static_cast<int>(epoch);
}

int usec_to_now(const timespec* start) {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  int64_t usec;
  if (now.tv_sec == start->tv_sec) {
    usec = (now.tv_nsec - start->tv_nsec) / 1000;
  } else {
    // Deliberate: the current nanoseconds are not used here, so a reading across a second is up to 1 s too large.
    const int64_t seconds = std::clamp<int64_t>(int64_t{now.tv_sec} - start->tv_sec, -MOST_SECONDS, MOST_SECONDS);
    usec = seconds * USEC_PER_SEC + (NSEC_PER_SEC - start->tv_nsec) / 1000;
  }
  return static_cast<int>(std::clamp<int64_t>(usec, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace sdbl
