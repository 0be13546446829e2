// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/sections.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t HEADER = 3;
constexpr size_t LONG_HEADER_AND_CRC = 12;
constexpr size_t LONGEST = 4096;
constexpr uint8_t STUFFING = 0xFF;

constexpr std::array<uint32_t, 256> crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    uint32_t crc = i << 24;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc << 1) ^ ((crc & 0x80000000U) != 0 ? 0x04C11DB7U : 0U);
    }
    table[i] = crc;
  }
  return table;
}

constexpr std::array<uint32_t, 256> CRC_TABLE = crc_table();

size_t size_of(const Bytes& section) {
  return HEADER + ((section[1] & 0x0FU) << 8 | section[2]);
}

}  // namespace

uint32_t section_crc(std::span<const uint8_t> bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const uint8_t byte : bytes) {
    crc = (crc << 8) ^ CRC_TABLE[(crc >> 24) ^ byte];
  }
  return crc;
}

Bytes finished_section(Bytes without_crc) {
  const size_t length = without_crc.size() - HEADER + 4;
  without_crc[1] = static_cast<uint8_t>((without_crc[1] & 0xF0U) | length >> 8);
  without_crc[2] = static_cast<uint8_t>(length);
  const uint32_t crc = section_crc(without_crc);
  for (int shift = 24; shift >= 0; shift -= 8) {
    without_crc.push_back(static_cast<uint8_t>(crc >> shift));
  }
  return without_crc;
}

void Section_reader::packet(const Transport_packet& packet, Continuity::Verdict verdict) {
  if (verdict == Continuity::Verdict::DUPLICATE) {
    return;
  }
  // A section with a hole in it is of no use, nor is a packet that is known to be broken.
  if (verdict != Continuity::Verdict::IN_ORDER || packet.is_discontinuous()) {
    begun_ = false;
    section_.clear();
  }
  const std::span<const uint8_t> payload = packet.payload();
  if (verdict == Continuity::Verdict::DAMAGED || packet.is_scrambled() || payload.empty()) {
    return;
  }
  if (!packet.starts_unit()) {
    add(payload);
    return;
  }
  const size_t pointer = payload[0];
  if (pointer + 1 >= payload.size()) {
    begun_ = false;
    return;
  }
  add(payload.subspan(1, pointer));
  section_.clear();
  begun_ = true;
  add(payload.subspan(1 + pointer));
}

void Section_reader::add(std::span<const uint8_t> bytes) {
  while (begun_ && !bytes.empty()) {
    // Between two sections; nothing comes behind stuffing until the next start.
    if (section_.empty() && bytes[0] == STUFFING) {
      begun_ = false;
      return;
    }
    const size_t wanted = section_.size() < HEADER ? HEADER : size_of(section_);
    const size_t taken = std::min(wanted - section_.size(), bytes.size());
    section_.insert(section_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(taken));
    bytes = bytes.subspan(taken);
    if (section_.size() < HEADER || section_.size() < size_of(section_)) {
      if (section_.size() >= HEADER && size_of(section_) > LONGEST) {
        begun_ = false;
      }
      continue;
    }
    if ((section_[1] & 0x80) != 0 && section_.size() >= LONG_HEADER_AND_CRC && section_crc(section_) == 0) {
      sink_(section_);
    }
    section_.clear();
  }
}

void Section_writer::write(std::span<const uint8_t> section, Bytes* packets) {
  constexpr size_t ROOM = Transport_packet::SIZE - 4;
  for (bool start = true; start || !section.empty(); start = false) {
    packets->insert(packets->end(),
                    {Transport_packet::SYNC, static_cast<uint8_t>((start ? 0x40 : 0) | (pid_ >> 8 & 0x1F)),
                     static_cast<uint8_t>(pid_), static_cast<uint8_t>(0x10 | counter_)});
    counter_ = (counter_ + 1) & 0x0F;
    if (start) {
      packets->push_back(0);  // the section begins at once
    }
    const size_t room = start ? ROOM - 1 : ROOM;
    const size_t taken = std::min(room, section.size());
    packets->insert(packets->end(), section.begin(), section.begin() + static_cast<std::ptrdiff_t>(taken));
    packets->insert(packets->end(), room - taken, STUFFING);
    section = section.subspan(taken);
  }
}

void Section_writer::move_to(int pid) {
  if (pid != pid_) {
    *this = Section_writer(pid);
  }
}
