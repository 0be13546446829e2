// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/call_log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "softdvb/model/clock.h"
#include "softdvb/model/real.h"
#include "softdvb/model/shared.h"

namespace softdvb {

bool log_enabled() {
  const Shared* s = shared();
  return s != nullptr && s->log_path[0] != '\0';
}

// Opened for each line: a descriptor kept open would be closed by programs that close everything they inherit.
static void write_line(const char* line, size_t size) {
  const int fd = SOFTDVB_REAL(open)(shared()->log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return;
  (void)!SOFTDVB_REAL(write)(fd, line, size);
  SOFTDVB_REAL(close)(fd);
}

void log_call(long result, const char* format, ...) {
  if (!log_enabled())
    return;
  const int saved = errno;
  char line[1024];
  const uint64_t now = adapter_now_ns(*shared());
  // Built whole and written with one call, so that lines of several processes do not mix.
  int n = snprintf(line, sizeof line, "%llu.%06llu %d %ld ", static_cast<unsigned long long>(now / NANOS),
                   static_cast<unsigned long long>(now % NANOS / 1000), getpid(), syscall(SYS_gettid));
  va_list arguments;
  va_start(arguments, format);
  n += vsnprintf(line + n, sizeof line - static_cast<size_t>(n), format, arguments);
  va_end(arguments);
  // A text that is too long loses its end but not its result.
  constexpr int ROOM_FOR_RESULT = 64;
  if (n > static_cast<int>(sizeof line) - ROOM_FOR_RESULT)
    n = static_cast<int>(sizeof line) - ROOM_FOR_RESULT;
  const size_t left = sizeof line - static_cast<size_t>(n);
  const char* name = result == -1 ? strerrorname_np(saved) : nullptr;
  if (name != nullptr)
    n += snprintf(line + n, left, " = -1 %s\n", name);
  else if (result == -1)
    n += snprintf(line + n, left, " = -1 %d\n", saved);
  else
    n += snprintf(line + n, left, " = %ld\n", result);
  // The caller's errno is the result that was just logged.
  write_line(line, static_cast<size_t>(n));
  errno = saved;
}

}  // namespace softdvb
