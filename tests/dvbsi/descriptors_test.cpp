#include <string>
#include <tuple>
#include <typeinfo>
#include <vector>

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/content_descriptor.h>
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
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dvbsi/parsed.h"

namespace {

using dvbsi_test::Bytes;
using dvbsi_test::kept;
using dvbsi_test::One;
using dvbsi_test::OWN;
using dvbsi_test::parsed;
using support::bytes;
using support::descriptor;
using support::join;
using testing::ElementsAre;

Bytes zeroes(size_t n) {
  return Bytes(n, 0);
}

// A length byte and the text.
Bytes counted(const std::string& text) {
  return join({{static_cast<uint8_t>(text.size())}, bytes(text)});
}

// The lengths 0 to 30 at which a descriptor with a body of zeroes is kept.
std::vector<size_t> kept_lengths(uint8_t tag) {
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 30; ++n)
    if (kept(descriptor(tag, zeroes(n))) == 1)
      lengths.push_back(n);
  return lengths;
}

std::vector<size_t> from(size_t first, size_t step = 1) {
  std::vector<size_t> lengths;
  for (size_t n = first; n <= 30; n += step)
    lengths.push_back(n);
  return lengths;
}

TEST(Descriptors, lengths_at_which_they_are_kept) {
  EXPECT_EQ(kept_lengths(0x02), from(3));
  EXPECT_EQ(kept_lengths(0x03), from(1));
  EXPECT_EQ(kept_lengths(0x09), from(4));
  EXPECT_EQ(kept_lengths(0x0A), from(0, 4));
  EXPECT_EQ(kept_lengths(0x40), from(0));
  EXPECT_EQ(kept_lengths(0x46), from(0, 5));
  EXPECT_EQ(kept_lengths(0x48), from(3));
  EXPECT_EQ(kept_lengths(0x4D), from(5));
  EXPECT_EQ(kept_lengths(0x4E), from(6));
  EXPECT_EQ(kept_lengths(0x50), from(6));
  EXPECT_EQ(kept_lengths(0x52), from(1));
  EXPECT_EQ(kept_lengths(0x54), from(0, 2));
  EXPECT_EQ(kept_lengths(0x55), from(0, 4));
  EXPECT_EQ(kept_lengths(0x56), from(0, 5));
  EXPECT_EQ(kept_lengths(0x58), from(0, 13));
  EXPECT_EQ(kept_lengths(0x59), from(0, 8));
  EXPECT_EQ(kept_lengths(0x5A), from(7));
  EXPECT_EQ(kept_lengths(0x5B), from(0));
  EXPECT_EQ(kept_lengths(0x5D), from(0));
  EXPECT_EQ(kept_lengths(0x6A), from(0));
  EXPECT_EQ(kept_lengths(0x83), from(0));
}

TEST(Descriptors, tags_without_a_class_are_kept_whatever_their_length) {
  for (const uint8_t tag : Bytes{0x06, 0x0C, 0x0E, 0x82, 0xA7, 0xFE, 0xFF}) {
    EXPECT_EQ(kept_lengths(tag), from(0)) << int{tag};
    const One<Descriptor> d(descriptor(tag, {1, 2}));
    ASSERT_TRUE(d);
    const Descriptor& found = *d;
    EXPECT_EQ(typeid(found), typeid(Descriptor)) << int{tag};
  }
}

TEST(Descriptors, write_to_buffer_gives_the_whole_descriptor) {
  const One<Descriptor> d(descriptor(0x0E, {0xC1, 0x02, 0x03}));
  ASSERT_TRUE(d);
  EXPECT_TRUE(d->isValid());
  EXPECT_EQ(d->getTag(), 0x0E);
  EXPECT_EQ(d->getLength(), 3);
  Bytes raw(257, 0xEE);
  ASSERT_EQ(d->writeToBuffer(raw.data()), 5u);
  raw.resize(6);
  EXPECT_THAT(raw, ElementsAre(0x0E, 3, 0xC1, 0x02, 0x03, 0xEE));
}

