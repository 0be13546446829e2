// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Waiting for sections and reading them.
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/ids.h"
#include "base/log.h"
#include "base/monotonic.h"
#include "filter/section_filter_parts.h"

namespace {

constexpr int SHORTEST_SECTION = 8;
constexpr int HEADER_LENGTH = 3;  // up to section_length, which counts the bytes after itself
constexpr int TDT_SECTION_LENGTH = 5;
constexpr unsigned CRC_START = 0xFFFFFFFF;
constexpr int FAILED_WAIT_MS = 100;

// A TDT has no CRC.
bool is_tdt(int pid, unsigned tid, int section_length) {
  return pid == pid::TIME && tid == table::TDT && section_length == TDT_SECTION_LENGTH;
}

int64_t monotonic_us() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// As select() for reading. A signal neither ends the wait nor makes it longer.
int wait_for(int highest, fd_set* ready, int timeout_ms) {
  const fd_set wanted = *ready;
  const int64_t end = monotonic_us() + int64_t{timeout_ms} * 1000;
  int64_t left = int64_t{timeout_ms} * 1000;
  while (true) {
    // The field is not normalised: the system takes 1,500,000 microseconds.
    timeval timeout{};
    timeout.tv_usec = static_cast<suseconds_t>(left);
    const int count = select(highest + 1, ready, nullptr, nullptr, &timeout);
    if (count >= 0 || errno != EINTR)
      return count;
    left = std::max(end - monotonic_us(), int64_t{0});
    *ready = wanted;
    if (left == 0) {
      FD_ZERO(ready);
      return 0;
    }
  }
}

bool readable_within(int handle, int ms) {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(handle, &ready);
  return wait_for(handle, &ready, ms) == 1;
}

unsigned crc_field(const unsigned char* section, int size) {
  const unsigned char* field = section + size - 4;
  return static_cast<unsigned>(field[0]) << 24 | static_cast<unsigned>(field[1]) << 16 |
         static_cast<unsigned>(field[2]) << 8 | static_cast<unsigned>(field[3]);
}

}  // namespace

int Section_filter::wait_for_data(int timeout_ms) {
  const int wake_handle = parts_->wake_up_.handle();
  const bool wakes = wake_handle >= 0 && wake_handle < FD_SETSIZE;  // else requests wait for the time-out
  fd_set ready;
  int highest = 0;
  int pause_ms = 0;
  {
    const std::lock_guard lock(parts_->mutex_);
    ++parts_->counts_.loop_count;
    if (parts_->demux_.gone()) {
      parts_->demux_.unwatch_all();
      parts_->counts_.max_fd = 0;
    }
    ready = parts_->demux_.read_set();
    highest = parts_->counts_.max_fd;
    timeout_ms = parts_->ms_until_set_again(timeout_ms);
    pause_ms = std::min(parts_->demux_.pause_ms(), timeout_ms);
  }
  if (wakes && pause_ms > 0 && readable_within(wake_handle, pause_ms)) {
    parts_->wake_up_.take();
    return 0;
  }
  if (wakes) {
    FD_SET(wake_handle, &ready);
    highest = std::max(highest, wake_handle);
  }
  int count = wait_for(highest, &ready, timeout_ms);
  if (count < 0) {
    // Who waits in a loop would not wait at all.
    const int error = errno;
    (void)usleep(static_cast<useconds_t>(std::min(FAILED_WAIT_MS, timeout_ms)) * 1000);  // a shorter pause is as good
    errno = error;
    return count;
  }
  if (wakes && FD_ISSET(wake_handle, &ready)) {
    --count;  // a wake-up is no data
    parts_->wake_up_.take();
  }
  // Slots may have been freed meanwhile: only what still runs counts as ready to be read.
  const std::lock_guard lock(parts_->mutex_);
  parts_->demux_.unwatch_all();
  for (const dvb_filter_desc* f : parts_->slots_) {
    if (f->state == FILTER_RUNNING && FD_ISSET(f->fd, &ready))
      parts_->demux_.watch(f->fd);
  }
  return count;
}

