// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

// Packets on their way from the device to a reader that may be slow: up to so many bytes wait. Any thread.
class Packet_queue {
 public:
  using Bytes = std::vector<uint8_t>;

  // Throws Failure when there are too many open files.
  explicit Packet_queue(size_t limit);
  ~Packet_queue();
  Packet_queue(const Packet_queue&) = delete;
  Packet_queue& operator=(const Packet_queue&) = delete;

  // Takes `packets` over and hands an empty vector back. False when there is no room: then they are dropped.
  bool put(Bytes* packets);
  // False when there is nothing. What `packets` held is not used any more.
  bool take(Bytes* packets);
  size_t waiting() const;
  // Readable while something waits.
  int fd() const { return fd_; }

 private:
  int fd_;
  size_t limit_;
  mutable std::mutex mutex_;  // guards what follows
  std::deque<Bytes> queue_;
  std::vector<Bytes> spare_;
  size_t waiting_ = 0;
};