TEST(Descriptors, longest_body) {
  const One<NetworkNameDescriptor> d(descriptor(0x40, Bytes(255, 'x')));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getNetworkName(), std::string(255, 'x'));
  Bytes raw(257);
  EXPECT_EQ(d->writeToBuffer(raw.data()), 257u);
}

TEST(Descriptors, an_invalid_one_made_by_hand_says_so_and_is_empty) {
  const auto d = parsed<ServiceDescriptor>(descriptor(0x48, {1, 200, 0}));
  EXPECT_FALSE(d->isValid());
  if (!OWN)
    return;
  EXPECT_EQ(d->getServiceProviderName(), "");
  EXPECT_EQ(d->getServiceName(), "");
  EXPECT_EQ(parsed<TerrestrialDeliverySystemDescriptor>(descriptor(0x5A, {1}))->getCentreFrequency(), 0x01000000u);
  EXPECT_EQ(parsed<StreamIdentifierDescriptor>(descriptor(0x52, {}))->getComponentTag(), 0);
  EXPECT_TRUE(parsed<CaDescriptor>(descriptor(0x09, {1}))->getCaDataBytes()->empty());
}

TEST(Descriptors, the_invalid_are_left_out_and_those_around_them_stay) {
  const auto section = dvbsi_test::loop_of(join({descriptor(0x06, {1}), descriptor(0x52, {}), descriptor(0x52, {7}),
                                                 descriptor(0x0A, zeroes(3)), descriptor(0x0E, zeroes(3))}));
  std::vector<int> tags;
  for (const Descriptor* d : *section->getDescriptors())
    tags.push_back(d->getTag());
  EXPECT_THAT(tags, ElementsAre(0x06, 0x52, 0x0E));
}

