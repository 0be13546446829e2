// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "tools/play/continuity.h"
#include "tools/play/transport_packet.h"

// Sections of tables (ISO/IEC 13818-1, 2.4.4) out of packets, and into packets.

using Bytes = std::vector<uint8_t>;

// 0 over a section with its CRC.
uint32_t section_crc(std::span<const uint8_t> bytes);

// Puts the length of the whole into bytes 1 and 2, and the CRC behind it.
Bytes finished_section(Bytes without_crc);

// The sections of one PID.
class Section_reader {
 public:
  // A section with the long header and a right CRC: 12 bytes at least. Valid during the call.
  using Sink = std::function<void(std::span<const uint8_t> section)>;

  explicit Section_reader(Sink sink) : sink_(std::move(sink)) {}
  void packet(const Transport_packet& packet, Continuity::Verdict verdict);

 private:
  void add(std::span<const uint8_t> bytes);

  Sink sink_;
  Bytes section_;  // as far as it has come
  bool begun_ = false;
};

// Sections as packets of one PID, each section in packets of its own.
class Section_writer {
 public:
  explicit Section_writer(int pid) : pid_(pid) {}
  void write(std::span<const uint8_t> section, Bytes* packets);
  // On another PID from now on.
  void move_to(int pid);

 private:
  int pid_;
  int counter_ = 0;
};
