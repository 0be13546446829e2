// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Preloaded in front of the software adapter: a program that sets the clock sees it move, and nobody else does.
#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace {

std::atomic<time_t> moved_by{0};

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* t) noexcept {
  static const auto real = next<int(clockid_t, timespec*)>("clock_gettime");
  const int result = real(clock, t);
  if (result == 0 && clock == CLOCK_REALTIME)
    t->tv_sec += moved_by;
  return result;
}

extern "C" time_t time(time_t* to) noexcept {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  if (to != nullptr)
    *to = now.tv_sec;
  return now.tv_sec;
}

extern "C" int settimeofday(const timeval* tv, const struct timezone* zone) noexcept {
  static const auto real = next<int(const timeval*, const struct timezone*)>("settimeofday");
  const int result = real(tv, zone);
  if (result == 0)
    moved_by += tv->tv_sec - time(nullptr);
  return result;
}
