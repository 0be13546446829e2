// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/signal_monitor.h"

#include <time.h>

#include <chrono>
#include <new>
#include <thread>

#include "base/lock_order.h"
#include "base/log.h"
#include "db/sdbl.h"
#include "tuner/tuner.h"

namespace {

constexpr int QUALITY_LOST_BELOW = 10;
constexpr int QUALITY_REGAINED_AT = 11;
constexpr int POLL_TIMEOUT_MS = 200;
constexpr std::chrono::milliseconds OUT_OF_RANGE_SLEEP{10};

}  // namespace

void Signal_monitor::run(const std::function<void()>& each_pass) {
  State state;
  while (running_) {
    try {
      each_pass();
    } catch (const std::bad_alloc&) {
      KLOG(VERB_ERROR, "ERROR: Out of memory, what a tuning found is stored later\n");
    }
    if (frontend_.receives(freq_)) {
      pass(state);
    } else {
      readings_.clear();
      std::this_thread::sleep_for(OUT_OF_RANGE_SLEEP);
    }
  }
}

void Signal_monitor::pass(State& state) {
  timespec start{};
  (void)clock_gettime(CLOCK_REALTIME, &start);  // cannot fail for this clock
  wait_for_device();

  const Readings::Pass read = readings_.refresh();
  if (reset_.exchange(false))
    state = State{.working = state.working};

  const int elapsed_ms = Sdbl::usec_to_now(&start) / 1000;
  (read.signal ? state.locked_ms : state.unlocked_ms) += elapsed_ms;
  state.quality_sum += read.quality;
  watch_quality(state, read);
  // Deliberate: a ratio of the two times, not a share of their sum.
  if (state.unlocked_ms > 0)
    state.working = static_cast<float>(state.locked_ms) * 100 / static_cast<float>(state.unlocked_ms);
  KLOG(VERB_PROGRESS, "Locked %d, not_locked %d, working %4.2f %%, quality_sum %d\n", static_cast<int>(state.locked_ms),
       static_cast<int>(state.unlocked_ms), static_cast<double>(state.working), static_cast<int>(state.quality_sum));
}

void Signal_monitor::wait_for_device() {
  if (device_.wait_for_event(end_, POLL_TIMEOUT_MS) == Device::Waited::GONE && running_)
    std::this_thread::sleep_for(std::chrono::milliseconds(POLL_TIMEOUT_MS));  // so that a lost device costs no time
}

void Signal_monitor::watch_quality(State& state, const Readings::Pass& read) {
  if (!state.quality_ok && read.locked && read.quality >= QUALITY_REGAINED_AT) {
    KLOG(VERB_WARNING, "WARNING: FE quality OK\n");
    send_event(STB_EVENT_QUALITY_OK);
    state.quality_ok = true;
  } else if (state.quality_ok && !(read.locked && read.quality >= QUALITY_LOST_BELOW)) {
    KLOG(VERB_WARNING, "WARNING: FE quality lost\n");
    send_event(STB_EVENT_QUALITY_LOST);
    state.quality_ok = false;
  }
}

void Signal_monitor::send_event(unsigned event) {
  const Event_callback callback = callback_;
  lock_order::hold_none("event callback");
  if (callback != nullptr && events_enabled_)
    callback(event, nullptr);
}

void Signal_monitor::reset() {
  KLOG(VERB_WARNING, "WARNING: Resetting signal monitor\n");
  reset_ = true;
  events_enabled_ = true;
}

void Signal_monitor::stop() {
  running_ = false;
  end_.wake();  // without it the thread ends within POLL_TIMEOUT_MS all the same
}
