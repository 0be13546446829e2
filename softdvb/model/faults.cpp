// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/faults.h"

#include <errno.h>
#include <fnmatch.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "softdvb/model/call_log.h"
#include "softdvb/model/handles.h"
#include "softdvb/model/ioctl_names.h"
#include "softdvb/model/real.h"
#include "softdvb/model/shared.h"

namespace softdvb {

bool have_faults() {
  const Shared* s = shared();
  return s != nullptr && s->fault_count.load(std::memory_order_acquire) > 0;
}

bool is_fault_call(const std::string& name) {
  // Calls that this library wraps with a look at the faults; ioctls go by their own names.
  static const char* const CALLS[] = {
      "access",        "adjtime", "adjtimex",  "clock_adjtime",  "clock_settime", "close",        "fdatasync",
      "fopen",         "fsync",   "ftruncate", "iconv_open",     "ioctl",         "mkdir",        "mmap",
      "ntp_adjtime",   "open",    "poll",      "pthread_create", "read",          "rename",       "select",
      "settimeofday",  "stat",    "stime",     "system",         "timer_create",  "timer_delete", "timer_gettime",
      "timer_settime", "unlink",  "write"};
  for (const char* call : CALLS)
    if (name == call)
      return true;
  return is_ioctl_name(name);
}

static bool fits(const Fault& fault, const char* call, const char* target) {
  if (strcmp(fault.call, call) != 0)
    return false;
  // First the whole path, then the file name alone, so that "demux0" means that of every adapter.
  if (fault.target[0] == '\0' || fnmatch(fault.target, target, 0) == 0)
    return true;
  const char* base = strrchr(target, '/');
  return base != nullptr && fnmatch(fault.target, base + 1, 0) == 0;
}

int fault_for(const char* call, const char* target) {
  Shared* s = shared();
  if (s == nullptr)
    return 0;
  // The number is published last, so a fault that another process is adding is seen whole or not at all.
  const int count = s->fault_count.load(std::memory_order_acquire);
  int error = 0;
  for (int i = 0; i < count; ++i) {
    Fault& fault = s->fault[i];
    if (!fits(fault, call, target))
      continue;
    // Counted without a lock, because every call of every process comes by here. Later faults win.
    const uint32_t nth = fault.seen.fetch_add(1, std::memory_order_relaxed) + 1;
    if (nth < fault.from || (fault.count != 0 && nth >= fault.from + fault.count))
      continue;
    error = fault.error;
  }
  return error;
}

std::string target_of(int fd) {
  // Behind a device stands an eventfd, whose link says nothing of the path that was opened.
  if (maybe_ours(fd)) {
    if (const auto handle = handle_of(fd))
      return "/dev/dvb/adapter" + std::to_string(handle->adapter().number) + "/" +
             device_name(handle->adapter(), handle->device());
  }
  char path[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = SOFTDVB_REAL(readlink)(link.c_str(), path, sizeof path);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : "";
}

bool call_fails(const char* call, const char* target) {
  if (!have_faults())
    return false;
  const int error = fault_for(call, target != nullptr ? target : "");
  if (error == 0)
    return false;
  // Told in the log as a fault, so that nobody looks for a broken machine.
  errno = error;
  log_call(-1, "%s %s (fault)", call, target != nullptr ? target : "");
  return true;
}

bool call_fails_on(const char* call, int fd) {
  if (!have_faults())
    return false;
  // Finding the name must not show in errno when the call then works.
  const int saved = errno;
  const std::string target = target_of(fd);
  errno = saved;
  return call_fails(call, target.c_str());
}

}  // namespace softdvb
