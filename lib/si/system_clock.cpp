// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/system_clock.h"

#include <sys/time.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "base/log.h"
#include "si/siparse.h"

namespace {

constexpr time_t LAST_SECOND_OF_1999 = 946684799;
constexpr int64_t TOLERANCE_S = 10;
constexpr int64_t WORTH_A_WARNING_S = 60;

}  // namespace

// 64 bits wherever it runs: MJD goes beyond what 32 hold. Digits that are none count all the same, so a month may be
// one of a later year.
int64_t broadcast_seconds(unsigned mjd, unsigned hms_bcd) {
  using std::chrono::month, std::chrono::sys_days, std::chrono::year;
  const auto number = [](unsigned bcd) { return static_cast<int>(Siparse::bcd_to_int(bcd)); };
  const unsigned ymd = Siparse::mjd_to_bcd(mjd);
  const int months = number(ymd >> 16) * 12 + number(ymd >> 8 & 0xFF) - 1;
  const sys_days first = year{months / 12} / month{static_cast<unsigned>(months % 12 + 1)} / 1;
  const int64_t days = int64_t{first.time_since_epoch().count()} + number(ymd & 0xFF) - 1;
  return ((days * 24 + number(hms_bcd >> 16 & 0xFF)) * 60 + number(hms_bcd >> 8 & 0xFF)) * 60 + number(hms_bcd & 0xFF);
}

System_clock::System_clock() {
  const time_t now = time(nullptr);
  valid_ = now >= LAST_SECOND_OF_1999;
  if (valid_)
    KLOG(VERB_TRACE, "System time valid\n");
  else
    KLOG(VERB_TRACE, "System time invalid\n");
  KLOG(VERB_TRACE, "Epoch time is %d\n", static_cast<int>(now));
}

int System_clock::set_to(int64_t utc) {
  KLOG(VERB_PROGRESS, "Changing system clock\n");
  const std::optional<time_t> time = time_that_fits<time_t>(utc);
  if (!time)
    return CLOCK_REFUSED;
  const timeval tv{*time, 0};
  // Without the right to set it the clock stays as it is.
  return settimeofday(&tv, nullptr) == 0 ? CLOCK_SET : CLOCK_REFUSED;
}

void System_clock::warn(int64_t off_by) {
  if (std::llabs(off_by) > WORTH_A_WARNING_S && !std::exchange(warned_, true))
    KLOG(VERB_WARNING, "WARNING: The system's clock is %lld s %s the broadcast time and is left alone\n",
         std::llabs(off_by), off_by > 0 ? "behind" : "ahead of");
}

Broadcast_time System_clock::follow(unsigned mjd, unsigned hms_bcd, time_t now) {
  Broadcast_time result;
  result.utc = broadcast_seconds(mjd, hms_bcd);
  result.off_by = result.utc - now;
  const bool right = std::llabs(result.off_by) <= TOLERANCE_S;
  if (!right && sets_) {
    result.clock = set_to(result.utc);
  } else if (!right) {
    result.clock = CLOCK_KEPT;
    warn(result.off_by);
  }
  valid_ = right || sets_;
  return result;
}
