// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <poll.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "softdvb/model/clock.h"
#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"

namespace softdvb {

static constexpr uint64_t MS = 1000000;
// The kernel lets a frontend run on for a while, so that a program which reopens it finds its lock again.
static constexpr uint64_t SLEEP_AFTER_CLOSE_NS = 500 * MS;
static constexpr uint64_t RETUNE_NS = 1 * MS;          // until the driver has left the old frequency
static constexpr uint64_t LOCKED_LOOK_NS = 3000 * MS;  // the core's nap while there is a lock
static constexpr uint64_t LOST_LOOK_NS = 50 * MS;      // and while it waits for a lock that it had
static constexpr uint32_t LOCK_TOLERANCE_HZ = 250000;
// What a driver shows when everything is well: 0x1F.
static constexpr uint32_t FULL_LOCK = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;

// The frequency that was asked for stays: a sleeping frontend still tells it.
static void power_down(Frontend& fe) {
  fe.powered = 0;
  fe.tuned = 0;
  fe.was_locked = 0;
  fe.event_read = fe.event_write = fe.event_overflow = 0;
}

static std::string writer_lock_file(const Adapter& a) {
  return std::string(shared()->run_dir) + "/writer" + std::to_string(a.number);
}

// An open file whose lock follows the descriptors over dup and fork, and ends with the last of them; -1: taken.
static int take_writer_lock(const Adapter& a, bool close_on_exec) {
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC;
  int fd = SOFTDVB_REAL(open)(writer_lock_file(a).c_str(), flags, 0600);
  if (fd < 0)
    return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    SOFTDVB_REAL(close)(fd);
    return -1;
  }
  // Out of the way: the program's next descriptor is the lowest free number, as it would be with a device.
  for (const int lowest : {900, 200, 100}) {
    const int high = SOFTDVB_REAL(fcntl)(fd, close_on_exec ? F_DUPFD_CLOEXEC : F_DUPFD, lowest);
    if (high < 0)
      continue;
    // The lock belongs to the open file, and the copy keeps it.
    SOFTDVB_REAL(close)(fd);
    return high;
  }
  return fd;
}

static bool has_writer(Adapter& a, uint64_t now_ns) {
  Frontend& fe = a.fe;
  if (fe.writer_pid == 0)
    return false;
  // The usual answer costs one system call; files are looked at only after a death.
  if (is_process_alive(fe.writer_pid))
    return true;
  // It died without a close, but a child may have inherited the handle.
  const int free_lock = take_writer_lock(a, true);
  if (free_lock < 0)
    return true;
  SOFTDVB_REAL(close)(free_lock);
  fe.writer_pid = 0;
  fe.closed_at_ns = now_ns;
  return false;
}

static int tuned_mux(const Adapter& a) {
  const Tuning& asked = a.fe.asked;
  for (int i = 0; i < a.mux_count; ++i) {
    const uint32_t freq = a.mux[i].freq;
    const uint32_t off = freq > asked.frequency ? freq - asked.frequency : asked.frequency - freq;
    // A receiver also locks a little beside the frequency, as scans that use offsets of 1/6 MHz expect.
    if (off <= LOCK_TOLERANCE_HZ && a.mux[i].delivery == asked.delivery)
      return i;
  }
  return -1;
}

uint32_t signal_value(const Adapter& a, uint32_t freq, Reading reading, uint64_t now_ns) {
  // A good signal without errors, where the command line says nothing.
  static constexpr uint32_t DEFAULTS[] = {FULL_LOCK, 0xC8C8, 0xFAFA, 0, 0};
  uint32_t value = DEFAULTS[static_cast<int>(reading)];
  for (int i = 0; i < a.step_count; ++i) {
    const Signal_step& step = a.step[i];
    if (step.reading == reading && (step.freq == 0 || step.freq == freq) && step.at_ns <= now_ns)
      // Later steps win, so a value can change over time and be changed while the program runs.
      value = step.value;
  }
  return value;
}

