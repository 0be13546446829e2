// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

using AdditionalInfoVector = std::vector<uint8_t>;
using AdditionalInfoIterator = AdditionalInfoVector::iterator;
using AdditionalInfoConstIterator = AdditionalInfoVector::const_iterator;

// AC-3 descriptor, 0x6A (EN 300 468, D.3). Valid at any length: without a body all values are 0. A field is 0 when its
// flag is 0 or the body ends before it.
class Ac3Descriptor : public Descriptor {
 public:
  Ac3Descriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~Ac3Descriptor() override;

  // Which of the fields below are broadcast.
  uint8_t getAc3TypeFlag() const { return static_cast<uint8_t>(bits(0, 7, 1)); }
  uint8_t getBsidFlag() const { return static_cast<uint8_t>(bits(0, 6, 1)); }
  uint8_t getMainidFlag() const { return static_cast<uint8_t>(bits(0, 5, 1)); }
  uint8_t getAsvcFlag() const { return static_cast<uint8_t>(bits(0, 4, 1)); }
  uint8_t getAc3Type() const { return field(7); }  // component_type
  uint8_t getBsid() const { return field(6); }
  uint8_t getMainid() const { return field(5); }
  uint8_t getAvsc() const { return field(4); }  // the asvc field, whose flag is getAsvcFlag()
  // The bytes behind the fields, the descriptor's own: may be empty, never null.
  const AdditionalInfoVector* getAdditionalInfo() const;

 private:
  uint8_t field(unsigned flag_bit) const;

  dvbsi_own::Lazy_bytes additional_info_;
};
