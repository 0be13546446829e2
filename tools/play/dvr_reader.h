// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tools/play/continuity.h"
#include "tools/play/packet_queue.h"
#include "tools/play/service_filter.h"

// The packet filters of an adapter that feed its dvr device: a handle of the demultiplexer each, since only filters
// that are read by themselves may have several PIDs. One thread.
class Pid_filters {
 public:
  explicit Pid_filters(int adapter);
  ~Pid_filters();
  Pid_filters(const Pid_filters&) = delete;
  Pid_filters& operator=(const Pid_filters&) = delete;

  // Receives these PIDs and no others; all of them where the demultiplexer has too few filters left. Throws Failure.
  void set(const std::set<int>& pids);
  void set_all();
  bool all() const { return all_; }

 private:
  // errno, 0 for none.
  int open_one(int pid);
  void close_all();

  std::string path_;
  std::map<int, int> fds_;  // by PID
  bool all_ = false;
};

// What has been received, and what has not.
struct Play_counts {
  uint64_t packets = 0;    // received
  uint64_t dropped = 0;    // packets for which nobody had room
  uint64_t gaps = 0;       // in the counters of a PID
  uint64_t lost = 0;       // packets missing there, at the least
  uint64_t damaged = 0;    // packets that say so
  uint64_t overflows = 0;  // of the device's buffer
  uint64_t unsynced = 0;   // bytes that were no packet
  bool begun = false;      // something has been handed on
  std::string waits_for;   // before that: "PAT" or "PMT"
  bool operator==(const Play_counts&) const = default;
};

// Reads a multiplex, or a service of it, from dvr0 into a queue, on a thread of its own.
class Dvr_reader {
 public:
  // Without `service_id` the whole multiplex, as it comes. `queue` outlives this object. Throws Failure when the
  // devices cannot be used.
  Dvr_reader(int adapter, std::optional<int> service_id, Packet_queue* queue);
  ~Dvr_reader();
  Dvr_reader(const Dvr_reader&) = delete;
  Dvr_reader& operator=(const Dvr_reader&) = delete;

  // Takes no more packets; what waits in the queue stays there.
  void stop();

  Play_counts reception() const;
  // What has happened to the service since the last call.
  std::vector<std::string> take_news();
  // Why reading has ended by itself, GONE with the device; empty while it has not.
  static constexpr const char* GONE = "the device is gone";
  std::string failure() const;

 private:
  void run();
  void read_all();
  void take_packets();
  void packet(const uint8_t* bytes);
  void hand_on();
  void fail(std::string text);

  std::string path_;
  Packet_queue& queue_;
  int dvr_ = -1;
  int stop_ = -1;
  Pid_filters filters_;
  std::optional<Service_filter> service_;
  unsigned filters_of_ = 0;  // Service_filter::changed() that they were set for
  std::set<int> received_;
  Continuity continuity_;
  std::vector<uint8_t> raw_;  // read, and not a whole packet yet
  size_t filled_ = 0;
  Packet_queue::Bytes batch_;
  Play_counts counts_;
  mutable std::mutex mutex_;  // guards the next three
  Play_counts shown_;
  std::vector<std::string> news_;
  std::string failure_;
  std::thread thread_;  // last: it uses what stands before it
};
