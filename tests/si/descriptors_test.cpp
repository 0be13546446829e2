// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The descriptor tables: every tag with its trace, what it stores, and where it stores nothing.

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/subtitling_descriptor.h>
#include <dvbsi++/teletext_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>
#include <dvbsi++/video_stream_descriptor.h>

#include "si/si_support.h"

using namespace si_support;

namespace {

class Descriptors : public Parser_test {
 protected:
  // What a language of subtitles or teletext has: "kind p1 p2".
  std::string kept(const char* language) {
    const PMT_subtxt_lang& l = *parser.find_create_subtxt_lang(language);
    return formatted("%x %d %d", static_cast<unsigned>(l.es_subtype), l.p1, l.p2);
  }
  // The tag is traced as `expected` at `level`, behind the line of the dispatch, and silent one level below.
  template <typename D>
  void expect_trace(const Bytes& raw, int context, int level, const std::string& expected) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(trace_of<D>(raw, context), parsing(raw[0], context) + expected);
    if (level < 4) {
      EXPECT_EQ(trace_of<D>(raw, context, level), expected);
    }
    EXPECT_EQ(trace_of<D>(raw, context, level - 1), "");
  }
};

TEST_F(Descriptors, that_are_only_traced) {
  expect_trace<VideoStreamDescriptor>(descriptor(tag::VIDEO_STREAM, {0x98, 0x48, 0x60}), -1, 4,
                                      "Video Stream Desc: MFR 1, FRC 3, MP10 0, ConP 0, Plev 72 CF 1, FRE 1\n");
  expect_trace<VideoStreamDescriptor>(descriptor(tag::VIDEO_STREAM, {0x26}), 10, 4,
                                      "Video Stream Desc: MFR 0, FRC 4, MP10 1, ConP 1, Plev 0 CF 0, FRE 0\n");
  expect_trace<AudioStreamDescriptor>(descriptor(tag::AUDIO_STREAM, {0xE8}), 10, 4,
                                      "Audio stream descriptor, Id: 1 freeformat 1, layer 2, varrate 1\n");
  expect_trace<Descriptor>(descriptor(tag::DATA_STREAM_ALIGNMENT, {2}), 10, 4,
                           "Data stream alignment descriptor : al 2\n");
  expect_trace<Descriptor>(descriptor(tag::MULTIPLEX_BUFFER_UTILIZATION, {1, 2, 3}), 10, 4,
                           "Mux buffer utilization descriptor, not required for receiver\n");
  expect_trace<Descriptor>(descriptor(tag::MAXIMUM_BITRATE, {0xC1, 0x02, 0x03}), 10, 4,
                           "Maximum bitrate descriptor: rate is 66051\n");
  expect_trace<ComponentDescriptor>(
      descriptor(tag::COMPONENT, join({{0xF1, 0x0B, 0x2C}, bytes("est"), bytes("Video")})), 1, 4,
      "\t Component descriptor\n Strcon 1, comptype b, comptag 2c, lang est, text Video\n");
  expect_trace<StreamIdentifierDescriptor>(descriptor(tag::STREAM_IDENTIFIER, {200}), 10, 4,
                                           "Stream identifier descriptor: comptag is 200\n");
}

TEST_F(Descriptors, without_the_bytes_of_their_value_are_not_traced) {
  for (const Bytes& raw : {descriptor(tag::DATA_STREAM_ALIGNMENT, {}), descriptor(tag::MAXIMUM_BITRATE, {}),
                           descriptor(tag::MAXIMUM_BITRATE, {1, 2})})
    EXPECT_EQ(trace_of<Descriptor>(raw, 10), parsing(raw[0], 10));
}

TEST_F(Descriptors, seventeen_tags_are_ignored_without_a_message) {
  for (int tag :
       {0x04, 0x05, 0x0B, 0x10, 0x11, 0x28, 0x42, 0x45, 0x46, 0x4A, 0x53, 0x5F, 0x64, 0x66, 0x6C, 0x6D, 0x78}) {
    const Bytes raw = descriptor(static_cast<uint8_t>(tag), Bytes(10, 0));
    for (int context : {-1, 1, 7, 10})
      EXPECT_EQ(trace_of<Descriptor>(raw, context), parsing(tag, context));
  }
}

