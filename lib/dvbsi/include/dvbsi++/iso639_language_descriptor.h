// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// One language of a stream.
class Iso639Language {
 public:
  Iso639Language(const uint8_t* const buffer);

  const std::string& getIso639LanguageCode() const { return language_; }
  // 0 is undefined, 1 clean effects, 2 for impaired hearing, 3 for impaired sight.
  uint8_t getAudioType() const { return audio_type_; }

 private:
  std::string language_;
  uint8_t audio_type_;
};

using Iso639LanguageList = std::list<Iso639Language*>;
using Iso639LanguageIterator = Iso639LanguageList::iterator;
using Iso639LanguageConstIterator = Iso639LanguageList::const_iterator;

// ISO 639 language descriptor, 0x0A (ISO/IEC 13818-1, 2.6.18). Valid when its length is a multiple of 4.
class Iso639LanguageDescriptor : public Descriptor {
 public:
  Iso639LanguageDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~Iso639LanguageDescriptor() override;

  const Iso639LanguageList* getIso639Languages() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<Iso639Language> languages_;
};
