// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Component descriptor, 0x50 (EN 300 468, 6.2.8). Valid from 6 bytes on. stream_content_ext is not shown.
class ComponentDescriptor : public Descriptor {
 public:
  ComponentDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ComponentDescriptor() override;

  uint8_t getStreamContent() const { return static_cast<uint8_t>(bits(0, 0, 4)); }  // kind of stream
  uint8_t getComponentType() const { return static_cast<uint8_t>(byte(1)); }  // its quality, a code within the kind
  uint8_t getComponentTag() const { return static_cast<uint8_t>(byte(2)); }   // as in the stream identifier descriptor
  const std::string& getIso639LanguageCode() const { return language_; }
  const std::string& getText() const;  // for viewers, to the end of the body

 private:
  std::string language_;
  dvbsi_own::Lazy_text text_;
};
