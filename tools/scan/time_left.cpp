// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/time_left.h"

#include <algorithm>
#include <numeric>

namespace {

// Of a kind that has not been seen yet.
constexpr double FULL_SECONDS = 6;
constexpr double EMPTY_SECONDS = 3;

}  // namespace

void Time_left::done(bool full, double seconds) {
  Kind& kind = full ? full_ : empty_;
  ++kind.count;
  kind.seconds += seconds;
}

std::optional<double> Time_left::left(size_t waiting, const std::vector<double>& under_way, size_t adapters) const {
  const int count = full_.count + empty_.count;
  if (count == 0) {
    return std::nullopt;
  }
  const double full = full_.mean(FULL_SECONDS);
  const double empty = empty_.mean(std::min(EMPTY_SECONDS, full));
  // As if one half of a multiplex had been found on two frequencies before, so that the first ones do not decide alone.
  const double share = (full_.count + 0.5) / (count + 2);
  const double one = share * full + (1 - share) * empty;
  double work = static_cast<double>(waiting) * one;
  double longest = 0;
  for (const double gone : under_way) {
    // What has taken longer than an empty frequency does will be a full one.
    const double rest = std::max(0.0, (gone > 1.2 * empty ? full : one) - gone);
    work += rest;
    longest = std::max(longest, rest);
  }
  return std::max(longest, work / static_cast<double>(std::max<size_t>(1, adapters)));
}
