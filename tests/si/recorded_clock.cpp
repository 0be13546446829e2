#include "si/recorded_clock.h"

#include <dlfcn.h>
#include <sys/time.h>

#include <utility>

namespace {

std::vector<time_t> settings;
time_t given_time = 0;
bool timers_expired = false;

}  // namespace

extern "C" int settimeofday(const timeval* tv, const struct timezone*) noexcept {
  settings.push_back(tv->tv_sec);
  return 0;
}

extern "C" time_t time(time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = given_time != 0 ? given_time : now.tv_sec;
  if (out != nullptr)
    *out = seconds;
  return seconds;
}

// Timers that have run out come with the time that this takes.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, now);
  if (timers_expired && clock == CLOCK_MONOTONIC)
    now->tv_sec += 1000;
  return result;
}

extern "C" int timer_gettime(timer_t timer, itimerspec* left) noexcept {
  static const auto real = reinterpret_cast<int (*)(timer_t, itimerspec*)>(dlsym(RTLD_NEXT, "timer_gettime"));
  const int result = real(timer, left);
  if (timers_expired)
    left->it_value = {};
  return result;
}

namespace recorded_clock {

std::vector<time_t> take_settings() {
  return std::exchange(settings, {});
}

void set_time(time_t seconds) {
  given_time = seconds;
}

void set_timers_expired(bool expired) {
  timers_expired = expired;
}

}  // namespace recorded_clock
