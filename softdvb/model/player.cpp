// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/player.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "softdvb/model/clock.h"
#include "softdvb/model/demux.h"
#include "softdvb/model/frontend_core.h"
#include "softdvb/model/handles.h"
#include "softdvb/model/real.h"
#include "softdvb/model/stream_index.h"

namespace softdvb {

static constexpr int64_t MS_NS = 1000000;
static constexpr int64_t TICK_NS = 3 * MS_NS;              // real time between looks of a playing thread
static constexpr int64_t IDLE_TICK_NS = 100 * MS_NS;       // and of one that waits for the frontend only
static constexpr int64_t FAST_PATIENCE_NS = 1000 * MS_NS;  // real time; then pace "fast" gives up on a reader
static constexpr uint64_t PACKETS_A_TURN = 2048;           // then the lock is given up for a moment
static constexpr size_t BLOCK_PACKETS = 256;

// One stream file, open in this process.
class Stream_file {
 public:
  ~Stream_file() { close(); }
  void close() {
    if (fd_ >= 0)
      SOFTDVB_REAL(close)(fd_);
    if (points_ != nullptr)
      SOFTDVB_REAL(munmap)(const_cast<Index_point*>(points_), count_ * sizeof(Index_point));
    fd_ = -1;
    points_ = nullptr;
    mux_ = nullptr;
    block_.clear();
  }
  bool open(const Adapter& a, int mux);
  const Mux* mux() const { return mux_; }
  uint64_t time_of(uint64_t packet) const {
    return packet / mux_->packets * mux_->duration_ns + time_of_packet(points_, count_, packet % mux_->packets);
  }
  // The first packet that is not on air before `ns` after the file's beginning, passes counted.
  uint64_t packet_at(uint64_t ns) const {
    const uint64_t pass = ns / mux_->duration_ns;
    return pass * mux_->packets + packet_at_time(points_, count_, ns % mux_->duration_ns);
  }
  const uint8_t* packet(uint64_t number);

