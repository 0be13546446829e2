// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/handles.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "softdvb/model/player.h"
#include "softdvb/model/real.h"

namespace softdvb {

static constexpr int TABLE_SIZE = 65536;

// Zero-initialised, so pages that no descriptor reaches cost nothing.
// Asked before every wrapped call on a descriptor, so most calls of a program cost one look and no lock.
static std::atomic<bool> ours[TABLE_SIZE];

// Everything behind Device_lock: the lock itself, and the handles of this process.
struct Registry {
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  std::vector<std::shared_ptr<Handle>> handles;
  pid_t process = getpid();
};

static void before_fork();
static void after_fork_parent();
static void after_fork_child();

// Never destroyed: threads of the command may still call us while the process ends.
static Registry& registry() {
  static Registry* const r = [] {
    pthread_atfork(before_fork, after_fork_parent, after_fork_child);
    return new Registry;
  }();
  return *r;
}

// The lock is taken over a fork, so that the child never gets the registry in the middle of a change that another
// thread was making.
static void before_fork() {
  SOFTDVB_REAL(pthread_mutex_lock)(&registry().lock);
}

static void after_fork_parent() {
  SOFTDVB_REAL(pthread_mutex_unlock)(&registry().lock);
}

static void after_fork_child() {
  for (const auto& handle : registry().handles) {
    handle->inherited = true;
    // A thread that held it in the parent does not exist here and would never give it back.
    handle->call_lock = PTHREAD_MUTEX_INITIALIZER;
  }
  registry().process = getpid();
  player_after_fork();
  SOFTDVB_REAL(pthread_mutex_unlock)(&registry().lock);
}

Device_lock::Device_lock() {
  SOFTDVB_REAL(pthread_mutex_lock)(&registry().lock);
}
Device_lock::~Device_lock() {
  SOFTDVB_REAL(pthread_mutex_unlock)(&registry().lock);
}

std::string device_name(const Adapter& adapter, Device device) {
  switch (device) {
    case Device::FRONTEND:
      return "frontend" + std::to_string(adapter.frontend);
    case Device::DEMUX:
      return "demux0";
    default:
      return "dvr0";
  }
}

Handle::Handle(Device device, int adapter_index, int open_flags)
    : call_lock(PTHREAD_MUTEX_INITIALIZER),
      device_(device),
      adapter_(adapter_index),
      open_flags_(open_flags),
      plug_generation_(adapter().plug_generation.load(std::memory_order_acquire)) {}

Handle::~Handle() {
  SOFTDVB_REAL(pthread_mutex_destroy)(&call_lock);
}

bool Handle::writable() const {
  return (open_flags_ & O_ACCMODE) != O_RDONLY;
}

// Asked of the kernel each time: the flag belongs to the open file, which copies and other processes share and may
// change.
bool Handle::non_blocking() const {
  return !fds.empty() && (SOFTDVB_REAL(fcntl)(fds.front(), F_GETFL) & O_NONBLOCK) != 0;
}

// The eventfd behind the descriptor is what poll, select and epoll of the kernel see. It is kept readable as long as
// the device is, and written only when that changes.
void Handle::sync() {
  if (fds.empty() || inherited)
    return;
  const bool want = ready() != 0;
  if (want == kernel_ready_)
    return;
  // This also runs inside calls that succeed and must leave errno alone.
  const int saved = errno;
  uint64_t count = 1;
  if (want) {
    (void)SOFTDVB_REAL(write)(fds.front(), &count, sizeof count);  // an empty counter always has room
  } else {
    // A blocking reader may have been faster, so look before taking.
    pollfd p{fds.front(), POLLIN, 0};
    if (SOFTDVB_REAL(poll)(&p, 1, 0) == 1)
      (void)SOFTDVB_REAL(read)(fds.front(), &count, sizeof count);
  }
  kernel_ready_ = want;
  errno = saved;
}

bool maybe_ours(int fd) {
  return fd >= 0 && fd < TABLE_SIZE && ours[fd].load(std::memory_order_acquire);
}

// A child of vfork shares this memory until it runs another program; what it closes stays open in its parent.
static bool is_vfork_child() {
  return registry().process != getpid();
}

static std::shared_ptr<Handle> find(int fd) {
  for (const auto& handle : registry().handles)
    if (std::find(handle->fds.begin(), handle->fds.end(), fd) != handle->fds.end())
      return handle;
  return nullptr;
}

// Parent and child share the eventfd of an inherited descriptor, but not the queue behind it. The first use in the
// child therefore puts a fresh eventfd under the same numbers.
static void adopt(Handle& handle) {
  handle.inherited = false;
  const int saved = errno;
  const int flags = SOFTDVB_REAL(fcntl)(handle.fds.front(), F_GETFL);
  const int fresh = SOFTDVB_REAL(eventfd)(0, EFD_CLOEXEC | ((flags & O_NONBLOCK) != 0 ? EFD_NONBLOCK : 0));
  if (fresh >= 0) {
    for (const int fd : handle.fds) {
      const int descriptor_flags = SOFTDVB_REAL(fcntl)(fd, F_GETFD);
      SOFTDVB_REAL(dup3)(fresh, fd, (descriptor_flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0);
    }
    SOFTDVB_REAL(close)(fresh);
  }
  // The fresh eventfd is empty, whatever the old one was.
  handle.consumed();
  handle.sync();
  errno = saved;
}

// Shared, so that a handle outlives a close by another thread for as long as a call on it runs.
std::shared_ptr<Handle> handle_of(int fd) {
  if (!maybe_ours(fd))
    return nullptr;
  const Device_lock lock;
  std::shared_ptr<Handle> handle = find(fd);
  if (handle != nullptr && handle->inherited) {
    adopt(*handle);
    player_wake();
  }
  return handle;
}

int register_handle(const std::shared_ptr<Handle>& handle) {
  // An eventfd takes part in poll, dup and fcntl like any descriptor, which is why one stands for a device.
  const int flags = handle->open_flags();
  const int fd = SOFTDVB_REAL(eventfd)(
      0, ((flags & O_CLOEXEC) != 0 ? EFD_CLOEXEC : 0) | ((flags & O_NONBLOCK) != 0 ? EFD_NONBLOCK : 0));
  if (fd < 0)
    return -1;
  // Beyond the table a descriptor could not be told from one of the program's own.
  if (fd >= TABLE_SIZE) {
    SOFTDVB_REAL(close)(fd);
    errno = EMFILE;
    return -1;
  }
  handle->fds.push_back(fd);
  registry().handles.push_back(handle);
  // Last, when the handle can be found: from now on other threads ask for it.
  ours[fd].store(true, std::memory_order_release);
  return fd;
}

void register_copy(int fd, int copy) {
  if (copy < 0 || copy >= TABLE_SIZE || !maybe_ours(fd) || is_vfork_child())
    return;
  const Device_lock lock;
  const std::shared_ptr<Handle> handle = find(fd);
  if (handle == nullptr)
    return;
  handle->fds.push_back(copy);
  ours[copy].store(true, std::memory_order_release);
}

void forget(int fd) {
  if (!maybe_ours(fd) || is_vfork_child())
    return;
  const Device_lock lock;
  // First, so that a new file with this number is not taken for a device.
  ours[fd].store(false, std::memory_order_release);
  auto& handles = registry().handles;
  for (size_t i = 0; i < handles.size(); ++i) {
    auto& fds = handles[i]->fds;
    const auto at = std::find(fds.begin(), fds.end(), fd);
    if (at == fds.end())
      continue;
    fds.erase(at);
    if (fds.empty()) {
      // The device is closed with its last copy, as with any open file.
      const std::shared_ptr<Handle> last = handles[i];
      handles.erase(handles.begin() + static_cast<std::ptrdiff_t>(i));
      last->closed();
    }
    return;
  }
}

void forget_range(unsigned first, unsigned last) {
  for (unsigned fd = first; fd <= last && fd < TABLE_SIZE; ++fd)
    forget(static_cast<int>(fd));
}

const std::vector<std::shared_ptr<Handle>>& all_handles() {
  return registry().handles;
}

}  // namespace softdvb
