// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/ca_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>

#include "dvbsi/bytes.h"

using dvbsi_own::add_entries;
using dvbsi_own::available;
using dvbsi_own::be16;
using dvbsi_own::copy_section;
using dvbsi_own::Keep;
using dvbsi_own::len12;
using dvbsi_own::pid13;
using dvbsi_own::whole_descriptors;

NetworkAssociation::NetworkAssociation(const uint8_t* const buffer) : pid_(pid13(buffer + 2)) {}

ProgramAssociation::ProgramAssociation(const uint8_t* const buffer)
    : number_(static_cast<uint16_t>(be16(buffer))), pid_(pid13(buffer + 2)) {}

// PAT: ISO/IEC 13818-1, 2.4.4.3
ProgramAssociationSection::ProgramAssociationSection(const uint8_t* const buffer) : LongCrcSection(buffer) {
  constexpr size_t BEGIN = 8, ENTRY = 4;
  // With a CRC behind them, no entries of even the largest section_length reach beyond the longest section.
  const size_t entries = available(getSectionLength(), BEGIN) / ENTRY;
  static_assert(BEGIN + (0xFFF + dvbsi_own::HEADER_SIZE - BEGIN - dvbsi_own::CRC_SIZE) / ENTRY * ENTRY <=
                dvbsi_own::LONGEST_SECTION);

  const uint8_t* const loop = buffer + BEGIN;
  size_t networks = 0;
  for (size_t i = 0; i < entries; ++i)
    networks += be16(loop + i * ENTRY) == 0;
  networks_.reserve(networks);
  programs_.reserve(entries - networks);
  for (size_t i = 0; i < entries; ++i) {
    if (be16(loop + i * ENTRY) == 0)
      networks_.add(loop + i * ENTRY);
    else
      programs_.add(loop + i * ENTRY);
  }
}
ProgramAssociationSection::~ProgramAssociationSection() = default;

// CAT: ISO/IEC 13818-1, 2.4.4.6
ConditionalAccessSection::ConditionalAccessSection(const uint8_t* const buffer)
    : LongCrcSection(buffer), bytes_(copy_section(buffer)) {
  set_loop(bytes_.get() + 8, available(getSectionLength(), 8), Keep::BORROW);
}
ConditionalAccessSection::~ConditionalAccessSection() = default;

ElementaryStreamInfo::ElementaryStreamInfo(const uint8_t* const buffer, Keep keep)
    : pid_(pid13(buffer + 1)), type_(buffer[0]) {
  set_loop(buffer + 5, len12(buffer + 3), keep);
}

// PMT: ISO/IEC 13818-1, 2.4.4.8
ProgramMapSection::ProgramMapSection(const uint8_t* const buffer)
    : LongCrcSection(buffer), bytes_(copy_section(buffer)), pcr_pid_(0) {
  const size_t length = getSectionLength();
  const uint8_t* const section = bytes_.get();
  if (length > 10)
    pcr_pid_ = pid13(section + 8);
  const size_t info_length = length > 12 ? len12(section + 10) : 0;
  const size_t left = available(length, 12);
  if (info_length > left)
    return;

  const uint8_t* const info = section + 12;
  set_loop(info, info_length, Keep::BORROW);
  if (whole_descriptors(info, info_length) == info_length)
    add_entries(streams_, info + info_length, left - info_length, 5);
}
ProgramMapSection::~ProgramMapSection() = default;
