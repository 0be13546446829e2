// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/short_section.h>

// TDT (EN 300 468, 5.2.5): UTC as broadcast; invalid BCD digits are passed on. Both values are 0 when the section is
// too short for them. What holds for all sections stands in short_section.h.
class TimeAndDateSection : public ShortSection {
 public:
  TimeAndDateSection(const uint8_t* const buffer);
  ~TimeAndDateSection() override;

  uint16_t getUtcTimeMjd() const { return utc_mjd_; }  // modified Julian date, days
  uint32_t getUtcTimeBcd() const { return utc_bcd_; }  // 0xHHMMSS

  static constexpr PacketId PID = PID_TDT;
  static constexpr TableId TID = TID_TDT;
  static constexpr uint32_t TIMEOUT = 36000;

 private:
  uint32_t utc_bcd_;
  uint16_t utc_mjd_;
};

using TimeAndDateSectionList = std::list<TimeAndDateSection*>;
using TimeAndDateSectionIterator = TimeAndDateSectionList::iterator;
using TimeAndDateSectionConstIterator = TimeAndDateSectionList::const_iterator;
