// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <typeinfo>

#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>
#include <dvbsi++/video_stream_descriptor.h>

#include "dvbsi/parsed.h"
#include "dvbsi/read_all.h"
#include "support/test.h"

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

// A length byte and the text.
Bytes counted(const std::string& text) {
  return join({{static_cast<uint8_t>(text.size())}, bytes(text)});
}

// What is told about a descriptor of a loop.
std::string values(const Bytes& raw) {
  const One<Descriptor> d(raw);
  return d ? dvbsi_test::values(*d) : "not kept";
}

Bytes extended(const Bytes& items, const Bytes& text) {
  return descriptor(0x4E, join({{0x3F}, bytes("eng"), {static_cast<uint8_t>(items.size())}, items, text}));
}

TEST(Descriptors, tags_without_a_class_are_kept_whatever_their_length) {
  for (const uint8_t tag : Bytes{0x06, 0x0C, 0x0E, 0x82, 0xA7, 0xFE, 0xFF}) {
    for (size_t n = 0; n <= 30; ++n)
      EXPECT_EQ(kept(descriptor(tag, Bytes(n, 0))), 1u) << int{tag} << " length " << n;
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
  EXPECT_EQ(d->getServiceProviderName() + d->getServiceName(), "");
  EXPECT_EQ(parsed<TerrestrialDeliverySystemDescriptor>(descriptor(0x5A, {1}))->getCentreFrequency(), 0x01000000u);
  EXPECT_EQ(parsed<StreamIdentifierDescriptor>(descriptor(0x52, {}))->getComponentTag(), 0);
  EXPECT_TRUE(parsed<CaDescriptor>(descriptor(0x09, {1}))->getCaDataBytes()->empty());
}

TEST(Descriptors, the_invalid_are_left_out_and_those_around_them_stay) {
  EXPECT_EQ(dvbsi_test::section_values(
                support::long_section(0x01, 0xFFFF, 0,
                                      join({descriptor(0x06, {1}), descriptor(0x52, {}), descriptor(0x52, {7}),
                                            descriptor(0x0A, {0, 0, 0}), descriptor(0x0E, {0, 0, 0})}))),
            "<06 52 0e>");
}

// In the order of their bytes, flags and bit fields each by itself.
TEST(Descriptors, values_are_those_broadcast) {
  const std::string title(200, 't');
  const struct {
    const char* what;
    uint8_t tag;
    Bytes body;
    std::string values;
  } cases[] = {
      {"MPEG-2 video", 0x02, {0x9A, 0x44, 0x7F}, "video 1 3 0 1 44 1 1"},
      {"MPEG-1 video", 0x02, {0x05}, "video 0 0 1 0"},
      {"audio", 0x03, {0xA8}, "audio 1 0 2 1"},
      {"conditional access", 0x09, {0x0B, 0x02, 0xFF, 0xFE, 9, 8}, "ca b02 1ffe {0908}"},
      {"conditional access without private data", 0x09, {0x0B, 0x02, 0xE1, 0x00}, "ca b02 100 {}"},
      {"languages", 0x0A, join({bytes("EST"), {1}, bytes("eng"), {200}}), "languages ['EST' 1] ['eng' c8]"},
      {"no language", 0x0A, {}, "languages"},
      {"network name with zeroes", 0x40, {0x10, 0, 2, 'a', 0x8A, 0}, R"(network '\x10\x00\x02a\x8a\x00')"},
      {"VBI teletext", 0x46, join({bytes("fin"), {0x0F, 0x99}}), "VBI ['fin' 1 7 99]"},
      {"service and bytes behind", 0x48, join({{0x19}, counted("\x05prov"), counted("name of it"), {1, 2}}),
       R"(service 19 '\x05prov' 'name of it')"},
      {"names that fill the body", 0x48, join({{1}, counted("p"), counted("nm")}), "service 1 'p' 'nm'"},
      {"short event", 0x4D, join({bytes("rus"), counted("A title"), counted(title)}),
       "short 'rus' 'A title' '" + title + "'"},
      {"component", 0x50, join({{0xF5, 0x0B, 0x01}, bytes("deu"), bytes("HD")}), "component 5 b 1 'deu' 'HD'"},
      {"stream identifier", 0x52, {0xAB}, "stream ab"},
      {"content", 0x54, {0x12, 0x34, 0xFE, 0xDC}, "content [1 2 3 4] [f e d c]"},
      {"ratings", 0x55, join({bytes("FIN"), {9}, bytes("est"), {0}}), "rating ['FIN' 9] ['est' 0]"},
      {"teletext", 0x56, join({bytes("fin"), {0x08 | 7, 0x99}, bytes("swe"), {0x10, 0x88}}),
       "teletext ['fin' 1 7 99] ['swe' 2 0 88]"},
      {"time offset", 0x58, join({bytes("EST"), {0x0B, 0x02, 0x30, 0xE9, 0x7A, 0x01, 0x23, 0x45, 0x03, 0x15}}),
       "offsets ['EST' 2 1 230 e97a 12345 315]"},
      {"subtitles", 0x59, join({bytes("dan"), {0x14, 0x12, 0x34, 0xAB, 0xCD}}), "subtitling ['dan' 14 1234 abcd]"},
      {"delivery", 0x5A, {0x03, 0x04, 0x05, 0x86, 0x57, 0x9D, 0xCB}, "delivery 3040586 2 1 0 1 2 3 5 6 1 1 1"},
      {"highest frequency", 0x5A, {0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0}, "delivery fffffffe 0 0 0 0 0 0 0 0 0 0 0"},
      {"network names", 0x5B, join({bytes("eng"), counted("Net"), bytes("est"), counted("")}),
       "networks ['eng' 'Net'] ['est' '']"},
      {"service names", 0x5D,
       join({bytes("eng"), counted("Prov"), counted("Name"), bytes("est"), counted(""), counted("")}),
       "services ['eng' 'Prov' 'Name'] ['est' '' '']"},
      {"AC-3 with all fields", 0x6A, {0xFF, 1, 2, 3, 4, 5, 6}, "ac3 1 1 1 1 1 2 3 4 {0506}"},
      {"AC-3, fields follow the flags that are set", 0x6A, {0x5F, 8, 6}, "ac3 0 1 0 1 0 8 0 6 {}"},
      {"AC-3 that ends early", 0x6A, {0xF0, 9}, "ac3 1 1 1 1 9 0 0 0 {}"},
      {"AC-3 without a body", 0x6A, {}, "ac3 0 0 0 0 0 0 0 0 {}"},
      {"channels and left-over bytes",
       0x83,
       {0x12, 0x34, 0xFF, 0xFF, 0x00, 0x01, 0x7C, 0x2A, 1, 2, 3},
       "channels [1234 1 3ff] [1 0 2a]"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(values(descriptor(c.tag, c.body)), c.values) << c.what;
  EXPECT_EQ(values(extended(join({counted("Director"), counted("A. B."), counted(""), counted("")}), counted("more"))),
            "extended 3 f 'eng' ['Director' 'A. B.'] ['' ''] 'more'");
}

TEST(Descriptors, lengths_that_pass_the_body_make_them_invalid) {
  const Bytes rus = bytes("rus");
  for (const Bytes& raw : {
           descriptor(0x48, join({{1}, counted("p"), {3, 'n', 'm'}})),
           descriptor(0x48, {1, 2, 'p', 'q'}),  // no length of the second name
           descriptor(0x48, {1, 255, 'p', 'q'}),
           descriptor(0x4D, join({rus, counted("A"), {2, 't'}})),
           descriptor(0x4D, join({rus, {1, 'A'}})),
           descriptor(0x4D, join({rus, {9, 'A', 0}})),
           descriptor(0x4E, {0, 'e', 's', 't', 1, 0}),
           extended({}, {2, 'x'}),
       })
    EXPECT_EQ(values(raw), "not kept") << testing::PrintToString(raw);
}

TEST(Descriptors, entries_end_at_the_first_that_is_not_whole) {
  if (!OWN)
    GTEST_SKIP() << "the system's library takes bytes from behind them";
  for (const Bytes& broken : {Bytes{5, 'd'}, Bytes{1, 'd'}, Bytes{1, 'd', 2, 'i'}, Bytes{255}})
    EXPECT_EQ(values(extended(join({counted("d"), counted("i"), broken}), counted("text"))),
              "extended 3 f 'eng' ['d' 'i'] 'text'");
  for (const Bytes& broken : {bytes("e"), bytes("est"), bytes("est\1"), bytes("est\3x")})
    EXPECT_EQ(values(descriptor(0x5B, join({bytes("eng"), counted("Net"), broken}))), "networks ['eng' 'Net']");
  for (const Bytes& broken : {bytes("est"), bytes(std::string("est\0", 4)), bytes("est\11x"), bytes("est\1x\2y")})
    EXPECT_EQ(values(descriptor(0x5D, join({bytes("eng"), counted("P"), counted("N"), broken}))),
              "services ['eng' 'P' 'N']");
}

TEST(Video_stream, mpeg1_has_no_mpeg2_values) {
  if (!OWN)
    GTEST_SKIP() << "undefined in the system's library";
  const One<VideoStreamDescriptor> d(descriptor(0x02, {0x05}));
  const One<VideoStreamDescriptor> longer(descriptor(0x02, {0x04, 0xFF, 0xFF}));
  ASSERT_TRUE(d && longer);
  EXPECT_EQ(d->getStillPictureFlag(), 1);
  EXPECT_EQ(longer->getStillPictureFlag(), 0);
  EXPECT_EQ(longer->getProfileAndLevelIndication(), 0);
  EXPECT_EQ(longer->getChromaFormat(), 0);
  EXPECT_EQ(longer->getFrameRateExtensionFlag(), 0);
}

TEST(Iso639Language, list_is_the_same_at_each_call) {
  const One<Iso639LanguageDescriptor> d(descriptor(0x0A, bytes("EST\1")));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->getIso639Languages(), d->getIso639Languages());
}

}  // namespace
