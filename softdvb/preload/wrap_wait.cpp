// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Waiting for descriptors: poll, select and epoll.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/select.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

#include "softdvb/model/call_log.h"
#include "softdvb/model/clock.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/handles.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"

using namespace softdvb;

static constexpr int64_t FOREVER = -1;
static constexpr int64_t MS = 1000000;
static constexpr short READABLE = POLLIN | POLLRDNORM | POLLPRI;
static constexpr int64_t SLICE_NS = 10 * MS;  // for who waits for an error alone, which the kernel cannot show

// Waits without a device of ours are the common case and go to the kernel as they are.
static bool has_ours(const pollfd* p, nfds_t n) {
  for (nfds_t i = 0; i < n; ++i)
    if (maybe_ours(p[i].fd))
      return true;
  return false;
}

static int64_t real_timeout(int64_t virtual_ns) {
  const Shared* s = shared();
  return virtual_ns <= 0 || s == nullptr ? virtual_ns : to_real_duration(*s, virtual_ns);
}

static int real_poll(pollfd* p, nfds_t n, int64_t real_ns, const sigset_t* mask) {
  const timespec time = from_nanos(std::max<int64_t>(real_ns, 0));
  return SOFTDVB_REAL(ppoll)(p, n, real_ns < 0 ? nullptr : &time, mask);
}

// The kernel waits on the eventfds, but what is ready is told by the model: an eventfd knows no errors and no urgent
// data.
class Poll {
 public:
  Poll(pollfd* p, nfds_t n) : given_(p), kernel_(p, p + n), handles_(n) {
    for (nfds_t i = 0; i < n; ++i) {
      handles_[i] = handle_of(p[i].fd);
      if (handles_[i] == nullptr) {
        others_ = others_ || p[i].fd >= 0;
        continue;
      }
      kernel_[i].events = POLLIN;
      // Who does not ask for data would be woken for nothing by a queue that is not empty.
      if ((p[i].events & READABLE) != 0)
        continue;
      kernel_[i].fd = -1;
      sliced_ = true;
    }
  }

  // Fills in what is ready now and returns the number; -1 with errno.
  int look() {
    int ready = 0;
    if (others_ && (ready = look_at_others()) < 0)
      return -1;
    // Others are looked at before, without the lock: the kernel may take its time there.
    const Device_lock lock;
    player_advance();
    for (size_t i = 0; i < handles_.size(); ++i) {
      if (handles_[i] == nullptr)
        continue;
      // An error is shown whether it was asked for or not.
      given_[i].revents = static_cast<short>(handles_[i]->ready() & (given_[i].events | POLLERR));
      handles_[i]->sync();
      if (given_[i].revents != 0)
        ++ready;
    }
    return ready;
  }

  int wait(int64_t real_ns, const sigset_t* mask) {
    const int64_t left = sliced_ && (real_ns < 0 || real_ns > SLICE_NS) ? SLICE_NS : real_ns;
    return real_poll(kernel_.data(), kernel_.size(), left, mask);
  }

 private:
  int look_at_others() {
    std::vector<pollfd> other(kernel_);
    for (size_t i = 0; i < other.size(); ++i)
      if (handles_[i] != nullptr)
        other[i].fd = -1;
    const int ready = real_poll(other.data(), other.size(), 0, nullptr);
    for (size_t i = 0; i < other.size() && ready >= 0; ++i)
      if (handles_[i] == nullptr)
        given_[i].revents = other[i].revents;
    return ready;
  }

  pollfd* given_;
  std::vector<pollfd> kernel_;
  std::vector<std::shared_ptr<Handle>> handles_;
  bool others_ = false;
  bool sliced_ = false;
};

static int poll_ours(pollfd* p, nfds_t n, int64_t real_ns, const sigset_t* mask) {
  Poll poll(p, n);
  // Waking up for nothing is common, so the end is fixed once and not counted down.
  const int64_t end = real_ns < 0 ? 0 : machine_now_ns() + real_ns;
  // After the time is over there is one more look, so that what came at the last moment is told.
  for (bool last = false;;) {
    const int ready = poll.look();
    if (ready != 0 || last)
      return ready;
    const int64_t left = real_ns < 0 ? FOREVER : std::max<int64_t>(end - machine_now_ns(), 0);
    if (poll.wait(left, mask) < 0)
      return -1;
    last = real_ns >= 0 && machine_now_ns() >= end;
  }
}

