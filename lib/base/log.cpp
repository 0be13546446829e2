#include "base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

std::atomic<int> verbosity_kelvo{0};

namespace kelvo_log {

void print(const char* format, ...) {
  const int saved_errno = errno;
  va_list arguments;
  va_start(arguments, format);
  (void)std::vfprintf(stderr, format, arguments);  // nowhere to report a failing standard error
  va_end(arguments);
  errno = saved_errno;
}

}  // namespace kelvo_log