TEST_F(Descriptors, every_other_tag_is_reported_by_its_range) {
  const std::set<int> known = {0x02, 0x03, 0x06, 0x09, 0x0A, 0x0C, 0x0E, 0x40, 0x48, 0x4D, 0x4E, 0x50, 0x52,
                               0x54, 0x55, 0x56, 0x58, 0x59, 0x5A, 0x5D, 0x6A, 0x83, 0x04, 0x05, 0x0B, 0x10,
                               0x11, 0x28, 0x42, 0x45, 0x46, 0x4A, 0x53, 0x5F, 0x64, 0x66, 0x6C, 0x6D, 0x78};
  for (int tag = 0; tag < 256; ++tag) {
    if (known.contains(tag))
      continue;
    const Bytes raw = descriptor(static_cast<uint8_t>(tag), {1});
    const std::string expected = formatted("*** Unknown %s%02x\n",
                                           tag < 0x40   ? "Standard Descriptor"
                                           : tag < 0x80 ? "SI descriptor"
                                                        : "User descriptor",
                                           static_cast<unsigned>(tag));
    expect_trace<Descriptor>(raw, 10, 3, expected);
  }
}

TEST_F(Descriptors, of_another_class_than_their_tag_says_are_ignored) {
  for (int tag : {0x02, 0x03, 0x09, 0x0A, 0x40, 0x48, 0x4D, 0x4E, 0x50, 0x52, 0x54, 0x55, 0x56, 0x58, 0x59, 0x5A, 0x5D,
                  0x6A, 0x83}) {
    const Bytes raw = descriptor(static_cast<uint8_t>(tag), Bytes(13, 0));
    for (int context : {-1, 5, 10})
      EXPECT_EQ(trace_of<Descriptor>(raw, context), parsing(tag, context));
  }
}

// --- Streams ---------------------------------------------------------------------------------------------------------

TEST_F(Descriptors, ca_is_traced_in_every_loop) {
  for (int context : {-1, 10})
    expect_trace<CaDescriptor>(descriptor(tag::CA, {0x0B, 0x00, 0xFF, 0xFF, 9, 9}), context, 4,
                               "CA descriptor SysId: 2816, PID: 8191 \n");
}

TEST_F(Descriptors, languages_are_joined_and_traced) {
  const Bytes raw = languages({{"est", 0}, {"rus", 255}});
  expect_trace<Iso639LanguageDescriptor>(raw, -1, 4, "ISO_LANG descriptor, OID not found\n");
  EXPECT_EQ(trace_of<Iso639LanguageDescriptor>(raw, 10),
            parsing(0x0A, 10) + "ISO 639 lang descriptor, languages est rus , codes 0 255 , oid 10\n");
  EXPECT_EQ(trace_of<Iso639LanguageDescriptor>(descriptor(tag::ISO_639_LANGUAGE, {}), 10),
            parsing(0x0A, 10) + "ISO 639 lang descriptor, languages est rus , codes 0 255 , oid 10\n")
      << "a second one is joined to the first";
}

TEST_F(Descriptors, teletext_is_traced_and_kept_by_language) {
  const Bytes raw =
      descriptor(tag::TELETEXT, join({bytes("est"), {2 << 3 | 1, 0x88}, bytes("rus"), {0x1F << 3 | 7, 0x99}}));
  expect_trace<TeletextDescriptor>(raw, 10, 4,
                                   "\tTeletext descriptor\n\tTxt est, Type: 2, Pagenr: 136, MagNr: 1\n"
                                   "\tTxt rus, Type: 31, Pagenr: 153, MagNr: 7\n");
  EXPECT_EQ(kept("est"), "80003002 136 1");
  EXPECT_EQ(kept("rus"), "8000301f 153 7");
}

TEST_F(Descriptors, subtitling_is_traced_and_a_language_met_again_is_overwritten) {
  expect_trace<SubtitlingDescriptor>(subtitling({{"est", 0x10, 0x102, 0x304}, {"rus", 0xFF, 5, 6}}), 10, 4,
                                     "\tSubtitling descriptor\n\tSub est Type: 16 AncpageId: 772 CompPageId: 258\n"
                                     "\tSub rus Type: 255 AncpageId: 6 CompPageId: 5\n");
  const PMT_subtxt_lang* const estonian = parser.find_create_subtxt_lang("est");
  EXPECT_EQ(kept("est"), "80004010 772 258");
  parse<SubtitlingDescriptor>(subtitling({{"est", 0x20, 7, 8}}), 10);
  EXPECT_EQ(parser.find_create_subtxt_lang("est"), estonian);
  EXPECT_EQ(kept("est"), "80004020 8 7");
}

