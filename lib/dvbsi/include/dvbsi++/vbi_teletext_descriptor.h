// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// One entrance into the teletext: a page.
class VbiTeletext {
 public:
  VbiTeletext(const uint8_t* const buffer);

  const std::string& getIso639LanguageCode() const { return language_; }
  uint8_t getTeletextType() const { return type_; }  // 1 initial page, 2 subtitles, 5 for impaired hearing
  uint8_t getTeletextMagazineNumber() const { return magazine_; }  // 0 means magazine 8
  uint8_t getTeletextPageNumber() const { return page_; }          // two BCD digits

 private:
  std::string language_;
  uint8_t type_;
  uint8_t magazine_;
  uint8_t page_;
};

using VbiTeletextList = std::list<VbiTeletext*>;
using VbiTeletextIterator = VbiTeletextList::iterator;
using VbiTeletextConstIterator = VbiTeletextList::const_iterator;

// VBI teletext descriptor, 0x46 (EN 300 468, 6.2.48). Valid when its length is a multiple of 5.
class VbiTeletextDescriptor : public Descriptor {
 public:
  VbiTeletextDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~VbiTeletextDescriptor() override;

  const VbiTeletextList* getVbiTeletexts() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<VbiTeletext> teletexts_;
};