TEST(VideoStream, mpeg2) {
  const One<VideoStreamDescriptor> d(descriptor(0x02, {0x9A, 0x44, 0x7F}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getMultipleFrameRateFlag(), 1);
  EXPECT_EQ(d->getFrameRateCode(), 3);
  EXPECT_EQ(d->getMpeg1OnlyFlag(), 0);
  EXPECT_EQ(d->getConstrainedParameterFlag(), 1);
  EXPECT_EQ(d->getProfileAndLevelIndication(), 0x44);
  EXPECT_EQ(d->getChromaFormat(), 1);
  EXPECT_EQ(d->getFrameRateExtensionFlag(), 1);
}

TEST(VideoStream, mpeg1_needs_one_byte_and_has_no_mpeg2_values) {
  const One<VideoStreamDescriptor> d(descriptor(0x02, {0x05}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getMpeg1OnlyFlag(), 1);
  if (!OWN)
    return;
  EXPECT_EQ(d->getStillPictureFlag(), 1);
  const One<VideoStreamDescriptor> longer(descriptor(0x02, {0x04, 0xFF, 0xFF}));
  ASSERT_TRUE(longer);
  EXPECT_EQ(longer->getStillPictureFlag(), 0);
  EXPECT_EQ(longer->getProfileAndLevelIndication(), 0);
  EXPECT_EQ(longer->getChromaFormat(), 0);
  EXPECT_EQ(longer->getFrameRateExtensionFlag(), 0);
}

TEST(AudioStream, flags) {
  const One<AudioStreamDescriptor> d(descriptor(0x03, {0xA8}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getFreeFormatFlag(), 1);
  EXPECT_EQ(d->getId(), 0);
  EXPECT_EQ(d->getLayer(), 2);
  EXPECT_EQ(d->getVariableRateAudioIndicator(), 1);
}

TEST(Ca, ids_and_private_data) {
  const One<CaDescriptor> d(descriptor(0x09, {0x0B, 0x02, 0xFF, 0xFE, 9, 8}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getCaSystemId(), 0x0B02);
  EXPECT_EQ(d->getCaPid(), 0x1FFE);
  EXPECT_THAT(*d->getCaDataBytes(), ElementsAre(9, 8));
  const One<CaDescriptor> bare(descriptor(0x09, {0x0B, 0x02, 0xE1, 0x00}));
  ASSERT_TRUE(bare);
  EXPECT_TRUE(bare->getCaDataBytes()->empty());
}

TEST(Iso639Language, order_case_and_empty_list) {
  const One<Iso639LanguageDescriptor> d(descriptor(0x0A, join({bytes("EST"), {1}, bytes("eng"), {200}})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getIso639Languages()->size(), 2u);
  EXPECT_EQ(d->getIso639Languages()->front()->getIso639LanguageCode(), "EST");
  EXPECT_EQ(d->getIso639Languages()->front()->getAudioType(), 1);
  EXPECT_EQ(d->getIso639Languages()->back()->getIso639LanguageCode(), "eng");
  EXPECT_EQ(d->getIso639Languages()->back()->getAudioType(), 200);
  EXPECT_EQ(d->getIso639Languages(), d->getIso639Languages());
  const One<Iso639LanguageDescriptor> empty(descriptor(0x0A, {}));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->getIso639Languages()->empty());
}

TEST(NetworkName, raw_bytes_with_zeroes_and_control_codes) {
  const One<NetworkNameDescriptor> d(descriptor(0x40, {0x10, 0x00, 0x02, 'a', 0x8A, 0x00}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getNetworkName(), std::string("\x10\x00\x02\x61\x8A\x00", 6));
}

TEST(Service, names) {
  const One<ServiceDescriptor> d(descriptor(0x48, join({{0x19}, counted("\x05prov"), counted("name of it"), {1, 2}})));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getServiceType(), 0x19);
  EXPECT_EQ(d->getServiceProviderName(), "\x05prov");
  EXPECT_EQ(d->getServiceName(), "name of it");
}

TEST(Service, names_that_pass_the_body_make_it_invalid) {
  EXPECT_EQ(kept(descriptor(0x48, join({{1}, counted("p"), {3, 'n', 'm'}}))), 0u);
  EXPECT_EQ(kept(descriptor(0x48, join({{1}, counted("p"), {2, 'n', 'm'}}))), 1u);
  EXPECT_EQ(kept(descriptor(0x48, {1, 2, 'p', 'q'})), 0u);  // no length of the second name
  EXPECT_EQ(kept(descriptor(0x48, {1, 255, 'p', 'q'})), 0u);
}

TEST(ShortEvent, texts) {
  const std::string text(200, 't');
  const One<ShortEventDescriptor> d(descriptor(0x4D, join({bytes("rus"), counted("A title"), counted(text)})));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getIso639LanguageCode(), "rus");
  EXPECT_EQ(d->getEventName(), "A title");
  EXPECT_EQ(d->getText(), text);
}

TEST(ShortEvent, texts_that_pass_the_body_make_it_invalid) {
  EXPECT_EQ(kept(descriptor(0x4D, join({bytes("rus"), counted("A"), {2, 't'}}))), 0u);
  EXPECT_EQ(kept(descriptor(0x4D, join({bytes("rus"), {1, 'A'}}))), 0u);
  EXPECT_EQ(kept(descriptor(0x4D, join({bytes("rus"), {9, 'A', 0}}))), 0u);
}

Bytes extended(const Bytes& items, const Bytes& text) {
  return descriptor(0x4E, join({{0x3F}, bytes("eng"), {static_cast<uint8_t>(items.size())}, items, text}));
}

TEST(ExtendedEvent, items_and_text) {
  const One<ExtendedEventDescriptor> d(
      extended(join({counted("Director"), counted("A. B."), counted(""), counted("")}), counted("more")));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getDescriptorNumber(), 3);
  EXPECT_EQ(d->getLastDescriptorNumber(), 15);
  EXPECT_EQ(d->getIso639LanguageCode(), "eng");
  ASSERT_EQ(d->getItems()->size(), 2u);
  EXPECT_EQ(d->getItems()->front()->getItemDescription(), "Director");
  EXPECT_EQ(d->getItems()->front()->getItem(), "A. B.");
  EXPECT_EQ(d->getItems()->back()->getItemDescription(), "");
  EXPECT_EQ(d->getItems()->back()->getItem(), "");
  EXPECT_EQ(d->getText(), "more");
}

TEST(ExtendedEvent, lengths_that_pass_the_body_make_it_invalid) {
  EXPECT_EQ(kept(descriptor(0x4E, {0, 'e', 's', 't', 1, 0})), 0u);
  EXPECT_EQ(kept(extended({}, {2, 'x'})), 0u);
}

TEST(ExtendedEvent, items_end_at_the_first_that_is_not_whole) {
  if (!OWN)
    GTEST_SKIP() << "the system's library takes bytes from behind the items";
  const Bytes whole = join({counted("d"), counted("i")});
  for (const Bytes& broken : {Bytes{5, 'd'}, Bytes{1, 'd'}, Bytes{1, 'd', 2, 'i'}, Bytes{255}}) {
    const One<ExtendedEventDescriptor> d(extended(join({whole, broken}), counted("text")));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->getItems()->size(), 1u);
    EXPECT_EQ(d->getText(), "text");
  }
}

TEST(Component, values_and_text) {
  const One<ComponentDescriptor> d(descriptor(0x50, join({{0xF5, 0x0B, 0x01}, bytes("deu"), bytes("HD")})));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getStreamContent(), 5);
  EXPECT_EQ(d->getComponentType(), 0x0B);
  EXPECT_EQ(d->getComponentTag(), 1);
  EXPECT_EQ(d->getIso639LanguageCode(), "deu");
  EXPECT_EQ(d->getText(), "HD");
}

