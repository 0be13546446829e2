// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/system_clock.h"

#include <sys/time.h>

#include <cmath>

#include "base/log.h"
#include "si/siparse.h"

namespace {

constexpr time_t LAST_SECOND_OF_1999 = 946684799;
constexpr double TOLERANCE_S = 10;

time_t utc_seconds(unsigned mjd, unsigned hms_bcd) {
  const unsigned ymd = Siparse::mjd_to_bcd(mjd);
  tm utc{};
  utc.tm_year = static_cast<int>(Siparse::bcd_to_int(ymd >> 16)) - 1900;
  utc.tm_mon = static_cast<int>(Siparse::bcd_to_int(ymd >> 8 & 0xFF)) - 1;
  utc.tm_mday = static_cast<int>(Siparse::bcd_to_int(ymd & 0xFF));
  utc.tm_hour = static_cast<int>(Siparse::bcd_to_int(hms_bcd >> 16 & 0xFF));
  utc.tm_min = static_cast<int>(Siparse::bcd_to_int(hms_bcd >> 8 & 0xFF));
  utc.tm_sec = static_cast<int>(Siparse::bcd_to_int(hms_bcd & 0xFF));
  utc.tm_yday = -1;
  return timegm(&utc);
}

}  // namespace

System_clock::System_clock() {
  const time_t now = time(nullptr);
  valid_ = now >= LAST_SECOND_OF_1999;
  if (valid_)
    KLOG(VERB_TRACE, "System time valid\n");
  else
    KLOG(VERB_TRACE, "System time invalid\n");
  KLOG(VERB_TRACE, "Epoch time is %d\n", static_cast<int>(now));
}

Broadcast_time System_clock::follow(unsigned mjd, unsigned hms_bcd, time_t now) {
  const time_t broadcast = utc_seconds(mjd, hms_bcd);
  Broadcast_time result;
  result.utc = broadcast;
  result.off_by = int64_t{broadcast} - now;
  if (std::fabs(difftime(broadcast, now)) > TOLERANCE_S) {
    KLOG(VERB_PROGRESS, "Changing system clock\n");
    const timeval tv{broadcast, 0};
    // Without the right to set it the clock stays as it is.
    result.clock = settimeofday(&tv, nullptr) == 0 ? CLOCK_SET : CLOCK_REFUSED;
  }
  valid_ = true;
  return result;
}
