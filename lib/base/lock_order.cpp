// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/lock_order.h"

#ifdef KELVO_CHECK_LOCKS

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace {

struct Held {
  const void* lock;
  const char* name;
  Lock_rank rank;
};

// No thread holds more: four ranks nest, and only a connection's mutex is taken again.
constexpr size_t MOST_HELD = 32;
thread_local Held held[MOST_HELD];
thread_local size_t held_count = 0;

[[noreturn]] void fail(const char* what, const char* name) {
  const char* const last = held_count > 0 ? held[held_count - 1].name : "nothing";
  (void)fprintf(stderr, "libkelvo++: order of locks: %s (%s) while '%s' is held\n", name, what, last);
  abort();
}

bool is_held(const void* lock) {
  for (size_t i = 0; i < held_count; ++i)
    if (held[i].lock == lock)
      return true;
  return false;
}

}  // namespace

void lock_order::take(Lock_rank rank, const void* lock, const char* name) {
  if (is_held(lock)) {
    if (rank != Lock_rank::CONNECTION)
      fail("taken a second time", name);
  } else if (rank == Lock_rank::ALONE && held_count > 0) {
    fail("is taken alone", name);
  } else {
    for (size_t i = 0; i < held_count; ++i)
      if (held[i].rank >= rank)
        fail("comes before that", name);
  }
  if (held_count == MOST_HELD)
    fail("one too many", name);
  held[held_count++] = {lock, name, rank};
}

void lock_order::give(const void* lock) {
  // The last taking of it; locks are not always given back in the order in which they were taken.
  for (size_t i = held_count; i-- > 0;)
    if (held[i].lock == lock) {
      for (size_t k = i + 1; k < held_count; ++k)
        held[k - 1] = held[k];
      --held_count;
      return;
    }
  fail("given back without being held", "a lock");
}

void lock_order::hold_none(const char* what) {
  if (held_count > 0)
    fail("calls the host", what);
}

#endif
