// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Service descriptor, 0x48 (EN 300 468, 6.2.33). Valid from 3 bytes on, when both names lie within the body.
class ServiceDescriptor : public Descriptor {
 public:
  ServiceDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ServiceDescriptor() override;

  uint8_t getServiceType() const { return static_cast<uint8_t>(byte(0)); }
  const std::string& getServiceProviderName() const;
  const std::string& getServiceName() const;

 private:
  dvbsi_own::Lazy_text provider_;
  dvbsi_own::Lazy_text name_;
};