 private:
  const Mux* mux_ = nullptr;
  int fd_ = -1;
  const Index_point* points_ = nullptr;
  size_t count_ = 0;
  std::vector<uint8_t> block_;
  uint64_t block_first_ = 0;
};

// What this process plays on one adapter.
struct Playing {
  Stream_file file;
  int mux = -1;
  uint32_t generation = 0;
  bool placed = false;
  uint64_t seen_until_ns = 0;  // when play() was here last
  uint64_t epoch_ns = 0;       // when packet `first` is on air
  uint64_t first = 0;
  uint64_t next = 0;
  int64_t waiting_since_ns = 0;  // real time, for a reader that makes no room; 0: not waiting
  uint64_t idle_passes_end = 0;  // pace "fast": nothing was delivered since the packet before this one
};

struct Player {
  Playing playing[MAX_RECORDS];
  bool running = false;
  int wake_fd = -1;
};

static Player& player() {
  static Player* const p = new Player;
  return *p;
}

// Descriptors of our own stay out of the way of the program's numbers.
static int moved_up(int fd) {
  if (fd < 0)
    return fd;
  // High numbers may be forbidden by the limit of open files, then a lower one does.
  for (const int lowest : {800, 150, 90}) {
    const int high = SOFTDVB_REAL(fcntl)(fd, F_DUPFD_CLOEXEC, lowest);
    if (high < 0)
      continue;
    SOFTDVB_REAL(close)(fd);
    return high;
  }
  return fd;
}

bool Stream_file::open(const Adapter& a, int mux) {
  close();
  const std::string index =
      std::string(shared()->run_dir) + "/index." + std::to_string(a.number) + "." + std::to_string(mux);
  fd_ = moved_up(SOFTDVB_REAL(open)(a.mux[mux].path, O_RDONLY | O_CLOEXEC));
  const int index_fd = SOFTDVB_REAL(open)(index.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  void* at = MAP_FAILED;
  if (index_fd >= 0 && SOFTDVB_REAL(fstat)(index_fd, &st) == 0 && st.st_size > 0)
    at = SOFTDVB_REAL(mmap)(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, index_fd, 0);
  if (index_fd >= 0)
    SOFTDVB_REAL(close)(index_fd);
  if (fd_ < 0 || at == MAP_FAILED) {
    close();
    return false;
  }
  points_ = static_cast<const Index_point*>(at);
  count_ = static_cast<size_t>(st.st_size) / sizeof(Index_point);
  mux_ = &a.mux[mux];
  return true;
}

const uint8_t* Stream_file::packet(uint64_t number) {
  // Packets are counted on over the end, which makes a loop of the stream.
  number %= mux_->packets;
  const size_t size = mux_->packet_size;
  // Read in blocks: a call for each packet would cost more than all the rest.
  if (block_.empty() || number < block_first_ || (number - block_first_) * size + TS_PACKET > block_.size()) {
    block_.resize(BLOCK_PACKETS * size);
    block_first_ = number;
    const ssize_t got =
        SOFTDVB_REAL(pread)(fd_, block_.data(), block_.size(), static_cast<off_t>(mux_->first_offset + number * size));
    block_.resize(got > 0 ? static_cast<size_t>(got) : 0);
    if (block_.size() < TS_PACKET)
      return nullptr;
  }
  return &block_[static_cast<size_t>(number - block_first_) * size];
}

// What has taken the place of that stream by now, or the stream itself.
static int sent_now(const Adapter& a, int mux, uint64_t now_ns) {
  int latest = mux;
  for (int i = 0; i < a.mux_count; ++i)
    if (a.mux[i].from_ns > a.mux[latest].from_ns && a.mux[i].from_ns <= now_ns && a.mux[i].freq == a.mux[mux].freq &&
        a.mux[i].pipe == a.mux[mux].pipe)
      latest = i;
  return latest;
}

// Finds the place in the stream, for a process that begins to listen or whose adapter was tuned.
static bool place(Adapter& a, Playing& p, const On_air& air, uint64_t now_ns) {
  const int mux = air.mux < 0 ? -1 : sent_now(a, air.mux, now_ns);
  // Asked for every turn; nothing is opened or searched as long as nothing was tuned.
  if (p.placed && p.mux == mux && p.generation == air.generation)
    return true;
  if (mux < 0) {
    p.placed = false;
    p.mux = -1;
    return false;
  }
  if ((p.mux != mux || p.file.mux() == nullptr) && !p.file.open(a, mux))
    return false;
  p.mux = mux;
  p.generation = air.generation;
  p.first = p.file.packet_at(p.file.mux()->offset_ns);
  switch (a.start) {
    case Start::AIR:
      p.epoch_ns = 0;
      break;
    case Start::TUNE:
      p.epoch_ns = std::max(air.since_ns, a.mux[mux].from_ns);
      break;
    case Start::FILTER:
      p.epoch_ns = air.first_filter_ns;
      if (p.epoch_ns == 0)
        return false;
      // A filter may have been started before the lock, when nothing was on the air yet.
      p.epoch_ns = std::max({p.epoch_ns, air.since_ns, a.mux[mux].from_ns});
      break;
  }
  // What was on air since the last look, but not before the lock, is still to be played.
  const uint64_t from = std::max(air.since_ns, p.seen_until_ns);
  const uint64_t base = p.file.time_of(p.first);
  p.next = p.first;
  if (a.pace == Pace::TIMED && from > p.epoch_ns)
    p.next = p.file.packet_at(base + from - p.epoch_ns);
  p.placed = true;
  p.waiting_since_ns = 0;
  p.idle_passes_end = p.next + 2 * p.file.mux()->packets;
  return true;
}

static uint64_t air_time(const Playing& p, uint64_t packet) {
  return p.epoch_ns + p.file.time_of(packet) - p.file.time_of(p.first);
}

static bool ended(const Adapter& a, const Playing& p) {
  const Mux& mux = *p.file.mux();
  // Checked before each packet, so that the last one is still played.
  if (a.loop == 0 && p.next >= mux.packets)
    return true;
  return mux.stop_after_ns != 0 && p.next > p.first && air_time(p, p.next) > p.epoch_ns + mux.stop_after_ns;
}

// Packets that arrive together, as the buffers of a bus fill up: none before the last of them was sent.
static uint64_t burst_of(const Adapter& a) {
  return std::max<uint64_t>(1, a.burst_packets);
}

static bool begins_burst(const Adapter& a, const Playing& p) {
  return (p.next - p.first) % burst_of(a) == 0;
}

static uint64_t arrival(const Adapter& a, const Playing& p) {
  const uint64_t burst = burst_of(a);
  uint64_t last = p.next + burst - 1 - (p.next - p.first) % burst;
  if (a.loop == 0)
    last = std::min(last, p.file.mux()->packets - 1);
  return air_time(p, last);
}

static void give(int adapter_index, Playing& p, uint64_t now_ns) {
  const uint8_t* packet = p.file.packet(p.next);
  ++p.next;
  // A damaged file is played as it is, less the packets that are none.
  if (packet == nullptr || packet[0] != 0x47)
    return;
  Adapter& a = shared()->adapter[adapter_index];
  if (demux_of(adapter_index).packet(a, adapter_index, packet, now_ns) > 0)
    p.idle_passes_end = p.next + 2 * p.file.mux()->packets;
}

// True when the packet must wait for a reader.
static bool must_wait(int adapter_index, Playing& p, int64_t patience_ns) {
  const uint8_t* packet = p.file.packet(p.next);
  if (packet == nullptr || patience_ns == 0)
    return false;
  const int pid = (packet[1] & 0x1F) << 8 | packet[2];
  // Only filters that want this very packet can hold the stream up.
  if (demux_of(adapter_index).has_room(adapter_index, pid)) {
    p.waiting_since_ns = 0;
    return false;
  }
  // Patience is measured in real time, because it is for a reader that the machine does not run.
  const int64_t now = machine_now_ns();
  if (p.waiting_since_ns == 0)
    p.waiting_since_ns = now;
  return now - p.waiting_since_ns < patience_ns;
}

// Plays up to now, or as far as the pace allows. Returns real nanoseconds until there is more to do; 0: at once.
static int64_t play_on(int adapter_index, uint64_t now_ns, uint64_t limit) {
  Shared& s = *shared();
  Adapter& a = s.adapter[adapter_index];
  Playing& p = player().playing[adapter_index];
  if (demux_of(adapter_index).idle()) {
    // Nobody listens. Where the stream is then is found anew when somebody does.
    p.placed = false;
    return IDLE_TICK_NS;
  }
  if (!place(a, p, frontend_on_air(a, now_ns), now_ns))
    return TICK_NS;
  if (a.pace == Pace::MANUAL)
    return IDLE_TICK_NS;
  const bool fast = a.pace == Pace::FAST;
  const int64_t patience = fast ? FAST_PATIENCE_NS : static_cast<int64_t>(s.grace_ns);
  // At most so many in a turn, because the device lock is held over all of them and the program waits for it.
  for (uint64_t n = 0; n < limit || !begins_burst(a, p); ++n) {
    if (ended(a, p))
      return IDLE_TICK_NS;
    if (fast) {
      if (p.next >= p.idle_passes_end) {  // nobody wants what is in the stream: no need to hurry
        p.idle_passes_end = p.next + p.file.mux()->packets;
        return TICK_NS;
      }
    } else {
      const uint64_t at = arrival(a, p);
      if (at > now_ns)
        return std::max(TICK_NS, to_real_duration(s, static_cast<int64_t>(at - now_ns)));
    }
    // No reader is quick enough for the inside of a burst.
    if (begins_burst(a, p) && must_wait(adapter_index, p, patience))
      return MS_NS;
    give(adapter_index, p, now_ns);
  }
  return 0;
}

static int64_t play(int adapter_index, uint64_t now_ns, uint64_t limit) {
  const int64_t wait = play_on(adapter_index, now_ns, limit);
  player().playing[adapter_index].seen_until_ns = now_ns;
  return wait;
}

static int64_t advance(uint64_t limit) {
  Shared& s = *shared();
  const uint64_t now = adapter_now_ns(s);
  // Looked at once a second at least, for changes that other processes made.
  int64_t wait = 1000 * MS_NS;
  // A tenth of a millisecond at least, or a deadline just passed would make the thread spin.
  const auto sooner = [&](uint64_t at_ns) {
    const int64_t left = at_ns > now ? to_real_duration(s, static_cast<int64_t>(at_ns - now)) : 0;
    wait = std::min(wait, std::max<int64_t>(left, MS_NS / 10));
  };
  for (int i = 0; i < s.adapter_count; ++i) {
    wait = std::min(wait, play(i, now, limit));
    frontend_settle(s.adapter[i], now);
    if (const uint64_t look = frontend_next_look(s.adapter[i]); look != 0)
      sooner(look);
  }
  for (const auto& handle : all_handles()) {
    if (handle->inherited)
      continue;
    if (handle->device() == Device::DEMUX) {
      auto& filter = static_cast<Demux_handle&>(*handle);
      filter.check_timeout(now);
      if (filter.deadline_ns() != 0)
        sooner(filter.deadline_ns());
    }
    handle->sync();
  }
  return wait;
}

// Called by the program's own threads inside their calls, too. So what they see is up to date even when the player's
// thread did not get the processor.
void player_advance() {
  advance(PACKETS_A_TURN);
}

// Without work there is no thread, and a program that only started others stays as it was.
static bool has_work() {
  const Shared& s = *shared();
  for (int i = 0; i < s.adapter_count; ++i)
    if (!demux_of(i).idle())
      return true;
  for (const auto& handle : all_handles())
    if (handle->device() == Device::FRONTEND && !handle->inherited && handle->writable())
      return true;
  return false;
}

static void* player_thread(void*) {
  // The name shows in debuggers that the thread is not the program's.
  SOFTDVB_REAL(prctl)(PR_SET_NAME, "softdvb", 0, 0, 0);
  while (true) {
    int64_t wait = 0;
    pollfd wake{};
    {
      const Device_lock lock;
      // A program that closed its devices gets rid of the thread, too.
      if (!has_work()) {
        player().running = false;
        return nullptr;
      }
      wait = advance(PACKETS_A_TURN);
      wake = {player().wake_fd, POLLIN, 0};
    }
    // The wait is in real time and without the lock, so anybody may change what it was computed from and wake it.
    const timespec time = from_nanos(wait);
    if (SOFTDVB_REAL(ppoll)(&wake, 1, &time, nullptr) == 1) {
      uint64_t count = 0;
      (void)SOFTDVB_REAL(read)(wake.fd, &count, sizeof count);
    }
  }
}

void player_wake() {
  Player& p = player();
  if (p.running) {
    const uint64_t one = 1;
    (void)SOFTDVB_REAL(write)(p.wake_fd, &one, sizeof one);
    return;
  }
  if (!has_work())
    return;
  // Out of the way like all our own descriptors: programs expect the lowest numbers for theirs.
  if (p.wake_fd < 0)
    p.wake_fd = moved_up(SOFTDVB_REAL(eventfd)(0, EFD_CLOEXEC | EFD_NONBLOCK));
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);  // signals belong to the program's threads
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  // Nobody could join it: the program does not know of it.
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  p.running = pthread_create(&thread, &attributes, player_thread, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void player_made_room() {
  for (const Playing& p : player().playing)
    if (p.waiting_since_ns != 0)
      return player_wake();
}

uint64_t player_step(int adapter_index, uint64_t packets) {
  Adapter& a = shared()->adapter[adapter_index];
  Playing& p = player().playing[adapter_index];
  const uint64_t now = adapter_now_ns(*shared());
  uint64_t played = 0;
  while (played < packets && place(a, p, frontend_on_air(a, now), now) && !ended(a, p)) {
    give(adapter_index, p, now);
    ++played;
  }
  player_advance();
  return played;
}

// Packets of a test go the way of those on the air, with all faults, but need no tuned frontend and no time.
void player_inject(int adapter_index, const uint8_t* packets, size_t size) {
  const uint64_t now = adapter_now_ns(*shared());
  Adapter& a = shared()->adapter[adapter_index];
  for (size_t at = 0; at + TS_PACKET <= size; at += TS_PACKET)
    demux_of(adapter_index).packet(a, adapter_index, packets + at, now);
  player_advance();
}

void player_filter_started(int adapter_index) {
  Shared& s = *shared();
  const uint64_t now = std::max<uint64_t>(1, adapter_now_ns(s));
  const Shared_lock lock(s);
  uint64_t& epoch_ns = s.adapter[adapter_index].stream_epoch_ns;
  // The first filter after a tuning counts, whichever process it is in.
  if (epoch_ns == 0)
    epoch_ns = now;
}

// Threads do not survive a fork. The child starts its own when it uses an adapter.
void player_after_fork() {
  Player& p = player();
  p.running = false;
  if (p.wake_fd >= 0)
    SOFTDVB_REAL(close)(p.wake_fd);
  p.wake_fd = -1;
}

}  // namespace softdvb
