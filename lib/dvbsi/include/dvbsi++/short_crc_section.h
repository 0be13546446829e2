// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/short_section.h>

// A section without the long header that ends in a CRC: the TOT. What holds for all sections stands in short_section.h.
class ShortCrcSection : public ShortSection {
 public:
  ShortCrcSection(const uint8_t* const buffer);
  ~ShortCrcSection() override;

  uint32_t getCrc32() const { return crc_; }  // the last four bytes as broadcast; not verified. 0 without four bytes

  static constexpr uint8_t CRC32 = 1;

 private:
  uint32_t crc_;
};

using ShortCrcSectionList = std::list<ShortCrcSection*>;
using ShortCrcSectionIterator = ShortCrcSectionList::iterator;
using ShortCrcSectionConstIterator = ShortCrcSectionList::const_iterator;
