// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "base/messages.h"

// How the library's sources write messages; not installed.

namespace kelvo_log {

// The level up to which anybody wants messages, besides the verbosity.
extern std::atomic<int> listener_level;

inline bool enabled(int level) noexcept {
  return verbosity_kelvo.load(std::memory_order_relaxed) >= level ||
         listener_level.load(std::memory_order_relaxed) >= level;
}

// Whether messages go to standard error, whatever their level. What other programs say for the library should not when
// they do not.
bool printing();

// Keeps a copy of `listener`. Before-start: while no other thread is in the library.
void set_listener(const Message_listener& listener);

// One formatted text of this level, which is enabled(): to standard error when the verbosity says so, in one write
// where it fits a pipe's atomic size, and to the listener. Keeps errno.
void print(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// As perror() does: `what`, ": ", the text of errno and a newline, at every verbosity. Keeps errno.
void print_errno(const char* what);

// A result of SQLite that callers go on with: 0 (ok), 100 (row), 101 (done).
constexpr bool sql_ok(int code) noexcept {
  return code == 0 || code == 100 || code == 101;
}

}  // namespace kelvo_log

// Arguments are evaluated only when the level is on.
#define KLOG(level, ...)                    \
  do {                                      \
    if (kelvo_log::enabled(level))          \
      kelvo_log::print(level, __VA_ARGS__); \
  } while (false)

// For the few texts that appear at every level.
#define KLOG_ALWAYS(...) kelvo_log::print(VERB_ALWAYS, __VA_ARGS__)
