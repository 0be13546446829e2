// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// The names of a service and of its provider in one language.
class MultilingualServiceName {
 public:
  MultilingualServiceName(const uint8_t* const buffer);

  const std::string& getIso639LanguageCode() const { return language_; }
  const std::string& getServiceProviderName() const { return provider_; }
  const std::string& getServiceName() const { return name_; }

 private:
  std::string language_;
  std::string provider_;
  std::string name_;
};

using MultilingualServiceNameList = std::list<MultilingualServiceName*>;
using MultilingualServiceNameIterator = MultilingualServiceNameList::iterator;
using MultilingualServiceNameConstIterator = MultilingualServiceNameList::const_iterator;

// Multilingual service name descriptor, 0x5D (EN 300 468, 6.2.25). Valid at any length: the list ends at the first
// entry that passes the body.
class MultilingualServiceNameDescriptor : public Descriptor {
 public:
  MultilingualServiceNameDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~MultilingualServiceNameDescriptor() override;

  const MultilingualServiceNameList* getMultilingualServiceNames() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<MultilingualServiceName> names_;
};
