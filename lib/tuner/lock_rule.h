// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "tuner/frontend.h"

class Turn;

// What is seen of an attempt until it is locked, or given up.
struct Lock_wait {
  bool locked = false;
  bool cancelled = false;
  unsigned status = 0;  // every bit that was seen
  int ms = 0;           // from the call that tuned
};

// What counts as locked. Not installed. All operations are any-thread.
class Lock_rule {
 public:
  virtual ~Lock_rule() = default;

  // Waits for the lock of an attempt that the device was given at `begun_ms` (of monotonic_ms()), and that it took or
  // refused.
  virtual Lock_wait wait(const Attempt& attempt, bool taken, int64_t begun_ms, const Turn& turn) = 0;

  // Whether the frontend is tuned to `freq` (Hz) and locked by this rule, now. `last_key` is the frequency that the
  // multiplex tuned last is known by, 0 for none that is locked.
  virtual bool tuned_to(int freq, int last_key) = 0;
};
