// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Functions that take a path: the sandbox, and what a program may ask about device files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <iconv.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

#include "softdvb/model/call_log.h"
#include "softdvb/model/devices.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/paths.h"
#include "softdvb/model/real.h"

using namespace softdvb;

// stat and its kin.

// Behind a device path lies a plain file, so the call has succeeded; only what it tells of the file is changed.
// Programs ask for a character device before they open one.
template <typename Stat>
static int device_stat_of_path(int result, const char* path, Stat* st) {
  if (result != 0)
    return result;
  const Device_path device = parse_device_path(path);
  if (device.adapter_index >= 0)
    make_device_stat(*st, shared()->adapter[device.adapter_index], device.device);
  return result;
}

template <typename Stat>
static int device_stat_of_handle(int result, int fd, Stat* st) {
  if (result != 0 || !maybe_ours(fd))
    return result;
  if (const auto handle = handle_of(fd))
    make_device_stat(*st, handle->adapter(), handle->device());
  return result;
}

SOFTDVB_EXPORT int stat(const char* __restrict path, struct stat* __restrict st) noexcept {
  return call_fails("stat", path) ? -1 : device_stat_of_path(SOFTDVB_REAL(stat)(Path(path), st), path, st);
}
SOFTDVB_EXPORT int stat64(const char* __restrict path, struct stat64* __restrict st) noexcept {
  return call_fails("stat", path) ? -1 : device_stat_of_path(SOFTDVB_REAL(stat64)(Path(path), st), path, st);
}
SOFTDVB_EXPORT int lstat(const char* __restrict path, struct stat* __restrict st) noexcept {
  return device_stat_of_path(SOFTDVB_REAL(lstat)(Path(path), st), path, st);
}
SOFTDVB_EXPORT int lstat64(const char* __restrict path, struct stat64* __restrict st) noexcept {
  return device_stat_of_path(SOFTDVB_REAL(lstat64)(Path(path), st), path, st);
}
SOFTDVB_EXPORT int fstat(int fd, struct stat* st) noexcept {
  return device_stat_of_handle(SOFTDVB_REAL(fstat)(fd, st), fd, st);
}
SOFTDVB_EXPORT int fstat64(int fd, struct stat64* st) noexcept {
  return device_stat_of_handle(SOFTDVB_REAL(fstat64)(fd, st), fd, st);
}

template <typename Stat>
static int device_stat_at(int result, int folder, const char* path, Stat* st) {
  // With an empty path the folder is the file that is meant.
  return path[0] == '\0' ? device_stat_of_handle(result, folder, st) : device_stat_of_path(result, path, st);
}

SOFTDVB_EXPORT int fstatat(int folder, const char* __restrict path, struct stat* __restrict st, int flags) noexcept {
  return device_stat_at(SOFTDVB_REAL(fstatat)(folder, Path(path), st, flags), folder, path, st);
}
SOFTDVB_EXPORT int fstatat64(int folder, const char* __restrict path, struct stat64* __restrict st,
                             int flags) noexcept {
  return device_stat_at(SOFTDVB_REAL(fstatat64)(folder, Path(path), st, flags), folder, path, st);
}

SOFTDVB_EXPORT int statx(int folder, const char* __restrict path, int flags, unsigned mask,
                         struct statx* __restrict st) noexcept {
  const int result = SOFTDVB_REAL(statx)(folder, Path(path), flags, mask, st);
  if (result != 0)
    return result;
  const Device_path device = parse_device_path(path);
  // The newest form has a record of its own and is filled by hand.
  const bool is_device = device.adapter_index >= 0 || (path[0] == '\0' && maybe_ours(folder));
  if (is_device) {
    st->stx_mode = static_cast<__u16>((st->stx_mode & 06666) | S_IFCHR | 0660);
    st->stx_size = 0;
    struct stat plain {};
    const Adapter* adapter = nullptr;
    Device type = device.device;
    if (device.adapter_index >= 0) {
      adapter = &shared()->adapter[device.adapter_index];
    } else if (const auto handle = handle_of(folder)) {
      adapter = &handle->adapter();
      type = handle->device();
    }
    if (adapter != nullptr)
      make_device_stat(plain, *adapter, type);
    st->stx_rdev_major = gnu_dev_major(plain.st_rdev);
    st->stx_rdev_minor = gnu_dev_minor(plain.st_rdev);
  }
  return result;
}

// What programs built with an old glibc call.
// NOLINTBEGIN(bugprone-macro-parentheses): a type cannot stand in parentheses
#define SOFTDVB_XSTAT(name, type)                                                      \
  extern "C" int name(int version, const char* path, type* st) noexcept;               \
  SOFTDVB_EXPORT int name(int version, const char* path, type* st) noexcept {          \
    return device_stat_of_path(SOFTDVB_REAL(name)(version, Path(path), st), path, st); \
  }
