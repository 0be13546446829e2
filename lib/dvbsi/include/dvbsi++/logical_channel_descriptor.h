// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// The number under which receivers list a service.
class LogicalChannel {
 public:
  LogicalChannel(const uint8_t* const buffer);

  uint16_t getServiceId() const { return service_id_; }
  uint8_t getVisibleServiceFlag() const { return visible_; }    // 0: not to be listed
  uint16_t getLogicalChannelNumber() const { return number_; }  // 0 to 1023

 private:
  uint16_t service_id_;
  uint16_t number_;
  uint8_t visible_;
};

using LogicalChannelList = std::list<LogicalChannel*>;
using LogicalChannelListIterator = LogicalChannelList::iterator;
using LogicalChannelListConstIterator = LogicalChannelList::const_iterator;

// Logical channel descriptor, 0x83 and 0x88, private to the terrestrial networks of many countries; no private data
// specifier is looked at. Valid at any length: one to three bytes left over behind the last entry are ignored.
class LogicalChannelDescriptor : public Descriptor {
 public:
  LogicalChannelDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~LogicalChannelDescriptor() override;

  const LogicalChannelList* getChannelList() const;  // may be empty

 private:
  dvbsi_own::Lazy_list<LogicalChannel> channels_;
};
