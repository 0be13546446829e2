// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <list>

#include <dvbsi++/own.h>
#include <dvbsi++/packet_id.h>
#include <dvbsi++/table_id.h>

// The first three bytes of every section (EN 300 468, 5.1.1).
//
// All section classes: the constructor parses at once and copies what it needs, so the buffer may be reused as soon as
// it returns. It takes no length: section_length is believed, and the buffer holds section_length + 3 bytes, of which
// at most 4096 are read. Nothing else is checked, neither table_id nor CRC: any class can be laid over any section, and
// bytes that a short section does not have count as 0. It throws nothing but std::bad_alloc.
//
// Getters are *any-thread*, also at the same time. Lists are never null, in the order of the broadcast, and they own
// their elements: a list, its elements and their texts live as long as the section. Numbers are right-aligned; texts
// are the bytes as broadcast, with character table selector and control codes.
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
