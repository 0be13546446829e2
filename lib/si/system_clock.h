// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

#include "si/broadcast_time.h"

// Modified Julian Date and time of day in BCD, as time tables have them, in seconds since 1970.
int64_t broadcast_seconds(unsigned mjd, unsigned hms_bcd);

// The time as `Time` holds it; nothing where it cannot, as time_t of 32 bits after January 2038.
template <typename Time>
constexpr std::optional<Time> time_that_fits(int64_t utc) {
  return std::in_range<Time>(utc) ? std::optional<Time>(static_cast<Time>(utc)) : std::nullopt;
}

// The system's clock, as far as broadcast time tables set it, or are compared with it. Worker-only, but for valid().
class System_clock {
 public:
  // Looks at the clock, which counts as right when it is past 1999, and traces what it found.
  System_clock();

  // False: the clock is compared only. A difference of more than a minute is warned of, once. Before-start.
  void set_sets(bool sets) { sets_ = sets; }

  // True once the clock is known to be right; never false again. Where it is compared only, false since a table that it
  // was more than 10 s from, until one that it was not. Any-thread.
  bool valid() const { return valid_; }

  // Sets the clock to a broadcast date and time, UTC, when it is more than 10 s off; it is valid then in any case.
  // `now` is what it showed when the section came. Everything but frequency and zone of the result is filled. A time
  // that time_t cannot hold is told, but not set.
  Broadcast_time follow(unsigned mjd, unsigned hms_bcd, time_t now);

 private:
  int set_to(int64_t utc);
  void warn(int64_t off_by);

  bool sets_ = true;
  bool warned_ = false;
  std::atomic<bool> valid_;
};
