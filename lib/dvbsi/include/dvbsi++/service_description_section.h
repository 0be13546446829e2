// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/long_crc_section.h>

// One service of an SDT, whose getDescriptors() is the service's loop. Made by the section; whoever makes one by hand
// gives it a whole entry.
class ServiceDescription : public DescriptorContainer {
 public:
  ServiceDescription(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);

  uint16_t getServiceId() const { return service_id_; }
  uint8_t getEitScheduleFlag() const { return eit_schedule_; }
  uint8_t getEitPresentFollowingFlag() const { return eit_present_following_; }
  uint8_t getRunningStatus() const { return running_status_; }  // 0 undefined, 1 not, 2 soon, 3 pausing, 4 running
  uint8_t getFreeCaMode() const { return free_ca_mode_; }       // 1: at least one stream is scrambled

 private:
  uint16_t service_id_;
  uint8_t eit_schedule_;
  uint8_t eit_present_following_;
  uint8_t running_status_;
  uint8_t free_ca_mode_;
};

using ServiceDescriptionList = std::list<ServiceDescription*>;
using ServiceDescriptionIterator = ServiceDescriptionList::iterator;
using ServiceDescriptionConstIterator = ServiceDescriptionList::const_iterator;

// SDT (EN 300 468, 5.2.3). The first service that does not fit and all after it are left out. What holds for all
// sections stands in short_section.h.
class ServiceDescriptionSection : public LongCrcSection {
 public:
  ServiceDescriptionSection(const uint8_t* const buffer);
  ~ServiceDescriptionSection() override;

  uint16_t getTransportStreamId() const { return getTableIdExtension(); }
  uint16_t getOriginalNetworkId() const { return original_network_id_; }  // 0 in a section too short for it
  const ServiceDescriptionList* getDescriptions() const { return services_.get(); }

  static constexpr PacketId PID = PID_SDT;
  static constexpr TableId TID = TID_SDT_ACTUAL;
  static constexpr uint32_t TIMEOUT = 3000;

 private:
  dvbsi_own::Section_bytes bytes_;
  dvbsi_own::Owned_list<ServiceDescription> services_;
  uint16_t original_network_id_;
};

using ServiceDescriptionSectionList = std::list<ServiceDescriptionSection*>;
using ServiceDescriptionSectionIterator = ServiceDescriptionSectionList::iterator;
using ServiceDescriptionSectionConstIterator = ServiceDescriptionSectionList::const_iterator;
