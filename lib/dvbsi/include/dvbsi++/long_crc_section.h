// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/long_section.h>

// A section with the long header and a CRC at its end: all tables but the TDT and the TOT. May be laid over a TDT to
// learn its table id and length; the other values are then bytes of the time. What holds for all sections stands in
// short_section.h.
class LongCrcSection : public LongSection {
 public:
  LongCrcSection(const uint8_t* const buffer);
  ~LongCrcSection() override;

  uint32_t getCrc32() const { return crc_; }  // the last four bytes as broadcast; not verified

  static constexpr uint8_t CRC32 = 1;

 private:
  uint32_t crc_;
};

using LongCrcSectionList = std::list<LongCrcSection*>;
using LongCrcSectionIterator = LongCrcSectionList::iterator;
using LongCrcSectionConstIterator = LongCrcSectionList::const_iterator;
