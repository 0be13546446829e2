// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <cstdint>

// POSIX timers that never signal and are only looked at. All run on CLOCK_REALTIME.
//
// The functions work on a bare handle, because records of the library's interface hold one; Polled_timer owns one.
// None prints anything: the caller knows what a failure means.
namespace polled_timer {

// A handle that stands for no timer. Arming, reading and deleting it fail without harm. (0 may be a real timer.)
timer_t none();

// A new timer, not armed; none(), with errno, when there can be no more.
timer_t create();

// Expires after `first_s` seconds and then every `interval_s`; an interval of 0 is none, 0 seconds disarm. 0, or -1
// with errno.
int arm(timer_t timer, int first_s, int interval_s);

// Time to the next expiry; 0 when the timer was never armed or has expired for good. (Of a timer that was disarmed,
// many kernels show the time as if it still ran.) 0, or -1 with errno and `*left` zero.
int time_left(timer_t timer, timespec* left);

// Does nothing for none().
void remove(timer_t timer);

}  // namespace polled_timer

// A timer of a fixed period that goes on ticking every second after it. Whole seconds, rounded down as the system does:
// a period of N seconds counts as over in its last second. Failures are printed. One thread at a time.
class Polled_timer {
 public:
  explicit Polled_timer(int period_s);
  ~Polled_timer();
  Polled_timer(const Polled_timer&) = delete;
  Polled_timer& operator=(const Polled_timer&) = delete;

  void arm();
  // Seconds to the expiry, 0 from then on and before the first arm().
  int remaining() const;
  int elapsed() const { return period_s_ - remaining(); }
  bool expired() const { return remaining() == 0; }

 private:
  int period_s_;
  timer_t timer_;
};
