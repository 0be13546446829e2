// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include "tools/cli/failure.h"

// SIGINT, SIGTERM and SIGHUP as a descriptor to wait for. Threads started later do not get them either.
class Interrupt {
 public:
  Interrupt() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
      throw Failure("cannot wait for signals: too many open files?");
    }
  }
  ~Interrupt() { (void)close(fd_); }
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  int fd() const { return fd_; }
  // Whether one has come, without waiting.
  bool came() const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, 0) > 0;
  }

 private:
  int fd_;
};
