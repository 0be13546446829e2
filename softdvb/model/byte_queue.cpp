// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/byte_queue.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "softdvb/model/handles.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"

namespace softdvb {

// What was queued does not survive another size, as with the kernel, which frees the old memory.
void Byte_queue::resize(size_t size) {
  size_ = size;
  flush();
}

bool Byte_queue::patient_room(size_t n) const {
  // An empty queue always has room: a section larger than all of it has to overflow, or the stream would wait for ever.
  return !allocated || error != 0 || bytes_.empty() || fits(std::min(n, size_ - 1));
}

void Byte_queue::write(const uint8_t* data, size_t n) {
  bytes_.insert(bytes_.end(), data, data + n);
  written_ += n;
}

void Byte_queue::add(const uint8_t* data, size_t n) {
  // The error stays until it is read, and nothing comes behind it: the reader could not know where the gap is.
  if (error != 0)
    return;
  if (fits(n))
    write(data, n);
  else
    error = EOVERFLOW;
}

size_t Byte_queue::read(uint8_t* to, size_t n) {
  n = std::min(n, bytes_.size());
  // A read must not run over the end of a section that was cut on purpose, or the next one would be taken for its rest.
  if (!cuts_.empty())
    n = std::min(n, static_cast<size_t>(cuts_.front() - taken_));
  const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(n);
  std::copy(bytes_.begin(), end, to);
  bytes_.erase(bytes_.begin(), end);
  taken_ += n;
  return n;
}

void Byte_queue::flush() {
  bytes_.clear();
  cuts_.clear();
  written_ = taken_ = 0;
  error = 0;
}

short Byte_queue::ready() const {
  constexpr short READABLE = POLLIN | POLLRDNORM | POLLPRI;
  // An error is shown as readable too, because a program learns of it by reading.
  if (error != 0)
    return READABLE | POLLERR;
  return bytes_.empty() ? short{0} : READABLE;
}

bool Byte_queue::take_cut() {
  if (!at_cut())
    return false;
  cuts_.pop_front();
  return true;
}

// An eventfd that nobody writes leaves it to the kernel whether a signal ends the call.
static ssize_t wait_for_signal() {
  const int never = SOFTDVB_REAL(eventfd)(0, EFD_CLOEXEC);
  uint64_t count = 0;
  const ssize_t got = SOFTDVB_REAL(read)(never, &count, sizeof count);
  const int error = got < 0 ? errno : EINTR;
  SOFTDVB_REAL(close)(never);
  return -error;
}

ssize_t read_queue(Handle& handle, Byte_queue& queue, uint8_t* to, size_t n) {
  size_t got = 0;
  while (true) {
    int fd = -1;
    {
      const Device_lock lock;
      player_advance();
      // Before its first start a filter has no queue; reading it gives 0 even when it blocks.
      if (!queue.allocated)
        return 0;
      if (queue.error != 0) {
        const int error = queue.error;
        // The error is told once and takes with it what was queued.
        queue.flush();
        handle.sync();
        return got > 0 ? static_cast<ssize_t>(got) : -error;
      }
      got += queue.read(to + got, n - got);
      handle.sync();
      // A player that is patient waits for room and not for time.
      player_made_room();
      if (got == n || queue.at_cut())
        return static_cast<ssize_t>(got);
      // Asked each time, because programs switch this with fcntl between two reads.
      if (handle.non_blocking())
        return got > 0 ? static_cast<ssize_t>(got) : -EAGAIN;
      fd = handle.fds.empty() ? -1 : handle.fds.front();
    }
    // Poll tells of an error then, but a read goes on to wait for what never comes.
    if (handle.gone())
      return got > 0 ? static_cast<ssize_t>(got) : wait_for_signal();
    // Sleeping in a read of the eventfd gives the kernel's own way with signals: EINTR or going on, as each asks for.
    uint64_t count = 0;
    if (SOFTDVB_REAL(read)(fd, &count, sizeof count) < 0)
      return got > 0 ? static_cast<ssize_t>(got) : -errno;
    // The eventfd was emptied by the read above. It has to be set again if more is queued.
    const Device_lock lock;
    handle.consumed();
  }
}

}  // namespace softdvb
