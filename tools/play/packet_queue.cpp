// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/packet_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "tools/cli/failure.h"

namespace {

constexpr size_t MOST_SPARE = 8;

}  // namespace

Packet_queue::Packet_queue(size_t limit) : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), limit_(limit) {
  if (fd_ < 0) {
    throw Failure("cannot make an event descriptor: too many open files?");
  }
}

Packet_queue::~Packet_queue() {
  (void)close(fd_);
}

bool Packet_queue::put(Bytes* packets) {
  const std::lock_guard lock(mutex_);
  // One batch always has room, however small the limit is.
  if (!queue_.empty() && waiting_ + packets->size() > limit_) {
    packets->clear();
    return false;
  }
  waiting_ += packets->size();
  Bytes next;
  if (!spare_.empty()) {
    next = std::move(spare_.back());
    spare_.pop_back();
  }
  next.swap(*packets);
  queue_.push_back(std::move(next));
  (void)eventfd_write(fd_, 1);
  return true;
}

bool Packet_queue::take(Bytes* packets) {
  const std::lock_guard lock(mutex_);
  if (queue_.empty()) {
    return false;
  }
  waiting_ -= queue_.front().size();
  packets->swap(queue_.front());
  if (spare_.size() < MOST_SPARE) {
    queue_.front().clear();
    spare_.push_back(std::move(queue_.front()));
  }
  queue_.pop_front();
  if (queue_.empty()) {
    eventfd_t count = 0;
    (void)eventfd_read(fd_, &count);
  }
  return true;
}

size_t Packet_queue::waiting() const {
  const std::lock_guard lock(mutex_);
  return waiting_;
}
