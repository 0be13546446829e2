// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/read_all.h"

#include <functional>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/ca_section.h>
#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/event_information_section.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/local_time_offset_descriptor.h>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/subtitling_descriptor.h>
#include <dvbsi++/teletext_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>
#include <dvbsi++/video_stream_descriptor.h>

namespace dvbsi_test {

namespace {

// Values in the order in which they are put: to be read, or `raw` for a hash, which is faster.
class Text {
 public:
  explicit Text(bool raw) : raw_(raw) {}
  const std::string& text() const { return text_; }

  template <typename... Values>
  void put(const Values&... values) {
    (add_one(values), ...);
  }
  void put_tag(unsigned tag) {
    separate();
    digits(tag, 2);
  }
  // Each entry in brackets: what `tell` tells about it.
  template <typename List, typename Tell>
  void each(const List* entries, Tell tell) {
    for (const auto* entry : *entries) {
      open('[');
      tell(*entry);
      text_ += ']';
    }
  }
  void open(char bracket) {
    separate();
    text_ += bracket;
  }
  void append(const std::string& text) { text_ += text; }

 private:
  void separate() {
    if (!raw_ && !text_.empty() && text_.back() != '[' && text_.back() != '<')
      text_ += ' ';
  }
  void digits(uint64_t number, int least) {
    if (number > 0xF || least > 1)
      digits(number >> 4, least - 1);
    text_ += "0123456789abcdef"[number & 0xF];
  }
  void add_raw(const void* data, size_t size) { text_.append(static_cast<const char*>(data), size); }
  void add_one(uint64_t number) {
    if (raw_) {
      add_raw(&number, sizeof number);
      return;
    }
    separate();
    digits(number, 1);
  }
  void add_one(const char* word) {
    separate();
    text_ += word;
  }
  void add_one(const std::string& text) {
    if (raw_) {
      add_one(uint64_t{text.size()});
      add_raw(text.data(), text.size());
      return;
    }
    open('\'');
    for (const char c : text) {
      if (c < ' ' || c > '~' || c == '\'') {
        text_ += "\\x";
        digits(static_cast<uint8_t>(c), 2);
      } else {
        text_ += c;
      }
    }
    text_ += '\'';
  }
  void add_one(const std::vector<uint8_t>* bytes) {
    if (raw_) {
      add_one(uint64_t{bytes->size()});
      add_raw(bytes->data(), bytes->size());
      return;
    }
    open('{');
    for (const uint8_t b : *bytes)
      digits(b, 2);
    text_ += '}';
  }

  const bool raw_;
  std::string text_;
};

// What the classes tell.
class Reader : public Text {
 public:
  // `whole`: with heads of sections and everything about their descriptors, of which a loop is the tags otherwise.
  // `look` sees each descriptor of a loop.
  explicit Reader(bool whole, std::function<void(const Descriptor&)> look = nullptr)
      : Text(whole), whole_(whole), look_(std::move(look)) {}

