// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// From transport packets to sections, the way Linux's demultiplexer does it (ISO/IEC 13818-1, 2.4.4), with its
// peculiarities: a duplicate packet counts as a continuity gap, a wrong pointer costs the packet, stuffing ends a
// packet, and a filter may be compared with bytes that lie behind a short section.
namespace softdvb {

inline constexpr size_t TS_PACKET = 188;
inline constexpr size_t MAX_SECTION = 4096;

uint32_t section_crc(const uint8_t* data, size_t size);

class Section_feed {
 public:
  // The section, its CRC not checked, and behind it at least 18 more readable bytes.
  using Sink = std::function<void(const uint8_t* section, size_t size)>;

  Section_feed(int pid, bool check_crc) : pid_(pid), check_crc_(check_crc), buffer_(MAX_SECTION + TS_PACKET + 32) {}

  int pid() const { return pid_; }
  bool check_crc() const { return check_crc_; }
  // Loses the section that is arriving, as every start or stop of a filter on the PID does.
  void restart();
  // One packet of the PID, beginning with its sync byte.
  void packet(const uint8_t* p, const Sink& sink);

 private:
  void begin_section();
  void add(const uint8_t* data, size_t size, const Sink& sink);

  int pid_;
  bool check_crc_;
  std::vector<uint8_t> buffer_;
  size_t filled_ = 0;
  size_t section_at_ = 0;
  bool start_seen_ = false;
  unsigned counter_ = 0;
};

}  // namespace softdvb
