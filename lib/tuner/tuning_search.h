// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tuner/device.h"
#include "tuner/frontend.h"
#include "tuner/lock_rule.h"
#include "tuner/pat_probe.h"
#include "tuner/search_plan.h"

class Turn;

// Carries a Search_plan out. Not installed. Any-thread: of two searches, the one whose turn is over ends, and tunes
// nothing any more.
class Tuning_search {
 public:
  // None is owned.
  Tuning_search(Device& device, Frontend& frontend, Lock_rule& lock, Pat_probe probe)
      : device_(device), frontend_(frontend), lock_(lock), probe_(std::move(probe)) {}

  // Blocks until the frequency of `request` is found, or is known not to be there.
  Tuning_result run(const Tuning_request& request, const Search_plan& plan, const Turn& turn);

 private:
  struct Step {
    int outcome = TUNING_NONE;
    int error = 0;
    Lock_wait wait;
  };
  Step try_one(const Attempt& attempt, const Search_plan& plan, const Turn& turn, Tuning_result* result);
  bool try_pipes(const Attempt& attempt, const Search_plan& plan, const Turn& turn, Tuning_result* result);
  bool note(const Attempt& attempt, const Step& step, Tuning_result* result) const;
  void read_back(Tuning_result* result);

  Device& device_;
  Frontend& frontend_;
  Lock_rule& lock_;
  const Pat_probe probe_;
};
