// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/local_time_offset_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>

#include "dvbsi/bytes.h"

using dvbsi_own::be16;
using dvbsi_own::be24;
using dvbsi_own::code;
using dvbsi_own::fixed_size;
using dvbsi_own::Keep;

// A length byte and as many bytes of text.
static std::string counted_text(const uint8_t* p) {
  return std::string(reinterpret_cast<const char*>(p + 1), p[0]);
}

// The size of `code_size` bytes and `texts` counted texts; 0 when they do not lie wholly within `left` bytes.
template <size_t CODE_SIZE, unsigned TEXTS>
static size_t texts_size(const uint8_t* at, size_t left) {
  size_t size = CODE_SIZE;
  for (unsigned i = 0; i < TEXTS; ++i) {
    if (size >= left)
      return 0;
    size += 1u + at[size];
  }
  return size <= left ? size : 0;
}

// network_name_descriptor, 0x40: EN 300 468, 6.2.27
NetworkNameDescriptor::NetworkNameDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  name_.set(body(), getLength());
}
NetworkNameDescriptor::~NetworkNameDescriptor() = default;
const std::string& NetworkNameDescriptor::getNetworkName() const {
  return name_.get();
}

// service_descriptor, 0x48: EN 300 468, 6.2.33
ServiceDescriptor::ServiceDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  const unsigned n = getLength();
  const unsigned provider_size = byte(1);
  const unsigned name_size = byte(2u + provider_size);
  valid_ = n >= 3 && n >= 3 + provider_size && n >= 3 + provider_size + name_size;
  if (!valid_)
    return;
  provider_.set(body() + 2, provider_size);
  name_.set(body() + 3 + provider_size, name_size);
}
ServiceDescriptor::~ServiceDescriptor() = default;
const std::string& ServiceDescriptor::getServiceProviderName() const {
  return provider_.get();
}
const std::string& ServiceDescriptor::getServiceName() const {
  return name_.get();
}

// short_event_descriptor, 0x4D: EN 300 468, 6.2.37
ShortEventDescriptor::ShortEventDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  const unsigned n = getLength();
  const unsigned name_size = byte(3);
  const unsigned text_size = byte(4u + name_size);
  valid_ = n >= 5 && n >= 5 + name_size && n >= 5 + name_size + text_size;
  if (!valid_)
    return;
  language_ = code(body());
  name_.set(body() + 4, name_size);
  text_.set(body() + 5 + name_size, text_size);
}
ShortEventDescriptor::~ShortEventDescriptor() = default;
const std::string& ShortEventDescriptor::getEventName() const {
  return name_.get();
}
const std::string& ShortEventDescriptor::getText() const {
  return text_.get();
}

// extended_event_descriptor, 0x4E: EN 300 468, 6.2.15
ExtendedEvent::ExtendedEvent(const uint8_t* const buffer)
    : description_(counted_text(buffer)), item_(counted_text(buffer + 1 + buffer[0])) {}

ExtendedEventDescriptor::ExtendedEventDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  const unsigned n = getLength();
  const unsigned items_size = byte(4);
  const unsigned text_size = byte(5u + items_size);
  valid_ = n >= 6 && n >= 6 + items_size && n >= 6 + items_size + text_size;
  if (!valid_)
    return;
  language_ = code(body() + 1);
  items_.set(body() + 5, items_size, texts_size<0, 2>);
  text_.set(body() + 6 + items_size, text_size);
}
ExtendedEventDescriptor::~ExtendedEventDescriptor() = default;
const ExtendedEventList* ExtendedEventDescriptor::getItems() const {
  return items_.get();
}
const std::string& ExtendedEventDescriptor::getText() const {
  return text_.get();
}

// component_descriptor, 0x50: EN 300 468, 6.2.8
ComponentDescriptor::ComponentDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() >= 6;
  if (!valid_)
    return;
  language_ = code(body() + 3);
  text_.set(body() + 6, getLength() - 6u);
}
ComponentDescriptor::~ComponentDescriptor() = default;
const std::string& ComponentDescriptor::getText() const {
  return text_.get();
}

