// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <climits>

std::atomic<int> verbosity_kelvo{0};

namespace kelvo_log {

namespace {

Message_listener the_listener;

constexpr int NOBODY = INT_MIN;
constexpr size_t USUAL_LENGTH = 1024;

// Formats a text for the listener. The usual one needs no memory of the heap.
void tell(int level, const char* format, va_list arguments) {
  char usual[USUAL_LENGTH];
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(usual, sizeof usual, format, arguments);
  if (length >= 0 && static_cast<size_t>(length) >= sizeof usual) {
    std::string text(static_cast<size_t>(length) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), format, again);  // formatted well a moment ago
    the_listener.message(the_listener.data, level, text.c_str());
  } else if (length >= 0) {
    the_listener.message(the_listener.data, level, usual);
  }
  va_end(again);
}

}  // namespace

std::atomic<int> listener_level{NOBODY};

void set_listener(const Message_listener& listener) {
  the_listener = listener;
  listener_level = listener.message != nullptr ? listener.level : NOBODY;
}

bool printing() {
  return the_listener.print;
}

void print(int level, const char* format, ...) {
  const int saved_errno = errno;
  va_list arguments;
  // A text of VERB_ALWAYS is below every verbosity that stands for "nothing", too.
  if (the_listener.print && (level == VERB_ALWAYS || verbosity_kelvo >= level)) {
    va_start(arguments, format);
    (void)std::vfprintf(stderr, format, arguments);  // nowhere to report a failing standard error
    va_end(arguments);
  }
  if (listener_level >= level) {
    va_start(arguments, format);
    errno = saved_errno;  // for %m
    tell(level, format, arguments);
    va_end(arguments);
  }
  errno = saved_errno;
}

void print_errno(const char* what) {
  KLOG_ALWAYS("%s: %s\n", what, std::strerror(errno));
}

}  // namespace kelvo_log
