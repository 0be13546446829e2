// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// One item of an extended event: "Director" and a name.
class ExtendedEvent {
 public:
  ExtendedEvent(const uint8_t* const buffer);

  const std::string& getItemDescription() const { return description_; }
  const std::string& getItem() const { return item_; }

 private:
  std::string description_;
  std::string item_;
};

using ExtendedEventList = std::list<ExtendedEvent*>;
using ExtendedEventIterator = ExtendedEventList::iterator;
using ExtendedEventConstIterator = ExtendedEventList::const_iterator;

// Extended event descriptor, 0x4E (EN 300 468, 6.2.15): one of the parts, counted from 0, that are read one after the
// other for each language. Valid from 6 bytes on, when length_of_items and text_length lie within the body. The items
// end at the first that passes length_of_items; the descriptor stays valid then, and the text is read as usual.
class ExtendedEventDescriptor : public Descriptor {
 public:
  ExtendedEventDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ExtendedEventDescriptor() override;

  uint8_t getDescriptorNumber() const { return static_cast<uint8_t>(bits(0, 4, 4)); }
  uint8_t getLastDescriptorNumber() const { return static_cast<uint8_t>(bits(0, 0, 4)); }
  const std::string& getIso639LanguageCode() const { return language_; }
  const ExtendedEventList* getItems() const;  // may be empty
  const std::string& getText() const;

 private:
  std::string language_;
  dvbsi_own::Lazy_list<ExtendedEvent> items_;
  dvbsi_own::Lazy_text text_;
};
