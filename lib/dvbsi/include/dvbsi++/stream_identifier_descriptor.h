// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Stream identifier descriptor, 0x52 (EN 300 468, 6.2.39): by the tag, component descriptors name a stream of the PMT.
// Valid from 1 byte on.
class StreamIdentifierDescriptor : public Descriptor {
 public:
  StreamIdentifierDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~StreamIdentifierDescriptor() override;

  uint8_t getComponentTag() const { return static_cast<uint8_t>(byte(0)); }
};