TEST_F(Descriptors, find_create_subtxt_lang_makes_an_empty_entry) {
  const PMT_subtxt_lang* entry = parser.find_create_subtxt_lang("deu");
  EXPECT_EQ(entry->lang, "deu");
  EXPECT_EQ(kept("deu"), "0 0 0");
  EXPECT_EQ(parser.find_create_subtxt_lang("deu"), entry);
  EXPECT_NE(parser.find_create_subtxt_lang("DEU"), entry);
}

TEST_F(Descriptors, ac3_is_traced) {
  expect_trace<Ac3Descriptor>(
      descriptor(tag::AC3, {0xF0, 1, 2, 3, 4, 99}), 10, 4,
      "AC3 descriptor: Type 1, bsid 1, mainid 1, asvc 1, ac3type 1, bsid 2, mainid 3, avsc 4\n");
  expect_trace<Ac3Descriptor>(
      descriptor(tag::AC3, {}), 10, 4,
      "AC3 descriptor: Type 0, bsid 0, mainid 0, asvc 0, ac3type 0, bsid 0, mainid 0, avsc 0\n");
}

// --- Services and networks -------------------------------------------------------------------------------------------

class Service_row : public Descriptors {
 protected:
  Service_row() {
    for (int i = 1; i <= 12; ++i)
      db.pat_for_network(0, TYPE, CONN, FREQ, i, TS_ID, 0x100);
  }
  const std::string named = "SELECT channel, serv_type, serv_name, prov_name FROM kanalid_scan_0 WHERE serv_name != ''";
};

TEST_F(Service_row, a_service_is_stored_in_the_row_of_its_context) {
  EXPECT_THAT(trace_of<ServiceDescriptor>(service_descriptor(0x16, "\x05\xC4u", "TV"), 7),
              HasSubstr("Service type 16, Prov name \xC3\x84u, Service name TV\n"));
  EXPECT_THAT(rows(named), ElementsAre("7|22|TV|\xC3\x84u"));
  EXPECT_THAT(trace_of<ServiceDescriptor>(service_descriptor(1, "P", "TV"), 7, 3), Not(HasSubstr("Service type")));
}

TEST_F(Service_row, a_service_in_a_program_loop_stores_nothing) {
  expect_trace<ServiceDescriptor>(service_descriptor(1, "P", "S"), -1, 4, "Service descriptor 72 OID not found\n");
  EXPECT_THAT(rows(named), IsEmpty());
}

TEST_F(Service_row, a_service_of_a_stream_or_an_event_stores_nothing_in_the_row_of_that_number) {
  for (int context : {1, 10})
    EXPECT_EQ(trace_of<ServiceDescriptor>(service_descriptor(1, "P", "S"), context), parsing(0x48, context));
  EXPECT_THAT(rows(named), IsEmpty());
  scan(pmt(1, 0x101, {{2, 0x101, service_descriptor(1, "P", "S")}}, service_descriptor(1, "P", "S")));
  EXPECT_THAT(rows(named), IsEmpty());
}

TEST_F(Service_row, names_in_languages_are_stored_for_the_row_of_their_context) {
  const Bytes raw = service_names(names_in("est", "P", "Kanal"));
  EXPECT_THAT(trace_of<MultilingualServiceNameDescriptor>(raw, 7),
              HasSubstr("Mling Service Lang est, Prov P, Service Kanal\n"));
  EXPECT_EQ(trace_of<MultilingualServiceNameDescriptor>(raw, 7, 3), "");
  EXPECT_THAT(rows("SELECT source_oid, lang, prov_name, serv_name FROM kanalid_lang_scan_0"),
              ElementsAre("7|est|P|Kanal"));
}