SOFTDVB_XSTAT(__xstat, struct stat)
SOFTDVB_XSTAT(__xstat64, struct stat64)
SOFTDVB_XSTAT(__lxstat, struct stat)
SOFTDVB_XSTAT(__lxstat64, struct stat64)

#define SOFTDVB_FXSTAT(name, type)                                             \
  extern "C" int name(int version, int fd, type* st) noexcept;                 \
  SOFTDVB_EXPORT int name(int version, int fd, type* st) noexcept {            \
    return device_stat_of_handle(SOFTDVB_REAL(name)(version, fd, st), fd, st); \
  }
SOFTDVB_FXSTAT(__fxstat, struct stat)
SOFTDVB_FXSTAT(__fxstat64, struct stat64)

#define SOFTDVB_FXSTATAT(name, type)                                                                     \
  extern "C" int name(int version, int folder, const char* path, type* st, int flags) noexcept;          \
  SOFTDVB_EXPORT int name(int version, int folder, const char* path, type* st, int flags) noexcept {     \
    return device_stat_at(SOFTDVB_REAL(name)(version, folder, Path(path), st, flags), folder, path, st); \
  }
SOFTDVB_FXSTATAT(__fxstatat, struct stat)
SOFTDVB_FXSTATAT(__fxstatat64, struct stat64)

// NOLINTEND(bugprone-macro-parentheses)

// Streams.

SOFTDVB_EXPORT FILE* fopen(const char* __restrict path, const char* __restrict mode) {
  return call_fails("fopen", path) ? nullptr : SOFTDVB_REAL(fopen)(Path(path), mode);
}
SOFTDVB_EXPORT FILE* fopen64(const char* __restrict path, const char* __restrict mode) {
  return call_fails("fopen", path) ? nullptr : SOFTDVB_REAL(fopen64)(Path(path), mode);
}
SOFTDVB_EXPORT FILE* freopen(const char* __restrict path, const char* __restrict mode, FILE* __restrict stream) {
  return SOFTDVB_REAL(freopen)(Path(path), mode, stream);
}
SOFTDVB_EXPORT FILE* freopen64(const char* __restrict path, const char* __restrict mode, FILE* __restrict stream) {
  return SOFTDVB_REAL(freopen64)(Path(path), mode, stream);
}

// Files and folders.