TEST(StreamIdentifier, component_tag) {
  const One<StreamIdentifierDescriptor> d(descriptor(0x52, {0xAB}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getComponentTag(), 0xAB);
}

TEST(Content, nibbles) {
  const One<ContentDescriptor> d(descriptor(0x54, {0x12, 0x34, 0xFE, 0xDC}));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getClassifications()->size(), 2u);
  const ContentClassification& c = *d->getClassifications()->back();
  EXPECT_EQ(std::tuple(c.getContentNibbleLevel1(), c.getContentNibbleLevel2(), c.getUserNibble1(), c.getUserNibble2()),
            std::tuple(0xF, 0xE, 0xD, 0xC));
}

TEST(ParentalRating, country_and_rating_as_broadcast) {
  const One<ParentalRatingDescriptor> d(descriptor(0x55, join({bytes("FIN"), {9}, bytes("est"), {0}})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getParentalRatings()->size(), 2u);
  EXPECT_EQ(d->getParentalRatings()->front()->getCountryCode(), "FIN");
  EXPECT_EQ(d->getParentalRatings()->front()->getRating(), 9);
  EXPECT_EQ(d->getParentalRatings()->back()->getCountryCode(), "est");
}

TEST(Teletext, pages_as_broadcast) {
  const One<TeletextDescriptor> d(descriptor(0x56, join({bytes("fin"), {0x08 | 7, 0x99}, bytes("swe"), {0x10, 0x88}})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getVbiTeletexts()->size(), 2u);
  const VbiTeletext& t = *d->getVbiTeletexts()->front();
  EXPECT_EQ(t.getIso639LanguageCode(), "fin");
  EXPECT_EQ(t.getTeletextType(), 1);
  EXPECT_EQ(t.getTeletextMagazineNumber(), 7);
  EXPECT_EQ(t.getTeletextPageNumber(), 0x99);
  EXPECT_EQ(d->getVbiTeletexts()->back()->getTeletextMagazineNumber(), 0);
}

TEST(VbiTeletext, shares_the_entries_of_teletext) {
  const One<VbiTeletextDescriptor> d(descriptor(0x46, join({bytes("fin"), {0x0F, 0x99}})));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getVbiTeletexts()->size(), 1u);
  EXPECT_EQ(dynamic_cast<const TeletextDescriptor*>(&*d), nullptr);
}

TEST(LocalTimeOffset, all_values) {
  const One<LocalTimeOffsetDescriptor> d(
      descriptor(0x58, join({bytes("EST"), {0x0B, 0x02, 0x30, 0xE9, 0x7A, 0x01, 0x23, 0x45, 0x03, 0x15}})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getLocalTimeOffsets()->size(), 1u);
  const LocalTimeOffset& o = *d->getLocalTimeOffsets()->front();
  EXPECT_EQ(o.getCountryCode(), "EST");
  EXPECT_EQ(o.getCountryRegionId(), 2);
  EXPECT_EQ(o.getLocalTimeOffsetPolarity(), 1);
  EXPECT_EQ(o.getLocalTimeOffset(), 0x0230);
  EXPECT_EQ(o.getTimeOfChangeMjd(), 0xE97A);
  EXPECT_EQ(o.getTimeOfChangeBcd(), 0x012345u);
  EXPECT_EQ(o.getNextTimeOffset(), 0x0315);
}

TEST(Subtitling, pages) {
  const One<SubtitlingDescriptor> d(descriptor(0x59, join({bytes("dan"), {0x14, 0x12, 0x34, 0xAB, 0xCD}})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getSubtitlings()->size(), 1u);
  const Subtitling& s = *d->getSubtitlings()->front();
  EXPECT_EQ(s.getIso639LanguageCode(), "dan");
  EXPECT_EQ(s.getSubtitlingType(), 0x14);
  EXPECT_EQ(s.getCompositionPageId(), 0x1234);
  EXPECT_EQ(s.getAncillaryPageId(), 0xABCD);
}

TEST(TerrestrialDelivery, every_field_has_its_bits) {
  const One<TerrestrialDeliverySystemDescriptor> d(
      descriptor(0x5A, {0x03, 0x04, 0x05, 0x86, 0b01010111, 0b10011101, 0b11001011}));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getCentreFrequency(), 0x03040586u);
  EXPECT_EQ(d->getBandwidth(), 2);
  EXPECT_EQ(d->getPriority(), 1);
  EXPECT_EQ(d->getTimeSlicingIndicator(), 0);
  EXPECT_EQ(d->getMpeFecIndicator(), 1);
  EXPECT_EQ(d->getConstellation(), 2);
  EXPECT_EQ(d->getHierarchyInformation(), 3);
  EXPECT_EQ(d->getCodeRateHpStream(), 5);
  EXPECT_EQ(d->getCodeRateLpStream(), 6);
  EXPECT_EQ(d->getGuardInterval(), 1);
  EXPECT_EQ(d->getTransmissionMode(), 1);
  EXPECT_EQ(d->getOtherFrequencyFlag(), 1);
  const One<TerrestrialDeliverySystemDescriptor> high(descriptor(0x5A, {0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0}));
  ASSERT_TRUE(high);
  EXPECT_EQ(high->getCentreFrequency(), 0xFFFFFFFEu);
}

TEST(MultilingualNetworkName, names_and_empty_names) {
  const One<MultilingualNetworkNameDescriptor> d(
      descriptor(0x5B, join({bytes("eng"), counted("Net"), bytes("est"), counted("")})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getMultilingualNetworkNames()->size(), 2u);
  EXPECT_EQ(d->getMultilingualNetworkNames()->front()->getIso639LanguageCode(), "eng");
  EXPECT_EQ(d->getMultilingualNetworkNames()->front()->getNetworkName(), "Net");
  EXPECT_EQ(d->getMultilingualNetworkNames()->back()->getIso639LanguageCode(), "est");
  EXPECT_EQ(d->getMultilingualNetworkNames()->back()->getNetworkName(), "");
}

TEST(MultilingualNetworkName, stops_at_the_first_entry_that_is_not_whole) {
  if (!OWN)
    GTEST_SKIP() << "the system's library takes bytes from behind the descriptor";
  for (const Bytes& broken :
       {Bytes{'e'}, Bytes{'e', 's', 't'}, Bytes{'e', 's', 't', 1}, Bytes{'e', 's', 't', 3, 'x'}}) {
    const One<MultilingualNetworkNameDescriptor> d(descriptor(0x5B, join({bytes("eng"), counted("Net"), broken})));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->getMultilingualNetworkNames()->size(), 1u);
  }
}

TEST(MultilingualServiceName, names) {
  const One<MultilingualServiceNameDescriptor> d(
      descriptor(0x5D, join({bytes("eng"), counted("Prov"), counted("Name"), bytes("est"), counted(""), counted("")})));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getMultilingualServiceNames()->size(), 2u);
  EXPECT_EQ(d->getMultilingualServiceNames()->front()->getIso639LanguageCode(), "eng");
  EXPECT_EQ(d->getMultilingualServiceNames()->front()->getServiceProviderName(), "Prov");
  EXPECT_EQ(d->getMultilingualServiceNames()->front()->getServiceName(), "Name");
  EXPECT_EQ(d->getMultilingualServiceNames()->back()->getServiceProviderName(), "");
  EXPECT_EQ(d->getMultilingualServiceNames()->back()->getServiceName(), "");
}

TEST(MultilingualServiceName, stops_at_the_first_entry_that_is_not_whole) {
  if (!OWN)
    GTEST_SKIP() << "the system's library takes bytes from behind the descriptor";
  for (const Bytes& broken : {Bytes{'e', 's', 't'}, Bytes{'e', 's', 't', 0}, Bytes{'e', 's', 't', 9, 'x'},
                              Bytes{'e', 's', 't', 1, 'x', 2, 'y'}}) {
    const One<MultilingualServiceNameDescriptor> d(
        descriptor(0x5D, join({bytes("eng"), counted("P"), counted("N"), broken})));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->getMultilingualServiceNames()->size(), 1u);
  }
}

