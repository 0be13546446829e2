// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "softdvb/model/clock.h"
#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/frontend_core.h"
#include "softdvb/model/frontend_properties.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"
#include "softdvb/model/writer_lock.h"

namespace softdvb {

// 0, or -EINTR when a signal came first.
static int sleep_until(uint64_t at_ns) {
  const Shared& s = *shared();
  const int timer = SOFTDVB_REAL(timerfd_create)(CLOCK_MONOTONIC, TFD_CLOEXEC);
  itimerspec end{};
  end.it_value = from_nanos(s.start_mono_ns + to_real_duration(s, static_cast<int64_t>(at_ns)));
  uint64_t count = 0;
  // Reading leaves it to the kernel whether a signal ends the call or is followed by another try.
  int result = 0;
  if (timer >= 0 && SOFTDVB_REAL(timerfd_settime)(timer, TFD_TIMER_ABSTIME, &end, nullptr) == 0 &&
      SOFTDVB_REAL(read)(timer, &count, sizeof count) < 0)
    result = -errno;
  if (timer >= 0)
    SOFTDVB_REAL(close)(timer);
  return result;
}

Frontend_handle::Frontend_handle(int adapter_index, int open_flags, int lock_fd, int user_fd)
    : Handle(Device::FRONTEND, adapter_index, open_flags), lock_fd_(lock_fd), user_fd_(user_fd) {}

// REQUIRES the shared lock.
static bool is_other_in_use(Adapter& a, uint64_t now_ns) {
  for (Adapter& other : frontends_of(a)) {
    if (other.frontend == a.frontend)
      continue;
    settle(other, now_ns);
    // The core's thread goes on for a while after the last writer.
    if (other.fe.powered != 0 || is_held(other, now_ns) || has_users(other))
      return true;
  }
  return false;
}

int wait_for_other_frontend(int adapter_index) {
  Shared& s = *shared();
  Adapter& a = s.adapter[adapter_index];
  constexpr uint64_t LOOK_NS = NANOS / 2;
  constexpr int LOOKS = 10;
  for (int look = 0; look < LOOKS && a.frontends > 1 && a.unplugged.load() == 0; ++look) {
    uint64_t now = 0;
    {
      const Shared_lock lock(s);
      now = adapter_now_ns(s);
      if (!is_other_in_use(a, now))
        return 0;
    }
    if (const int result = sleep_until(now + LOOK_NS); result != 0)
      return result;
  }
  return 0;
}

// The user's lock, -1 with EBUSY when another frontend of the adapter is in use. One look and one step for all
// processes: none comes in between.
static int take_signal_path(Adapter& a, bool close_on_exec) {
  const Shared_lock lock(*shared());
  const int fd = is_other_in_use(a, adapter_now_ns(*shared())) ? -1 : take_user_lock(a, close_on_exec);
  if (fd < 0)
    errno = EBUSY;
  return fd;
}

std::shared_ptr<Handle> open_frontend(int adapter_index, int open_flags) {
  Shared& s = *shared();
  Adapter& a = s.adapter[adapter_index];
  const uint64_t now = adapter_now_ns(s);
  int lock_fd = -1;
  const bool writer = (open_flags & O_ACCMODE) != O_RDONLY;
  // There is one writer in all processes. The lock on a file tells, because the kernel lets it go when its holder dies.
  if (a.unplugged.load() != 0) {
    errno = ENOENT;
    return nullptr;
  }
  const bool close_on_exec = (open_flags & O_CLOEXEC) != 0;
  const int user_fd = a.frontends > 1 ? take_signal_path(a, close_on_exec) : -1;
  if (a.frontends > 1 && user_fd < 0)
    return nullptr;
  if (writer) {
    lock_fd = a.busy != 0 ? -1 : take_writer_lock(a, close_on_exec);
    if (lock_fd < 0) {
      if (user_fd >= 0)
        SOFTDVB_REAL(close)(user_fd);
      errno = EBUSY;
      return nullptr;
    }
  }
  const Shared_lock lock(s);
  settle(a, now);
  if (writer) {
    Frontend& fe = a.fe;
    ++fe.opens;
    fe.writer_pid = getpid();
    fe.closed_at_ns = 0;
    // A new opening does not see the events of the one before.
    fe.event_read = fe.event_write = fe.event_overflow = 0;
    fe.dead = a.dead_reopen != 0 && fe.opens == a.dead_reopen ? 1 : 0;
    fe.oneshot = 0;
    if (fe.powered == 0)
      wake_frontend(a, now);
    // Events of the time when nobody looked are not made up afterwards.
    if (fe.tuned != 0) {
      fe.last_event_status = driver_status(a, now);
      if (fe.next_look_ns < now)
        fe.next_look_ns = now + LOCKED_LOOK_NS;
    }
  }
  return std::make_shared<Frontend_handle>(adapter_index, open_flags, lock_fd, user_fd);
}

void Frontend_handle::closed() {
  if (user_fd_ >= 0)
    SOFTDVB_REAL(close)(user_fd_);
  user_fd_ = -1;
  if (lock_fd_ < 0)
    return;
  // First our own copy goes. If the lock can be had again after that, it was the last one.
  SOFTDVB_REAL(close)(lock_fd_);
  lock_fd_ = -1;
  // The frontend may be another one by now.
  if (inherited || gone())
    return;
  Adapter& a = adapter();
  // A copy of the descriptor in another process keeps the lock on the file, and the frontend stays in use.
  const int again = take_writer_lock(a, true);
  if (again < 0)
    return;  // another process still has it
  {
    const Shared_lock lock(*shared());
    const uint64_t now = adapter_now_ns(*shared());
    settle(a, now);
    a.fe.writer_pid = 0;
    a.fe.closed_at_ns = now;
  }
  SOFTDVB_REAL(close)(again);
}

short Frontend_handle::ready() {
  // Only events make a frontend readable; a status that has changed does not, before the core has looked.
  const Shared_lock lock(*shared());
  const Frontend& fe = adapter().fe;
  // The core does not tell of a frontend that is gone.
  if (gone())
    return 0;
  constexpr short READABLE = POLLIN | POLLRDNORM | POLLPRI;
  return fe.event_read != fe.event_write ? READABLE : short{0};
}

// The reading, -EAGAIN without a writer, or 524 where the driver has none.
static int read_signal(Adapter& a, Reading reading, uint64_t now_ns, uint32_t* value) {
  if ((a.missing_readings & 1u << static_cast<int>(reading)) != 0)
    return -ERROR_NOT_SUPPORTED;
  Frontend& fe = a.fe;
  if (!is_held(a, now_ns))
    return -EAGAIN;
  // A core without its thread never gets a reading from the driver.
  if (fe.dead != 0)
    return -EAGAIN;
  const int mux = fe.tuned != 0 ? received_mux(a) : -1;
  if (mux >= 0) {
    *value = signal_value(a, a.mux[mux].freq, reading, now_ns);
    // A weak signal shows half of what a good one does.
    if (a.mux[mux].weak != 0 && (reading == Reading::STRENGTH || reading == Reading::SNR))
      *value /= 2;
  } else {
    // Without a signal every bit counts as wrong, and all else but the receiver's noise as nothing.
    *value = reading == Reading::BER        ? 0xFFFFFFFFu
             : reading == Reading::STRENGTH ? profile_of(a).strength_no_signal
                                            : 0;
  }
  return 0;
}

static int get_event(Adapter& a, uint64_t now_ns, dvb_frontend_event* out) {
  Frontend& fe = a.fe;
  // Events that are due by now are made first, so the answer does not depend on whether the player ran.
  settle(a, now_ns);
  if (fe.event_overflow != 0) {
    fe.event_overflow = 0;
    return -EOVERFLOW;
  }
  // Whether the call then waits is decided outside, without the locks.
  if (fe.event_read == fe.event_write)
    return -EWOULDBLOCK;
  const Event& event = fe.events[fe.event_read];
  out->status = static_cast<fe_status_t>(event.status);
  out->parameters = to_parameters(event.tuning, frontend_type(a));
  fe.event_read = (fe.event_read + 1) % EVENT_QUEUE;
  return 0;
}

// A driver that sleeps or has no firmware may say so, or that nothing is received.
static int read_status(Adapter& a, uint64_t now_ns, fe_status_t* out) {
  const Frontend& fe = a.fe;
  const Device_profile& d = profile_of(a);
  if (a.firmware_missing != 0 && fe.state != Core_state::FAILED)
    return -d.no_firmware_error;
  if (fe.powered == 0 && d.asleep_error != 0)
    return -d.asleep_error;
  // Also for a while after the last writer has closed it.
  *out = static_cast<fe_status_t>(driver_status(a, now_ns));
  return 0;
}

// As FE_SET_FRONTEND does: with the system that the core has in its cache, if the old interface knows that.
static int set_frontend(Adapter& a, const dvb_frontend_parameters& p, uint64_t now_ns) {
  const uint32_t before = a.cache.delivery;
  choose_old_system(a);
  const Tuning tuning = from_parameters(p, a);
  const int result = check_tuning(a, tuning);
  if (result != 0) {
    a.cache.delivery = before;
    return result;
  }
  a.cache = tuning;
  frontend_tune(a, tuning, now_ns);
  return 0;
}

static int get_frontend(Adapter& a, uint64_t now_ns, dvb_frontend_parameters* out) {
  const Device_profile& d = profile_of(a);
  // The core has the driver fill the structure, and reports success when there is nobody to do that.
  if (d.reported == Reported::NOTHING)
    return 0;
  if (d.reports_lock_only && (driver_status(a, now_ns) & FE_HAS_LOCK) == 0)
    return -EINVAL;
  *out = to_parameters(reported_tuning(a, now_ns), frontend_type(a));
  return 0;
}

static int answer(Adapter& a, unsigned long request, void* argument, uint64_t now_ns) {
  settle(a, now_ns);
  uint32_t value = 0;
  int result = 0;
  switch (request) {
    case FE_GET_INFO:
      *static_cast<dvb_frontend_info*>(argument) = frontend_info(a);
      return 0;
    // Read from the driver at each call and not from the core's last look, so it is ahead of the events.
    case FE_READ_STATUS:
      return read_status(a, now_ns, static_cast<fe_status_t*>(argument));
    case FE_READ_BER:
    case FE_READ_UNCORRECTED_BLOCKS:
      result = read_signal(a, request == FE_READ_BER ? Reading::BER : Reading::UCBLOCKS, now_ns, &value);
      if (result == 0)
        *static_cast<uint32_t*>(argument) = value;
      return result;
    case FE_READ_SIGNAL_STRENGTH:
    case FE_READ_SNR:
      result = read_signal(a, request == FE_READ_SNR ? Reading::SNR : Reading::STRENGTH, now_ns, &value);
      if (result == 0)
        *static_cast<uint16_t*>(argument) = static_cast<uint16_t>(value);
      return result;
    case FE_SET_FRONTEND:
      return set_frontend(a, *static_cast<dvb_frontend_parameters*>(argument), now_ns);
    case FE_GET_FRONTEND:
      return get_frontend(a, now_ns, static_cast<dvb_frontend_parameters*>(argument));
    case FE_GET_EVENT:
      return get_event(a, now_ns, static_cast<dvb_frontend_event*>(argument));
    case FE_SET_PROPERTY:
      return set_properties(a, *static_cast<dtv_properties*>(argument), now_ns);
    case FE_GET_PROPERTY:
      return get_properties(a, *static_cast<dtv_properties*>(argument), now_ns);
    default:
      return -ERROR_NOT_SUPPORTED;
  }
}

// The core lets nobody past while its thread is inside the driver. Who has waited is served, even when the machine was
// so slow that the driver has been called again meanwhile.
int Frontend_handle::wait_for_driver() {
  uint64_t until = 0;
  {
    const Shared_lock lock(*shared());
    const uint64_t now = adapter_now_ns(*shared());
    settle(adapter(), now);
    until = adapter().fe.busy_until_ns;
    if (now >= until)
      return 0;
  }
  return sleep_until(until);
}

int Frontend_handle::request(unsigned long request, void* argument) {
  if (const int result = wait_for_driver(); result != 0)
    return result;
  if (gone())
    return -ENODEV;
  // The core's own order: rights first, then whether there is such a call at all.
  if (!writable() && (_IOC_DIR(request) != _IOC_READ || request == FE_GET_EVENT))
    return -EPERM;
  if (request == FE_SET_FRONTEND_TUNE_MODE) {
    const Shared_lock lock(*shared());
    // A driver that is called once for a tuning is not called differently by this.
    adapter().fe.oneshot = (reinterpret_cast<uintptr_t>(argument) & FE_TUNE_MODE_ONESHOT) != 0 &&
                           profile_of(adapter()).search == Search::CORE;
    return 0;
  }
  const bool known = is_frontend_call(request);
  if (known && argument == nullptr)
    return -EFAULT;
  if (!known)
    return -ERROR_NOT_SUPPORTED;
  while (true) {
    int fd = -1;
    {
      // Device lock before shared lock, everywhere. The player takes them in this order as well.
      const Device_lock device_lock;
      const uint64_t now = adapter_now_ns(*shared());
      int result = 0;
      // What was on the air until now is delivered before the frequency changes.
      if (request == FE_SET_FRONTEND || request == FE_SET_PROPERTY)
        player_advance();
      {
        const Shared_lock lock(*shared());
        if (gone())
          return -ENODEV;
        result = answer(adapter(), request, argument, now);
      }
      sync();
      player_wake();
      if (request != FE_GET_EVENT || result != -EWOULDBLOCK || non_blocking())
        return result;
      fd = fds.empty() ? -1 : fds.front();
    }
    // Waiting in a read of the eventfd leaves signals to the kernel, and holds none of our locks.
    uint64_t count = 0;
    if (SOFTDVB_REAL(read)(fd, &count, sizeof count) < 0)
      return -errno;
    const Device_lock device_lock;
    consumed();
  }
}

}  // namespace softdvb
