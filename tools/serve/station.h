// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <kelvo/kelvo.h>

#include "tools/engine/engine.h"
#include "tools/scan/scan_run.h"

// An adapter as it is now.
struct Adapter_state {
  std::string device;  // as its driver names it, clean
  bool open = false;
  int freq = 0;  // of the multiplex that it tuned to last; 0: none yet
  Tuning_result tuning;
  Signal_readings signal;
};

// What an adapter has seen of a multiplex since the server was started.
struct Multiplex_state {
  uint64_t sections = 0;    // that were read and were whole
  uint64_t crc_errors = 0;  // sections that came broken
  uint64_t overflows = 0;   // of the kernel's buffer, of which each lost a section or more
  int services = 0;         // that have a guide, in the last visit
  int complete = 0;         // those of them whose guide is there as it is sent
  int64_t completed = 0;    // when all of them were last, seconds since 1970; 0: never
  Signal_readings signal;   // read last
  int64_t seen = 0;         // when
};

// The scan that runs, or was last.
struct Scan_state {
  bool running = false;
  int64_t begun = 0;  // seconds since 1970; 0: there was none
  size_t done = 0;    // frequencies
  size_t total = 0;
  int services = 0;
  double seconds = 0;  // since it began, or that it took
  std::optional<double> left_s;
  std::vector<Engine::Under_way> under_way;
  std::vector<Multiplex_line> lines;
  std::string end;  // how it ended: "done", "stopped", or why it failed
};

struct Station_state {
  std::map<int, Adapter_state> adapters;                         // by number
  std::map<std::pair<int, int>, Multiplex_state> multiplexes{};  // by adapter and frequency
  Scan_state scan{};
};

// Adapters at work as long as the server runs: they go round the multiplexes of the channel list and collect their
// guides, staying with the only one; a scan that somebody asks for comes first. On a thread of its own. Any-thread but
// for creation and destruction.
class Station {
 public:
  // Opens the database, which it makes where `exists` is false. `what` is what a scan looks for. Throws Failure.
  Station(std::map<int, Frontend_info> frontends, std::string db, bool exists, std::vector<Tuning_request> what);
  // Stops.
  ~Station();
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  // False when one runs already, or is about to.
  bool start_scan();
  // What was found is kept.
  void stop_scan();

  Station_state state() const;
  // Another number after each reading of an adapter, or when one has been given up.
  unsigned readings() const { return read_; }
  // What people should know, since the last call: a line each.
  std::vector<std::string> take_news();
  // Readable after a step of a scan, or news. calm() makes it wait again.
  int fd() const { return changed_fd_; }
  void calm() const;

  // Gives the adapters up; the database stays open. What the library is writing is written.
  void stop();

 private:
  using Clock = Adapter::Clock;
  // What the library counts on an adapter's worker. 32 bits, since there are machines without atomics of 64; only
  // differences are read.
  struct Counter {
    std::atomic<uint32_t> sections{0};
  };
  // What was read of an adapter last, to tell what is new.
  struct Reading {
    uint32_t sections = 0;
    uint64_t crc_errors = 0;
    uint64_t overflows = 0;
    int freq = 0;
    Clock::time_point since;  // on that frequency
  };

  void run();
  void watch();
  void scan();
  void visit(Adapter& adapter, bool alone) const;
  void listen(const Engine& engine);
  void sample(const Engine& engine);
  void wait_for(const Engine& engine) const;
  void close_adapters();
  std::vector<int> multiplexes() const;
  bool wanted_else() const { return stopping_ || scan_wanted_; }
  void say(const std::string& line);
  void show_scan(Scan_run* run, Clock::time_point begun, std::optional<double> left,
                 const std::vector<Multiplex_line>& lines);
  void wake() const;

  const std::map<int, Frontend_info> frontends_;
  const std::string db_;
  const std::vector<Tuning_request> what_;
  std::unique_ptr<Sdbl> database_;
  std::map<int, Counter> counters_;
  std::map<int, Reading> readings_;  // of the thread
  int changed_fd_;
  int wake_fd_;
  std::atomic<unsigned> read_{0};
  std::atomic<bool> stopping_{false};
  std::atomic<bool> scan_wanted_{false};
  std::atomic<bool> scan_stopped_{false};
  mutable std::mutex mutex_;  // guards the next two
  Station_state state_;
  std::vector<std::string> news_;
  std::string said_;  // of the thread
  std::thread thread_;
};
