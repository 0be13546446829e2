// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors: open, read, write, ioctl, close, dup, fcntl and their kin.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include "softdvb/model/call_log.h"
#include "softdvb/model/devices.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/handles.h"
#include "softdvb/model/paths.h"
#include "softdvb/model/real.h"

using namespace softdvb;

// The mode is on the stack only with these flags; reading it without them would take what is not there.
static bool takes_mode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

static mode_t mode_argument(int flags, va_list arguments) {
  return takes_mode(flags) ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
}

// A number that the kernel has just given out is not ours any more, however its old descriptor was closed.
static int fresh(int fd) {
  if (maybe_ours(fd))
    forget(fd);
  return fd;
}

static int open_any(int folder, const char* path, int flags, mode_t mode) {
  // Devices first: their faults are looked at with their own names, in open_device().
  const Path_in_folder whole(folder, path);
  const Device_path device = parse_device_path(whole.get());
  if (device.adapter_index >= 0)
    return open_device(device, whole.get(), flags);
  if (call_fails("open", path))
    return -1;
  return fresh(SOFTDVB_REAL(openat)(folder, Path(path), flags, mode));
}

#define SOFTDVB_OPEN(name)                                    \
  SOFTDVB_EXPORT int name(const char* path, int flags, ...) { \
    va_list arguments;                                        \
    va_start(arguments, flags);                               \
    const mode_t mode = mode_argument(flags, arguments);      \
    va_end(arguments);                                        \
    return open_any(AT_FDCWD, path, flags, mode);             \
  }

#define SOFTDVB_OPENAT(name)                                              \
  SOFTDVB_EXPORT int name(int folder, const char* path, int flags, ...) { \
    va_list arguments;                                                    \
    va_start(arguments, flags);                                           \
    const mode_t mode = mode_argument(flags, arguments);                  \
    va_end(arguments);                                                    \
    return open_any(folder, path, flags, mode);                           \
  }

SOFTDVB_OPEN(open)
SOFTDVB_OPEN(open64)
SOFTDVB_OPENAT(openat)
SOFTDVB_OPENAT(openat64)

// The forms that _FORTIFY_SOURCE makes of calls without a mode.
SOFTDVB_EXPORT int __open_2(const char* path, int flags) {
  return open_any(AT_FDCWD, path, flags, 0);
}
SOFTDVB_EXPORT int __open64_2(const char* path, int flags) {
  return open_any(AT_FDCWD, path, flags, 0);
}
SOFTDVB_EXPORT int __openat_2(int folder, const char* path, int flags) {
  return open_any(folder, path, flags, 0);
}
SOFTDVB_EXPORT int __openat64_2(int folder, const char* path, int flags) {
  return open_any(folder, path, flags, 0);
}