static std::string poll_text(const pollfd* p, nfds_t n, bool done) {
  std::string text;
  for (nfds_t i = 0; i < n && i < 8; ++i) {
    text += " " + std::to_string(p[i].fd) + ":" + std::to_string(p[i].events);
    if (done)
      text += ">" + std::to_string(p[i].revents);
  }
  return text;
}

static int poll_any(pollfd* p, nfds_t n, int64_t virtual_ns, const sigset_t* mask) {
  // Before anything else: a call that is interrupted at once has not looked.
  if (call_fails("poll"))
    return -1;
  const int64_t real_ns = real_timeout(virtual_ns);
  if (!has_ours(p, n))
    return real_poll(p, n, real_ns, mask);
  const int result = poll_ours(p, n, real_ns, mask);
  if (log_enabled())
    log_call(result, "poll%s %lld ms", poll_text(p, n, result >= 0).c_str(), static_cast<long long>(virtual_ns / MS));
  return result;
}

SOFTDVB_EXPORT int poll(pollfd* p, nfds_t n, int timeout_ms) {
  return poll_any(p, n, timeout_ms < 0 ? FOREVER : timeout_ms * MS, nullptr);
}

extern "C" int __poll_chk(pollfd* p, nfds_t n, int timeout_ms, size_t room);
SOFTDVB_EXPORT int __poll_chk(pollfd* p, nfds_t n, int timeout_ms, size_t) {
  return poll_any(p, n, timeout_ms < 0 ? FOREVER : timeout_ms * MS, nullptr);
}

SOFTDVB_EXPORT int ppoll(pollfd* p, nfds_t n, const timespec* timeout, const sigset_t* mask) {
  return poll_any(p, n, timeout == nullptr ? FOREVER : nanos(*timeout), mask);
}

extern "C" int __ppoll_chk(pollfd* p, nfds_t n, const timespec* timeout, const sigset_t* mask, size_t room);
SOFTDVB_EXPORT int __ppoll_chk(pollfd* p, nfds_t n, const timespec* timeout, const sigset_t* mask, size_t) {
  return poll_any(p, n, timeout == nullptr ? FOREVER : nanos(*timeout), mask);
}

static bool is_in(int fd, const fd_set* set) {
  return set != nullptr && FD_ISSET(fd, set);
}

// Which of poll's bits make a descriptor ready in each of select's three sets.
static constexpr short READ_BITS = POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR;
static constexpr short WRITE_BITS = POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR;
static constexpr short EXCEPT_BITS = POLLPRI;

static std::vector<pollfd> as_poll(int n, const fd_set* reads, const fd_set* writes, const fd_set* excepts) {
  // The kernel itself makes select of the same answers as poll.
  std::vector<pollfd> list;
  for (int fd = 0; fd < n; ++fd) {
    int events = 0;
    if (is_in(fd, reads))
      events |= POLLIN | POLLRDNORM | POLLRDBAND;
    if (is_in(fd, writes))
      events |= POLLOUT | POLLWRNORM | POLLWRBAND;
    if (is_in(fd, excepts))
      events |= POLLPRI;
    if (events != 0)
      list.push_back({fd, static_cast<short>(events), 0});
  }
  return list;
}

static int keep_ready(int fd, bool ready, fd_set* set) {
  if (!is_in(fd, set))
    return 0;
  if (ready)
    return 1;
  FD_CLR(fd, set);
  return 0;
}

static int select_ours(std::vector<pollfd>& list, fd_set* reads, fd_set* writes, fd_set* excepts, int64_t real_ns,
                       const sigset_t* mask) {
  if (poll_ours(list.data(), list.size(), real_ns, mask) < 0)
    return -1;
  for (const pollfd& p : list) {
    // Where poll tells of a closed descriptor in its bits, select fails.
    if ((p.revents & POLLNVAL) != 0) {
      errno = EBADF;
      return -1;
    }
  }
  int ready = 0;
  for (const pollfd& p : list) {
    ready += keep_ready(p.fd, (p.revents & READ_BITS) != 0, reads);
    ready += keep_ready(p.fd, (p.revents & WRITE_BITS) != 0, writes);
    ready += keep_ready(p.fd, (p.revents & EXCEPT_BITS) != 0, excepts);
  }
  return ready;
}

