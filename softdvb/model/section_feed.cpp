// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/section_feed.h"

#include <algorithm>
#include <array>

namespace softdvb {

static std::array<uint32_t, 256> make_crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t crc = i << 24;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc << 1) ^ ((crc & 0x80000000u) != 0 ? 0x04C11DB7u : 0u);
    table[i] = crc;
  }
  return table;
}

uint32_t section_crc(const uint8_t* data, size_t size) {
  static const std::array<uint32_t, 256> table = make_crc_table();
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < size; ++i)
    crc = (crc << 8) ^ table[(crc >> 24) ^ data[i]];
  return crc;
}

void Section_feed::begin_section() {
  filled_ = 0;
  section_at_ = 0;
}

void Section_feed::restart() {
  begin_section();
  start_seen_ = false;
}

void Section_feed::packet(const uint8_t* p, const Sink& sink) {
  const unsigned control = (p[3] >> 4) & 3u;
  if ((control & 1u) == 0)
    return;  // no payload, the counter does not advance
  size_t at = 4;
  bool discontinuity = false;
  if ((control & 2u) != 0) {
    at += 1u + p[4];
    if (at >= TS_PACKET)
      return;
    discontinuity = p[4] > 0 && (p[5] & 0x80u) != 0;
  }
  const unsigned counter = p[3] & 0x0Fu;
  const bool in_order = ((counter_ + 1) & 0x0Fu) == counter;
  counter_ = counter;
  // A section with a gap inside is of no use, and where the next one begins only a packet with a start can tell.
  if (!in_order || discontinuity)
    restart();

  const size_t size = TS_PACKET - at;
  if ((p[1] & 0x40u) == 0) {
    add(p + at, size, sink);
    return;
  }
  const size_t pointer = p[at];
  // A pointer beyond the packet makes all of it doubtful.
  if (size <= 1 || pointer >= size)
    return;
  const uint8_t* before = p + at + 1;
  // Before the place that the pointer names stands the end of the section that has been arriving.
  add(before, pointer, sink);
  begin_section();
  start_seen_ = true;
  add(before + pointer, size - 1 - pointer, sink);
}

void Section_feed::add(const uint8_t* data, size_t size, const Sink& sink) {
  constexpr size_t LIMIT = MAX_SECTION + TS_PACKET;
  if (filled_ >= LIMIT)
    return;
  size = std::min(size, LIMIT - filled_);
  if (size == 0)
    return;
  std::copy_n(data, size, buffer_.begin() + static_cast<std::ptrdiff_t>(filled_));
  filled_ += size;
  while (section_at_ + 2 < filled_) {
    const uint8_t* section = buffer_.data() + section_at_;
    const size_t length = 3 + ((section[1] & 0x0Fu) << 8 | section[2]);
    // Stuffing (0xFF) reads as a section that is too long; nothing comes behind it until the next start.
    if (length > MAX_SECTION || section_at_ + length > filled_)
      return;
    // What arrived since a restart may be the middle of a section.
    if (start_seen_)
      sink(section, length);
    section_at_ += length;
  }
}

}  // namespace softdvb
