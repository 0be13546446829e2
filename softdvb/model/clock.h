// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <cstdint>

#include "softdvb/model/shared.h"

// Virtual time. The command's clocks run `speed` times as fast as the machine's; CPU-time clocks are left alone.
namespace softdvb {

// The machine's monotonic clock, untouched.
int64_t machine_now_ns();

// Virtual time since the command started: the time base of streams, frontends and filters.
uint64_t adapter_now_ns(const Shared& s);

// Real nanoseconds for a virtual duration and the other way round; saturating, never less than 1 for more than 0.
int64_t to_real_duration(const Shared& s, int64_t virtual_ns);
int64_t to_virtual_duration(const Shared& s, int64_t real_ns);

enum class Clock_kind { REALTIME, MONOTONIC, OTHER };
Clock_kind clock_kind(clockid_t clock);

// A reading or an absolute deadline of one of the two kinds.
int64_t to_virtual_clock(const Shared& s, Clock_kind kind, int64_t real_ns);
int64_t to_real_clock(const Shared& s, Clock_kind kind, int64_t virtual_ns);

int64_t nanos(const timespec& t);
timespec from_nanos(int64_t ns);

// True when times must be converted in this process.
inline bool time_is_virtual() {
  const Shared* s = shared();
  return s != nullptr && s->clock_is_virtual != 0;
}

}  // namespace softdvb
