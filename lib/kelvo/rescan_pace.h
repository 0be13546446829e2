// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

// How often tables that change may begin a scan: at once, but 10 s after the one before at the earliest; twice as long
// after each that has changed nothing, up to 300 s, because a table that alternates tells nothing new. One thread.
class Rescan_pace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds SHORTEST{10};
  static constexpr std::chrono::seconds LONGEST{300};

  bool may_begin(Clock::time_point now) const { return !last_ || now - *last_ >= gap_; }
  void begun(Clock::time_point now) { last_ = now; }
  // The scan has ended.
  void ended(bool changed_anything) { gap_ = changed_anything ? SHORTEST : std::min(2 * gap_, LONGEST); }

 private:
  std::optional<Clock::time_point> last_;
  std::chrono::seconds gap_ = SHORTEST;
};
