// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

using CaDataByteVector = std::vector<uint8_t>;
using CaDataByteIterator = CaDataByteVector::iterator;
using CaDataByteConstIterator = CaDataByteVector::const_iterator;

// Conditional access descriptor, 0x09 (ISO/IEC 13818-1, 2.6.16): the PID is that of the EMMs in a CAT, that of the ECMs
// in a PMT. Valid from 4 bytes on.
class CaDescriptor : public Descriptor {
 public:
  CaDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~CaDescriptor() override;

  uint16_t getCaSystemId() const { return static_cast<uint16_t>(two_bytes(0)); }
  uint16_t getCaPid() const { return static_cast<uint16_t>(two_bytes(2) & 0x1FFF); }
  // The private data behind the PID, the descriptor's own: may be empty, never null.
  const CaDataByteVector* getCaDataBytes() const;

 private:
  dvbsi_own::Lazy_bytes data_bytes_;
};

using CaDescriptorList = std::list<CaDescriptor*>;
using CaDescriptorIterator = CaDescriptorList::iterator;
using CaDescriptorConstIterator = CaDescriptorList::const_iterator;
