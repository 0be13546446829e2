// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <cstdint>

// Milliseconds of CLOCK_MONOTONIC, which no time table sets. Not installed.
inline int64_t monotonic_ms() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}
