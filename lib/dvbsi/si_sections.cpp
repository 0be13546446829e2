// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "dvbsi/bytes.h"

using dvbsi_own::add_entries;
using dvbsi_own::available;
using dvbsi_own::be16;
using dvbsi_own::be24;
using dvbsi_own::copy_section;
using dvbsi_own::Keep;
using dvbsi_own::len12;
using dvbsi_own::whole_descriptors;

static uint16_t u16(const uint8_t* p) {
  return static_cast<uint16_t>(be16(p));
}
static uint8_t bit(uint8_t byte, unsigned number) {
  return static_cast<uint8_t>(byte >> number & 1);
}

TransportStreamInfo::TransportStreamInfo(const uint8_t* const buffer, Keep keep)
    : transport_stream_id_(u16(buffer)), original_network_id_(u16(buffer + 2)) {
  set_loop(buffer + 6, len12(buffer + 4), keep);
}

// NIT: EN 300 468, 5.2.1
NetworkInformationSection::NetworkInformationSection(const uint8_t* const buffer)
    : LongCrcSection(buffer), bytes_(copy_section(buffer)) {
  const size_t length = getSectionLength();
  const uint8_t* const section = bytes_.get();
  const size_t network_length = length > 9 ? len12(section + 8) : 0;
  size_t left = available(length, 10);
  if (network_length > left)
    return;

  const uint8_t* const network = section + 10;
  set_loop(network, network_length, Keep::BORROW);
  left -= network_length;
  if (whole_descriptors(network, network_length) != network_length || left < 2)
    return;

  const uint8_t* const streams = network + network_length;
  const size_t streams_length = len12(streams);
  if (streams_length <= left - 2)
    add_entries(transport_streams_, streams + 2, streams_length, 6);
}
NetworkInformationSection::~NetworkInformationSection() = default;

ServiceDescription::ServiceDescription(const uint8_t* const buffer, Keep keep)
    : service_id_(u16(buffer)),
      eit_schedule_(bit(buffer[2], 1)),
      eit_present_following_(bit(buffer[2], 0)),
      running_status_(static_cast<uint8_t>(buffer[3] >> 5)),
      free_ca_mode_(bit(buffer[3], 4)) {
  set_loop(buffer + 5, len12(buffer + 3), keep);
}

// SDT: EN 300 468, 5.2.3
ServiceDescriptionSection::ServiceDescriptionSection(const uint8_t* const buffer)
    : LongCrcSection(buffer), bytes_(copy_section(buffer)), original_network_id_(0) {
  const size_t length = getSectionLength();
  const uint8_t* const section = bytes_.get();
  if (length > 9)
    original_network_id_ = u16(section + 8);
  add_entries(services_, section + 11, available(length, 11), 5);
}
ServiceDescriptionSection::~ServiceDescriptionSection() = default;

Event::Event(const uint8_t* const buffer, Keep keep)
    : start_bcd_(be24(buffer + 4)),
      duration_(be24(buffer + 7)),
      event_id_(u16(buffer)),
      start_mjd_(u16(buffer + 2)),
      running_status_(static_cast<uint8_t>(buffer[10] >> 5)),
      free_ca_mode_(bit(buffer[10], 4)) {
  set_loop(buffer + 12, len12(buffer + 10), keep);
}

// EIT: EN 300 468, 5.2.4
EventInformationSection::EventInformationSection(const uint8_t* const buffer)
    : LongCrcSection(buffer),
      bytes_(copy_section(buffer)),
      transport_stream_id_(0),
      original_network_id_(0),
      segment_last_(getSectionNumber()),
      last_table_id_(getTableId()) {
  const size_t length = getSectionLength();
  const uint8_t* const section = bytes_.get();
  if (length > 10)
    transport_stream_id_ = u16(section + 8);
  if (length > 12)
    original_network_id_ = u16(section + 10);
  if (length > 13)
    segment_last_ = section[12];
  if (length > 14)
    last_table_id_ = section[13];
  add_entries(events_, section + 14, available(length, 14), 12);
}
EventInformationSection::~EventInformationSection() = default;

// TDT: EN 300 468, 5.2.5
TimeAndDateSection::TimeAndDateSection(const uint8_t* const buffer) : ShortSection(buffer), utc_bcd_(0), utc_mjd_(0) {
  if (getSectionLength() < 5)
    return;
  utc_mjd_ = u16(buffer + 3);
  utc_bcd_ = be24(buffer + 5);
}
TimeAndDateSection::~TimeAndDateSection() = default;

// TOT: EN 300 468, 5.2.6
TimeOffsetSection::TimeOffsetSection(const uint8_t* const buffer)
    : ShortCrcSection(buffer), bytes_(copy_section(buffer)), utc_bcd_(0), utc_mjd_(0) {
  const size_t length = getSectionLength();
  const uint8_t* const section = bytes_.get();
  if (length > 8) {
    utc_mjd_ = u16(section + 3);
    utc_bcd_ = be24(section + 5);
  }
  const size_t loop_length = length > 10 ? len12(section + 8) : 0;
  if (loop_length <= available(length, 10))
    set_loop(section + 10, loop_length, Keep::BORROW);
}
TimeOffsetSection::~TimeOffsetSection() = default;
