// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// The local time of a country or a part of it. Times are as broadcast: invalid BCD digits are passed on.
class LocalTimeOffset {
 public:
  LocalTimeOffset(const uint8_t* const buffer);

  const std::string& getCountryCode() const { return country_; }
  uint8_t getCountryRegionId() const { return region_id_; }         // 0: no parts; up to 63
  uint8_t getLocalTimeOffsetPolarity() const { return polarity_; }  // 0: ahead of UTC, 1: behind; also for the next
  uint16_t getLocalTimeOffset() const { return offset_; }           // 0xHHMM
  uint16_t getTimeOfChangeMjd() const { return change_mjd_; }       // modified Julian date, days
  uint32_t getTimeOfChangeBcd() const { return change_bcd_; }       // 0xHHMMSS, UTC
  uint16_t getNextTimeOffset() const { return next_offset_; }       // 0xHHMM

 private:
  std::string country_;
  uint32_t change_bcd_;
  uint16_t offset_;
  uint16_t change_mjd_;
  uint16_t next_offset_;
  uint8_t region_id_;
  uint8_t polarity_;
};

using LocalTimeOffsetList = std::list<LocalTimeOffset*>;
using LocalTimeOffsetIterator = LocalTimeOffsetList::iterator;
using LocalTimeOffsetConstIterator = LocalTimeOffsetList::const_iterator;

// Local time offset descriptor, 0x58 (EN 300 468, 6.2.20). Valid when its length is a multiple of 13.
class LocalTimeOffsetDescriptor : public Descriptor {
 public:
  LocalTimeOffsetDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~LocalTimeOffsetDescriptor() override;

  const LocalTimeOffsetList* getLocalTimeOffsets() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<LocalTimeOffset> offsets_;
};