  void add(const VideoStreamDescriptor& d) {
    put("video", d.getMultipleFrameRateFlag(), d.getFrameRateCode(), d.getMpeg1OnlyFlag(),
        d.getConstrainedParameterFlag());
    if (!d.getMpeg1OnlyFlag())
      put(d.getProfileAndLevelIndication(), d.getChromaFormat(), d.getFrameRateExtensionFlag());
  }
  void add(const AudioStreamDescriptor& d) {
    put("audio", d.getFreeFormatFlag(), d.getId(), d.getLayer(), d.getVariableRateAudioIndicator());
  }
  void add(const CaDescriptor& d) { put("ca", d.getCaSystemId(), d.getCaPid(), d.getCaDataBytes()); }
  void add(const Iso639LanguageDescriptor& d) {
    put("languages");
    each(d.getIso639Languages(), [this](const auto& e) { put(e.getIso639LanguageCode(), e.getAudioType()); });
  }
  void add(const NetworkNameDescriptor& d) { put("network", d.getNetworkName()); }
  void add(const ServiceDescriptor& d) {
    put("service", d.getServiceType(), d.getServiceProviderName(), d.getServiceName());
  }
  void add(const ShortEventDescriptor& d) { put("short", d.getIso639LanguageCode(), d.getEventName(), d.getText()); }
  void add(const ExtendedEventDescriptor& d) {
    put("extended", d.getDescriptorNumber(), d.getLastDescriptorNumber(), d.getIso639LanguageCode());
    each(d.getItems(), [this](const auto& e) { put(e.getItemDescription(), e.getItem()); });
    put(d.getText());
  }
  void add(const ComponentDescriptor& d) {
    put("component", d.getStreamContent(), d.getComponentType(), d.getComponentTag(), d.getIso639LanguageCode(),
        d.getText());
  }
  void add(const StreamIdentifierDescriptor& d) { put("stream", d.getComponentTag()); }
  void add(const ContentDescriptor& d) {
    put("content");
    each(d.getClassifications(), [this](const auto& e) {
      put(e.getContentNibbleLevel1(), e.getContentNibbleLevel2(), e.getUserNibble1(), e.getUserNibble2());
    });
  }
  void add(const ParentalRatingDescriptor& d) {
    put("rating");
    each(d.getParentalRatings(), [this](const auto& e) { put(e.getCountryCode(), e.getRating()); });
  }
  void add(const VbiTeletextDescriptor& d) {
    put(dynamic_cast<const TeletextDescriptor*>(&d) != nullptr ? "teletext" : "VBI");
    each(d.getVbiTeletexts(), [this](const auto& e) {
      put(e.getIso639LanguageCode(), e.getTeletextType(), e.getTeletextMagazineNumber(), e.getTeletextPageNumber());
    });
  }
  void add(const LocalTimeOffsetDescriptor& d) {
    put("offsets");
    each(d.getLocalTimeOffsets(), [this](const auto& e) {
      put(e.getCountryCode(), e.getCountryRegionId(), e.getLocalTimeOffsetPolarity(), e.getLocalTimeOffset(),
          e.getTimeOfChangeMjd(), e.getTimeOfChangeBcd(), e.getNextTimeOffset());
    });
  }
  void add(const SubtitlingDescriptor& d) {
    put("subtitling");
    each(d.getSubtitlings(), [this](const auto& e) {
      put(e.getIso639LanguageCode(), e.getSubtitlingType(), e.getCompositionPageId(), e.getAncillaryPageId());
    });
  }
  void add(const TerrestrialDeliverySystemDescriptor& d) {
    put("delivery", d.getCentreFrequency(), d.getBandwidth(), d.getPriority(), d.getTimeSlicingIndicator(),
        d.getMpeFecIndicator(), d.getConstellation(), d.getHierarchyInformation(), d.getCodeRateHpStream(),
        d.getCodeRateLpStream(), d.getGuardInterval(), d.getTransmissionMode(), d.getOtherFrequencyFlag());
  }
  void add(const MultilingualNetworkNameDescriptor& d) {
    put("networks");
    each(d.getMultilingualNetworkNames(),
         [this](const auto& e) { put(e.getIso639LanguageCode(), e.getNetworkName()); });
  }
  void add(const MultilingualServiceNameDescriptor& d) {
    put("services");
    each(d.getMultilingualServiceNames(),
         [this](const auto& e) { put(e.getIso639LanguageCode(), e.getServiceProviderName(), e.getServiceName()); });
  }
  void add(const Ac3Descriptor& d) {
    put("ac3", d.getAc3TypeFlag(), d.getBsidFlag(), d.getMainidFlag(), d.getAsvcFlag(), d.getAc3Type(), d.getBsid(),
        d.getMainid(), d.getAvsc(), d.getAdditionalInfo());
  }
  void add(const LogicalChannelDescriptor& d) {
    put("channels");
    each(d.getChannelList(),
         [this](const auto& e) { put(e.getServiceId(), e.getVisibleServiceFlag(), e.getLogicalChannelNumber()); });
  }

