// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/demux.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "base/ids.h"
#include "softdvb/model/clock.h"
#include "softdvb/model/player.h"
#include "softdvb/model/plug.h"
#include "softdvb/model/real.h"

namespace softdvb {

// One above the last PID asks for the whole stream, as in the kernel; only packet filters may have it.
static constexpr int ALL_PIDS = pid::LAST + 1;
// The kernel counts a filter's time-out in ticks and rounds up.
static constexpr uint64_t TIMEOUT_SLACK_NS = 15000000;

Demux_handle::Demux_handle(int adapter_index, int open_flags, int slot)
    : Handle(Device::DEMUX, adapter_index, open_flags), slot_(slot) {}

void Demux_handle::closed() {
  stop();
  const Shared_lock lock(*shared());
  // A forked child that closes its copy must not free the place that its parent still holds.
  if (slot_ >= 0 && adapter().demux_owner[slot_] == getpid())
    adapter().demux_owner[slot_] = 0;
  remove_unused_nodes(adapter());
}

// A filter that is not running shows nothing, not even what an earlier run left, because poll in the kernel looks at
// its state first.
short Demux_handle::ready() {
  // Nothing else is told of a device that is gone, and a read still waits for data.
  if (gone())
    return POLLERR;
  return state_ < Filter_state::GO ? short{0} : queue_.ready();
}

// Like the kernel, reads a section in two steps, header and body, and never reads past its end. A program may ask for
// fewer bytes than either; what is left is remembered, even over an overflow.
ssize_t Demux_handle::read(void* to, size_t n) {
  uint8_t* at = static_cast<uint8_t*>(to);
  // Packets have no bounds that a reader must keep to, so they are read as any stream of bytes.
  if (type_ != Type::SECTION)
    return read_queue(*this, queue_, at, n);
  ssize_t done = 0;
  if (body_left_ == 0) {
    const ssize_t got = read_queue(*this, queue_, at, std::min(n, static_cast<size_t>(header_missing_)));
    if (got < 0) {
      // An error inside a header gives that header up. An error inside a body, below, leaves the position: the kernel
      // forgets what it had there, and the next section's first bytes are taken for the rest. Programs have to live
      // with that, so they meet it here as well.
      header_missing_ = 3;
      return got;
    }
    std::copy_n(at, got, header_ + (3 - header_missing_));
    header_missing_ -= static_cast<int>(got);
    // The end of a section that was cut on purpose is here, before the length in its header says so.
    if (cut_reached())
      return got;
    if (header_missing_ > 0)
      return got;
    header_missing_ = 3;
    body_left_ = (header_[1] & 0x0F) << 8 | header_[2];
    done = got;
    at += got;
    n -= static_cast<size_t>(got);
    if (n == 0)
      return done;
  }
  const ssize_t got = read_queue(*this, queue_, at, std::min(n, static_cast<size_t>(body_left_)));
  if (got < 0)
    return got;
  body_left_ -= static_cast<int>(got);
  cut_reached();
  return done + got;
}

bool Demux_handle::cut_reached() {
  // The player writes into the queue from its own thread.
  const Device_lock lock;
  if (!queue_.take_cut())
    return false;
  header_missing_ = 3;
  body_left_ = 0;
  return true;
}

int Demux_handle::request(unsigned long request, void* argument) {
  const Device_lock lock;
  // What was on the air until now belongs to the filter as it was, so it is delivered before the call changes anything.
  player_advance();
  int result = -ENOTTY;
  switch (request) {
    case DMX_START:
      result = start();
      break;
    case DMX_STOP:
      stop();
      result = 0;
      break;
    case DMX_SET_FILTER:
      result = argument == nullptr ? -EFAULT : set_filter(*static_cast<dmx_sct_filter_params*>(argument));
      break;
    case DMX_SET_PES_FILTER:
      result = argument == nullptr ? -EFAULT : set_packet_filter(*static_cast<dmx_pes_filter_params*>(argument));
      break;
    case DMX_SET_BUFFER_SIZE:
      result = set_buffer_size(reinterpret_cast<uintptr_t>(argument));
      break;
    case DMX_ADD_PID:
      result = argument == nullptr ? -EFAULT : add_pid(*static_cast<uint16_t*>(argument));
      break;
    case DMX_REMOVE_PID:
      result = argument == nullptr ? -EFAULT : remove_pid(*static_cast<uint16_t*>(argument));
      break;
    case DMX_GET_PES_PIDS:
      result = argument == nullptr ? -EFAULT : 0;
      // What is not set is one less than none: 0xFFFF.
      for (int i = 0; argument != nullptr && i < 5; ++i)
        static_cast<uint16_t*>(argument)[i] = static_cast<uint16_t>(adapter().pes_pid[i].load() - 1);
      break;
    // There is no clock of a decoder to be read.
    case DMX_GET_STC:
      result = -EINVAL;
      break;
    default:
      break;
  }
  // The call may have emptied the queue or set a deadline, which poll and the player must learn of.
  sync();
  player_wake();
  return result;
}

int Demux_handle::start() {
  if (state_ < Filter_state::SET)
    return -EINVAL;
  // A start on a running filter begins anew: its feed is given back and taken again.
  stop();
  // The kernel makes the queue before it looks at the PID. So a start that fails changes what reading says: 0 before,
  // "try again" after it.
  queue_.allocated = true;
  queue_.flush();
  header_missing_ = 3;
  body_left_ = 0;
  if (type_ == Type::SECTION) {
    if (pid_ > pid::LAST)
      return -EINVAL;
  } else {
    for (const int pid : pids_)
      if (const int result = start_feed(pid); result != 0) {
        stop_feeds();
        return result;
      }
  }
  demux_of(adapter_index()).filter_started(*this);
  state_ = Filter_state::GO;
  if (type_ == Type::SECTION && section_.timeout != 0)
    deadline_ns_ = adapter_now_ns(*shared()) + section_.timeout * uint64_t{1000000} + TIMEOUT_SLACK_NS;
  // Streams that begin with the first filter count their time from here.
  player_filter_started(adapter_index());
  return 0;
}

void Demux_handle::stop() {
  if (!running())
    return;
  state_ = Filter_state::SET;
  deadline_ns_ = 0;
  demux_of(adapter_index()).filter_stopped(*this);
  if (type_ == Type::PACKETS)
    stop_feeds();
  queue_.flush();
}

// A stream of a decoder has one source, although there is no decoder: whoever takes the type first has it.
int Demux_handle::start_feed(int pid) {
  if (pid > ALL_PIDS)
    return -EINVAL;
  Adapter& a = adapter();
  if (pes_.pes_type < DMX_PES_OTHER) {
    const Shared_lock lock(*shared());
    int32_t& slot = a.pes_slot[pes_.pes_type];
    if (slot != 0 && is_process_alive(a.demux_owner[slot - 1]))
      return -EINVAL;
    slot = slot_ + 1;
    has_type_ = true;
    if (pes_.pes_type <= DMX_PES_PCR0)
      a.pes_pid[pes_.pes_type].store(pid + 1);
  }
  if (pes_.output == DMX_OUT_TS_TAP)
    feed_dvr(pid);
  return 0;
}

void Demux_handle::stop_feeds() {
  if (has_type_) {
    const Shared_lock lock(*shared());
    if (adapter().pes_slot[pes_.pes_type] == slot_ + 1)
      adapter().pes_slot[pes_.pes_type] = 0;
    has_type_ = false;
  }
  feed_dvr(-1);
}

void Demux_handle::feed_dvr(int pid) {
  // A forked child that closes its copy must not stop what its parent runs.
  if (slot_ < 0 || adapter().demux_owner[slot_] != getpid() || adapter().dvr_pid[slot_].load() == pid + 1)
    return;
  adapter().dvr_pid[slot_].store(pid + 1);
  adapter().dvr_changes.fetch_add(1);
}

// A filter that cannot run has replaced the old one all the same: only the start looks at the PID.
int Demux_handle::set_filter(const dmx_sct_filter_params& p) {
  stop();
  type_ = Type::SECTION;
  section_ = p;
  pid_ = p.pid;
  has_negative_ = false;
  for (int i = 0; i < DMX_FILTER_SIZE; ++i)
    if ((p.filter.mask[i] & p.filter.mode[i]) != 0)
      has_negative_ = true;
  state_ = Filter_state::SET;
  return (p.flags & DMX_IMMEDIATE_START) != 0 ? start() : 0;
}

int Demux_handle::set_packet_filter(const dmx_pes_filter_params& p) {
  stop();
  // One of a kind that does not exist takes the old one away as well.
  if (static_cast<unsigned>(p.pes_type) > DMX_PES_OTHER) {
    type_ = Type::NONE;
    state_ = Filter_state::ALLOCATED;
    return -EINVAL;
  }
  type_ = Type::PACKETS;
  pes_ = p;
  pids_ = {p.pid};
  state_ = Filter_state::SET;
  return (p.flags & DMX_IMMEDIATE_START) != 0 ? start() : 0;
}

int Demux_handle::set_buffer_size(size_t n) {
  // The size that it has already is taken even from a running filter; the order of these questions is the kernel's.
  if (n == queue_.size())
    return 0;
  if (n == 0)
    return -EINVAL;
  if (running())
    return -EBUSY;
  queue_.resize(n);
  return 0;
}

// Only a filter that is read by itself may have several PIDs, each as often as it was added. One of the wrong PID stays
// and keeps the filter from being started again.
int Demux_handle::add_pid(int pid) {
  if (type_ != Type::PACKETS || (pes_.output != DMX_OUT_TSDEMUX_TAP && !pids_.empty()))
    return -EINVAL;
  pids_.push_back(pid);
  demux_of(adapter_index()).pids_changed();
  return running() ? start_feed(pid) : 0;
}

// Of a filter that does not run nothing is removed, and nobody is told.
int Demux_handle::remove_pid(int pid) {
  if (type_ != Type::PACKETS)
    return -EINVAL;
  if (running() && std::erase(pids_, pid) > 0) {
    if (pids_.empty())
      stop_feeds();
    demux_of(adapter_index()).pids_changed();
  }
  return 0;
}

int Demux_handle::copies_of(int pid) const {
  if (type_ == Type::SECTION)
    return pid_ == pid ? 1 : 0;
  return static_cast<int>(
      std::count_if(pids_.begin(), pids_.end(), [pid](int own) { return own == pid || own == ALL_PIDS; }));
}

bool Demux_handle::matches(const uint8_t* section) const {
  bool differs = false;
  for (int i = 0; i < DMX_FILTER_SIZE; ++i) {
    // The two length bytes are not filtered, so all but the first byte of a filter stand two places further on.
    const uint8_t byte = section[i == 0 ? 0 : i + 2];
    const uint8_t mask = section_.filter.mask[i];
    const uint8_t mode = section_.filter.mode[i];
    const uint8_t difference = static_cast<uint8_t>((byte ^ section_.filter.filter[i]) & mask);
    if ((difference & ~mode) != 0)
      return false;
    if ((difference & mode) != 0)
      differs = true;
  }
  // Bits in `mode` ask for a difference in at least one of them, not in each.
  return differs || !has_negative_;
}

void Demux_handle::deliver_section(const uint8_t* section, size_t n, size_t cut_to) {
  // After an overflow nothing more is taken until the program has read the error.
  if (queue_.error != 0)
    return;
  deadline_ns_ = 0;
  // A section that does not fit is not cut off: it is lost whole, and with it what was queued before.
  if (queue_.fits(n)) {
    queue_.write(section, cut_to < n ? cut_to : n);
    if (cut_to < n)
      queue_.mark_cut();
  } else {
    queue_.error = EOVERFLOW;
  }
  // A filter for one section stays on its feed until somebody stops it, so it still counts among those that share the
  // PID.
  if ((section_.flags & DMX_ONESHOT) != 0)
    state_ = Filter_state::DONE;
}

void Demux_handle::deliver_packet(const uint8_t* packet) {
  const uint8_t* from = packet;
  size_t n = TS_PACKET;
  // DMX_OUT_TAP gives the payload alone, DMX_OUT_TSDEMUX_TAP whole packets; the others go elsewhere.
  if (pes_.output == DMX_OUT_TAP) {
    const unsigned control = (packet[3] >> 4) & 3u;
    size_t at = 4;
    if ((control & 2u) != 0)
      at += 1u + packet[4];
    if ((control & 1u) == 0 || at >= TS_PACKET)
      return;
    from = packet + at;
    n = TS_PACKET - at;
  } else if (pes_.output != DMX_OUT_TSDEMUX_TAP) {
    return;
  }
  queue_.add(from, n);
}

void Demux_handle::check_timeout(uint64_t now_ns) {
  if (deadline_ns_ == 0 || now_ns < deadline_ns_ || state_ != Filter_state::GO)
    return;
  deadline_ns_ = 0;
  // The filter is over, but its feed is kept like that of a oneshot filter.
  queue_.error = ETIMEDOUT;
  state_ = Filter_state::TIMED_OUT;
}

void Demux_handle::overflow() {
  if (running() && queue_.error == 0)
    queue_.error = EOVERFLOW;
}

// A filter that takes nothing of the PID, or goes to the queue of another device, must not hold the stream up.
bool Demux_handle::has_room(int pid, size_t n) const {
  if (copies_of(pid) == 0)
    return true;
  if (type_ == Type::SECTION)
    return state_ != Filter_state::GO || queue_.patient_room(n);
  return state_ != Filter_state::GO || pes_.output == DMX_OUT_TS_TAP || pes_.output == DMX_OUT_DECODER ||
         queue_.patient_room(TS_PACKET);
}

Dvr_handle::Dvr_handle(int adapter_index, int open_flags) : Handle(Device::DVR, adapter_index, open_flags) {
  // The device has its queue from the opening on; there is no start that could make it.
  queue_.allocated = true;
  demux_of(adapter_index).reader_opened();
}

void Dvr_handle::closed() {
  demux_of(adapter_index()).reader_closed();
  const Shared_lock lock(*shared());
  if (!gone() && adapter().dvr_owner == getpid())
    adapter().dvr_owner = 0;
}

void Dvr_handle::overflow() {
  if (queue_.error == 0)
    queue_.error = EOVERFLOW;
}

short Dvr_handle::ready() {
  return gone() ? short{POLLERR} : queue_.ready();
}

ssize_t Dvr_handle::read(void* to, size_t n) {
  if (gone())
    return -ENODEV;
  return read_queue(*this, queue_, static_cast<uint8_t*>(to), n);
}

int Dvr_handle::request(unsigned long request, void* argument) {
  if (request != DMX_SET_BUFFER_SIZE)
    return -ENOTTY;
  const size_t n = reinterpret_cast<uintptr_t>(argument);
  const Device_lock lock;
  if (n == queue_.size())
    return 0;
  if (n == 0)
    return -EINVAL;
  queue_.resize(n);
  sync();
  return 0;
}

void Demux::filter_started(const Demux_handle& filter) {
  if (filter.type() == Demux_handle::Type::PACKETS) {
    ++packet_filters_;
  } else {
    // Filters of one PID share a feed as in the kernel. That is why a new one loses its neighbours' arriving section,
    // and why the first one decides whether CRCs are checked.
    auto [at, fresh] = feeds_.try_emplace(filter.pid(), filter.pid(), filter.checks_crc());
    ++at->second.users;
    if (!fresh)
      at->second.sections.restart();
  }
  pids_changed();
}

void Demux::filter_stopped(const Demux_handle& filter) {
  if (filter.type() == Demux_handle::Type::PACKETS) {
    --packet_filters_;
  } else if (const auto at = feeds_.find(filter.pid()); at != feeds_.end()) {
    // Giving a feed back costs the others the section that is arriving, because the kernel sets the shared feed up
    // anew.
    if (--at->second.users == 0)
      feeds_.erase(at);
    else
      at->second.sections.restart();
  }
  pids_changed();
}

void Demux::pids_changed() {
  wanted_valid_ = false;
}

void Demux::find_wanted(const Adapter& adapter) {
  // Most packets of a stream interest nobody; one look into this table is all that they cost.
  wanted_.fill(false);
  for (const auto& [pid, feed] : feeds_)
    wanted_[static_cast<size_t>(pid)] = true;
  // Packet filters may have several PIDs or all of them. They are rare, so they are not worth a table of their own.
  if (packet_filters_ > 0)
    wanted_.fill(true);
  recorded_.fill(false);
  for (int i = 0; readers_ > 0 && i < adapter.filters; ++i) {
    const int pid = adapter.dvr_pid[i].load() - 1;
    if (pid < 0 || !is_process_alive(adapter.demux_owner[i]))
      continue;
    if (pid == ALL_PIDS)
      recorded_.fill(true);
    else
      recorded_[static_cast<size_t>(pid)] = true;
  }
  for (size_t i = 0; i < wanted_.size(); ++i)
    wanted_[i] = wanted_[i] || recorded_[i];
  wanted_valid_ = true;
}

bool Demux::wants(int adapter_index, int pid) {
  const Adapter& adapter = shared()->adapter[adapter_index];
  const uint32_t changes = adapter.dvr_changes.load();
  if (!wanted_valid_ || (readers_ > 0 && changes != dvr_changes_)) {
    dvr_changes_ = changes;
    find_wanted(adapter);
  }
  return wanted_[static_cast<size_t>(pid)];
}

// What the adapter's section faults make of one section.
struct Damage {
  bool drop = false;
  bool twice = false;
  bool bad_crc = false;
  size_t cut_to = SIZE_MAX;
};

static Damage damage_for(const Adapter& adapter, int pid, int table, uint64_t now_ns) {
  Damage damage;
  Shared& s = *shared();
  const int count = s.section_fault_count.load(std::memory_order_acquire);
  for (int i = 0; i < count; ++i) {
    Section_fault& fault = s.section_fault[i];
    if ((fault.adapter >= 0 && fault.adapter != adapter.number) || fault.pid != pid)
      continue;
    if ((fault.table >= 0 && fault.table != table) || now_ns < fault.at_ns)
      continue;
    // Every section meant is counted, harmed or not, because "@FIRST" counts from the first one.
    const uint32_t nth = fault.seen.fetch_add(1, std::memory_order_relaxed) + 1;
    if (nth < fault.from || (fault.count != 0 && nth >= fault.from + fault.count))
      continue;
    switch (fault.kind) {
      case Section_fault_kind::DROP:
      case Section_fault_kind::SILENCE:
        damage.drop = true;
        break;
      case Section_fault_kind::CUT:
        damage.cut_to = fault.size;
        break;
      case Section_fault_kind::DOUBLE:
        damage.twice = true;
        break;
      case Section_fault_kind::CRC:
        damage.bad_crc = true;
        break;
    }
  }
  return damage;
}

int Demux::packet(Adapter& adapter, int adapter_index, const uint8_t* p, uint64_t now_ns) {
  // Errors and scrambling that the packet tells of do not keep it away, as in the kernel: a broken section is
  // found by its CRC, if the program asked for that.
  const int pid = (p[1] & 0x1F) << 8 | p[2];
  if (!wants(adapter_index, pid))
    return 0;
  int delivered = 0;
  if (const auto at = feeds_.find(pid); at != feeds_.end()) {
    // Taken before the feed runs, and so the same for every section that this packet completes.
    const bool check_crc = at->second.sections.check_crc();
    at->second.sections.packet(p, [&](const uint8_t* section, size_t n) {
      const Damage damage = damage_for(adapter, pid, section[0], now_ns);
      if (damage.drop)
        return;
      uint8_t altered[MAX_SECTION + 32];
      if (damage.bad_crc) {
        // Filters of 18 bytes look behind a short section, so what follows it is copied too.
        std::copy_n(section, n + 18, altered);
        altered[n - 1] = static_cast<uint8_t>(altered[n - 1] ^ 0xFF);
        section = altered;
      }
      // Without the syntax bit a section is taken to have no CRC, also a TOT, which has one.
      if (check_crc && (section[1] & 0x80) != 0 && section_crc(section, n) != 0)
        return;
      for (int times = damage.twice ? 2 : 1; times > 0; --times)
        delivered += deliver(adapter_index, pid, section, n, damage.cut_to);
    });
  }
  if (packet_filters_ > 0 || recorded_[static_cast<size_t>(pid)])
    delivered += deliver_packet(adapter_index, pid, p);
  return delivered;
}

int Demux::deliver(int adapter_index, int pid, const uint8_t* section, size_t n, size_t cut_to) {
  int delivered = 0;
  for (const auto& handle : all_handles()) {
    if (handle->device() != Device::DEMUX || handle->adapter_index() != adapter_index || !handle->listens())
      continue;
    auto& filter = static_cast<Demux_handle&>(*handle);
    // All filters are asked each time: the kernel copies a section to every filter that matches it.
    if (!filter.takes_sections() || filter.pid() != pid || !filter.matches(section))
      continue;
    filter.deliver_section(section, n, cut_to);
    ++delivered;
  }
  return delivered;
}

int Demux::deliver_packet(int adapter_index, int pid, const uint8_t* p) {
  int delivered = 0;
  for (const auto& handle : all_handles()) {
    // An inherited handle belongs to the parent until this process uses it.
    if (handle->adapter_index() != adapter_index || !handle->listens())
      continue;
    if (handle->device() == Device::DEMUX) {
      auto& filter = static_cast<Demux_handle&>(*handle);
      for (int i = filter.takes_packets() ? filter.copies_of(pid) : 0; i > 0; --i) {
        filter.deliver_packet(p);
        ++delivered;
      }
    } else if (handle->device() == Device::DVR && recorded_[static_cast<size_t>(pid)]) {
      // All filters with that output share the one queue of the dvr device, which gets each packet once.
      static_cast<Dvr_handle&>(*handle).deliver_packet(p);
      ++delivered;
    }
  }
  return delivered;
}

bool Demux::has_room(int adapter_index, int pid) {
  if (!wants(adapter_index, pid))
    return true;
  for (const auto& handle : all_handles()) {
    if (handle->adapter_index() != adapter_index || !handle->listens())
      continue;
    if (handle->device() == Device::DEMUX) {
      const auto& filter = static_cast<const Demux_handle&>(*handle);
      if (filter.running() && !filter.has_room(pid, MAX_SECTION))
        return false;
    } else if (handle->device() == Device::DVR && recorded_[static_cast<size_t>(pid)]) {
      if (!static_cast<const Dvr_handle&>(*handle).has_room(TS_PACKET))
        return false;
    }
  }
  return true;
}

Demux& demux_of(int adapter_index) {
  // Never deleted: the player may still run when the program's own destructors do.
  static Demux* const demuxes = new Demux[MAX_RECORDS];
  return demuxes[adapter_index];
}

}  // namespace softdvb
