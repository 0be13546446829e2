// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/clock.h"

#include <limits>

#include "softdvb/model/real.h"

namespace softdvb {

int64_t nanos(const timespec& t) {
  constexpr int64_t LIMIT = std::numeric_limits<int64_t>::max() / static_cast<int64_t>(NANOS) - 1;
  // Programs wait "for ever" with the largest time there is; half of the range leaves room to add to it.
  if (t.tv_sec > LIMIT)
    return std::numeric_limits<int64_t>::max() / 2;
  if (t.tv_sec < -LIMIT)
    return std::numeric_limits<int64_t>::min() / 2;
  return static_cast<int64_t>(t.tv_sec) * static_cast<int64_t>(NANOS) + t.tv_nsec;
}

// Times before the epoch count too: a timespec has nanoseconds of 0 and more, so seconds are rounded down.
timespec from_nanos(int64_t ns) {
  const int64_t unit = static_cast<int64_t>(NANOS);
  int64_t seconds = ns / unit;
  int64_t rest = ns % unit;
  if (rest < 0) {
    rest += unit;
    --seconds;
  }
  timespec t{};
  t.tv_sec = static_cast<time_t>(seconds);
  t.tv_nsec = static_cast<long>(rest);
  return t;
}

int64_t machine_now_ns() {
  timespec t{};
  SOFTDVB_REAL(clock_gettime)(CLOCK_MONOTONIC, &t);
  return nanos(t);
}

static int64_t scaled(double ns, double by) {
  const double result = ns * by;
  // A double that does not fit has no defined value as an integer.
  constexpr double LIMIT = 4.0e18;
  if (result > LIMIT)
    return static_cast<int64_t>(LIMIT);
  if (result < -LIMIT)
    return static_cast<int64_t>(-LIMIT);
  return static_cast<int64_t>(result);
}

uint64_t adapter_now_ns(const Shared& s) {
  const int64_t passed = machine_now_ns() - s.start_mono_ns;
  const int64_t at = to_virtual_duration(s, passed);
  // The model counts from the start on and never back, so its times have no sign.
  return at > 0 ? static_cast<uint64_t>(at) : 0;
}

int64_t to_real_duration(const Shared& s, int64_t virtual_ns) {
  // The usual case must not suffer from a double, which has too few digits for the nanoseconds of today.
  if (s.speed == 1.0)
    return virtual_ns;
  const int64_t real = scaled(static_cast<double>(virtual_ns), 1.0 / s.speed);
  // A wait of 0 would mean "disarm" to a timer and make a loop of short waits spin.
  return real == 0 && virtual_ns > 0 ? 1 : real;
}

int64_t to_virtual_duration(const Shared& s, int64_t real_ns) {
  if (s.speed == 1.0)
    return real_ns;
  const int64_t longer = scaled(static_cast<double>(real_ns), s.speed);
  // Something that is left must not look like nothing: to a timer 0 means that it has run out.
  return longer == 0 && real_ns > 0 ? 1 : longer;
}

Clock_kind clock_kind(clockid_t clock) {
  switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM:
    // Nobody sees the difference of some leap seconds in a time that is made up.
    case CLOCK_TAI:
      return Clock_kind::REALTIME;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM:
      return Clock_kind::MONOTONIC;
    default:
      return Clock_kind::OTHER;
  }
}

// CLOCK_MONOTONIC keeps the machine's value at the start, CLOCK_REALTIME begins at `start_real_ns`.
static int64_t machine_start(const Shared& s, Clock_kind kind) {
  return kind == Clock_kind::REALTIME ? s.start_mono_ns + s.real_offset_ns : s.start_mono_ns;
}

static int64_t virtual_start(const Shared& s, Clock_kind kind) {
  return kind == Clock_kind::REALTIME ? s.start_real_ns : s.start_mono_ns;
}

int64_t to_virtual_clock(const Shared& s, Clock_kind kind, int64_t real_ns) {
  if (kind == Clock_kind::OTHER)
    return real_ns;
  return virtual_start(s, kind) + to_virtual_duration(s, real_ns - machine_start(s, kind));
}

int64_t to_real_clock(const Shared& s, Clock_kind kind, int64_t virtual_ns) {
  if (kind == Clock_kind::OTHER)
    return virtual_ns;
  return machine_start(s, kind) + to_real_duration(s, virtual_ns - virtual_start(s, kind));
}

}  // namespace softdvb
