// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// One genre: the two levels of the clause's table, and a byte for the broadcaster's own use, in halves of 0 to 15.
class ContentClassification {
 public:
  ContentClassification(const uint8_t* const buffer);

  uint8_t getContentNibbleLevel1() const { return static_cast<uint8_t>(content_ >> 4); }
  uint8_t getContentNibbleLevel2() const { return content_ & 0x0F; }
  uint8_t getUserNibble1() const { return static_cast<uint8_t>(user_ >> 4); }
  uint8_t getUserNibble2() const { return user_ & 0x0F; }

 private:
  uint8_t content_;
  uint8_t user_;
};

using ContentClassificationList = std::list<ContentClassification*>;
using ContentClassificationIterator = ContentClassificationList::iterator;
using ContentClassificationConstIterator = ContentClassificationList::const_iterator;

// Content descriptor, 0x54 (EN 300 468, 6.2.9). Valid when its length is even.
class ContentDescriptor : public Descriptor {
 public:
  ContentDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~ContentDescriptor() override;

  const ContentClassificationList* getClassifications() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<ContentClassification> classifications_;
};
