// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <algorithm>
#include <vector>

#include "base/activity.h"
#include "filter/dvb_filter_desc.h"

// Tells a listener which filters start and end; not installed. An end is told only of a filter whose start was told to
// the same listener, once each: a filter that is stopped and programmed again in between has not ended. Not locked.
class Filter_activity {
 public:
  // Keeps a copy of `listener`; null for nobody. What was told to the one before is forgotten.
  void set(const Activity_listener* listener) {
    listener_ = listener != nullptr ? *listener : Activity_listener{};
    started_.clear();
  }

  void tell(int kind, int value) const { listener_.tell(kind, value); }

  void started(const dvb_filter_desc* f) {
    if (listener_.activity == nullptr || std::find(started_.begin(), started_.end(), f) != started_.end())
      return;
    started_.push_back(f);
    tell(ACTIVITY_FILTER_STARTED, f->pid);
  }

  // REQUIRES: `f` still has its PID.
  void ended(const dvb_filter_desc* f) {
    if (std::erase(started_, f) > 0)
      tell(ACTIVITY_FILTER_ENDED, f->pid);
  }

 private:
  Activity_listener listener_;
  std::vector<const dvb_filter_desc*> started_;  // empty without a listener
};
