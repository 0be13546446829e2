// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/short_section.h>

// The header of sections with section_syntax_indicator 1 (ISO/IEC 13818-1, 2.4.4.11; EN 300 468, 5.1.1). A section that
// is too short for a field has 0 there. What holds for all sections stands in short_section.h.
class LongSection : public ShortSection {
 public:
  LongSection(const uint8_t* const buffer);
  ~LongSection() override;

  uint16_t getTableIdExtension() const { return extension_; }        // its meaning is the table's
  uint8_t getVersionNumber() const { return version_; }              // 0 to 31
  uint8_t getCurrentNextIndicator() const { return current_next_; }  // 1: in force now
  uint8_t getSectionNumber() const { return number_; }
  uint8_t getLastSectionNumber() const { return last_number_; }

  // Compare the section numbers and nothing else, so that the sections of one table can be sorted.
  bool operator<(const LongSection& other) const { return number_ < other.number_; }
  bool operator>(const LongSection& other) const { return number_ > other.number_; }
  bool operator<=(const LongSection& other) const { return number_ <= other.number_; }
  bool operator>=(const LongSection& other) const { return number_ >= other.number_; }
  bool operator==(const LongSection& other) const { return number_ == other.number_; }
  bool operator!=(const LongSection& other) const { return number_ != other.number_; }

  static constexpr uint8_t SYNTAX = 1;

 private:
  uint16_t extension_;
  uint8_t version_;
  uint8_t current_next_;
  uint8_t number_;
  uint8_t last_number_;
};

using LongSectionList = std::list<LongSection*>;
using LongSectionIterator = LongSectionList::iterator;
using LongSectionConstIterator = LongSectionList::const_iterator;
