// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "base/wake_up.h"
#include "tuner/device.h"
#include "tuner/frontend.h"
#include "tuner/readings.h"

// What a tuner's monitor thread does: refreshes strength and BER quality, counts the time with and without lock, and
// tells of quality lost and regained. Not installed. run() is the thread's; everything else is any-thread.
class Signal_monitor {
 public:
  using Event_callback = void (*)(unsigned event, void* data);

  // None is owned.
  Signal_monitor(Device& device, const Frontend& frontend, Readings& readings)
      : device_(device), frontend_(frontend), readings_(readings) {}

  // Works until stop(), and calls `each_pass` as it goes. REQUIRES: called once.
  void run(const std::function<void()>& each_pass);

  // Ends run() within 200 ms at most, and the event callback that it may be in.
  void stop();

  // The frequency (Hz) that was asked for last: while it is none that the frontend receives, the readings are 0 and
  // nothing is counted or told.
  void watch(unsigned freq) { freq_ = freq; }

  // Null for nobody.
  void set_callback(Event_callback callback) { callback_ = callback; }
  // No events from now on, but for one that is being sent. Off at first.
  void disable_events() { events_enabled_ = false; }
  // From the next pass on the quality counts as good and the statistics begin anew; events are sent.
  void reset();

 private:
  // What one pass hands to the next. Times in milliseconds, wide enough for years of reception.
  struct State {
    bool quality_ok = true;
    int64_t locked_ms = 0;
    int64_t unlocked_ms = 0;
    int64_t quality_sum = 0;
    float working = 0.0F;
  };
  void pass(State& state);
  void wait_for_device();
  void watch_quality(State& state, const Readings::Pass& read);
  void send_event(unsigned event);

  Device& device_;
  const Frontend& frontend_;
  Readings& readings_;
  Wake_up end_;  // wakes when the thread is to end
  std::atomic<bool> running_{true};
  std::atomic<bool> reset_{true};
  std::atomic<bool> events_enabled_{false};
  std::atomic<Event_callback> callback_{nullptr};
  std::atomic<unsigned> freq_{0};
};
