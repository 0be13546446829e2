// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Short event descriptor, 0x4D (EN 300 468, 6.2.37): title and a text in one language. Valid from 5 bytes on, when both
// lie within the body.
class ShortEventDescriptor : public Descriptor {
 public:
  ShortEventDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ShortEventDescriptor() override;

  const std::string& getIso639LanguageCode() const { return language_; }
  const std::string& getEventName() const;
  const std::string& getText() const;

 private:
  std::string language_;
  dvbsi_own::Lazy_text name_;
  dvbsi_own::Lazy_text text_;
};
