// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// A packet of a transport stream (ISO/IEC 13818-1, 2.4.3.2), laid over 188 bytes that outlive it.
class Transport_packet {
 public:
  static constexpr size_t SIZE = 188;
  static constexpr uint8_t SYNC = 0x47;
  static constexpr int NULL_PID = 0x1FFF;
  static constexpr int PIDS = 0x2000;

  explicit Transport_packet(const uint8_t* bytes) : bytes_(bytes) {}

  std::span<const uint8_t, SIZE> bytes() const { return std::span<const uint8_t, SIZE>(bytes_, SIZE); }
  bool is_damaged() const { return (bytes_[1] & 0x80) != 0; }
  bool starts_unit() const { return (bytes_[1] & 0x40) != 0; }
  int pid() const { return (bytes_[1] & 0x1F) << 8 | bytes_[2]; }
  bool is_scrambled() const { return (bytes_[3] & 0xC0) != 0; }
  bool has_adaptation() const { return (bytes_[3] & 0x20) != 0; }
  bool has_payload() const { return (bytes_[3] & 0x10) != 0; }
  int counter() const { return bytes_[3] & 0x0F; }
  bool is_discontinuous() const { return has_flags() && (bytes_[5] & 0x80) != 0; }
  bool has_pcr() const { return has_flags() && bytes_[4] >= 7 && (bytes_[5] & 0x10) != 0; }
  // Empty where there is none, and where the adaptation field says that it is longer than the packet.
  std::span<const uint8_t> payload() const {
    const size_t at = 4 + (has_adaptation() ? size_t{1} + bytes_[4] : 0);
    return has_payload() && at < SIZE ? std::span(bytes_ + at, SIZE - at) : std::span<const uint8_t>();
  }

 private:
  bool has_flags() const { return has_adaptation() && bytes_[4] > 0; }

  const uint8_t* bytes_;
};