// Tuned by the launcher, for programs that only look: then the lock is there from the beginning.
static bool tuned_before_start(const Frontend& fe) {
  return fe.externally_tuned != 0 && fe.tuned_at_ns == 0;
}

static uint64_t lock_time(const Adapter& a) {
  return tuned_before_start(a.fe) ? 0 : a.fe.tuned_at_ns + a.lock_delay_ns;
}

// What the driver would say about its lock.
static uint32_t driver_status(const Adapter& a, uint64_t now_ns) {
  const Frontend& fe = a.fe;
  // Just after a tuning the driver still settles. Without this pause a program that looks at once would see the lock of
  // the old frequency.
  if (fe.tuned == 0 || fe.dead != 0 || (!tuned_before_start(fe) && now_ns < fe.tuned_at_ns + RETUNE_NS))
    return 0;
  const int mux = tuned_mux(a);
  if (mux < 0)
    return 0;
  const uint32_t status = signal_value(a, a.mux[mux].freq, Reading::STATUS, now_ns);
  if (now_ns >= lock_time(a))
    return status;
  // On the way to the lock a carrier is found first, and programs show that as progress.
  return status & (FE_HAS_SIGNAL | FE_HAS_CARRIER);
}

// The parameters a driver reports once it is locked: what was automatic is known then.
static Tuning resolved(const Adapter& a, uint32_t status) {
  Tuning t = a.fe.asked;
  if ((status & FE_HAS_LOCK) == 0)
    return t;
  if (t.inversion == INVERSION_AUTO)
    t.inversion = INVERSION_OFF;
  if (t.bandwidth_hz == 0)
    t.bandwidth_hz = t.frequency < 400000000 ? 7000000 : 8000000;
  if (t.code_rate_hp == FEC_AUTO)
    t.code_rate_hp = FEC_2_3;
  if (t.code_rate_lp == FEC_AUTO)
    t.code_rate_lp = FEC_NONE;
  if (t.modulation == QAM_AUTO)
    t.modulation = QAM_64;
  if (t.transmission_mode == TRANSMISSION_MODE_AUTO)
    t.transmission_mode = TRANSMISSION_MODE_8K;
  if (t.guard_interval == GUARD_INTERVAL_AUTO)
    t.guard_interval = GUARD_INTERVAL_1_4;
  if (t.hierarchy == HIERARCHY_AUTO)
    t.hierarchy = HIERARCHY_NONE;
  return t;
}

static void add_event(Adapter& a, uint32_t status) {
  Frontend& fe = a.fe;
  // One place stays empty to tell a full queue from an empty one, so the kernel's eight places hold seven events.
  const int next = (fe.event_write + 1) % EVENT_QUEUE;
  if (next == fe.event_read) {
    // The oldest event gives way, and the program hears of it once, as EOVERFLOW.
    fe.event_overflow = 1;
    fe.event_read = (fe.event_read + 1) % EVENT_QUEUE;
  }
  fe.events[fe.event_write] = {status, resolved(a, status)};
  fe.event_write = next;
  fe.last_event_status = status;
}

// REQUIRES the shared lock.
static void settle(Adapter& a, uint64_t now_ns) {
  Frontend& fe = a.fe;
  const bool held = has_writer(a, now_ns) || fe.externally_tuned != 0;
  if (!held) {
    // The core puts a frontend to sleep a while after its last writer; a program that
    // opens it before finds the lock still there.
    if (fe.powered != 0 && fe.closed_at_ns != 0 && now_ns >= fe.closed_at_ns + SLEEP_AFTER_CLOSE_NS)
      power_down(fe);
    return;
  }
  // All looks that are due are made up for one by one, so events do not depend on who asks when.
  while (fe.tuned != 0 && fe.dead == 0 && fe.next_look_ns <= now_ns) {
    const uint32_t status = driver_status(a, fe.next_look_ns);
    // Only a change makes an event. A lock that comes and goes between two looks is never told.
    if (status != fe.last_event_status)
      add_event(a, status);
    if ((status & FE_HAS_LOCK) != 0) {
      fe.was_locked = 1;
      fe.next_look_ns += LOCKED_LOOK_NS;
    } else {
      fe.next_look_ns += fe.was_locked != 0 ? LOST_LOOK_NS : a.look_interval_ns;
    }
  }
}

