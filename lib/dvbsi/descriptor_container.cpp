// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <cstring>

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/local_time_offset_descriptor.h>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/subtitling_descriptor.h>
#include <dvbsi++/teletext_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>
#include <dvbsi++/video_stream_descriptor.h>

#include "dvbsi/bytes.h"

using dvbsi_own::Keep;

namespace {

// Calls use.operator()<Class>() with the class of a tag.
template <typename Use>
auto with_class_of(uint8_t tag, Use use) {
  switch (tag) {
    case 0x02:
      return use.template operator()<VideoStreamDescriptor>();
    case 0x03:
      return use.template operator()<AudioStreamDescriptor>();
    case 0x09:
      return use.template operator()<CaDescriptor>();
    case 0x0A:
      return use.template operator()<Iso639LanguageDescriptor>();
    case 0x40:
      return use.template operator()<NetworkNameDescriptor>();
    case 0x46:
      return use.template operator()<VbiTeletextDescriptor>();
    case 0x48:
      return use.template operator()<ServiceDescriptor>();
    case 0x4D:
      return use.template operator()<ShortEventDescriptor>();
    case 0x4E:
      return use.template operator()<ExtendedEventDescriptor>();
    case 0x50:
      return use.template operator()<ComponentDescriptor>();
    case 0x52:
      return use.template operator()<StreamIdentifierDescriptor>();
    case 0x54:
      return use.template operator()<ContentDescriptor>();
    case 0x55:
      return use.template operator()<ParentalRatingDescriptor>();
    case 0x56:
      return use.template operator()<TeletextDescriptor>();
    case 0x58:
      return use.template operator()<LocalTimeOffsetDescriptor>();
    case 0x59:
      return use.template operator()<SubtitlingDescriptor>();
    case 0x5A:
      return use.template operator()<TerrestrialDeliverySystemDescriptor>();
    case 0x5B:
      return use.template operator()<MultilingualNetworkNameDescriptor>();
    case 0x5D:
      return use.template operator()<MultilingualServiceNameDescriptor>();
    case 0x6A:
      return use.template operator()<Ac3Descriptor>();
    case 0x83:
    case 0x88:
      return use.template operator()<LogicalChannelDescriptor>();
    default:
      return use.template operator()<Descriptor>();
  }
}

constexpr size_t ALIGNMENT = alignof(std::max_align_t);

size_t object_size(uint8_t tag) {
  return with_class_of(tag, []<typename Class>() -> size_t {
    static_assert(alignof(Class) <= ALIGNMENT);
    return (sizeof(Class) + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
  });
}

Descriptor* make(void* place, const uint8_t* bytes) {
  return with_class_of(
      bytes[0], [place, bytes]<typename Class>() -> Descriptor* { return new (place) Class(bytes, Keep::BORROW); });
}

}  // namespace

DescriptorContainer::DescriptorContainer() : loop_(nullptr), size_(0), block_(nullptr) {}

DescriptorContainer::~DescriptorContainer() {
  clear();
}

void DescriptorContainer::set_loop(const uint8_t* loop, size_t size, Keep keep) {
  if (keep == Keep::COPY) {
    copy_.reset(new uint8_t[size + dvbsi_own::ZEROES_BEHIND]);
    std::memcpy(copy_.get(), loop, size);
    std::memset(copy_.get() + size, 0, dvbsi_own::ZEROES_BEHIND);
    loop = copy_.get();
  }
  loop_ = loop;
  size_ = dvbsi_own::whole_descriptors(loop, size);
}

const DescriptorList* DescriptorContainer::getDescriptors() const {
  if (size_ != 0)
    once_.run([this] { build(); });
  return &descriptors_;
}

void DescriptorContainer::build() const {
  clear();  // what a build that ran out of memory has left
  const uint8_t* const end = loop_ + size_;
  size_t block_size = 0;
  for (const uint8_t* d = loop_; d != end; d += 2u + d[1])
    block_size += object_size(d[0]);
  block_ = ::operator new(block_size);

  uint8_t* place = static_cast<uint8_t*>(block_);
  for (const uint8_t* d = loop_; d != end; d += 2u + d[1]) {
    if (!dvbsi_own::other_descriptor_kept(d))
      continue;
    Descriptor* const descriptor = make(place, d);
    if (!descriptor->isValid()) {
      descriptor->~Descriptor();
      continue;
    }
    place += object_size(d[0]);
    descriptors_.push_back(descriptor);
  }
}

void DescriptorContainer::clear() const {
  for (Descriptor* descriptor : descriptors_)
    descriptor->~Descriptor();
  descriptors_.clear();
  ::operator delete(block_);
  block_ = nullptr;
}
