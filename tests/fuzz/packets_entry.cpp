// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Transport packets into the software adapter: its way from packets to sections, and its search for packets and clock
// references in a file of them.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/entries.h"
#include "softdvb/model/section_feed.h"
#include "softdvb/model/stream_index.h"

namespace {

// A file in memory, written anew for each input.
class Memory_file {
 public:
  Memory_file() : fd_(memfd_create("stream", MFD_CLOEXEC)), name_("/proc/self/fd/" + std::to_string(fd_)) {}
  ~Memory_file() { (void)close(fd_); }
  const std::string& name() const { return name_; }
  void write(const uint8_t* data, size_t size) const {
    if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size))
      std::abort();
  }

 private:
  int fd_;
  std::string name_;
};

void look_for_packets(const uint8_t* data, size_t size) {
  static const Memory_file file;
  file.write(data, size);
  try {
    const softdvb::Stream_layout layout = softdvb::detect_layout(file.name());
    const auto points = softdvb::index_by_pcr(file.name(), layout, 2e6);
    if (points.empty() || points.front().packet != 0 || points.back().packet != layout.packets)
      std::abort();
    for (size_t i = 1; i < points.size(); ++i)
      if (points[i].packet < points[i - 1].packet || points[i].time_ns < points[i - 1].time_ns)
        std::abort();
    for (uint64_t packet = 0; packet < std::min<uint64_t>(layout.packets, 8); ++packet) {
      const uint64_t time = softdvb::time_of_packet(points.data(), points.size(), packet);
      (void)softdvb::packet_at_time(points.data(), points.size(), time);
    }
  } catch (const std::runtime_error&) {
    // no stream
  }
}

void feed(const uint8_t* data, size_t size, bool check_crc) {
  softdvb::Section_feed feed(0x12, check_crc);
  unsigned sum = 0;
  const auto sink = [&](const uint8_t* section, size_t length) {
    constexpr size_t BEHIND = 18;
    if (length < 3 || length > softdvb::MAX_SECTION)
      std::abort();
    for (size_t i = 0; i < length + BEHIND; ++i)
      sum += section[i];
  };
  // Packets that begin where the input says, so that every byte of their heads is reached; short ones are filled up.
  while (size > 0) {
    std::vector<uint8_t> packet(softdvb::TS_PACKET, 0xFF);
    const size_t length = std::min<size_t>(size, softdvb::TS_PACKET);
    std::copy(data, data + length, packet.begin());
    packet[0] = 0x47;
    feed.packet(packet.data(), sink);
    if (packet[3] == 0xEE)
      feed.restart();
    data += length;
    size -= length;
  }
  static volatile unsigned seen;
  seen = sum;
  (void)seen;
}

}  // namespace

int fuzz::packets(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  if ((data[0] & 3) == 3)
    look_for_packets(data + 1, size - 1);
  else
    feed(data + 1, size - 1, (data[0] & 1) != 0);
  return 0;
}
