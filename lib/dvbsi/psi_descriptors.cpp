// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <bit>

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/subtitling_descriptor.h>
#include <dvbsi++/teletext_descriptor.h>
#include <dvbsi++/video_stream_descriptor.h>

#include "dvbsi/bytes.h"

using dvbsi_own::be16;
using dvbsi_own::fixed_size;
using dvbsi_own::Keep;

// video_stream_descriptor, 0x02: ISO/IEC 13818-1, 2.6.2
VideoStreamDescriptor::VideoStreamDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() >= 1 && (getMpeg1OnlyFlag() || getLength() >= 3);
}
VideoStreamDescriptor::~VideoStreamDescriptor() = default;

// audio_stream_descriptor, 0x03: ISO/IEC 13818-1, 2.6.4
AudioStreamDescriptor::AudioStreamDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() >= 1;
}
AudioStreamDescriptor::~AudioStreamDescriptor() = default;

// CA_descriptor, 0x09: ISO/IEC 13818-1, 2.6.16
CaDescriptor::CaDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() >= 4;
  if (valid_)
    data_bytes_.set(body() + 4, getLength() - 4u);
}
CaDescriptor::~CaDescriptor() = default;
const CaDataByteVector* CaDescriptor::getCaDataBytes() const {
  return &data_bytes_.get();
}

// ISO_639_language_descriptor, 0x0A: ISO/IEC 13818-1, 2.6.18
Iso639Language::Iso639Language(const uint8_t* const buffer)
    : language_(dvbsi_own::code(buffer)), audio_type_(buffer[3]) {}

Iso639LanguageDescriptor::Iso639LanguageDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() % 4 == 0;
  if (valid_)
    languages_.set(body(), getLength(), fixed_size<4>);
}
Iso639LanguageDescriptor::~Iso639LanguageDescriptor() = default;
const Iso639LanguageList* Iso639LanguageDescriptor::getIso639Languages() const {
  return languages_.get();
}

// VBI_teletext_descriptor, 0x46, and teletext_descriptor, 0x56: EN 300 468, 6.2.48 and 6.2.43
VbiTeletext::VbiTeletext(const uint8_t* const buffer)
    : language_(dvbsi_own::code(buffer)),
      type_(static_cast<uint8_t>(buffer[3] >> 3)),
      magazine_(buffer[3] & 7),
      page_(buffer[4]) {}

VbiTeletextDescriptor::VbiTeletextDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() % 5 == 0;
  if (valid_)
    teletexts_.set(body(), getLength(), fixed_size<5>);
}
VbiTeletextDescriptor::~VbiTeletextDescriptor() = default;
const VbiTeletextList* VbiTeletextDescriptor::getVbiTeletexts() const {
  return teletexts_.get();
}

TeletextDescriptor::TeletextDescriptor(const uint8_t* const buffer, Keep keep) : VbiTeletextDescriptor(buffer, keep) {}
TeletextDescriptor::~TeletextDescriptor() = default;

// stream_identifier_descriptor, 0x52: EN 300 468, 6.2.39
StreamIdentifierDescriptor::StreamIdentifierDescriptor(const uint8_t* const buffer, Keep keep)
    : Descriptor(buffer, keep) {
  valid_ = getLength() >= 1;
}
StreamIdentifierDescriptor::~StreamIdentifierDescriptor() = default;

// subtitling_descriptor, 0x59: EN 300 468, 6.2.41
Subtitling::Subtitling(const uint8_t* const buffer)
    : language_(dvbsi_own::code(buffer)),
      composition_page_(static_cast<uint16_t>(be16(buffer + 4))),
      ancillary_page_(static_cast<uint16_t>(be16(buffer + 6))),
      type_(buffer[3]) {}

SubtitlingDescriptor::SubtitlingDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  valid_ = getLength() % 8 == 0;
  if (valid_)
    subtitlings_.set(body(), getLength(), fixed_size<8>);
}
SubtitlingDescriptor::~SubtitlingDescriptor() = default;
const SubtitlingList* SubtitlingDescriptor::getSubtitlings() const {
  return subtitlings_.get();
}

// AC-3_descriptor, 0x6A: EN 300 468, D.3
Ac3Descriptor::Ac3Descriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  const size_t fields = 1u + static_cast<unsigned>(std::popcount(byte(0) & 0xF0u));
  if (getLength() > fields)
    additional_info_.set(body() + fields, getLength() - fields);
}
Ac3Descriptor::~Ac3Descriptor() = default;
const AdditionalInfoVector* Ac3Descriptor::getAdditionalInfo() const {
  return &additional_info_.get();
}

// The fields follow the flags in the order of the flags, as many as are set.
uint8_t Ac3Descriptor::field(unsigned flag_bit) const {
  if (bits(0, flag_bit, 1) == 0)
    return 0;
  const unsigned before = byte(0) >> (flag_bit + 1);
  return static_cast<uint8_t>(byte(1u + static_cast<unsigned>(std::popcount(before))));
}

// logical_channel_descriptor, 0x83
LogicalChannel::LogicalChannel(const uint8_t* const buffer)
    : service_id_(static_cast<uint16_t>(be16(buffer))),
      number_(static_cast<uint16_t>(be16(buffer + 2) & 0x03FF)),
      visible_(static_cast<uint8_t>(buffer[2] >> 7)) {}

LogicalChannelDescriptor::LogicalChannelDescriptor(const uint8_t* const buffer, Keep keep) : Descriptor(buffer, keep) {
  channels_.set(body(), getLength(), fixed_size<4>);
}
LogicalChannelDescriptor::~LogicalChannelDescriptor() = default;
const LogicalChannelList* LogicalChannelDescriptor::getChannelList() const {
  return channels_.get();
}
