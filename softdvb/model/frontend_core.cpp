// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend_core.h"

#include <linux/dvb/frontend.h>

#include "softdvb/model/writer_lock.h"

namespace softdvb {

static constexpr uint64_t MS = 1000000;
// The kernel lets a frontend run on for a while, so that a program which reopens it finds its lock again.
static constexpr uint64_t SLEEP_AFTER_CLOSE_NS = 500 * MS;
static constexpr uint64_t RETUNE_NS = 1 * MS;          // until the driver has left the old frequency
static constexpr uint64_t LOST_LOOK_NS = 50 * MS;      // and while it waits for a lock that it had
static constexpr uint64_t FOUND_LOOK_NS = 60000 * MS;  // the nap after a driver's own search has found something
static constexpr uint64_t SEARCH_AGAIN_NS = 500 * MS;  // and after it has not
static constexpr uint64_t SLOWER_AFTER_ROUND_NS = 1000 * MS;
static constexpr uint32_t LOCK_TOLERANCE_HZ = 250000;
// What a driver shows when everything is well: 0x1F.
static constexpr uint32_t FULL_LOCK = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;

// The frequency that was asked for stays: a sleeping frontend still tells it.
static void power_down(Frontend& fe) {
  fe.powered = 0;
  fe.tuned = 0;
  fe.was_locked = 0;
  fe.driver.delivery = SYS_UNDEFINED;
  fe.event_read = fe.event_write = fe.event_overflow = 0;
}

struct Reception {
  int mux = -1;
  bool has_packets = false;
};

// A pipe that a signal does not have is locked to like any other, but nothing comes out of it.
static Reception reception(const Adapter& a, const Tuning& t) {
  Reception best;
  // The streams are sent in 8K.
  if (t.delivery == SYS_DVBT && t.transmission_mode == TRANSMISSION_MODE_4K &&
      profile_of(a).mode_4k == Mode_4k::TAKEN_AS_2K)
    return best;
  const bool any_pipe = t.stream_id == NO_STREAM_ID_FILTER && profile_of(a).finds_pipe;
  const int pipe = t.stream_id == NO_STREAM_ID_FILTER ? 0 : static_cast<int>(t.stream_id & 0xFF);
  for (int i = 0; i < a.mux_count && !best.has_packets; ++i) {
    const Mux& mux = a.mux[i];
    const uint32_t off = mux.freq > t.frequency ? mux.freq - t.frequency : t.frequency - mux.freq;
    // A receiver also locks a little beside the frequency, as scans that use offsets of 1/6 MHz expect.
    if (off > LOCK_TOLERANCE_HZ || mux.delivery != t.delivery || mux.from_ns != 0)
      continue;
    if (best.mux < 0)
      best.mux = i;
    if (mux.pipe >= 0 && !any_pipe && mux.pipe != pipe)
      continue;
    best = {i, true};
  }
  return best;
}

int received_mux(const Adapter& a) {
  return reception(a, a.fe.driver).mux;
}

uint32_t signal_value(const Adapter& a, uint32_t freq, Reading reading, uint64_t now_ns) {
  const Device_profile& d = profile_of(a);
  // A good signal without errors, where the command line says nothing.
  constexpr int32_t LEVEL = -52000;
  constexpr int32_t CNR = 27500;
  const uint32_t defaults[] = {FULL_LOCK, d.strength, d.snr, 0, 0, static_cast<uint32_t>(LEVEL), uint32_t{CNR}};
  uint32_t value = defaults[static_cast<int>(reading)];
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

static uint64_t ns_by_system(const Tuning& t, uint16_t t_ms, uint16_t t2_ms) {
  return (t.delivery == SYS_DVBT2 ? t2_ms : t_ms) * MS;
}

static uint64_t lock_delay(const Adapter& a, int mux) {
  const Device_profile& d = profile_of(a);
  if (mux >= 0 && a.mux[mux].lock_delay_ns >= 0)
    return static_cast<uint64_t>(a.mux[mux].lock_delay_ns);
  return a.lock_delay_ns >= 0 ? static_cast<uint64_t>(a.lock_delay_ns)
                              : ns_by_system(a.fe.driver, d.lock_t_ms, d.lock_t2_ms);
}

uint64_t locked_since(const Adapter& a) {
  return tuned_before_start(a.fe) ? 0 : a.fe.seeks_since_ns + lock_delay(a, received_mux(a));
}

uint32_t driver_status(const Adapter& a, uint64_t now_ns) {
  const Frontend& fe = a.fe;
  // Just after a tuning the driver still settles. Without this pause a program that looks at once would see the lock of
  // the old frequency.
  if (fe.tuned == 0 || fe.dead != 0 || fe.state == Core_state::FAILED ||
      (!tuned_before_start(fe) && now_ns < fe.tuned_at_ns + RETUNE_NS))
    return 0;
  const int mux = received_mux(a);
  if (mux < 0)
    return 0;
  const uint32_t status = signal_value(a, a.mux[mux].freq, Reading::STATUS, now_ns);
  if (a.mux[mux].weak != 0)
    return status & profile_of(a).weak_bits;
  if (now_ns >= locked_since(a))
    return status;
  // On the way to the lock many find a carrier first, and programs show that as progress.
  return status & profile_of(a).early_bits;
}

static bool is_locked(const Adapter& a, uint64_t now_ns) {
  return (driver_status(a, now_ns) & FE_HAS_LOCK) != 0;
}

// The parameters a driver reports once it is locked: what was automatic is known then.
static Tuning resolved(const Adapter& a, uint32_t status) {
  Tuning t = a.fe.asked;
  const Device_profile& d = profile_of(a);
  if ((status & FE_HAS_LOCK) == 0 || d.reported == Reported::NOTHING || !d.reports_modes)
    return t;
  const bool second = t.delivery == SYS_DVBT2;
  if (t.inversion == INVERSION_AUTO)
    t.inversion = INVERSION_OFF;
  if (t.bandwidth_hz == 0)
    t.bandwidth_hz = t.frequency < 400000000 ? 7000000 : 8000000;
  if (t.code_rate_hp == FEC_AUTO)
    t.code_rate_hp = FEC_2_3;
  if (t.code_rate_lp == FEC_AUTO)
    t.code_rate_lp = FEC_NONE;
  if (t.modulation == QAM_AUTO)
    t.modulation = second ? QAM_256 : QAM_64;
  if (t.transmission_mode == TRANSMISSION_MODE_AUTO)
    t.transmission_mode = second ? TRANSMISSION_MODE_32K : TRANSMISSION_MODE_8K;
  if (t.guard_interval == GUARD_INTERVAL_AUTO)
    t.guard_interval = second ? GUARD_INTERVAL_1_128 : GUARD_INTERVAL_1_4;
  if (t.hierarchy == HIERARCHY_AUTO)
    t.hierarchy = HIERARCHY_NONE;
  return t;
}

Tuning reported_tuning(const Adapter& a, uint64_t now_ns) {
  const Device_profile& d = profile_of(a);
  // A driver that knows nothing leaves the core's parameters alone.
  if (d.reported == Reported::NOTHING || a.fe.tuned == 0)
    return a.cache;
  const uint32_t status = driver_status(a, now_ns);
  Tuning t = resolved(a, status);
  // No driver fills in these.
  if (!d.takes_any_system) {
    t.delivery = a.cache.delivery;
    t.stream_id = a.cache.stream_id;
  }
  const int mux = received_mux(a);
  if (d.search == Search::TUNE) {
    t.frequency = a.cache.frequency;  // where the driver has put the offset
  } else if (d.reported == Reported::ONE_HZ) {
    t.frequency = 1;
  } else if ((status & FE_HAS_LOCK) != 0 && mux >= 0) {
    // What was found may be an offset away from what was asked for.
    const uint32_t found = d.reported == Reported::FOUND ? a.mux[mux].freq : t.frequency;
    t.frequency = found + static_cast<uint32_t>(a.offset_hz);
  }
  return t;
}

static void add_event(Adapter& a, uint32_t status, uint64_t at_ns) {
  Frontend& fe = a.fe;
  // One place stays empty to tell a full queue from an empty one, so the kernel's eight places hold seven events.
  const int next = (fe.event_write + 1) % EVENT_QUEUE;
  if (next == fe.event_read) {
    // The oldest event gives way, and the program hears of it once, as EOVERFLOW.
    fe.event_overflow = 1;
    fe.event_read = (fe.event_read + 1) % EVENT_QUEUE;
  }
  const bool asks_driver = (status & FE_HAS_LOCK) != 0 && !profile_of(a).takes_any_system;
  fe.events[fe.event_write] = {status, asks_driver ? reported_tuning(a, at_ns) : resolved(a, status)};
  fe.event_write = next;
  fe.last_event_status = status;
}

static bool takes_parameters(const Adapter& a, const Tuning& t) {
  const Device_profile& d = profile_of(a);
  if (a.firmware_missing != 0 || (t.bandwidth_hz == 0 && !d.takes_bandwidth_0 && t.symbol_rate == 0))
    return false;
  return t.delivery != SYS_DVBT || t.transmission_mode != TRANSMISSION_MODE_4K || d.mode_4k != Mode_4k::REFUSED;
}

// After a failure a driver that searches tries the other of two systems, and the core's parameters say so from then on.
static void choose_system(Adapter& a) {
  Frontend& fe = a.fe;
  if (fe.search_failed == 0 || (fe.driver.delivery != SYS_DVBT && fe.driver.delivery != SYS_DVBT2))
    return;
  fe.asked.delivery = a.cache.delivery = fe.driver.delivery == SYS_DVBT ? SYS_DVBT2 : SYS_DVBT;
}

// The core's search beside the frequency: 0, +step, -step; after a round it waits once and goes on slower.
// Returns false for that wait, else adds to the frequency and the pause behind the call.
static bool step_aside(const Device_profile& d, uint32_t nth, uint32_t& freq, uint64_t& pause_ns) {
  constexpr uint32_t ROUND = 3;
  if (d.step_hz == 0)
    return true;
  if (nth == ROUND)
    return false;
  if (nth > ROUND)
    pause_ns += SLOWER_AFTER_ROUND_NS;
  const uint32_t place = nth < ROUND ? nth : (nth - ROUND - 1) % ROUND;
  freq += place == 1 ? d.step_hz : place == 2 ? 0 - d.step_hz : 0;
  return true;
}

// A driver that waits for the lock by itself, once or in each search.
static void wait_in_driver(Adapter& a, uint64_t at_ns, uint64_t lock_ns, bool can_lock) {
  Frontend& fe = a.fe;
  const Device_profile& d = profile_of(a);
  const uint64_t longest = ns_by_system(fe.driver, d.wait_t_ms, d.wait_t2_ms);
  const bool found = can_lock && lock_ns <= longest;
  fe.seeks_since_ns = at_ns;
  fe.busy_until_ns = at_ns + (found ? lock_ns : longest);
  fe.next_look_ns = fe.busy_until_ns;
  if (d.search == Search::SYSTEMS) {
    fe.search_failed = found ? 0 : 1;
    if (!found)
      fe.next_look_ns += SEARCH_AGAIN_NS;
  } else if (found) {
    // With the lock the offset is known, is put into the core's frequency, and all begins anew.
    a.cache.frequency += static_cast<uint32_t>(a.offset_hz);
    fe.seeks_since_ns = fe.busy_until_ns;
    fe.busy_until_ns += lock_ns;
    fe.next_look_ns = fe.busy_until_ns;
  }
}

// The core calls the driver: for a new tuning, and again as long as there is no lock.
static void call_driver(Adapter& a, uint64_t at_ns) {
  Frontend& fe = a.fe;
  const Device_profile& d = profile_of(a);
  if (d.search == Search::SYSTEMS)
    choose_system(a);
  Tuning t = fe.asked;
  uint64_t pause = a.look_interval_ns;
  fe.next_look_ns = at_ns + pause;
  if (!step_aside(d, fe.tries++, t.frequency, pause))
    return;
  fe.driver = t;
  fe.seeks_since_ns = fe.busy_until_ns = at_ns;
  if (!takes_parameters(a, t)) {
    fe.state = Core_state::FAILED;
    return;
  }
  fe.state = Core_state::TUNING;
  const int mux = received_mux(a);
  const bool can_lock =
      mux >= 0 && a.mux[mux].weak == 0 && (signal_value(a, a.mux[mux].freq, Reading::STATUS, at_ns) & FE_HAS_LOCK) != 0;
  if (d.search == Search::TUNE || d.search == Search::SYSTEMS)
    return wait_in_driver(a, at_ns, lock_delay(a, mux), can_lock);
  const uint64_t inside = (mux < 0 && d.set_no_signal_ms != 0 ? d.set_no_signal_ms : d.set_ms) * MS;
  fe.seeks_since_ns = fe.busy_until_ns = at_ns + inside;
  fe.next_look_ns = at_ns + inside + pause;
}

// One turn of the core's thread.
static void look(Adapter& a) {
  Frontend& fe = a.fe;
  const Device_profile& d = profile_of(a);
  const uint64_t at = fe.next_look_ns;
  const uint32_t status = driver_status(a, at);
  // A single shot is not looked after.
  if (fe.oneshot != 0) {
    fe.next_look_ns += LOCKED_LOOK_NS;
    return;
  }
  // Only a change makes an event. A lock that comes and goes between two looks is never told.
  if (status != fe.last_event_status)
    add_event(a, status, at);
  if (d.search == Search::TUNE) {
    fe.next_look_ns += a.look_interval_ns;
  } else if ((status & FE_HAS_LOCK) != 0) {
    fe.was_locked = 1;
    fe.next_look_ns += d.search == Search::SYSTEMS ? FOUND_LOOK_NS : LOCKED_LOOK_NS;
  } else if (d.search == Search::SYSTEMS) {
    call_driver(a, at);
  } else if (fe.was_locked != 0 && (d.less_caps & FE_CAN_RECOVER) == 0 && d.step_hz == 0) {
    fe.next_look_ns += LOST_LOOK_NS;
  } else if (d.search == Search::CORE && fe.state == Core_state::TUNING) {
    call_driver(a, at);
  } else {
    fe.next_look_ns += a.look_interval_ns;
  }
}

bool is_held(Adapter& a, uint64_t now_ns) {
  return has_writer(a, now_ns) || a.fe.externally_tuned != 0 || a.busy != 0;
}

void settle(Adapter& a, uint64_t now_ns) {
  Frontend& fe = a.fe;
  if (!is_held(a, now_ns)) {
    // The core puts a frontend to sleep a while after its last writer; a program that
    // opens it before finds the lock still there.
    if (fe.powered != 0 && fe.closed_at_ns != 0 && now_ns >= fe.closed_at_ns + SLEEP_AFTER_CLOSE_NS)
      power_down(fe);
    return;
  }
  // All looks that are due are made up for one by one, so events do not depend on who asks when.
  while (fe.tuned != 0 && fe.dead == 0 && fe.next_look_ns <= now_ns)
    look(a);
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
  On_air air;
  // Tells the players of all processes that the adapter was tuned again, also to the same frequency.
  air.generation = adapter.stream_generation.load(std::memory_order_relaxed);
  air.first_filter_ns = adapter.stream_epoch_ns;
  // Of several frontends one at most is awake.
  for (Adapter& each : frontends_of(adapter)) {
    settle(each, now_ns);
    const Reception received = reception(each, each.fe.driver);
    if (!is_locked(each, now_ns) || !received.has_packets)
      continue;
    air.mux = received.mux;
    air.since_ns = locked_since(each);
  }
  return air;
}

void frontend_tune(Adapter& a, const Tuning& tuning, uint64_t now_ns) {
  Frontend& fe = a.fe;
  fe.asked = tuning;
  // Events of the old tuning are of no use; the first one of the new tuning says that there is no lock yet.
  fe.event_read = fe.event_write = fe.event_overflow = 0;
  fe.was_locked = 0;
  add_event(a, 0, now_ns);
  if (fe.dead != 0)
    return;
  fe.powered = 1;
  fe.tuned = 1;
  fe.tuned_at_ns = now_ns;
  fe.tries = 0;
  // The core looks at its own pace. That is why the lock is a status before it is an event.
  call_driver(a, now_ns);
  if (tuned_before_start(fe))
    fe.busy_until_ns = 0;
  // A stream that begins with the first filter waits for one again.
  Adapter& first = first_of(a);
  first.stream_epoch_ns = 0;
  first.stream_generation.fetch_add(1, std::memory_order_release);
}

void wake_frontend(Adapter& a, uint64_t now_ns) {
  Frontend& fe = a.fe;
  const Device_profile& d = profile_of(a);
  fe.powered = 1;
  fe.state = Core_state::IDLE;
  if (a.firmware_missing != 0)
    return;
  fe.busy_until_ns = now_ns + (fe.firmware_loaded != 0 ? d.firmware_again_ms : d.firmware_ms) * MS;
  fe.firmware_loaded = 1;
}

}  // namespace softdvb
