// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

// A handle that one thread waits on with poll or select, and that other threads make readable to end the wait; not
// installed. When the system has no handle left, waking does nothing: who waits then comes back at the time-out.
class Wake_up {
 public:
  Wake_up() : handle_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~Wake_up() {
    if (handle_ >= 0)
      (void)close(handle_);  // nothing that was written to it is of use any more
  }
  Wake_up(const Wake_up&) = delete;
  Wake_up& operator=(const Wake_up&) = delete;

  // -1 when there is none.
  int handle() const { return handle_; }

  // Makes the handle readable until take(). Any-thread, also in a signal handler. Keeps nothing of how often.
  void wake() const {
    const uint64_t one = 1;
    if (handle_ >= 0)
      (void)!write(handle_, &one, sizeof one);  // a full counter is one that is readable already
  }

  // Makes the handle wait for the next wake() again.
  void take() const {
    uint64_t wakes = 0;
    if (handle_ >= 0)
      (void)!read(handle_, &wakes, sizeof wakes);  // nothing to read is what is wanted
  }

 private:
  const int handle_;
};