TEST_F(Service_row, names_in_languages_in_a_program_loop_are_an_error) {
  const Bytes raw = service_names(names_in("est", "P", "S"));
  expect_trace<MultilingualServiceNameDescriptor>(raw, -1, 0, "ERROR: Multilingual service name oid = -1\n");
  for (int context : {1, 10})
    EXPECT_EQ(trace_of<MultilingualServiceNameDescriptor>(raw, context), parsing(0x5D, context));
  EXPECT_THAT(rows("SELECT * FROM kanalid_lang_scan_0"), IsEmpty());
}

TEST_F(Service_row, names_in_languages_whose_lengths_do_not_add_up_are_skipped) {
  for (const Bytes& body : {join({bytes("est"), {9}, bytes("abc")}), join({bytes("est"), sized("P")}),
                            join({bytes("est"), sized("P"), {3}, bytes("ab")}),
                            join({bytes("est"), sized("P"), sized("Whole"), bytes("rus"), {9}, bytes("cut")})})
    parse<MultilingualServiceNameDescriptor>(descriptor(tag::MULTILINGUAL_SERVICE_NAME, body), 7);
  EXPECT_THAT(rows("SELECT * FROM kanalid_lang_scan_0"), IsEmpty());
}

TEST_F(Service_row, a_network_name_outside_the_nit_only_warns) {
  expect_trace<NetworkNameDescriptor>(network_name("Net"), 7, 1,
                                      "\tWARNING: Network name descriptor Net outside NIT\n");
}

TEST_F(Service_row, network_names_in_languages_are_unknown_outside_the_nit) {
  expect_trace<MultilingualNetworkNameDescriptor>(
      descriptor(tag::MULTILINGUAL_NETWORK_NAME, join({bytes("est"), sized("N")})), 7, 3,
      "*** Unknown SI descriptor5b\n");
}

TEST_F(Service_row, channel_numbers_outside_the_nit_only_warn) {
  const Bytes raw = lcn({{1, 0xFC05}});
  EXPECT_EQ(trace_of<LogicalChannelDescriptor>(raw, 7, 0), "");
  EXPECT_EQ(trace_of<LogicalChannelDescriptor>(raw, 7, 3), "WARNING: \tLCN descriptor outside NIT\n");
  EXPECT_EQ(trace_of<LogicalChannelDescriptor>(raw, 7), parsing(0x83, 7) +
                                                            "WARNING: \tLCN descriptor outside NIT\n"
                                                            "\tServiceId 1 VisFlag: 1 LCN: 5\n");
}

TEST_F(Service_row, a_delivery_system_is_traced_and_stored_in_hz) {
  const Bytes raw =
      descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, {0x03, 0x03, 0x5D, 0x40, 0x1F, 0xC9, 0x22, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_THAT(trace_of<TerrestrialDeliverySystemDescriptor>(raw, 7),
              HasSubstr("Terrastrial delivery system descritpor\n"
                        "Cf: 50552128, Bw: 0, Con: 3, Hier: 1, \nHp: 1, Lp: 1, Guard: 0, Tmode 1, OF: 0\n"));
  EXPECT_THAT(rows("SELECT * FROM tuner_table"), IsEmpty()) << "no constellation has that number";
  // Every field another number.
  const Bytes valid =
      descriptor(tag::TERRESTRIAL_DELIVERY_SYSTEM, {0x03, 0x03, 0x5D, 0x40, 0x3F, 0xAC, 0x51, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_THAT(trace_of<TerrestrialDeliverySystemDescriptor>(valid, 7),
              HasSubstr("Cf: 50552128, Bw: 1, Con: 2, Hier: 5, \nHp: 4, Lp: 2, Guard: 2, Tmode 0, OF: 1\n"));
  EXPECT_EQ(text("SELECT freq || ' ' || dvb_type || ' ' || hf_conn || ' ' || tuner_params FROM tuner_table"),
            "505521280 1 3 Fr:  505521280 Bw:  1 CrH:  7 CrL:  3 Mod:  3 TrM:  0 Grd:  2 Hir:  1");
  EXPECT_THAT(trace_of<TerrestrialDeliverySystemDescriptor>(valid, 7, 3), Not(HasSubstr("Terrastrial")));
  EXPECT_THAT(trace_of<TerrestrialDeliverySystemDescriptor>(valid, 7, 3), Not(HasSubstr("Cf:")));
}

}  // namespace
