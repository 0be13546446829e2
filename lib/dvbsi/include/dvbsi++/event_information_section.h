// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/long_crc_section.h>

// One event of an EIT, whose getDescriptors() is the event's loop. Times are UTC and as broadcast: invalid BCD digits
// are passed on, an undefined time is all ones. Made by the section; whoever makes one by hand gives it a whole event.
class Event : public DescriptorContainer {
 public:
  Event(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);

  uint16_t getEventId() const { return event_id_; }
  uint16_t getStartTimeMjd() const { return start_mjd_; }       // modified Julian date, days
  uint32_t getStartTimeBcd() const { return start_bcd_; }       // 0xHHMMSS
  uint32_t getDuration() const { return duration_; }            // 0xHHMMSS
  uint8_t getRunningStatus() const { return running_status_; }  // 0 undefined, 1 not, 2 soon, 3 pausing, 4 running
  uint8_t getFreeCaMode() const { return free_ca_mode_; }       // 1: at least one stream is scrambled

 private:
  uint32_t start_bcd_;
  uint32_t duration_;
  uint16_t event_id_;
  uint16_t start_mjd_;
  uint8_t running_status_;
  uint8_t free_ca_mode_;
};

using EventList = std::list<Event*>;
using EventIterator = EventList::iterator;
using EventConstIterator = EventList::const_iterator;

// EIT, present/following and schedule (EN 300 468, 5.2.4). The service id is getTableIdExtension(). The first event
// that does not fit and all after it are left out. A section too short for them answers 0 for the ids, and its own
// section_number and table_id for segment_last_section_number and last_table_id. What holds for all sections stands in
// short_section.h.
class EventInformationSection : public LongCrcSection {
 public:
  EventInformationSection(const uint8_t* const buffer);
  ~EventInformationSection() override;

  uint16_t getTransportStreamId() const { return transport_stream_id_; }
  uint16_t getOriginalNetworkId() const { return original_network_id_; }
  uint8_t getSegmentLastSectionNumber() const { return segment_last_; }  // of a segment of the schedule
  uint8_t getLastTableId() const { return last_table_id_; }              // of this service's schedule
  const EventList* getEvents() const { return events_.get(); }

  static constexpr uint16_t LENGTH = 4096;
  static constexpr PacketId PID = PID_EIT;
  static constexpr TableId TID = TID_EIT_ACTUAL;
  static constexpr uint32_t TIMEOUT = 3000;

 private:
  dvbsi_own::Section_bytes bytes_;
  dvbsi_own::Owned_list<Event> events_;
  uint16_t transport_stream_id_;
  uint16_t original_network_id_;
  uint8_t segment_last_;
  uint8_t last_table_id_;
};

using EventInformationSectionList = std::list<EventInformationSection*>;
using EventInformationSectionIterator = EventInformationSectionList::iterator;
using EventInformationSectionConstIterator = EventInformationSectionList::const_iterator;
