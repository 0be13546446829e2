// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <optional>
#include <vector>

// How long a scan still takes, from what its frequencies took so far: those with a multiplex take long, the empty ones
// do not, and how many of each are to come is what has been seen until then.
class Time_left {
 public:
  // A frequency is done, after so many seconds.
  void done(bool full, double seconds);

  // In seconds, with `waiting` frequencies that nobody has begun, and those under way, begun so many seconds ago.
  // Nothing before the first one is done.
  std::optional<double> left(size_t waiting, const std::vector<double>& under_way, size_t adapters) const;

 private:
  struct Kind {
    int count = 0;
    double seconds = 0;
    double mean(double without) const { return count > 0 ? seconds / count : without; }
  };
  Kind full_;
  Kind empty_;
};