static bool any_ours(int n, const fd_set* reads, const fd_set* writes, const fd_set* excepts) {
  // Sets are no larger than this, however large a number the program gives.
  for (int fd = 0; fd < n && fd < FD_SETSIZE; ++fd)
    if (maybe_ours(fd) && (is_in(fd, reads) || is_in(fd, writes) || is_in(fd, excepts)))
      return true;
  return false;
}

static int select_any(int n, fd_set* reads, fd_set* writes, fd_set* excepts, int64_t virtual_ns, const sigset_t* mask) {
  const int64_t real_ns = real_timeout(virtual_ns);
  if (!any_ours(n, reads, writes, excepts)) {
    const timespec time = from_nanos(std::max<int64_t>(real_ns, 0));
    return SOFTDVB_REAL(pselect)(n, reads, writes, excepts, real_ns < 0 ? nullptr : &time, mask);
  }
  std::vector<pollfd> list = as_poll(std::min(n, FD_SETSIZE), reads, writes, excepts);
  const int result = select_ours(list, reads, writes, excepts, real_ns, mask);
  if (log_enabled())
    log_call(result, "select%s %lld ms", poll_text(list.data(), list.size(), result >= 0).c_str(),
             static_cast<long long>(virtual_ns / MS));
  return result;
}

SOFTDVB_EXPORT int select(int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
  if (call_fails("select"))
    return -1;
  if (timeout == nullptr)
    return select_any(n, reads, writes, excepts, FOREVER, nullptr);
  // The kernel takes more than a million microseconds but no negative ones.
  if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
    errno = EINVAL;
    return -1;
  }
  // The microseconds may be more than a second's worth.
  const int64_t wanted = nanos(timespec{timeout->tv_sec, 0}) + static_cast<int64_t>(timeout->tv_usec) * 1000;
  const int64_t begin = machine_now_ns();
  const int result = select_any(n, reads, writes, excepts, wanted, nullptr);
  // Linux tells how much was left.
  int64_t passed = machine_now_ns() - begin;
  if (const Shared* s = shared())
    passed = to_virtual_duration(*s, passed);
  const timespec left = from_nanos(std::max<int64_t>(wanted - passed, 0));
  timeout->tv_sec = left.tv_sec;
  timeout->tv_usec = left.tv_nsec / 1000;
  return result;
}

SOFTDVB_EXPORT int pselect(int n, fd_set* reads, fd_set* writes, fd_set* excepts, const timespec* timeout,
                           const sigset_t* mask) {
  if (call_fails("select"))
    return -1;
  return select_any(n, reads, writes, excepts, timeout == nullptr ? FOREVER : nanos(*timeout), mask);
}

// The eventfd behind a device wakes epoll by itself; only time and the stream must be brought up to date.
static void catch_up() {
  const Device_lock lock;
  if (!all_handles().empty())
    player_advance();
}

static int epoll_any(int fd, epoll_event* events, int n, int64_t virtual_ns, const sigset_t* mask) {
  if (shared() != nullptr)
    catch_up();
  const int64_t real_ns = real_timeout(virtual_ns);
  const timespec time = from_nanos(std::max<int64_t>(real_ns, 0));
  const int ready = SOFTDVB_REAL(epoll_pwait2)(fd, events, n, real_ns < 0 ? nullptr : &time, mask);
  if (ready >= 0 || errno != ENOSYS)
    return ready;
  // Kernels before 5.11, and qemu, wait for whole milliseconds only.
  const int64_t ms = std::min<int64_t>((real_ns + MS - 1) / MS, std::numeric_limits<int>::max());
  return SOFTDVB_REAL(epoll_pwait)(fd, events, n, real_ns < 0 ? -1 : static_cast<int>(ms), mask);
}

SOFTDVB_EXPORT int epoll_wait(int fd, epoll_event* events, int n, int timeout_ms) {
  return epoll_any(fd, events, n, timeout_ms < 0 ? FOREVER : timeout_ms * MS, nullptr);
}

SOFTDVB_EXPORT int epoll_pwait(int fd, epoll_event* events, int n, int timeout_ms, const sigset_t* mask) {
  return epoll_any(fd, events, n, timeout_ms < 0 ? FOREVER : timeout_ms * MS, mask);
}

SOFTDVB_EXPORT int epoll_pwait2(int fd, epoll_event* events, int n, const timespec* timeout, const sigset_t* mask) {
  return epoll_any(fd, events, n, timeout == nullptr ? FOREVER : nanos(*timeout), mask);
}
