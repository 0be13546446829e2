// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

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

// 0x5B (EN 300 468, 6.2.24). The list ends at the first entry that passes the descriptor.
class MultilingualNetworkNameDescriptor : public Descriptor {
 public:
  MultilingualNetworkNameDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~MultilingualNetworkNameDescriptor() override;

  const MultilingualNetworkNameList* getMultilingualNetworkNames() const;

 private:
  dvbsi_own::Lazy_list<MultilingualNetworkName> names_;
};