// content_descriptor, 0x54: EN 300 468, 6.2.9
ContentClassification::ContentClassification(const uint8_t* const buffer) : content_(buffer[0]), user_(buffer[1]) {}

ContentDescriptor::ContentDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() % 2 == 0;
  if (valid_)
    classifications_.set(body(), getLength(), fixed_size<2>);
}
ContentDescriptor::~ContentDescriptor() = default;
const ContentClassificationList* ContentDescriptor::getClassifications() const {
  return classifications_.get();
}

// parental_rating_descriptor, 0x55: EN 300 468, 6.2.28
ParentalRating::ParentalRating(const uint8_t* const buffer) : country_(code(buffer)), rating_(buffer[3]) {}

ParentalRatingDescriptor::ParentalRatingDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() % 4 == 0;
  if (valid_)
    ratings_.set(body(), getLength(), fixed_size<4>);
}
ParentalRatingDescriptor::~ParentalRatingDescriptor() = default;
const ParentalRatingList* ParentalRatingDescriptor::getParentalRatings() const {
  return ratings_.get();
}

// local_time_offset_descriptor, 0x58: EN 300 468, 6.2.20
LocalTimeOffset::LocalTimeOffset(const uint8_t* const buffer)
    : country_(code(buffer)),
      change_bcd_(be24(buffer + 8)),
      offset_(static_cast<uint16_t>(be16(buffer + 4))),
      change_mjd_(static_cast<uint16_t>(be16(buffer + 6))),
      next_offset_(static_cast<uint16_t>(be16(buffer + 11))),
      region_id_(static_cast<uint8_t>(buffer[3] >> 2)),
      polarity_(buffer[3] & 1) {}

LocalTimeOffsetDescriptor::LocalTimeOffsetDescriptor(const uint8_t* const buffer, Keep keep)
    : Descriptor(buffer, keep) {
  valid_ = getLength() % 13 == 0;
  if (valid_)
    offsets_.set(body(), getLength(), fixed_size<13>);
}
LocalTimeOffsetDescriptor::~LocalTimeOffsetDescriptor() = default;
const LocalTimeOffsetList* LocalTimeOffsetDescriptor::getLocalTimeOffsets() const {
  return offsets_.get();
}

// terrestrial_delivery_system_descriptor, 0x5A: EN 300 468, 6.2.13.4
TerrestrialDeliverySystemDescriptor::TerrestrialDeliverySystemDescriptor(const uint8_t* const buffer, Keep keep)
    : Descriptor(buffer, keep) {
  valid_ = getLength() >= 7;
}
TerrestrialDeliverySystemDescriptor::~TerrestrialDeliverySystemDescriptor() = default;

// multilingual_network_name_descriptor, 0x5B: EN 300 468, 6.2.24
MultilingualNetworkName::MultilingualNetworkName(const uint8_t* const buffer)
    : language_(code(buffer)), name_(counted_text(buffer + 3)) {}

MultilingualNetworkNameDescriptor::MultilingualNetworkNameDescriptor(const uint8_t* const buffer, Keep keep)
    : Descriptor(buffer, keep) {
  names_.set(body(), getLength(), texts_size<3, 1>);
}
MultilingualNetworkNameDescriptor::~MultilingualNetworkNameDescriptor() = default;
const MultilingualNetworkNameList* MultilingualNetworkNameDescriptor::getMultilingualNetworkNames() const {
  return names_.get();
}

// multilingual_service_name_descriptor, 0x5D: EN 300 468, 6.2.25
MultilingualServiceName::MultilingualServiceName(const uint8_t* const buffer)
    : language_(code(buffer)), provider_(counted_text(buffer + 3)), name_(counted_text(buffer + 4 + buffer[3])) {}

MultilingualServiceNameDescriptor::MultilingualServiceNameDescriptor(const uint8_t* const buffer, Keep keep)
    : Descriptor(buffer, keep) {
  names_.set(body(), getLength(), texts_size<3, 2>);
}
MultilingualServiceNameDescriptor::~MultilingualServiceNameDescriptor() = default;
const MultilingualServiceNameList* MultilingualServiceNameDescriptor::getMultilingualServiceNames() const {
  return names_.get();
}
