// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <span>
#include <string>

// What the launcher and every process of the command share: a plain record in a mapped file of the run folder. Fixed
// sizes and no pointers, because each process maps it elsewhere. The launcher fills it before the command starts;
// afterwards everything that changes is atomic or guarded by `lock` (robust: a process may die while it holds it).
namespace softdvb {

inline constexpr int MAX_ADAPTERS = 8;
inline constexpr int MAX_FRONTENDS = 2;  // of an adapter
inline constexpr int MAX_RECORDS = MAX_ADAPTERS * MAX_FRONTENDS;
inline constexpr int MAX_MUXES = 1024;  // also what follows with `then`
inline constexpr int MAX_SIGNAL_STEPS = 64;
inline constexpr int MAX_FAULTS = 64;
inline constexpr int MAX_SECTION_FAULTS = 64;
inline constexpr int MAX_DEMUX_OPENS = 256;
inline constexpr int PES_TYPES = 20;  // DMX_PES_OTHER, which is not of a decoder
inline constexpr int MAX_PATH = 1024;
inline constexpr int EVENT_QUEUE = 8;  // one place always stays empty, so 7 events fit
inline constexpr uint64_t NANOS = 1000000000;
inline constexpr uint32_t SHARED_MAGIC = 0x53445633;

enum class Pace : int32_t { TIMED, FAST, MANUAL };
enum class Start : int32_t { TUNE, AIR, FILTER };

// The readings of a frontend that is locked, as its ioctls return them.
struct Signal {
  uint32_t status;
  uint32_t strength;
  uint32_t snr;
  uint32_t ber;
  uint32_t ucblocks;
};

// LEVEL and CNR are statistics, in thousandths of a dBm and of a dB.
enum class Reading : int32_t { STATUS, STRENGTH, SNR, BER, UCBLOCKS, LEVEL, CNR };

// From `at_ns` of the adapter's time on, `reading` has `value`. Later entries win.
struct Signal_step {
  uint32_t freq;  // 0: every frequency
  Reading reading;
  uint64_t at_ns;
  uint32_t value;  // LEVEL and CNR: of an int32_t
};

struct Mux {
  uint32_t freq;
  uint32_t delivery;      // enum fe_delivery_system
  int32_t pipe;           // of a DVB-T2 signal with several, -1: the only one
  int32_t weak;           // too weak for a lock
  int64_t lock_delay_ns;  // below 0: the adapter's
  uint32_t packet_size;   // 188, 192 or 204
  uint64_t first_offset;  // of the first sync byte in the file
  uint64_t packets;
  uint64_t duration_ns;    // of one pass, pace included
  uint64_t offset_ns;      // where playing begins
  uint64_t stop_after_ns;  // 0: never; counted from the start of playing
  uint64_t from_ns;        // of the command's time; above 0: it takes the place of what was sent there before
  char path[MAX_PATH];
};

// Parameters of a tuning. The numbers are those of <linux/dvb/frontend.h>.
struct Tuning {
  uint32_t frequency;
  int32_t inversion;
  uint32_t bandwidth_hz;  // 0: automatic
  int32_t code_rate_hp;
  int32_t code_rate_lp;
  int32_t modulation;
  int32_t transmission_mode;
  int32_t guard_interval;
  int32_t hierarchy;
  uint32_t delivery;
  uint32_t symbol_rate;
  int32_t fec_inner;
  uint32_t stream_id;
};

struct Event {
  uint32_t status;
  Tuning tuning;
};

// Of the core's thread.
enum class Core_state : int32_t {
  NEW,     // there was none since the device was plugged in
  IDLE,    // started, nothing tuned yet
  TUNING,  // or tuned
  FAILED   // the driver refused the parameters, which nobody is told
};

struct Frontend {
  int32_t externally_tuned;  // another program, that we only imagine, holds the frontend
  int32_t writer_pid;
  uint64_t closed_at_ns;  // when the last writer closed; 0 while one is there
  int32_t powered;
  int32_t tuned;
  int32_t dead;  // opened without a core thread behind it
  int32_t opens;
  uint64_t tuned_at_ns;
  Core_state state;
  uint64_t busy_until_ns;   // the core's thread is inside the driver; every call waits for it
  uint64_t seeks_since_ns;  // when it began to look for the signal
  uint32_t tries;           // calls for this tuning
  int32_t search_failed;    // the last one of a driver that searches several systems
  int32_t firmware_loaded;  // once
  int32_t oneshot;          // FE_TUNE_MODE_ONESHOT: the core does not look after the tuning
  Tuning driver;            // what the driver was called with
  uint64_t next_look_ns;
  uint32_t last_event_status;
  int32_t was_locked;
  Tuning asked;
  Event events[EVENT_QUEUE];
  int32_t event_read;
  int32_t event_write;
  int32_t event_overflow;
};

// One for each frontend; those of an adapter stand one behind the other. What they share is in that of frontend 0:
// the demultiplexer, the player's part, plugging, busy.
struct Adapter {
  int32_t number;
  int32_t frontend;        // its number
  int32_t frontends;       // of the adapter
  char run_dir[MAX_PATH];  // the launcher has no shared() to ask
  Pace pace;
  Start start;
  int32_t loop;
  int32_t device;   // see device_profile()
  int32_t fe_type;  // enum fe_type of a device that takes any system
  uint32_t freq_min;
  uint32_t freq_max;
  int32_t offset_hz;          // that the driver finds
  int64_t lock_delay_ns;      // below 0: the device's
  uint64_t look_interval_ns;  // between the core's looks at the driver while there is no lock
  int32_t firmware_missing;
  int32_t filters;
  int32_t busy;            // another program, that we only imagine, has the frontend open for writing
  uint64_t burst_packets;  // that arrive together; 0 and 1: none
  uint64_t unplug_at_ns;   // 0: not, or done
  uint64_t replug_at_ns;
  std::atomic<int32_t> unplugged;
  std::atomic<uint32_t>
      plug_generation;        // changes when the device goes: handles of another one are of a device that went
  uint32_t missing_readings;  // bit per Reading that the driver does not have
  int32_t dead_reopen;        // this many-th opening for writing has no core thread behind it
  int32_t mux_count;
  Mux mux[MAX_MUXES];
  int32_t step_count;
  Signal_step step[MAX_SIGNAL_STEPS];
  Tuning cache;  // the core's: what was set, tuned or not; its delivery system outlives closing
  Frontend fe;
  int32_t demux_owner[MAX_DEMUX_OPENS];  // process of each open demultiplexer handle, 0: free
  // What dvr0 gets, whoever has it open: of each handle the PID + 1 of the filter that feeds it, 0: none.
  std::atomic<int32_t> dvr_pid[MAX_DEMUX_OPENS];
  std::atomic<uint32_t> dvr_changes;
  int32_t dvr_owner;                // process that reads it
  int32_t pes_slot[PES_TYPES];      // of each stream of a decoder the handle + 1 that it comes from
  std::atomic<int32_t> pes_pid[5];  // and of the first decoder's the PID + 1, also later
  // When the stream of the tuned frequency began to play, and how often it was begun anew.
  uint64_t stream_epoch_ns;
  std::atomic<uint32_t> stream_generation;
};

// "A call that fails": the counters are shared, so "the first three opens" holds over all processes of the command.
struct Fault {
  char call[48];
  char target[160];  // glob on path or device name, empty: any
  int32_t error;
  uint32_t from;   // 1: from the first call on
  uint32_t count;  // 0: always
  std::atomic<uint32_t> seen;
};

enum class Section_fault_kind : int32_t { DROP, CUT, DOUBLE, CRC, SILENCE };

struct Section_fault {
  int32_t adapter;  // -1: all
  int32_t pid;
  int32_t table;  // -1: all
  Section_fault_kind kind;
  uint32_t size;  // of a cut section
  uint32_t from;
  uint32_t count;
  uint64_t at_ns;
  std::atomic<uint32_t> seen;
};

struct Shared {
  uint32_t magic;
  uint32_t size;
  pthread_mutex_t lock;
  char run_dir[MAX_PATH];
  char root_dir[MAX_PATH];
  char log_path[MAX_PATH];
  int64_t start_mono_ns;     // the machine's CLOCK_MONOTONIC when the command started
  int64_t start_real_ns;     // what CLOCK_REALTIME shows the command then
  int64_t real_offset_ns;    // the machine's CLOCK_REALTIME - CLOCK_MONOTONIC then
  double speed;              // virtual seconds a second
  int32_t clock_is_virtual;  // speed or start differ from the machine's
  uint64_t grace_ns;         // real time that a late reader gets before its queue overflows
  std::atomic<uint32_t> clock_settings;
  int32_t adapter_count;  // of records
  Adapter adapter[MAX_RECORDS];
  std::atomic<int32_t> fault_count;
  Fault fault[MAX_FAULTS];
  std::atomic<int32_t> section_fault_count;
  Section_fault section_fault[MAX_SECTION_FAULTS];
};

// The record of this process's command, mapped at the first call; null when the process was not started by `softdvb`.
Shared* shared();

// Guards what the processes of a command change together. The holder makes no call that can block.
class Shared_lock {
 public:
  explicit Shared_lock(Shared& s);
  ~Shared_lock();
  Shared_lock(const Shared_lock&) = delete;
  Shared_lock& operator=(const Shared_lock&) = delete;

 private:
  Shared& shared_;
};

// Launcher: makes and maps FILE with a zeroed record in it. Throws std::runtime_error.
Shared* create_shared(const std::string& file);
// Maps an existing one; null when it is none.
Shared* map_shared(const char* file);

// The record of its frontend 0; null when there is none.
Adapter* find_adapter(Shared& s, int number);

inline Adapter& first_of(Adapter& a) {
  return *(&a - a.frontend);
}

// All records of the adapter of a frontend.
inline std::span<Adapter> frontends_of(Adapter& a) {
  return {&first_of(a), static_cast<size_t>(a.frontends)};
}

// False for 0 and for a process that has ended.
bool is_process_alive(int pid);

}  // namespace softdvb