// The plain files behind the devices may be read and written, so the kernel's answer holds for the devices.
SOFTDVB_EXPORT int access(const char* path, int mode) noexcept {
  return call_fails("access", path) ? -1 : SOFTDVB_REAL(access)(Path(path), mode);
}
SOFTDVB_EXPORT int faccessat(int folder, const char* path, int mode, int flags) noexcept {
  return call_fails("access", path) ? -1 : SOFTDVB_REAL(faccessat)(folder, Path(path), mode, flags);
}
SOFTDVB_EXPORT int euidaccess(const char* path, int mode) noexcept {
  return SOFTDVB_REAL(euidaccess)(Path(path), mode);
}
SOFTDVB_EXPORT int eaccess(const char* path, int mode) noexcept {
  return SOFTDVB_REAL(eaccess)(Path(path), mode);
}
SOFTDVB_EXPORT int unlink(const char* path) noexcept {
  return call_fails("unlink", path) ? -1 : SOFTDVB_REAL(unlink)(Path(path));
}
SOFTDVB_EXPORT int unlinkat(int folder, const char* path, int flags) noexcept {
  return call_fails("unlink", path) ? -1 : SOFTDVB_REAL(unlinkat)(folder, Path(path), flags);
}
// Fails with unlink's faults, because that is what it does to a file.
SOFTDVB_EXPORT int remove(const char* path) noexcept {
  return call_fails("unlink", path) ? -1 : SOFTDVB_REAL(remove)(Path(path));
}
SOFTDVB_EXPORT int rename(const char* from, const char* to) noexcept {
  if (call_fails("rename", from))
    return -1;
  const int result = SOFTDVB_REAL(rename)(Path(from), Path(to));
  log_call(result, "rename %s %s", from, to);
  return result;
}
SOFTDVB_EXPORT int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  return call_fails("rename", from) ? -1 : SOFTDVB_REAL(renameat)(from_folder, Path(from), to_folder, Path(to));
}
SOFTDVB_EXPORT int renameat2(int from_folder, const char* from, int to_folder, const char* to,
                             unsigned flags) noexcept {
  if (call_fails("rename", from))
    return -1;
  return SOFTDVB_REAL(renameat2)(from_folder, Path(from), to_folder, Path(to), flags);
}
SOFTDVB_EXPORT int link(const char* from, const char* to) noexcept {
  return SOFTDVB_REAL(link)(Path(from), Path(to));
}
SOFTDVB_EXPORT int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) noexcept {
  return SOFTDVB_REAL(linkat)(from_folder, Path(from), to_folder, Path(to), flags);
}
// The target is moved into the sandbox too, because the kernel follows links by itself, past this library. So readlink
// shows a target below /dev/dvb, /dvbfiles or the two names in /tmp with the sandbox's folder before it.
SOFTDVB_EXPORT int symlink(const char* target, const char* path) noexcept {
  return SOFTDVB_REAL(symlink)(Path(target), Path(path));
}
SOFTDVB_EXPORT int symlinkat(const char* target, int folder, const char* path) noexcept {
  return SOFTDVB_REAL(symlinkat)(Path(target), folder, Path(path));
}
SOFTDVB_EXPORT ssize_t readlink(const char* __restrict path, char* __restrict to, size_t n) noexcept {
  return SOFTDVB_REAL(readlink)(Path(path), to, n);
}
SOFTDVB_EXPORT ssize_t readlinkat(int folder, const char* __restrict path, char* __restrict to, size_t n) noexcept {
  return SOFTDVB_REAL(readlinkat)(folder, Path(path), to, n);
}
SOFTDVB_EXPORT int mkdir(const char* path, mode_t mode) noexcept {
  return call_fails("mkdir", path) ? -1 : SOFTDVB_REAL(mkdir)(Path(path), mode);
}
SOFTDVB_EXPORT int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  return call_fails("mkdir", path) ? -1 : SOFTDVB_REAL(mkdirat)(folder, Path(path), mode);
}
SOFTDVB_EXPORT int rmdir(const char* path) noexcept {
  return SOFTDVB_REAL(rmdir)(Path(path));
}
SOFTDVB_EXPORT int mkfifo(const char* path, mode_t mode) noexcept {
  return SOFTDVB_REAL(mkfifo)(Path(path), mode);
}
SOFTDVB_EXPORT int chdir(const char* path) noexcept {
  return SOFTDVB_REAL(chdir)(Path(path));
}
SOFTDVB_EXPORT int chmod(const char* path, mode_t mode) noexcept {
  return SOFTDVB_REAL(chmod)(Path(path), mode);
}
SOFTDVB_EXPORT int fchmodat(int folder, const char* path, mode_t mode, int flags) noexcept {
  return SOFTDVB_REAL(fchmodat)(folder, Path(path), mode, flags);
}
SOFTDVB_EXPORT int chown(const char* path, uid_t user, gid_t group) noexcept {
  return SOFTDVB_REAL(chown)(Path(path), user, group);
}
SOFTDVB_EXPORT int lchown(const char* path, uid_t user, gid_t group) noexcept {
  return SOFTDVB_REAL(lchown)(Path(path), user, group);
}
SOFTDVB_EXPORT int fchownat(int folder, const char* path, uid_t user, gid_t group, int flags) noexcept {
  return SOFTDVB_REAL(fchownat)(folder, Path(path), user, group, flags);
}
SOFTDVB_EXPORT int truncate(const char* path, off_t n) noexcept {
  return SOFTDVB_REAL(truncate)(Path(path), n);
}
SOFTDVB_EXPORT int truncate64(const char* path, off64_t n) noexcept {
  return SOFTDVB_REAL(truncate64)(Path(path), n);
}
SOFTDVB_EXPORT int utime(const char* path, const utimbuf* times) noexcept {
  return SOFTDVB_REAL(utime)(Path(path), times);
}
SOFTDVB_EXPORT int utimes(const char* path, const timeval times[2]) noexcept {
  return SOFTDVB_REAL(utimes)(Path(path), times);
}
SOFTDVB_EXPORT int utimensat(int folder, const char* path, const timespec times[2], int flags) noexcept {
  return SOFTDVB_REAL(utimensat)(folder, Path(path), times, flags);
}
SOFTDVB_EXPORT int statfs(const char* path, struct statfs* st) noexcept {
  return SOFTDVB_REAL(statfs)(Path(path), st);
}
SOFTDVB_EXPORT int statvfs(const char* __restrict path, struct statvfs* __restrict st) noexcept {
  return SOFTDVB_REAL(statvfs)(Path(path), st);
}
SOFTDVB_EXPORT ssize_t getxattr(const char* path, const char* name, void* to, size_t n) noexcept {
  return SOFTDVB_REAL(getxattr)(Path(path), name, to, n);
}
SOFTDVB_EXPORT ssize_t lgetxattr(const char* path, const char* name, void* to, size_t n) noexcept {
  return SOFTDVB_REAL(lgetxattr)(Path(path), name, to, n);
}
SOFTDVB_EXPORT ssize_t listxattr(const char* path, char* to, size_t n) noexcept {
  return SOFTDVB_REAL(listxattr)(Path(path), to, n);
}
SOFTDVB_EXPORT ssize_t llistxattr(const char* path, char* to, size_t n) noexcept {
  return SOFTDVB_REAL(llistxattr)(Path(path), to, n);
}
SOFTDVB_EXPORT char* realpath(const char* __restrict path, char* __restrict to) noexcept {
  const Path moved(path);
  if (moved.get() == path)
    return SOFTDVB_REAL(realpath)(path, to);
  // The answer is told in the program's own terms.
  char* found = SOFTDVB_REAL(realpath)(moved, nullptr);
  if (found == nullptr)
    return nullptr;
  // What the sandbox put in front is as long as the path has grown.
  const size_t cut = strlen(moved) - strlen(path);
  const std::string shown = strncmp(found, moved, cut) == 0 ? found + cut : found;
  free(found);
  if (to == nullptr)
    return strdup(shown.c_str());
  memcpy(to, shown.c_str(), shown.size() + 1);
  return to;
}
SOFTDVB_EXPORT int mkstemp(char* pattern) {
  const Path moved(pattern);
  if (moved.get() == pattern)
    return SOFTDVB_REAL(mkstemp)(pattern);
  // The call fills in the letters, which have to be shown in the program's own pattern.
  std::string name = moved.get();
  const int fd = SOFTDVB_REAL(mkstemp)(name.data());
  memcpy(pattern, name.c_str() + (name.size() - strlen(pattern)), strlen(pattern));
  return fd;
}

