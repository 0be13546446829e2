#include "si/recorded_clock.h"

#include <sys/time.h>

#include <utility>

namespace {

std::vector<time_t> settings;
time_t given_time = 0;

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

namespace recorded_clock {

std::vector<time_t> take_settings() {
  return std::exchange(settings, {});
}

void set_time(time_t seconds) {
  given_time = seconds;
}

}  // namespace recorded_clock
