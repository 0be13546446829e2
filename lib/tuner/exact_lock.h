// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tuner/lock_rule.h"
#include "tuner/readings.h"

// Within 150 ms: the frequency is reported as it was asked for, all five bits are there, and a fresh strength of at
// least 40. Not installed. Also looks after a refused call: the frequency reported tells. At verbosity 3 says why not.
// A reading that fails counts with its last good value.
class Exact_lock final : public Lock_rule {
 public:
  // `readings` is not owned.
  explicit Exact_lock(Readings& readings) : readings_(readings) {}

  Lock_wait wait(const Attempt& attempt, bool taken, int64_t begun_ms, const Turn& turn) override;
  bool tuned_to(int freq, int last_key) override;

 private:
  bool locked_on(int freq, unsigned* status);

  Readings& readings_;
};