void frontend_settle(Adapter& adapter, uint64_t now_ns) {
  const Shared_lock lock(*shared());
  settle(adapter, now_ns);
}

uint64_t frontend_next_look(Adapter& adapter) {
  const Shared_lock lock(*shared());
  const Frontend& fe = adapter.fe;
  // Without a writer nobody can read events, so nobody has to be woken for them.
  return fe.writer_pid != 0 && fe.tuned != 0 && fe.dead == 0 ? fe.next_look_ns : 0;
}

On_air frontend_on_air(Adapter& adapter, uint64_t now_ns) {
  const Shared_lock lock(*shared());
  settle(adapter, now_ns);
  On_air air;
  // Tells the players of all processes that the adapter was tuned again, also to the same frequency.
  air.generation = adapter.stream_generation.load(std::memory_order_relaxed);
  if ((driver_status(adapter, now_ns) & FE_HAS_LOCK) == 0)
    return air;
  air.mux = tuned_mux(adapter);
  air.since_ns = lock_time(adapter);
  return air;
}

void frontend_tune(Adapter& a, const Tuning& tuning, uint64_t now_ns) {
  Frontend& fe = a.fe;
  fe.asked = tuning;
  // Events of the old tuning are of no use; the first one of the new tuning says that there is no lock yet.
  fe.event_read = fe.event_write = fe.event_overflow = 0;
  fe.was_locked = 0;
  add_event(a, 0);
  if (fe.dead != 0)
    return;
  fe.powered = 1;
  fe.tuned = 1;
  fe.tuned_at_ns = now_ns;
  // The core looks at its own pace. That is why the lock is a status before it is an event.
  fe.next_look_ns = now_ns + a.look_interval_ns;
  // A stream that begins with the first filter waits for one again.
  a.stream_epoch_ns.store(0, std::memory_order_relaxed);
  a.stream_generation.fetch_add(1, std::memory_order_release);
}

Frontend_handle::Frontend_handle(int adapter_index, int open_flags, int lock_fd)
    : Handle(Device::FRONTEND, adapter_index, open_flags), lock_fd_(lock_fd) {}