// Listing of device folders: the entries are devices, not the plain files that stand for them.

SOFTDVB_EXPORT DIR* opendir(const char* path) {
  return SOFTDVB_REAL(opendir)(Path(path));
}

static bool is_device_name(const char* name) {
  return is_frontend_name(name) || strcmp(name, "demux0") == 0 || strcmp(name, "dvr0") == 0;
}

static bool lists_devices(DIR* folder) {
  const Shared* s = shared();
  if (s == nullptr)
    return false;
  char path[MAX_PATH];
  // The folder was opened under its real name, so the list does not tell whether it is one of ours.
  const std::string link = "/proc/self/fd/" + std::to_string(dirfd(folder));
  const ssize_t n = SOFTDVB_REAL(readlink)(link.c_str(), path, sizeof path - 1);
  return n > 0 && strncmp(path, s->run_dir, strlen(s->run_dir)) == 0;
}

SOFTDVB_EXPORT dirent* readdir(DIR* folder) {
  dirent* entry = SOFTDVB_REAL(readdir)(folder);
  if (entry != nullptr && is_device_name(entry->d_name) && lists_devices(folder))
    entry->d_type = DT_CHR;
  return entry;
}

SOFTDVB_EXPORT dirent64* readdir64(DIR* folder) {
  dirent64* entry = SOFTDVB_REAL(readdir64)(folder);
  if (entry != nullptr && is_device_name(entry->d_name) && lists_devices(folder))
    entry->d_type = DT_CHR;
  return entry;
}

SOFTDVB_EXPORT int scandir(const char* __restrict path, dirent*** __restrict list, int (*filter)(const dirent*),
                           int (*compare)(const dirent**, const dirent**)) {
  return SOFTDVB_REAL(scandir)(Path(path), list, filter, compare);
}
SOFTDVB_EXPORT int scandir64(const char* __restrict path, dirent64*** __restrict list, int (*filter)(const dirent64*),
                             int (*compare)(const dirent64**, const dirent64**)) {
  return SOFTDVB_REAL(scandir64)(Path(path), list, filter, compare);
}

// Calls that are here for their faults alone.

SOFTDVB_EXPORT iconv_t iconv_open(const char* to, const char* from) {
  if (call_fails("iconv_open", from))
    return reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr): how iconv_open says no
  return SOFTDVB_REAL(iconv_open)(to, from);
}

SOFTDVB_EXPORT int pthread_create(pthread_t* __restrict thread, const pthread_attr_t* __restrict attributes,
                                  void* (*run)(void*), void* __restrict argument) noexcept {
  if (call_fails("pthread_create"))
    return errno;
  return SOFTDVB_REAL(pthread_create)(thread, attributes, run, argument);
}

SOFTDVB_EXPORT int system(const char* command) {
  if (call_fails("system", command))
    return -1;
  const int result = SOFTDVB_REAL(system)(command);
  if (command != nullptr)
    log_call(result, "system %s", command);
  return result;
}
