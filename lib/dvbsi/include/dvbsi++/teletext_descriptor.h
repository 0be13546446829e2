// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/vbi_teletext_descriptor.h>

// Teletext descriptor, 0x56 (EN 300 468, 6.2.43): entries and rule are those of 0x46.
class TeletextDescriptor : public VbiTeletextDescriptor {
 public:
  TeletextDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~TeletextDescriptor() override;
};
