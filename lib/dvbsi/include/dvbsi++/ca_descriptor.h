// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

using CaDataByteVector = std::vector<uint8_t>;
using CaDataByteIterator = CaDataByteVector::iterator;
using CaDataByteConstIterator = CaDataByteVector::const_iterator;

// 0x09 (ISO/IEC 13818-1, 2.6.16): PID of the EMMs in the CAT, of the ECMs in a PMT.
class CaDescriptor : public Descriptor {
 public:
  CaDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~CaDescriptor() override;

  uint16_t getCaSystemId() const { return static_cast<uint16_t>(two_bytes(0)); }
  uint16_t getCaPid() const { return static_cast<uint16_t>(two_bytes(2) & 0x1FFF); }
  const CaDataByteVector* getCaDataBytes() const;  // private data, may be empty

 private:
  dvbsi_own::Lazy_bytes data_bytes_;
};

using CaDescriptorList = std::list<CaDescriptor*>;
using CaDescriptorIterator = CaDescriptorList::iterator;
using CaDescriptorConstIterator = CaDescriptorList::const_iterator;
