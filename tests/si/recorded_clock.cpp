#include "si/recorded_clock.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace {

std::vector<time_t> settings;
time_t given_time = 0;
bool settings_refused = false;
bool timers_expired = false;
time_t ahead = 0;
bool timers_refused = false;
bool announced = false;
std::vector<Seconds> armed;

void announce(std::string_view call) {
  if (announced)
    (void)!write(STDERR_FILENO, call.data(), call.size());
}

}  // namespace

extern "C" int settimeofday(const timeval* tv, const struct timezone*) noexcept {
  announce("<settimeofday>");
  settings.push_back(tv->tv_sec);
  if (!settings_refused)
    return 0;
  errno = EPERM;
  return -1;
}

extern "C" time_t time(time_t* out) noexcept {
  announce("<time>");
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
  if (clock == CLOCK_MONOTONIC)
    now->tv_sec += ahead;
  return result;
}

extern "C" int timer_gettime(timer_t timer, itimerspec* left) noexcept {
  static const auto real = reinterpret_cast<int (*)(timer_t, itimerspec*)>(dlsym(RTLD_NEXT, "timer_gettime"));
  const int result = real(timer, left);
  left->it_value.tv_sec -= ahead;
  if (timers_expired || left->it_value.tv_sec < 0)
    left->it_value = {};
  return result;
}

extern "C" int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
  static const auto real = reinterpret_cast<int (*)(clockid_t, sigevent*, timer_t*)>(dlsym(RTLD_NEXT, "timer_create"));
  if (!timers_refused)
    return real(clock, event, timer);
  errno = EAGAIN;
  return -1;
}

extern "C" int timer_settime(timer_t timer, int flags, const itimerspec* setting, itimerspec* before) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(timer_t, int, const itimerspec*, itimerspec*)>(dlsym(RTLD_NEXT, "timer_settime"));
  armed.emplace_back(setting->it_value.tv_sec, setting->it_interval.tv_sec);
  return real(timer, flags, setting, before);
}

namespace recorded_clock {

std::vector<time_t> take_settings() {
  return std::exchange(settings, {});
}

void set_time(time_t seconds) {
  given_time = seconds;
}

void set_settings_refused(bool refused) {
  settings_refused = refused;
}

void set_announced(bool on) {
  announced = on;
}

void set_ahead(time_t seconds) {
  ahead = seconds;
}

void set_timers_refused(bool refused) {
  timers_refused = refused;
}

std::vector<Seconds> take_armed() {
  return std::exchange(armed, {});
}

void set_timers_expired(bool expired) {
  timers_expired = expired;
}

}  // namespace recorded_clock
