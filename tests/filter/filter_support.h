// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/ids.h"
#include "filter/fake_demux.h"
#include "filter/section_filter.h"
#include "support/messages.h"
#include "support/text.h"

using support::messages_at;

constexpr int FREQ = 506000000;

// "running 100:2, free -1:2": state, PID and table id of each slot.
inline std::string slots(Section_filter& filter) {
  const char* const states[] = {"free", "wanted", "running", "stopped"};
  static_assert(FILTER_FREE == 0 && FILTER_WANTED == 1 && FILTER_RUNNING == 2 && FILTER_STOPPED == 3);
  std::string all;
  for (const dvb_filter_desc* f : *filter.flist()) {
    char numbers[16];
    std::snprintf(numbers, sizeof numbers, f->pid < 0 ? " %d:%x" : " %x:%x", f->pid, f->filter[0]);
    all.append(all.empty() ? "" : ", ").append(states[f->state]) += numbers;
  }
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

// A filter list over a device.
class Filter_test : public testing::Test {
 protected:
  explicit Filter_test(const char* device) : filter(device) {}

  void want(int pid, int tid = 2, int freq = FREQ) { filter.addfilter(pid, tid, freq); }
  void want_each(int count, int first = 0x100) {
    for (int i = 0; i < count; ++i)
      want(first + i);
  }
  dvb_filter_desc* at(size_t index) { return slot(filter, index); }
  int state(size_t index) { return at(index)->state; }
  std::string list() { return slots(filter); }

  // What these print at a level.
  std::string recalculate(int level) {
    return messages_at(level, [this] { filter.recalculate_filters(); });
  }
  std::string remove(int level, int pid, int tid = 2) {
    return messages_at(level, [=, this] { filter.removefilter(pid, tid); });
  }

  Section_filter filter;
};

// One over a demultiplexer of which everything is seen.
struct Demux_holder {
  Fake_demux demux;
};
class Demux_test : protected Demux_holder, public Filter_test {
 protected:
  Demux_test() : Filter_test(demux.path()) {}

  void run(int pid = 0x100, int tid = 2) {
    want(pid, tid);
    filter.recalculate_filters();
  }
  void run_each(int count) {
    want_each(count);
    filter.recalculate_filters();
  }
  int fd(size_t index) { return at(index)->fd; }
  std::string fd_text(size_t index) { return std::to_string(fd(index)); }

  // The ioctls since the last call, with the slot of each: "buffer 0, set 0, start 0, stop 1"; the size of the list for
  // none.
  std::string calls() {
    std::string all;
    for (const Fake_demux::Call& call : demux.take_calls()) {
      size_t index = 0;
      while (index < filter.flist()->size() && fd(index) != call.fd)
        ++index;
      all += all.empty() ? "" : ", ";
      all += call.request == DMX_SET_FILTER        ? "set "
             : call.request == DMX_START           ? "start "
             : call.request == DMX_SET_BUFFER_SIZE ? "buffer "
                                                   : "stop ";
      all += std::to_string(index);
    }
    return all;
  }
};
