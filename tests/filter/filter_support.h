#pragma once

#include <time.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include <climits>

#include "filter/section_filter.h"
#include "support/messages.h"

using support::messages_at;

// What a slot shows in a table of expected lists: state, PID, table id.
using Slot = std::tuple<int, int, int>;

inline std::vector<Slot> slots(Section_filter& filter) {
  std::vector<Slot> all;
  for (const dvb_filter_desc* f : *filter.flist())
    all.emplace_back(f->state, f->pid, f->filter[0]);
  return all;
}

inline dvb_filter_desc* slot(Section_filter& filter, size_t index) {
  auto at = filter.flist()->begin();
  std::advance(at, static_cast<long>(index));
  return *at;
}

// A timer that does not exist: every call on it fails.
inline timer_t no_such_timer() {
  return reinterpret_cast<timer_t>(intptr_t{INT_MAX});
}

// The kernel's list of this process's timers; empty where it keeps none.
inline std::string listed_timers() {
  std::ifstream timers("/proc/self/timers");
  return {std::istreambuf_iterator<char>(timers), {}};
}