  // A descriptor of no class has no values. Which class one is of is found by casts once for each type: twenty casts
  // for every descriptor took most of the time.
  void add(const Descriptor& d) {
    thread_local std::unordered_map<std::type_index, Adder> known;
    const auto [at, fresh] = known.try_emplace(typeid(d), nullptr);
    if (fresh)
      at->second =
          adder_of<VideoStreamDescriptor, AudioStreamDescriptor, CaDescriptor, Iso639LanguageDescriptor,
                   NetworkNameDescriptor, ServiceDescriptor, ShortEventDescriptor, ExtendedEventDescriptor,
                   ComponentDescriptor, StreamIdentifierDescriptor, ContentDescriptor, ParentalRatingDescriptor,
                   VbiTeletextDescriptor, LocalTimeOffsetDescriptor, SubtitlingDescriptor,
                   TerrestrialDeliverySystemDescriptor, MultilingualNetworkNameDescriptor,
                   MultilingualServiceNameDescriptor, Ac3Descriptor, LogicalChannelDescriptor>(d);
    if (at->second != nullptr)
      at->second(*this, d);
  }
  // Behind the tag, of the kinds whose entries may end early.
  void put_count(const Descriptor& d) {
    const auto count = [this](size_t entries) { append("(" + std::to_string(entries) + ")"); };
    if (const auto* e = dynamic_cast<const ExtendedEventDescriptor*>(&d))
      count(e->getItems()->size());
    if (const auto* n = dynamic_cast<const MultilingualNetworkNameDescriptor*>(&d))
      count(n->getMultilingualNetworkNames()->size());
    if (const auto* m = dynamic_cast<const MultilingualServiceNameDescriptor*>(&d))
      count(m->getMultilingualServiceNames()->size());
  }
  void add_loop(const DescriptorContainer& c) {
    open('<');
    for (const Descriptor* d : *c.getDescriptors()) {
      put_tag(d->getTag());
      if (look_)
        look_(*d);
      if (!whole_) {
        put_count(*d);
        continue;
      }
      put(d->getLength(), d->isValid());
      raw_descriptor_.assign(2 + 255, 0);
      if (d->getLength() != 0)
        raw_descriptor_.resize(d->writeToBuffer(raw_descriptor_.data()));
      put(&raw_descriptor_);
      add(*d);
    }
    append(">");
  }
  void add_head(const ShortSection& s) {
    if (whole_)
      put(s.getTableId(), s.getSectionSyntaxIndicator(), s.getSectionLength());
  }
  void add_head(const LongCrcSection& s) {
    add_head(static_cast<const ShortSection&>(s));
    if (whole_)
      put(s.getTableIdExtension(), s.getVersionNumber(), s.getCurrentNextIndicator(), s.getSectionNumber(),
          s.getLastSectionNumber(), s.getCrc32());
  }
  void add(const ProgramAssociationSection& s) {
    each(s.getNetworks(), [this](const auto& e) { put(e.getNetworkPid()); });
    each(s.getPrograms(), [this](const auto& e) { put(e.getProgramNumber(), e.getProgramMapPid()); });
  }
  void add(const ConditionalAccessSection& s) { add_loop(s); }
  void add(const ProgramMapSection& s) {
    put(s.getProgramNumber(), s.getPcrPid());
    add_loop(s);
    each(s.getEsInfo(), [this](const auto& e) {
      put(e.getType(), e.getPid());
      add_loop(e);
    });
  }
  void add(const NetworkInformationSection& s) {
    add_loop(s);
    each(s.getTsInfo(), [this](const auto& e) {
      put(e.getTransportStreamId(), e.getOriginalNetworkId());
      add_loop(e);
    });
  }
  void add(const ServiceDescriptionSection& s) {
    put(s.getTransportStreamId(), s.getOriginalNetworkId());
    each(s.getDescriptions(), [this](const auto& e) {
      put(e.getServiceId(), e.getEitScheduleFlag(), e.getEitPresentFollowingFlag(), e.getRunningStatus(),
          e.getFreeCaMode());
      add_loop(e);
    });
  }
  void add(const EventInformationSection& s) {
    put(s.getTransportStreamId(), s.getOriginalNetworkId(), s.getSegmentLastSectionNumber(), s.getLastTableId());
    each(s.getEvents(), [this](const auto& e) {
      put(e.getEventId(), e.getStartTimeMjd(), e.getStartTimeBcd(), e.getDuration(), e.getRunningStatus(),
          e.getFreeCaMode());
      add_loop(e);
    });
  }
  void add(const TimeAndDateSection& s) { put(s.getUtcTimeMjd(), s.getUtcTimeBcd()); }
  void add(const TimeOffsetSection& s) {
    if (whole_)
      put(s.getCrc32());
    put(s.getUtcTimeMjd(), s.getUtcTimeBcd());
    add_loop(s);
  }
  // The class alone: LongCrcSection over tables without one.
  void add(const LongCrcSection&) {}

 private:
  using Adder = void (*)(Reader&, const Descriptor&);

  template <typename... Classes>
  static Adder adder_of(const Descriptor& d) {
    Adder found = nullptr;
    const auto is = [&]<typename Class>(const Class* c) {
      if (c != nullptr)
        found = [](Reader& reader, const Descriptor& one) { reader.add(dynamic_cast<const Class&>(one)); };
      return c != nullptr;
    };
    (void)(is(dynamic_cast<const Classes*>(&d)) || ...);
    return found;
  }

  const bool whole_;
  std::vector<uint8_t> raw_descriptor_;
  const std::function<void(const Descriptor&)> look_;
};

template <typename Section>
std::string of(const uint8_t* bytes, Reader reader) {
  const Section section(bytes);
  reader.add_head(section);
  reader.add(section);
  return reader.text();
}

std::string text(const uint8_t* section, const Reader& reader) {
  switch (section[0]) {
    case 0x00:
      return of<ProgramAssociationSection>(section, reader);
    case 0x01:
      return of<ConditionalAccessSection>(section, reader);
    case 0x02:
      return of<ProgramMapSection>(section, reader);
    case 0x40:
    case 0x41:
      return of<NetworkInformationSection>(section, reader);
    case 0x42:
    case 0x46:
      return of<ServiceDescriptionSection>(section, reader);
    case 0x70:
      return of<TimeAndDateSection>(section, reader);
    case 0x73:
      return of<TimeOffsetSection>(section, reader);
    default:
      return section[0] >= 0x4E && section[0] <= 0x6F ? of<EventInformationSection>(section, reader)
                                                      : of<LongCrcSection>(section, reader);
  }
}

}  // namespace

uint64_t read_all(const uint8_t* section) {
  return std::hash<std::string>()(text(section, Reader(true)));
}

std::string values(const uint8_t* section) {
  return text(section, Reader(false));
}

void look_at_descriptors(const uint8_t* section, const std::function<void(const Descriptor&)>& look) {
  (void)text(section, Reader(false, look));
}

std::string values(const Descriptor& descriptor) {
  Reader reader(false);
  reader.add(descriptor);
  return reader.text();
}

}  // namespace dvbsi_test
