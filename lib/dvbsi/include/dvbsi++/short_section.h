// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <list>

#include <dvbsi++/own.h>
#include <dvbsi++/packet_id.h>
#include <dvbsi++/table_id.h>

// The first three bytes of every section (ISO/IEC 13818-1, 2.4.4.11; EN 300 468, 5.1.1).
//
// What holds for all section classes is said here, and not again at each of them:
// - Ownership. Whoever makes a section deletes it. The constructor parses at once and copies what it needs, so the
//   buffer may be reused as soon as it returns. The lists belong to the section and own their elements: a list, its
//   elements and their texts live as long as the section, and callers delete none of them.
// - Input. The constructor takes no length: section_length is believed, and the buffer holds section_length + 3 bytes,
//   of which at most 4096 are read. Nothing else is checked, neither table_id nor CRC: any class can be laid over any
//   section. Inner lengths from the air are compared with what is there before they are used.
// - Failure. There is no error: bytes that a short section does not have count as 0 (a field that lies where the CRC of
//   a short section is has bytes of that), entries that do not fit are left out with all behind them, as the class
//   says, and lists are then shorter or empty. The constructor throws nothing but std::bad_alloc.
// - Values. Numbers are as broadcast and right-aligned, flags 0 or 1. Lists are never null and in the order of the
//   broadcast. Getters are *any-thread*, also at the same time.
class ShortSection {
 public:
  ShortSection(const uint8_t* const buffer);
  virtual ~ShortSection();
  ShortSection(const ShortSection&) = delete;
  ShortSection& operator=(const ShortSection&) = delete;

  uint8_t getTableId() const { return table_id_; }
  uint8_t getSectionSyntaxIndicator() const { return syntax_; }
  uint16_t getSectionLength() const { return length_; }  // bytes after the length field

  // Defaults of a reader of such sections; the classes of the tables have their own. Values only, never references.
  static constexpr uint8_t CRC32 = 0;
  static constexpr uint16_t LENGTH = 1024;  // longest section, bytes
  static constexpr PacketId PID = PID_RESERVED;
  static constexpr uint8_t SYNTAX = 0;
  static constexpr TableId TID = TID_RESERVED;
  static constexpr uint32_t TIMEOUT = 0;  // ms

 private:
  uint16_t length_;
  uint8_t table_id_;
  uint8_t syntax_;
};

using ShortSectionList = std::list<ShortSection*>;
using ShortSectionIterator = ShortSectionList::iterator;
using ShortSectionConstIterator = ShortSectionList::const_iterator;
