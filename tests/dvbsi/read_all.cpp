#include "dvbsi/read_all.h"

#include <string>
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

// FNV-1a over everything it is given.
class Hash {
 public:
  template <typename... Values>
  void operator()(const Values&... values) {
    (add(values), ...);
  }
  uint64_t value() const { return value_; }

 private:
  void byte(uint8_t b) { value_ = (value_ ^ b) * 0x100000001B3u; }
  void add(uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8)
      byte(static_cast<uint8_t>(number >> shift));
  }
  void add(const std::string& text) {
    add(uint64_t{text.size()});
    for (const char c : text)
      byte(static_cast<uint8_t>(c));
  }
  void add(const std::vector<uint8_t>* bytes) {
    add(uint64_t{bytes->size()});
    for (const uint8_t b : *bytes)
      byte(b);
  }

  uint64_t value_ = 0xCBF29CE484222325u;
};

void add(Hash& hash, const VideoStreamDescriptor& d) {
  hash(d.getMultipleFrameRateFlag(), d.getFrameRateCode(), d.getMpeg1OnlyFlag(), d.getConstrainedParameterFlag());
  if (!d.getMpeg1OnlyFlag())
    hash(d.getProfileAndLevelIndication(), d.getChromaFormat(), d.getFrameRateExtensionFlag());
}

void add(Hash& hash, const AudioStreamDescriptor& d) {
  hash(d.getFreeFormatFlag(), d.getId(), d.getLayer(), d.getVariableRateAudioIndicator());
}

void add(Hash& hash, const CaDescriptor& d) {
  hash(d.getCaSystemId(), d.getCaPid(), d.getCaDataBytes());
}

void add(Hash& hash, const Iso639LanguageDescriptor& d) {
  for (const auto* e : *d.getIso639Languages())
    hash(e->getIso639LanguageCode(), e->getAudioType());
}

void add(Hash& hash, const NetworkNameDescriptor& d) {
  hash(d.getNetworkName());
}

void add(Hash& hash, const ServiceDescriptor& d) {
  hash(d.getServiceType(), d.getServiceProviderName(), d.getServiceName());
}

void add(Hash& hash, const ShortEventDescriptor& d) {
  hash(d.getIso639LanguageCode(), d.getEventName(), d.getText());
}

void add(Hash& hash, const ExtendedEventDescriptor& d) {
  hash(d.getDescriptorNumber(), d.getLastDescriptorNumber(), d.getIso639LanguageCode());
  for (const auto* e : *d.getItems())
    hash(e->getItemDescription(), e->getItem());
  hash(d.getText());
}

void add(Hash& hash, const ComponentDescriptor& d) {
  hash(d.getStreamContent(), d.getComponentType(), d.getComponentTag(), d.getIso639LanguageCode(), d.getText());
}

void add(Hash& hash, const StreamIdentifierDescriptor& d) {
  hash(d.getComponentTag());
}

void add(Hash& hash, const ContentDescriptor& d) {
  for (const auto* e : *d.getClassifications())
    hash(e->getContentNibbleLevel1(), e->getContentNibbleLevel2(), e->getUserNibble1(), e->getUserNibble2());
}

void add(Hash& hash, const ParentalRatingDescriptor& d) {
  for (const auto* e : *d.getParentalRatings())
    hash(e->getCountryCode(), e->getRating());
}

void add(Hash& hash, const VbiTeletextDescriptor& d) {
  for (const auto* e : *d.getVbiTeletexts())
    hash(e->getIso639LanguageCode(), e->getTeletextType(), e->getTeletextMagazineNumber(), e->getTeletextPageNumber());
}

void add(Hash& hash, const LocalTimeOffsetDescriptor& d) {
  for (const auto* e : *d.getLocalTimeOffsets())
    hash(e->getCountryCode(), e->getCountryRegionId(), e->getLocalTimeOffsetPolarity(), e->getLocalTimeOffset(),
         e->getTimeOfChangeMjd(), e->getTimeOfChangeBcd(), e->getNextTimeOffset());
}

void add(Hash& hash, const SubtitlingDescriptor& d) {
  for (const auto* e : *d.getSubtitlings())
    hash(e->getIso639LanguageCode(), e->getSubtitlingType(), e->getCompositionPageId(), e->getAncillaryPageId());
}

void add(Hash& hash, const TerrestrialDeliverySystemDescriptor& d) {
  hash(d.getCentreFrequency(), d.getBandwidth(), d.getPriority(), d.getTimeSlicingIndicator(), d.getMpeFecIndicator(),
       d.getConstellation(), d.getHierarchyInformation(), d.getCodeRateHpStream(), d.getCodeRateLpStream(),
       d.getGuardInterval(), d.getTransmissionMode(), d.getOtherFrequencyFlag());
}

void add(Hash& hash, const MultilingualNetworkNameDescriptor& d) {
  for (const auto* e : *d.getMultilingualNetworkNames())
    hash(e->getIso639LanguageCode(), e->getNetworkName());
}

void add(Hash& hash, const MultilingualServiceNameDescriptor& d) {
  for (const auto* e : *d.getMultilingualServiceNames())
    hash(e->getIso639LanguageCode(), e->getServiceProviderName(), e->getServiceName());
}

void add(Hash& hash, const Ac3Descriptor& d) {
  hash(d.getAc3TypeFlag(), d.getBsidFlag(), d.getMainidFlag(), d.getAsvcFlag(), d.getAc3Type(), d.getBsid(),
       d.getMainid(), d.getAvsc(), d.getAdditionalInfo());
}

void add(Hash& hash, const LogicalChannelDescriptor& d) {
  for (const auto* e : *d.getChannelList())
    hash(e->getServiceId(), e->getVisibleServiceFlag(), e->getLogicalChannelNumber());
}

