// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// One subtitle service in a stream.
class Subtitling {
 public:
  Subtitling(const uint8_t* const buffer);

  const std::string& getIso639LanguageCode() const { return language_; }
  uint8_t getSubtitlingType() const { return type_; }  // a component_type of the component descriptor
  uint16_t getCompositionPageId() const { return composition_page_; }
  uint16_t getAncillaryPageId() const { return ancillary_page_; }  // the same when there is none

 private:
  std::string language_;
  uint16_t composition_page_;
  uint16_t ancillary_page_;
  uint8_t type_;
};

using SubtitlingList = std::list<Subtitling*>;
using SubtitlingIterator = SubtitlingList::iterator;
using SubtitlingConstIterator = SubtitlingList::const_iterator;

// Subtitling descriptor, 0x59 (EN 300 468, 6.2.41). Valid when its length is a multiple of 8.
class SubtitlingDescriptor : public Descriptor {
 public:
  SubtitlingDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~SubtitlingDescriptor() override;

  const SubtitlingList* getSubtitlings() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<Subtitling> subtitlings_;
};
