// Waiting for sections and reading them; CRC-32 (ISO/IEC 13818-1, Annex A).
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "filter/section_filter.h"

namespace {

constexpr int SHORTEST_SECTION = 8;
constexpr unsigned CRC_POLYNOMIAL = 0x04C11DB7;
constexpr unsigned CRC_POLYNOMIAL_REFLECTED = 0xEDB88320;
constexpr unsigned CRC_START = 0xFFFFFFFF;

// A TDT has no CRC.
bool is_tdt(int pid, unsigned tid, int section_length) {
  return pid == 0x14 && tid == 0x70 && section_length == 5;
}

}  // namespace

int Section_filter::wait_for_data(int timeout_ms) {
  fd_set ready;
  int highest = wake_fd_;
  {
    const std::lock_guard lock(mutex_);
    ++demux_.loop_count;
    ready = demux_.read_set;
    highest = std::max(highest, demux_.max_fd);
  }
  if (wake_fd_ >= 0)
    FD_SET(wake_fd_, &ready);
  // The field is not normalised: the system takes 1,500,000 microseconds.
  timeval timeout{};
  timeout.tv_usec = static_cast<suseconds_t>(timeout_ms) * 1000;
  int count = select(highest + 1, &ready, nullptr, nullptr, &timeout);
  if (count < 0)
    return count;
  if (wake_fd_ >= 0 && FD_ISSET(wake_fd_, &ready)) {
    --count;
    uint64_t wakes = 0;
    (void)!read(wake_fd_, &wakes, sizeof wakes);  // only empties it
  }
  // Slots may have been freed meanwhile: only what still runs counts as ready to be read.
  const std::lock_guard lock(mutex_);
  FD_ZERO(&demux_.read_set);
  for (const dvb_filter_desc* f : filters_) {
    if (f->state == FILTER_RUNNING && FD_ISSET(f->fd, &ready))
      FD_SET(f->fd, &demux_.read_set);
  }
  return count;
}

void Section_filter::wake() {
  const uint64_t one = 1;
  if (wake_fd_ >= 0)
    (void)!write(wake_fd_, &one, sizeof one);  // full means that a wake is pending already
}

unsigned int Section_filter::get_section_data(dvb_filter_desc* f, char* buf) {
  const std::lock_guard lock(mutex_);
  if (f->state != FILTER_RUNNING || !FD_ISSET(f->fd, &demux_.read_set))
    return 0;
  FD_CLR(f->fd, &demux_.read_set);
  const ssize_t got = read(f->fd, buf, SECTION_BUF_SIZE);
  if (got < 0) {
    if (errno == EOVERFLOW) {
      KLOG(VERB_WARNING, "WARNING: Resetting dmxdev kernel ringbuffer, overflow\n");
    } else {
      KLOG(VERB_ERROR, "ERROR: Reading 4K into char buffer from %d, errno %d ", f->fd, errno);
      kelvo_log::print_errno("read @ get_section_data:");
    }
    return 0;
  }
  const int size = static_cast<int>(got);
  std::memset(buf + size, 0, static_cast<size_t>(SECTION_BUF_SIZE - size));
  KLOG(VERB_TRACE, "Reading data loop %d from filter PID %x TID %x fileno %x nrbytes %d\n",
       static_cast<int>(demux_.loop_count), static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]),
       static_cast<unsigned>(f->fd), size);

  auto* bytes = reinterpret_cast<unsigned char*>(buf);
  const unsigned tid = bytes[0];
  const int section_length = (bytes[1] & 0x0F) << 8 | bytes[2];
  if (size < SHORTEST_SECTION || size != section_length + 3) {
    KLOG(VERB_ERROR, "ERROR: Received section pid %x type %x incorrect length %d vs header %d\n",
         static_cast<unsigned>(f->pid), tid, size, section_length + 3);
    return 0;
  }
  ++f->captured;
  if ((f->flags & FILTER_FLAG_SOFT_CRC) != 0 && !is_tdt(f->pid, tid, section_length)) {
    const unsigned crc = crc32_be(CRC_START, bytes, static_cast<unsigned>(size));
    if (crc != 0) {
      const unsigned char* end = bytes + size;
      const unsigned in_section = static_cast<unsigned>(end[-4]) << 24 | static_cast<unsigned>(end[-3]) << 16 |
                                  static_cast<unsigned>(end[-2]) << 8 | static_cast<unsigned>(end[-1]);
      // Deliberate: the table id is printed as a signed byte, so 0x80 and above come out as ffffff80 and above.
      KLOG(VERB_ERROR, "ERROR: *** Received section pid %x type %x len %d CRC failed, %x != 0, rdback %x\n",
           static_cast<unsigned>(f->pid), static_cast<unsigned>(static_cast<signed char>(buf[0])), section_length, crc,
           in_section);
      return 0;
    }
  }
  return static_cast<unsigned>(size);
}

unsigned int Section_filter::crc32_be(unsigned int crc, const unsigned char* data, unsigned int len) {
  for (unsigned i = 0; i < len; ++i) {
    crc ^= static_cast<unsigned>(data[i]) << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc << 1) ^ ((crc & 0x80000000u) != 0 ? CRC_POLYNOMIAL : 0u);
  }
  return crc;
}

unsigned int Section_filter::crc32_le(unsigned int crc, const unsigned char* data, unsigned int len) {
  for (unsigned i = 0; i < len; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1u) != 0 ? CRC_POLYNOMIAL_REFLECTED : 0u);
  }
  return crc;
}
