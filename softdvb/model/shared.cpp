// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/shared.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <new>
#include <stdexcept>

#include "softdvb/model/real.h"

namespace softdvb {

Shared* map_shared(const char* file) {
  // System calls by number: this runs inside the first interposed call, before anything else is ready.
  const int fd = static_cast<int>(syscall(SYS_openat, long{AT_FDCWD}, file, long{O_RDWR | O_CLOEXEC}, 0L));
  if (fd < 0)
    return nullptr;
  // Every argument as wide as a register: syscall() takes what it is given.
  const long arguments[] = {0, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0};
#ifdef __s390__
  const long mapped = syscall(SYS_mmap, arguments);  // there all of them stand in memory
#else
  const long mapped =
      syscall(SYS_mmap, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
#endif
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the system call returns addresses as numbers
  void* at = reinterpret_cast<void*>(mapped);
  syscall(SYS_close, fd);
  if (at == MAP_FAILED)
    return nullptr;
  Shared* s = static_cast<Shared*>(at);
  // A launcher of another version may have left its folder in the environment.
  if (s->magic == SHARED_MAGIC && s->size == sizeof(Shared))
    return s;
  syscall(SYS_munmap, at, sizeof(Shared));
  return nullptr;
}

Shared* shared() {
  static std::atomic<Shared*> mapped{nullptr};
  // A program without adapters asks once and not at every call.
  static std::atomic<bool> none{false};
  Shared* s = mapped.load(std::memory_order_acquire);
  if (s != nullptr || none.load(std::memory_order_relaxed))
    return s;
  const int saved = errno;
  const char* file = getenv("SOFTDVB_STATE");
  s = file != nullptr ? map_shared(file) : nullptr;
  errno = saved;
  if (s == nullptr) {
    // The environment of a sanitizer's runtime is not there yet when it makes its first calls; try again later.
    if (environ != nullptr)
      none.store(true, std::memory_order_relaxed);
    return nullptr;
  }
  Shared* expected = nullptr;
  // Two threads may have come here together; one mapping is kept, since locks are found by address.
  if (!mapped.compare_exchange_strong(expected, s, std::memory_order_acq_rel)) {
    syscall(SYS_munmap, s, sizeof(Shared));
    return expected;
  }
  return s;
}

Shared* create_shared(const std::string& file) {
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0)
    throw std::runtime_error(file + ": " + strerror(errno));
  if (ftruncate(fd, sizeof(Shared)) != 0) {
    const int error = errno;
    close(fd);
    throw std::runtime_error(file + ": " + strerror(error));
  }
  void* at = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (at == MAP_FAILED)
    throw std::runtime_error(file + ": " + strerror(errno));
  // The file is zeros so far; the constructors of the atomics are owed all the same.
  Shared* s = new (at) Shared{};
  s->magic = SHARED_MAGIC;
  s->size = sizeof(Shared);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  // A process may be killed with the lock in its hands, and tests do that. The next one must not wait for ever.
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&s->lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return s;
}

Shared_lock::Shared_lock(Shared& s) : shared_(s) {
  if (SOFTDVB_REAL(pthread_mutex_lock)(&shared_.lock) == EOWNERDEAD)
    // Single fields change under this lock, so what the dead process left can be used as it is.
    SOFTDVB_REAL(pthread_mutex_consistent)(&shared_.lock);
}

Shared_lock::~Shared_lock() {
  SOFTDVB_REAL(pthread_mutex_unlock)(&shared_.lock);
}

Adapter* find_adapter(Shared& s, int number) {
  for (int i = 0; i < s.adapter_count; ++i)
    if (s.adapter[i].number == number)
      return &s.adapter[i];
  return nullptr;
}

bool is_process_alive(int pid) {
  // A process of another user answers with EPERM, which also means that it is there.
  return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

}  // namespace softdvb