TEST(Ac3, fields_follow_the_flags_that_are_set) {
  const One<Ac3Descriptor> all(descriptor(0x6A, {0xFF, 1, 2, 3, 4, 5, 6}));
  ASSERT_TRUE(all);
  EXPECT_EQ(std::tuple(all->getAc3TypeFlag(), all->getBsidFlag(), all->getMainidFlag(), all->getAsvcFlag()),
            std::tuple(1, 1, 1, 1));
  EXPECT_EQ(std::tuple(all->getAc3Type(), all->getBsid(), all->getMainid(), all->getAvsc()), std::tuple(1, 2, 3, 4));
  EXPECT_THAT(*all->getAdditionalInfo(), ElementsAre(5, 6));
  const One<Ac3Descriptor> some(descriptor(0x6A, {0x5F, 8, 6}));
  ASSERT_TRUE(some);
  EXPECT_EQ(std::tuple(some->getAc3Type(), some->getBsid(), some->getMainid(), some->getAvsc()),
            std::tuple(0, 8, 0, 6));
  EXPECT_TRUE(some->getAdditionalInfo()->empty());
}

TEST(Ac3, a_body_that_ends_early_is_kept_and_leaves_zeroes) {
  const One<Ac3Descriptor> cut(descriptor(0x6A, {0xF0, 9}));
  ASSERT_TRUE(cut);
  EXPECT_EQ(std::tuple(cut->getAc3Type(), cut->getBsid(), cut->getMainid(), cut->getAvsc()), std::tuple(9, 0, 0, 0));
  EXPECT_TRUE(cut->getAdditionalInfo()->empty());
  const One<Ac3Descriptor> empty(descriptor(0x6A, {}));
  ASSERT_TRUE(empty);
  EXPECT_EQ(std::tuple(empty->getAc3TypeFlag(), empty->getAsvcFlag(), empty->getAvsc()), std::tuple(0, 0, 0));
}

TEST(LogicalChannel, entries_and_left_over_bytes) {
  const One<LogicalChannelDescriptor> d(descriptor(0x83, {0x12, 0x34, 0xFF, 0xFF, 0x00, 0x01, 0x7C, 0x2A, 1, 2, 3}));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->getChannelList()->size(), 2u);
  const LogicalChannel& first = *d->getChannelList()->front();
  EXPECT_EQ(std::tuple(first.getServiceId(), first.getVisibleServiceFlag(), first.getLogicalChannelNumber()),
            std::tuple(0x1234, 1, 1023));
  const LogicalChannel& last = *d->getChannelList()->back();
  EXPECT_EQ(std::tuple(last.getServiceId(), last.getVisibleServiceFlag(), last.getLogicalChannelNumber()),
            std::tuple(1, 0, 0x2A));
}

}  // namespace
