// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Network name descriptor, 0x40 (EN 300 468, 6.2.27). Valid at any length.
class NetworkNameDescriptor : public Descriptor {
 public:
  NetworkNameDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~NetworkNameDescriptor() override;

  const std::string& getNetworkName() const;  // the whole body

 private:
  dvbsi_own::Lazy_text name_;
};