template <typename... Classes>
void add_as(Hash& hash, const Descriptor& d) {
  const auto as = [&]<typename Class>(const Class* c) {
    if (c != nullptr)
      add(hash, *c);
    return c != nullptr;
  };
  (void)(as(dynamic_cast<const Classes*>(&d)) || ...);  // a descriptor of no class has no more values
}

void add(Hash& hash, const Descriptor& d) {
  hash(d.getTag(), d.getLength(), d.isValid());
  if (d.getLength() != 0) {
    std::vector<uint8_t> raw(2 + 255);
    raw.resize(d.writeToBuffer(raw.data()));
    hash(&raw);
  }
  add_as<VideoStreamDescriptor, AudioStreamDescriptor, CaDescriptor, Iso639LanguageDescriptor, NetworkNameDescriptor,
         ServiceDescriptor, ShortEventDescriptor, ExtendedEventDescriptor, ComponentDescriptor,
         StreamIdentifierDescriptor, ContentDescriptor, ParentalRatingDescriptor, VbiTeletextDescriptor,
         LocalTimeOffsetDescriptor, SubtitlingDescriptor, TerrestrialDeliverySystemDescriptor,
         MultilingualNetworkNameDescriptor, MultilingualServiceNameDescriptor, Ac3Descriptor, LogicalChannelDescriptor>(
      hash, d);
}

void add_loop(Hash& hash, const DescriptorContainer& c) {
  hash(c.getDescriptors()->size());
  for (const Descriptor* d : *c.getDescriptors())
    add(hash, *d);
}

void add_head(Hash& hash, const ShortSection& s) {
  hash(s.getTableId(), s.getSectionSyntaxIndicator(), s.getSectionLength());
}

void add_head(Hash& hash, const LongCrcSection& s) {
  add_head(hash, static_cast<const ShortSection&>(s));
  hash(s.getTableIdExtension(), s.getVersionNumber(), s.getCurrentNextIndicator(), s.getSectionNumber(),
       s.getLastSectionNumber(), s.getCrc32());
}

void add_pat(Hash& hash, const uint8_t* p) {
  const ProgramAssociationSection s(p);
  add_head(hash, s);
  for (const auto* e : *s.getNetworks())
    hash(e->getNetworkPid());
  for (const auto* e : *s.getPrograms())
    hash(e->getProgramNumber(), e->getProgramMapPid());
}

void add_cat(Hash& hash, const uint8_t* p) {
  const ConditionalAccessSection s(p);
  add_head(hash, s);
  add_loop(hash, s);
}

void add_pmt(Hash& hash, const uint8_t* p) {
  const ProgramMapSection s(p);
  add_head(hash, s);
  hash(s.getProgramNumber(), s.getPcrPid());
  add_loop(hash, s);
  for (const auto* e : *s.getEsInfo()) {
    hash(e->getType(), e->getPid());
    add_loop(hash, *e);
  }
}

void add_nit(Hash& hash, const uint8_t* p) {
  const NetworkInformationSection s(p);
  add_head(hash, s);
  add_loop(hash, s);
  for (const auto* e : *s.getTsInfo()) {
    hash(e->getTransportStreamId(), e->getOriginalNetworkId());
    add_loop(hash, *e);
  }
}

void add_sdt(Hash& hash, const uint8_t* p) {
  const ServiceDescriptionSection s(p);
  add_head(hash, s);
  hash(s.getTransportStreamId(), s.getOriginalNetworkId());
  for (const auto* e : *s.getDescriptions()) {
    hash(e->getServiceId(), e->getEitScheduleFlag(), e->getEitPresentFollowingFlag(), e->getRunningStatus(),
         e->getFreeCaMode());
    add_loop(hash, *e);
  }
}

void add_eit(Hash& hash, const uint8_t* p) {
  const EventInformationSection s(p);
  add_head(hash, s);
  hash(s.getTransportStreamId(), s.getOriginalNetworkId(), s.getSegmentLastSectionNumber(), s.getLastTableId());
  for (const auto* e : *s.getEvents()) {
    hash(e->getEventId(), e->getStartTimeMjd(), e->getStartTimeBcd(), e->getDuration(), e->getRunningStatus(),
         e->getFreeCaMode());
    add_loop(hash, *e);
  }
}

void add_tdt(Hash& hash, const uint8_t* p) {
  const TimeAndDateSection s(p);
  add_head(hash, s);
  hash(s.getUtcTimeMjd(), s.getUtcTimeBcd());
}

void add_tot(Hash& hash, const uint8_t* p) {
  const TimeOffsetSection s(p);
  add_head(hash, static_cast<const ShortSection&>(s));
  hash(s.getCrc32(), s.getUtcTimeMjd(), s.getUtcTimeBcd());
  add_loop(hash, s);
}

}  // namespace

uint64_t read_all(const uint8_t* section) {
  Hash hash;
  switch (section[0]) {
    case 0x00:
      add_pat(hash, section);
      break;
    case 0x01:
      add_cat(hash, section);
      break;
    case 0x02:
      add_pmt(hash, section);
      break;
    case 0x40:
    case 0x41:
      add_nit(hash, section);
      break;
    case 0x42:
    case 0x46:
      add_sdt(hash, section);
      break;
    case 0x70:
      add_tdt(hash, section);
      break;
    case 0x73:
      add_tot(hash, section);
      break;
    default:
      if (section[0] >= 0x4E && section[0] <= 0x6F)
        add_eit(hash, section);
      else
        add_head(hash, LongCrcSection(section));
  }
  return hash.value();
}

uint64_t read_all(const Descriptor& descriptor) {
  Hash hash;
  add(hash, descriptor);
  return hash.value();
}

}  // namespace dvbsi_test
