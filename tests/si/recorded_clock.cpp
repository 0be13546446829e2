// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/recorded_clock.h"

#include <dlfcn.h>
#include <sys/time.h>

Recorded_clock recorded_clock;

namespace {

void announce(std::string_view call) {
  if (recorded_clock.announced)
    (void)!write(STDERR_FILENO, call.data(), call.size());
}

int refuse(int reason) {
  errno = reason;
  return -1;
}

// The C library's own function of this name.
template <typename Function>
Function* real(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int settimeofday(const timeval* tv, const struct timezone*) noexcept {
  announce("<settimeofday>");
  recorded_clock.settings.push_back(tv->tv_sec);
  return recorded_clock.settings_refused ? refuse(EPERM) : 0;
}

extern "C" time_t time(time_t* out) noexcept {
  announce("<time>");
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = recorded_clock.time != 0 ? recorded_clock.time : now.tv_sec;
  if (out != nullptr)
    *out = seconds;
  return seconds;
}

// Timers that have run out come with the time that this takes.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real_one = real("clock_gettime", &clock_gettime);
  const int result = real_one(clock, now);
  if (clock == CLOCK_MONOTONIC)
    now->tv_sec += recorded_clock.ahead + (recorded_clock.timers_expired ? 1000 : 0);
  return result;
}

extern "C" int timer_gettime(timer_t timer, itimerspec* left) noexcept {
  static auto* const real_one = real("timer_gettime", &timer_gettime);
  const int result = real_one(timer, left);
  left->it_value.tv_sec -= recorded_clock.ahead;
  if (recorded_clock.timers_expired || left->it_value.tv_sec < 0)
    left->it_value = {};
  return result;
}

extern "C" int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
  static auto* const real_one = real("timer_create", &timer_create);
  return recorded_clock.timers_refused ? refuse(EAGAIN) : real_one(clock, event, timer);
}

extern "C" int timer_settime(timer_t timer, int flags, const itimerspec* setting, itimerspec* before) noexcept {
  static auto* const real_one = real("timer_settime", &timer_settime);
  recorded_clock.armed.emplace_back(setting->it_value.tv_sec, setting->it_interval.tv_sec);
  return real_one(timer, flags, setting, before);
}
