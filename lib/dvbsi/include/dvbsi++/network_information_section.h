// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/long_crc_section.h>

// One transport stream of a NIT, whose getDescriptors() is the stream's loop. Made by the section; whoever makes one by
// hand gives it a whole entry.
class TransportStreamInfo : public DescriptorContainer {
 public:
  TransportStreamInfo(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);

  uint16_t getTransportStreamId() const { return transport_stream_id_; }
  uint16_t getOriginalNetworkId() const { return original_network_id_; }

 private:
  uint16_t transport_stream_id_;
  uint16_t original_network_id_;
};

using TransportStreamInfoList = std::list<TransportStreamInfo*>;
using TransportStreamInfoIterator = TransportStreamInfoList::iterator;
using TransportStreamInfoConstIterator = TransportStreamInfoList::const_iterator;

// NIT (EN 300 468, 5.2.1). The network id is getTableIdExtension(), getDescriptors() is the network's loop. When that
// loop does not end where network_descriptors_length says, there are no transport streams, and when that length passes
// the section, no descriptors either. There are no transport streams when transport_stream_loop_length passes the
// section; the first one that does not fit in that loop and all after it are left out. What holds for all sections
// stands in short_section.h.
class NetworkInformationSection : public LongCrcSection, public DescriptorContainer {
 public:
  NetworkInformationSection(const uint8_t* const buffer);
  ~NetworkInformationSection() override;

  const TransportStreamInfoList* getTsInfo() const { return transport_streams_.get(); }

  static constexpr PacketId PID = PID_NIT;
  static constexpr TableId TID = TID_NIT_ACTUAL;
  static constexpr uint32_t TIMEOUT = 12000;

 private:
  dvbsi_own::Section_bytes bytes_;
  dvbsi_own::Owned_list<TransportStreamInfo> transport_streams_;
};

using NetworkInformationSectionList = std::list<NetworkInformationSection*>;
using NetworkInformationSectionIterator = NetworkInformationSectionList::iterator;
using NetworkInformationSectionConstIterator = NetworkInformationSectionList::const_iterator;
