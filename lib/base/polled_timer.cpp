// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/polled_timer.h"

#include <signal.h>

#include <climits>

#include "base/log.h"

namespace polled_timer {

timer_t none() {
  // No timer of the kernel has this number.
  return reinterpret_cast<timer_t>(static_cast<intptr_t>(INT_MAX));  // NOLINT(performance-no-int-to-ptr)
}

timer_t create() {
  sigevent silent{};
  silent.sigev_notify = SIGEV_NONE;
  timer_t timer;
  return timer_create(CLOCK_REALTIME, &silent, &timer) == 0 ? timer : none();
}

int arm(timer_t timer, int first_s, int interval_s) {
  itimerspec setting{};
  setting.it_value.tv_sec = first_s;
  setting.it_interval.tv_sec = interval_s;
  return timer_settime(timer, 0, &setting, nullptr);
}

int time_left(timer_t timer, timespec* left) {
  itimerspec setting{};
  const int result = timer_gettime(timer, &setting);
  *left = setting.it_value;
  return result;
}

void remove(timer_t timer) {
  if (timer != none())
    (void)timer_delete(timer);  // it exists, so this cannot fail
}

}  // namespace polled_timer

Polled_timer::Polled_timer(int period_s) : period_s_(period_s), timer_(polled_timer::create()) {
  if (timer_ == polled_timer::none())
    kelvo_log::print_errno("timer_create");
}

Polled_timer::~Polled_timer() {
  polled_timer::remove(timer_);
}

void Polled_timer::arm() {
  if (timer_ != polled_timer::none() && polled_timer::arm(timer_, period_s_, 1) != 0)
    kelvo_log::print_errno("timer_settime");
}

int Polled_timer::remaining() const {
  timespec left{};
  if (timer_ != polled_timer::none() && polled_timer::time_left(timer_, &left) != 0)
    kelvo_log::print_errno("timer_gettime");
  return static_cast<int>(left.tv_sec);
}