std::shared_ptr<Handle> open_frontend(int adapter_index, int open_flags) {
  Shared& s = *shared();
  Adapter& a = s.adapter[adapter_index];
  const uint64_t now = adapter_now_ns(s);
  int lock_fd = -1;
  const bool writer = (open_flags & O_ACCMODE) != O_RDONLY;
  // There is one writer in all processes. The lock on a file tells, because the kernel lets it go when its holder dies.
  if (writer) {
    lock_fd = take_writer_lock(a, (open_flags & O_CLOEXEC) != 0);
    if (lock_fd < 0) {
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
    fe.powered = 1;
    // Events of the time when nobody looked are not made up afterwards.
    if (fe.tuned != 0) {
      fe.last_event_status = driver_status(a, now);
      if (fe.next_look_ns < now)
        fe.next_look_ns = now + LOCKED_LOOK_NS;
    }
  }
  return std::make_shared<Frontend_handle>(adapter_index, open_flags, lock_fd);
}

void Frontend_handle::closed() {
  if (lock_fd_ < 0)
    return;
  // First our own copy goes. If the lock can be had again after that, it was the last one.
  SOFTDVB_REAL(close)(lock_fd_);
  lock_fd_ = -1;
  if (inherited)
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
  constexpr short READABLE = POLLIN | POLLRDNORM | POLLPRI;
  return fe.event_read != fe.event_write ? READABLE : short{0};
}

// The reading, -EAGAIN without a writer, or 524 where the driver has none.
static int read_signal(Adapter& a, Reading reading, uint64_t now_ns, uint32_t* value) {
  if ((a.missing_readings & 1u << static_cast<int>(reading)) != 0)
    return -ERROR_NOT_SUPPORTED;
  Frontend& fe = a.fe;
  if (!has_writer(a, now_ns) && fe.externally_tuned == 0)
    return -EAGAIN;
  // A core without its thread never gets a reading from the driver.
  if (fe.dead != 0)
    return -EAGAIN;
  const int mux = fe.tuned != 0 ? tuned_mux(a) : -1;
  if (mux >= 0) {
    *value = signal_value(a, a.mux[mux].freq, reading, now_ns);
  } else {
    // Without a signal every bit counts as wrong, and all else as nothing.
    *value = reading == Reading::BER ? 0xFFFFFFFFu : 0;
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
  out->parameters = to_parameters(event.tuning, a.fe_type);
  fe.event_read = (fe.event_read + 1) % EVENT_QUEUE;
  return 0;
}

static int check_frequency(const Adapter& a, uint32_t freq) {
  // Nothing but the frequency is checked: the core leaves everything else to the driver, which takes what it gets.
  return freq < a.freq_min || freq > a.freq_max ? -EINVAL : 0;
}

static int answer(Adapter& a, unsigned long request, void* argument, uint64_t now_ns) {
  Frontend& fe = a.fe;
  settle(a, now_ns);
  uint32_t value = 0;
  int result = 0;
  switch (request) {
    case FE_GET_INFO:
      *static_cast<dvb_frontend_info*>(argument) = frontend_info(a);
      return 0;
    // Read from the driver at each call and not from the core's last look, so it is ahead of the events.
    case FE_READ_STATUS: {
      const bool held = has_writer(a, now_ns) || fe.externally_tuned != 0;
      *static_cast<fe_status_t*>(argument) = static_cast<fe_status_t>(held ? driver_status(a, now_ns) : 0);
      return 0;
    }
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
    case FE_SET_FRONTEND: {
      const Tuning tuning = from_parameters(*static_cast<dvb_frontend_parameters*>(argument), a.fe_type);
      result = check_frequency(a, tuning.frequency);
      if (result == 0)
        frontend_tune(a, tuning, now_ns);
      return result;
    }
    case FE_GET_FRONTEND:
      *static_cast<dvb_frontend_parameters*>(argument) = to_parameters(reported_tuning(a, now_ns), a.fe_type);
      return 0;
    case FE_GET_EVENT:
      return get_event(a, now_ns, static_cast<dvb_frontend_event*>(argument));
    case FE_SET_PROPERTY: {
      bool tune = false;
      // A list without DTV_TUNE only collects, and one that is refused tunes nothing.
      result = set_properties(a, *static_cast<dtv_properties*>(argument), &tune);
      if (result != 0 || !tune)
        return result;
      result = check_frequency(a, requested_tuning(a).frequency);
      if (result == 0)
        frontend_tune(a, requested_tuning(a), now_ns);
      return result;
    }
    case FE_GET_PROPERTY:
      return get_properties(a, *static_cast<dtv_properties*>(argument), driver_status(a, now_ns), now_ns);
    default:
      return -ERROR_NOT_SUPPORTED;
  }
}

Tuning reported_tuning(Adapter& a, uint64_t now_ns) {
  const uint32_t status = driver_status(a, now_ns);
  Tuning t = resolved(a, status);
  const int mux = tuned_mux(a);
  if ((status & FE_HAS_LOCK) != 0 && mux >= 0)
    // A locked driver tells what it found, which may be an offset away from what was asked for. Events keep the latter.
    t.frequency = a.mux[mux].freq;
  return t;
}

int Frontend_handle::request(unsigned long request, void* argument) {
  // The core's own order: rights first, then whether there is such a call at all.
  if (!writable() && (_IOC_DIR(request) != _IOC_READ || request == FE_GET_EVENT))
    return -EPERM;
  // Without effect: it only switches off the search beside the frequency, which nobody does here.
  if (request == FE_SET_FRONTEND_TUNE_MODE)
    return 0;
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
