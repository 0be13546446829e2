// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/short_crc_section.h>

// TOT (EN 300 468, 5.2.6): the time as in the TDT, 0 where there is not enough of it, and descriptors with the local
// time offsets. A loop that passes the section counts as empty. What holds for all sections stands in short_section.h.
class TimeOffsetSection : public ShortCrcSection, public DescriptorContainer {
 public:
  TimeOffsetSection(const uint8_t* const buffer);
  ~TimeOffsetSection() override;

  uint16_t getUtcTimeMjd() const { return utc_mjd_; }  // modified Julian date, days
  uint32_t getUtcTimeBcd() const { return utc_bcd_; }  // 0xHHMMSS

  static constexpr PacketId PID = PID_TOT;
  static constexpr TableId TID = TID_TOT;
  static constexpr uint32_t TIMEOUT = 36000;

 private:
  dvbsi_own::Section_bytes bytes_;
  uint32_t utc_bcd_;
  uint16_t utc_mjd_;
};

using TimeOffsetSectionList = std::list<TimeOffsetSection*>;
using TimeOffsetSectionIterator = TimeOffsetSectionList::iterator;
using TimeOffsetSectionConstIterator = TimeOffsetSectionList::const_iterator;
