// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// The name of a network in one language.
class MultilingualNetworkName {
 public:
  MultilingualNetworkName(const uint8_t* const buffer);

  const std::string& getIso639LanguageCode() const { return language_; }
  const std::string& getNetworkName() const { return name_; }

 private:
  std::string language_;
  std::string name_;
};

using MultilingualNetworkNameList = std::list<MultilingualNetworkName*>;
using MultilingualNetworkNameIterator = MultilingualNetworkNameList::iterator;
using MultilingualNetworkNameConstIterator = MultilingualNetworkNameList::const_iterator;

// Multilingual network name descriptor, 0x5B (EN 300 468, 6.2.24). Valid at any length: the list ends at the first
// entry that passes the body.
class MultilingualNetworkNameDescriptor : public Descriptor {
 public:
  MultilingualNetworkNameDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~MultilingualNetworkNameDescriptor() override;

  const MultilingualNetworkNameList* getMultilingualNetworkNames() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<MultilingualNetworkName> names_;
};
