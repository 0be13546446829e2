// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <signal.h>

// For a command that a thread of the library starts, which inherits the thread's signal mask: as long as it lives, that
// mask is the one of the host's thread that started the library's, so that the command can be interrupted and ended
// like any other of the host's. A handler may run on this thread meanwhile. On the host's threads it does nothing.
// Not installed.
class Host_signals {
 public:
  Host_signals();
  ~Host_signals();
  Host_signals(const Host_signals&) = delete;
  Host_signals& operator=(const Host_signals&) = delete;

 private:
  bool changed_ = false;
  sigset_t before_{};
};
