// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>

namespace softdvb {

class Handle;

// The ring of a demultiplexer handle, in which sections lie without padding. One byte of its size is never used.
// Guarded by Device_lock.
class Byte_queue {
 public:
  explicit Byte_queue(size_t size) : size_(size) {}

  bool allocated = false;  // nothing can be read before the first start
  int error = 0;           // pending for the next read

  size_t size() const { return size_; }
  void resize(size_t size);
  bool empty() const { return bytes_.empty(); }
  bool fits(size_t n) const { return n + bytes_.size() <= size_ - 1; }
  // False when it pays to wait until the reader has made room for `n` bytes.
  bool patient_room(size_t n) const;
  void write(const uint8_t* data, size_t n);
  void add(const uint8_t* data, size_t n);  // written when it fits, else the queue has overflowed
  size_t read(uint8_t* to, size_t n);
  // Drops everything, a pending error as well.
  void flush();
  short ready() const;

  // A section that was cut on purpose ends here, whatever its header says: reads stop at the mark.
  void mark_cut() { cuts_.push_back(written_); }
  bool at_cut() const { return !cuts_.empty() && cuts_.front() == taken_; }
  bool take_cut();

 private:
  size_t size_;
  std::deque<uint8_t> bytes_;
  std::deque<uint64_t> cuts_;  // counted in bytes since the last flush
  uint64_t written_ = 0;
  uint64_t taken_ = 0;
};

// Reads up to `n` bytes. A blocking handle waits until all are there; waiting ends early with -EINTR, at a cut or with
// the queue's error, which drops everything queued. Without anything: -EAGAIN, or 0 before the first start.
// REQUIRES: Device_lock is not held.
ssize_t read_queue(Handle& handle, Byte_queue& queue, uint8_t* to, size_t n);

}  // namespace softdvb
