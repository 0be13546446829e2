// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>
#include <cstring>

#include <dvbsi++/long_crc_section.h>
#include <dvbsi++/short_crc_section.h>

#include "dvbsi/bytes.h"

namespace dvbsi_own {

uint32_t section_crc(const uint8_t* section) {
  const size_t size = section_size(section);
  if (size < CRC_SIZE)
    return 0;
  uint32_t crc = 0;
  for (size_t i = size - CRC_SIZE; i < size; ++i)
    crc = crc << 8 | section_byte(section, i);
  return crc;
}

Section_bytes copy_section(const uint8_t* section) {
  constexpr size_t LONG_HEADER_SIZE = 8;
  const size_t size = section_size(section);
  const size_t given = std::min(size, LONGEST_SECTION);
  const size_t block = std::max(size, LONG_HEADER_SIZE) + ZEROES_BEHIND;
  Section_bytes copy(new uint8_t[block]);
  std::memcpy(copy.get(), section, given);
  std::memset(copy.get() + given, 0, block - given);
  return copy;
}

}  // namespace dvbsi_own

using dvbsi_own::section_byte;

ShortSection::ShortSection(const uint8_t* const buffer)
    : length_(static_cast<uint16_t>(dvbsi_own::len12(buffer + 1))),
      table_id_(buffer[0]),
      syntax_(static_cast<uint8_t>(buffer[1] >> 7)) {}
ShortSection::~ShortSection() = default;

ShortCrcSection::ShortCrcSection(const uint8_t* const buffer)
    : ShortSection(buffer), crc_(dvbsi_own::section_crc(buffer)) {}
ShortCrcSection::~ShortCrcSection() = default;

LongSection::LongSection(const uint8_t* const buffer)
    : ShortSection(buffer),
      extension_(static_cast<uint16_t>(section_byte(buffer, 3) << 8 | section_byte(buffer, 4))),
      version_(static_cast<uint8_t>(section_byte(buffer, 5) >> 1 & 0x1F)),
      current_next_(static_cast<uint8_t>(section_byte(buffer, 5) & 1)),
      number_(static_cast<uint8_t>(section_byte(buffer, 6))),
      last_number_(static_cast<uint8_t>(section_byte(buffer, 7))) {}
LongSection::~LongSection() = default;

LongCrcSection::LongCrcSection(const uint8_t* const buffer)
    : LongSection(buffer), crc_(dvbsi_own::section_crc(buffer)) {}
LongCrcSection::~LongCrcSection() = default;
