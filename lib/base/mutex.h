// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <mutex>

#include "base/lock_order.h"

// A std::mutex with its place in the order of locks. Not installed.
class Mutex {
 public:
  // `name` is static, for messages.
  constexpr Mutex([[maybe_unused]] Lock_rank rank, [[maybe_unused]] const char* name)
#ifdef KELVO_CHECK_LOCKS
      : rank_(rank),
        name_(name)
#endif
  {
  }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() {
#ifdef KELVO_CHECK_LOCKS
    lock_order::take(rank_, this, name_);
#endif
    mutex_.lock();
  }
  void unlock() {
    mutex_.unlock();
    lock_order::give(this);
  }

 private:
  std::mutex mutex_;
#ifdef KELVO_CHECK_LOCKS
  const Lock_rank rank_;
  const char* const name_;
#endif
};