unsigned int Section_filter::get_section_data(dvb_filter_desc* f, char* buf) {
  return parts_->read(f, buf).length;
}

bool Section_filter::Parts::is_ready(int pid) const {
  const std::lock_guard lock(mutex_);
  return std::any_of(slots_.begin(), slots_.end(), [=](const dvb_filter_desc* f) {
    return f->state == FILTER_RUNNING && f->pid == pid && f->fd >= 0 && f->fd < FD_SETSIZE && readable_within(f->fd, 0);
  });
}

Section_filter::Parts::Section Section_filter::Parts::read(dvb_filter_desc* f, char* buf) {
  const std::lock_guard lock(mutex_);
  Section section;
  if (f->state != FILTER_RUNNING || !demux_.unwatch(f->fd) || demux_.gone())
    return section;
  section.pid = f->pid;
  section.freq = f->freq;
  activity_.tell(ACTIVITY_READ_BEGIN, f->pid);
  section.length = read_section(f, buf);
  activity_.tell(ACTIVITY_READ_END, static_cast<int>(section.length));
  return section;
}

unsigned Section_filter::Parts::read_section(dvb_filter_desc* f, char* buf) {
  const int size = demux_.read(*f, buf, SECTION_BUF_SIZE);
  if (size == 0 && demux_.options().watch_device)
    return 0;
  if (size < 0) {
    if (errno == EOVERFLOW) {
      count_overflow(f->pid);
      KLOG(VERB_WARNING, "WARNING: Resetting dmxdev kernel ringbuffer, overflow\n");
    } else {
      KLOG(VERB_ERROR, "ERROR: Reading 4K into char buffer from %d, errno %d ", f->fd, errno);
      kelvo_log::print_errno("read @ get_section_data:");
    }
    return 0;
  }
  std::memset(buf + size, 0, static_cast<size_t>(SECTION_BUF_SIZE - size));
  KLOG(VERB_TRACE, "Reading data loop %d from filter PID %x TID %x fileno %x nrbytes %d\n",
       static_cast<int>(counts_.loop_count), static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]),
       static_cast<unsigned>(f->fd), size);

  const auto* bytes = reinterpret_cast<const unsigned char*>(buf);
  const unsigned tid = bytes[0];
  const int section_length = (bytes[1] & 0x0F) << 8 | bytes[2];
  if (size < SHORTEST_SECTION || size != section_length + HEADER_LENGTH) {
    count_broken(f->pid);
    KLOG(VERB_ERROR, "ERROR: Received section pid %x type %x incorrect length %d vs header %d\n",
         static_cast<unsigned>(f->pid), tid, size, section_length + HEADER_LENGTH);
    return 0;
  }
  ++f->captured;  // a wrong CRC shows that the feed is alive, too
  if ((f->flags & FILTER_FLAG_SOFT_CRC) == 0 || is_tdt(f->pid, tid, section_length))
    return static_cast<unsigned>(size);
  const unsigned crc = crc32_be(CRC_START, bytes, static_cast<unsigned>(size));
  if (crc == 0)
    return static_cast<unsigned>(size);
  count_broken(f->pid);
  if (turns_.on() && Filter_turns::has_turns(f))
    turns_.note_sign_of_life(monotonic_ms());
  if (demux_.options().check_crc) {
    KLOG(VERB_WARNING, "WARNING: Section of PID %x, table %x dropped, its CRC is wrong\n",
         static_cast<unsigned>(f->pid), tid);
    return 0;
  }
  // Deliberate: the table id is printed as a signed byte, so 0x80 and above come out as ffffff80 and above.
  KLOG(VERB_ERROR, "ERROR: *** Received section pid %x type %x len %d CRC failed, %x != 0, rdback %x\n",
       static_cast<unsigned>(f->pid), static_cast<unsigned>(static_cast<signed char>(buf[0])), section_length, crc,
       crc_field(bytes, size));
  return 0;
}