SOFTDVB_EXPORT int creat(const char* path, mode_t mode) {
  return open_any(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
SOFTDVB_EXPORT int creat64(const char* path, mode_t mode) {
  return open_any(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

SOFTDVB_EXPORT ssize_t read(int fd, void* to, size_t n) {
  if (maybe_ours(fd))
    if (const auto handle = handle_of(fd))
      return read_device(*handle, fd, to, n);
  if (call_fails_on("read", fd))
    return -1;
  return SOFTDVB_REAL(read)(fd, to, n);
}

// The form that _FORTIFY_SOURCE makes of a read into a buffer whose size is known.
extern "C" ssize_t __read_chk(int fd, void* to, size_t n, size_t room);
SOFTDVB_EXPORT ssize_t __read_chk(int fd, void* to, size_t n, size_t room) {
  if (maybe_ours(fd))
    return read(fd, to, n < room ? n : room);
  if (call_fails_on("read", fd))
    return -1;
  return SOFTDVB_REAL(__read_chk)(fd, to, n, room);
}

SOFTDVB_EXPORT ssize_t readv(int fd, const iovec* parts, int count) {
  // The kernel has no readv of these devices, either; it reads part after part and stops at the first that is not
  // filled.
  if (!maybe_ours(fd))
    return call_fails_on("read", fd) ? -1 : SOFTDVB_REAL(readv)(fd, parts, count);
  // What was read before an error is told; the error itself comes with the next read.
  ssize_t all = 0;
  for (int i = 0; i < count; ++i) {
    if (parts[i].iov_len == 0)
      continue;
    const ssize_t got = read(fd, parts[i].iov_base, parts[i].iov_len);
    if (got < 0)
      return all > 0 ? all : -1;
    all += got;
    if (static_cast<size_t>(got) < parts[i].iov_len)
      break;
  }
  return all;
}

SOFTDVB_EXPORT ssize_t write(int fd, const void* from, size_t n) {
  // None of the devices takes data that a program writes.
  if (maybe_ours(fd)) {
    errno = EINVAL;
    return -1;
  }
  if (call_fails_on("write", fd))
    return -1;
  return SOFTDVB_REAL(write)(fd, from, n);
}

SOFTDVB_EXPORT ssize_t pread(int fd, void* to, size_t n, off_t at) {
  return call_fails_on("read", fd) ? -1 : SOFTDVB_REAL(pread)(fd, to, n, at);
}
SOFTDVB_EXPORT ssize_t pread64(int fd, void* to, size_t n, off64_t at) {
  return call_fails_on("read", fd) ? -1 : SOFTDVB_REAL(pread64)(fd, to, n, at);
}
SOFTDVB_EXPORT ssize_t pwrite(int fd, const void* from, size_t n, off_t at) {
  return call_fails_on("write", fd) ? -1 : SOFTDVB_REAL(pwrite)(fd, from, n, at);
}
SOFTDVB_EXPORT ssize_t pwrite64(int fd, const void* from, size_t n, off64_t at) {
  return call_fails_on("write", fd) ? -1 : SOFTDVB_REAL(pwrite64)(fd, from, n, at);
}

SOFTDVB_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  // Calls without an argument leave whatever is there, which nobody looks at.
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (maybe_ours(fd))
    if (const auto handle = handle_of(fd))
      return ioctl_device(*handle, fd, request, argument);
  if (have_faults() && call_fails_on("ioctl", fd))
    return -1;
  return SOFTDVB_REAL(ioctl)(fd, request, argument);
}

SOFTDVB_EXPORT int close(int fd) {
  const bool device = maybe_ours(fd);
  // Like the kernel's: a close that fails has closed all the same.
  const bool fails = call_fails_on("close", fd);
  const int error = errno;
  // The name has to be asked for before the number is forgotten.
  std::string name;
  if (device && log_enabled())
    name = target_of(fd);
  // Forgotten before it is closed: the number may be given out again to another thread at once.
  if (device)
    forget(fd);
  int result = SOFTDVB_REAL(close)(fd);
  if (fails) {
    errno = error;
    result = -1;
  }
  if (device)
    log_call(result, "close %s %d", name.c_str(), fd);
  return result;
}

SOFTDVB_EXPORT int close_range(unsigned first, unsigned last, int flags) noexcept {
  // With this flag the range is not closed now but at an exec.
  constexpr int ONLY_CLOEXEC = 4;
  if ((flags & ONLY_CLOEXEC) == 0)
    forget_range(first, last);
  return SOFTDVB_REAL(close_range)(first, last, flags);
}

SOFTDVB_EXPORT void closefrom(int first) noexcept {
  forget_range(static_cast<unsigned>(first < 0 ? 0 : first), ~0u);
  SOFTDVB_REAL(closefrom)(first);
}

SOFTDVB_EXPORT int dup(int fd) noexcept {
  const int copy = fresh(SOFTDVB_REAL(dup)(fd));
  register_copy(fd, copy);
  return copy;
}

SOFTDVB_EXPORT int dup2(int fd, int to) noexcept {
  // The kernel closes what had the number before; a copy onto itself does nothing.
  if (fd != to)
    forget(to);
  const int copy = SOFTDVB_REAL(dup2)(fd, to);
  if (fd != to)
    register_copy(fd, copy);
  return copy;
}

SOFTDVB_EXPORT int dup3(int fd, int to, int flags) noexcept {
  if (fd != to)
    forget(to);
  const int copy = SOFTDVB_REAL(dup3)(fd, to, flags);
  if (fd != to)
    register_copy(fd, copy);
  return copy;
}

static int control_any(int fd, int command, void* argument) {
  const int result = SOFTDVB_REAL(fcntl)(fd, command, argument);
  if (result < 0 || !maybe_ours(fd))
    return result;
  if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
    // Copies share the handle: its queue, its filter and its place.
    register_copy(fd, fresh(result));
  } else if (command == F_GETFL) {
    if (const auto handle = handle_of(fd))
      // An eventfd is always for reading and writing, so the rights are those of the opening.
      return (result & ~O_ACCMODE) | (handle->open_flags() & O_ACCMODE);
  }
  return result;
}

SOFTDVB_EXPORT int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return control_any(fd, command, argument);
}

SOFTDVB_EXPORT int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return control_any(fd, command, argument);
}

// Here for its faults alone; the devices cannot be mapped.
SOFTDVB_EXPORT void* mmap(void* at, size_t n, int protection, int flags, int fd, off_t offset) noexcept {
  if (fd >= 0 && call_fails_on("mmap", fd))
    return MAP_FAILED;
  return SOFTDVB_REAL(mmap)(at, n, protection, flags, fd, offset);
}

SOFTDVB_EXPORT void* mmap64(void* at, size_t n, int protection, int flags, int fd, off64_t offset) noexcept {
  if (fd >= 0 && call_fails_on("mmap", fd))
    return MAP_FAILED;
  return SOFTDVB_REAL(mmap64)(at, n, protection, flags, fd, offset);
}

SOFTDVB_EXPORT int fsync(int fd) {
  return call_fails_on("fsync", fd) ? -1 : SOFTDVB_REAL(fsync)(fd);
}
SOFTDVB_EXPORT int fdatasync(int fd) {
  return call_fails_on("fdatasync", fd) ? -1 : SOFTDVB_REAL(fdatasync)(fd);
}
SOFTDVB_EXPORT int ftruncate(int fd, off_t n) noexcept {
  return call_fails_on("ftruncate", fd) ? -1 : SOFTDVB_REAL(ftruncate)(fd, n);
}
SOFTDVB_EXPORT int ftruncate64(int fd, off64_t n) noexcept {
  return call_fails_on("ftruncate", fd) ? -1 : SOFTDVB_REAL(ftruncate64)(fd, n);
}
