// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/test.h"

using Seconds = std::pair<time_t, time_t>;  // to the first expiry of a timer, and between them

// This program's settimeofday only remembers what it was asked for, and its time() and POSIX timers can be given: the
// machine's clock is never touched. Linking recorded_clock.cpp is enough. `recorded_clock = {}` takes all back.
struct Recorded_clock {
  time_t time = 0;                // what time() answers; 0 for the machine's own
  bool settings_refused = false;  // with EPERM; the attempt is remembered all the same
  bool announced = false;         // time() and settimeofday write "<time>" and "<settimeofday>" to standard error
  bool timers_expired = false;    // every timer reads as run out
  time_t ahead = 0;               // how far timers and CLOCK_MONOTONIC run ahead
  bool timers_refused = false;    // new ones, with EAGAIN
  std::vector<time_t> settings;   // the seconds of each settimeofday
  std::vector<Seconds> armed;     // how timers have been armed

  // The same since the last call.
  std::vector<time_t> take_settings() { return std::exchange(settings, {}); }
  std::vector<Seconds> take_armed() { return std::exchange(armed, {}); }
};

extern Recorded_clock recorded_clock;
