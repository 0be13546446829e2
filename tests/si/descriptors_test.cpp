// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The descriptor tables: every tag with its trace, what it stores, and where it stores nothing.

#include <dvbsi++/descriptor.h>

#include "si/si_support.h"

using namespace si_support;
using namespace tag;

namespace {

std::set<int> tags(auto... all) {
  return {all...};
}

const auto IGNORED = tags(HIERARCHY, REGISTRATION, SYSTEM_CLOCK, SMOOTHING_BUFFER, STD, AVC_VIDEO, STUFFING, VBI_DATA,
                          VBI_TELETEXT, LINKAGE, CA_IDENTIFIER, PRIVATE_DATA_SPECIFIER, DATA_BROADCAST,
                          DATA_BROADCAST_ID, CELL_LIST, CELL_FREQUENCY_LINK, ECM_REPETITION_RATE);
const auto OF_A_CLASS =
    tags(VIDEO_STREAM, AUDIO_STREAM, tag::CA, ISO_639_LANGUAGE, NETWORK_NAME, SERVICE, SHORT_EVENT, EXTENDED_EVENT,
         COMPONENT, STREAM_IDENTIFIER, CONTENT, PARENTAL_RATING, TELETEXT, LOCAL_TIME_OFFSET, SUBTITLING,
         TERRESTRIAL_DELIVERY_SYSTEM, MULTILINGUAL_SERVICE_NAME, AC3, LOGICAL_CHANNEL);
const auto WITHOUT_CLASS = tags(DATA_STREAM_ALIGNMENT, MULTIPLEX_BUFFER_UTILIZATION, MAXIMUM_BITRATE);

class Descriptors : public Parser_test {
 protected:
  // What a language of subtitles or teletext has: "kind p1 p2".
  std::string kept(const char* language) {
    const PMT_subtxt_lang& l = *parser.find_create_subtxt_lang(language);
    return formatted("%x %d %d", static_cast<unsigned>(l.es_subtype), l.p1, l.p2);
  }
  // An object of the base class, whatever class its tag has.
  void parse_plain(const Bytes& raw, int context) {
    Descriptor plain(raw.data());
    parser.parse_descriptor_info(&plain, context);
  }
  std::string trace_of_plain(const Bytes& raw, int context) {
    return messages_at(4, [&] { parse_plain(raw, context); });
  }
  // The tag is traced as `expected` at `level`, behind the line of the dispatch, and silent one level below.
  void expect_trace(const Bytes& raw, int context, int level, const std::string& expected) {
    const std::string traced = parsing(raw[0], context) + expected;
    EXPECT_EQ(trace_of(raw, context), traced);
    EXPECT_THAT([&] { parse(raw, context); }, prints_only_from(level, level < 4 ? expected : traced));
  }
};

TEST_F(Descriptors, are_traced_at_4) {
  const Bytes ca_and_more = descriptor(tag::CA, {0x0B, 0x00, 0xFF, 0xFF, 9, 9});
  const struct {
    const char* legend;
    Bytes raw;
    int context;
    const char* trace;
  } cases[] = {
      {"video of MPEG-2", descriptor(VIDEO_STREAM, {0x98, 0x48, 0x60}), -1,
       "Video Stream Desc: MFR 1, FRC 3, MP10 0, ConP 0, Plev 72 CF 1, FRE 1\n"},
      {"video of MPEG-1", descriptor(VIDEO_STREAM, {0x26}), 10,
       "Video Stream Desc: MFR 0, FRC 4, MP10 1, ConP 1, Plev 0 CF 0, FRE 0\n"},
      {"audio", descriptor(AUDIO_STREAM, {0xE8}), 10,
       "Audio stream descriptor, Id: 1 freeformat 1, layer 2, varrate 1\n"},
      {"alignment", descriptor(DATA_STREAM_ALIGNMENT, {2}), 10, "Data stream alignment descriptor : al 2\n"},
      {"alignment without its byte", descriptor(DATA_STREAM_ALIGNMENT, {}), 10, ""},
      {"buffer utilization", descriptor(MULTIPLEX_BUFFER_UTILIZATION, {1, 2, 3}), 10,
       "Mux buffer utilization descriptor, not required for receiver\n"},
      {"bitrate", descriptor(MAXIMUM_BITRATE, {0xC1, 0x02, 0x03}), 10, "Maximum bitrate descriptor: rate is 66051\n"},
      {"bitrate without its bytes", descriptor(MAXIMUM_BITRATE, {}), 10, ""},
      {"bitrate one byte short", descriptor(MAXIMUM_BITRATE, {1, 2}), 10, ""},
      {"component", descriptor(COMPONENT, join({{0xF1, 0x0B, 0x2C}, bytes("estVideo")})), 1,
       "\t Component descriptor\n Strcon 1, comptype b, comptag 2c, lang est, text Video\n"},
      {"stream identifier", descriptor(STREAM_IDENTIFIER, {200}), 10, "Stream identifier descriptor: comptag is 200\n"},
      {"CA of a programme", ca_and_more, -1, "CA descriptor SysId: 2816, PID: 8191 \n"},
      {"CA of a stream", ca_and_more, 10, "CA descriptor SysId: 2816, PID: 8191 \n"},
      {"languages of a programme", languages({{"est", 0}, {"rus", 255}}), -1, "ISO_LANG descriptor, OID not found\n"},
      {"AC-3 with everything", descriptor(AC3, {0xF0, 1, 2, 3, 4, 99}), 10,
       "AC3 descriptor: Type 1, bsid 1, mainid 1, asvc 1, ac3type 1, bsid 2, mainid 3, avsc 4\n"},
      {"AC-3 with nothing", descriptor(AC3, {}), 10,
       "AC3 descriptor: Type 0, bsid 0, mainid 0, asvc 0, ac3type 0, bsid 0, mainid 0, avsc 0\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    expect_trace(c.raw, c.context, 4, c.trace);
  }
}

TEST_F(Descriptors, seventeen_tags_are_ignored_without_a_message) {
  EXPECT_EQ(IGNORED.size(), 17U);
  for (const int tag : IGNORED) {
    for (const int context : {-1, 1, 7, 10})
      EXPECT_EQ(trace_of_plain(descriptor(tag, Bytes(10, 0)), context), parsing(tag, context));
  }
}

TEST_F(Descriptors, every_other_tag_is_reported_by_its_range) {
  for (int tag = 0; tag < 256; ++tag) {
    if (IGNORED.contains(tag) || OF_A_CLASS.contains(tag) || WITHOUT_CLASS.contains(tag))
      continue;
    SCOPED_TRACE(tag);
    const std::string expected = formatted("*** Unknown %s%02x\n",
                                           tag < FIRST_OF_SI     ? "Standard Descriptor"
                                           : tag < FIRST_PRIVATE ? "SI descriptor"
                                                                 : "User descriptor",
                                           static_cast<unsigned>(tag));
    const auto parse_it = [&] { parse_plain(descriptor(tag, {1}), 10); };
    EXPECT_EQ(messages_at(4, parse_it), parsing(tag, 10) + expected);
    EXPECT_THAT(parse_it, prints_only_from(3, expected));
  }
}

TEST_F(Descriptors, of_another_class_than_their_tag_says_are_ignored) {
  for (const int tag : OF_A_CLASS) {
    for (const int context : {-1, 5, 10})
      EXPECT_EQ(trace_of_plain(descriptor(tag, Bytes(13, 0)), context), parsing(tag, context));
  }
}

// --- Streams ---------------------------------------------------------------------------------------------------------

TEST_F(Descriptors, languages_are_joined_and_traced) {
  const std::string expected =
      parsing(ISO_639_LANGUAGE, 10) + "ISO 639 lang descriptor, languages est rus , codes 0 255 , oid 10\n";
  EXPECT_EQ(trace_of(languages({{"est", 0}, {"rus", 255}}), 10), expected);
  EXPECT_EQ(trace_of(languages({}), 10), expected) << "a second one is joined to the first";
}

TEST_F(Descriptors, teletext_is_traced_and_kept_by_language) {
  expect_trace(descriptor(TELETEXT, join({bytes("est"), {2 << 3 | 1, 0x88}, bytes("rus"), {0x1F << 3 | 7, 0x99}})), 10,
               4,
               "\tTeletext descriptor\n\tTxt est, Type: 2, Pagenr: 136, MagNr: 1\n"
               "\tTxt rus, Type: 31, Pagenr: 153, MagNr: 7\n");
  EXPECT_EQ(kept("est"), "80003002 136 1");
  EXPECT_EQ(kept("rus"), "8000301f 153 7");
}

TEST_F(Descriptors, subtitling_is_traced_and_a_language_met_again_is_overwritten) {
  expect_trace(subtitling({{"est", 0x10, 0x102, 0x304}, {"rus", 0xFF, 5, 6}}), 10, 4,
               "\tSubtitling descriptor\n\tSub est Type: 16 AncpageId: 772 CompPageId: 258\n"
               "\tSub rus Type: 255 AncpageId: 6 CompPageId: 5\n");
  const PMT_subtxt_lang* const estonian = parser.find_create_subtxt_lang("est");
  EXPECT_EQ(kept("est"), "80004010 772 258");
  parse(subtitling({{"est", 0x20, 7, 8}}), 10);
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

// --- Services and networks -------------------------------------------------------------------------------------------

class Service_row : public Descriptors {
 protected:
  Service_row() {
    for (int i = 1; i <= 12; ++i)
      db.pat_for_network(0, TYPE, CONN, FREQ, i, TS_ID, 0x100);
  }
  Texts named() {
    return rows("SELECT channel, serv_type, serv_name, prov_name FROM kanalid_scan_0 WHERE serv_name != ''");
  }
  Texts named_in_languages() { return rows("SELECT source_oid, lang, prov_name, serv_name FROM kanalid_lang_scan_0"); }
};

TEST_F(Service_row, a_service_is_stored_in_the_row_of_its_context) {
  const Bytes raw = service_descriptor(0x16, "\x05\xC4u", "TV");
  const std::string traced = "Service type 16, Prov name \xC3\x84u, Service name TV\n";
  EXPECT_THAT(trace_of(raw, 7), HasSubstr(traced));
  EXPECT_EQ(named(), Texts{"7|22|TV|\xC3\x84u"});
  EXPECT_THAT(trace_of(raw, 7, 3), Not(HasSubstr("Service type")));
}

TEST_F(Service_row, names_in_languages_are_stored_for_the_row_of_their_context) {
  const Bytes raw = service_names(names_in("est", "P", "Kanal"));
  EXPECT_THAT(trace_of(raw, 7), HasSubstr("Mling Service Lang est, Prov P, Service Kanal\n"));
  EXPECT_EQ(trace_of(raw, 7, 3), "");
  EXPECT_EQ(named_in_languages(), Texts{"7|est|P|Kanal"});
}

// Also where the context is the number of a row.
TEST_F(Service_row, names_in_a_loop_of_another_kind_are_not_stored) {
  const Bytes service = service_descriptor(1, "P", "S");
  const Bytes names = service_names(names_in("est", "P", "S"));
  const struct {
    const char* legend;
    Bytes raw;
    int context;
    int level;
    const char* message;
  } cases[] = {
      {"service of a programme", service, -1, 4, "Service descriptor 72 OID not found\n"},
      {"service of an event", service, 1, 4, ""},
      {"service of a stream", service, 10, 4, ""},
      {"names in languages of a programme", names, -1, 0, "ERROR: Multilingual service name oid = -1\n"},
      {"names in languages of an event", names, 1, 4, ""},
      {"names in languages of a stream", names, 10, 4, ""},
      {"network name", network_name("Net"), 7, 1, "\tWARNING: Network name descriptor Net outside NIT\n"},
      {"network names in languages", descriptor(MULTILINGUAL_NETWORK_NAME, join({bytes("est"), sized("N")})), 7, 3,
       "*** Unknown SI descriptor5b\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    expect_trace(c.raw, c.context, c.level, c.message);
    EXPECT_EQ(named(), Texts{});
    EXPECT_EQ(named_in_languages(), Texts{});
  }
  scan(pmt(1, 0x101, {{2, 0x101, service}}, service));
  EXPECT_EQ(named(), Texts{});
}

TEST_F(Service_row, names_in_languages_whose_lengths_do_not_add_up_are_skipped) {
  for (const Bytes& body : {join({bytes("est"), {9}, bytes("abc")}), join({bytes("est"), sized("P")}),
                            join({bytes("est"), sized("P"), {3}, bytes("ab")}),
                            join({bytes("est"), sized("P"), sized("Whole"), bytes("rus"), {9}, bytes("cut")})})
    parse(service_names(body), 7);
  EXPECT_EQ(named_in_languages(), Texts{});
}

TEST_F(Service_row, channel_numbers_outside_the_nit_only_warn) {
  const Bytes raw = lcn({{1, 0xFC05}});
  const std::string warning = "WARNING: \tLCN descriptor outside NIT\n";
  EXPECT_EQ(trace_of(raw, 7, 0), "");
  EXPECT_EQ(trace_of(raw, 7, 3), warning);
  EXPECT_EQ(trace_of(raw, 7), parsing(LOGICAL_CHANNEL, 7) + warning + "\tServiceId 1 VisFlag: 1 LCN: 5\n");
}

TEST_F(Service_row, a_delivery_system_is_traced_and_stored_in_hz) {
  const Bytes invalid = {0x03, 0x03, 0x5D, 0x40, 0x1F, 0xC9, 0x22, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_THAT(trace_of(descriptor(TERRESTRIAL_DELIVERY_SYSTEM, invalid), 7),
              HasSubstr("Terrastrial delivery system descritpor\n"
                        "Cf: 50552128, Bw: 0, Con: 3, Hier: 1, \nHp: 1, Lp: 1, Guard: 0, Tmode 1, OF: 0\n"));
  EXPECT_EQ(table("tuner_table"), Texts{}) << "no constellation has that number";
  // Every field another number.
  const Bytes valid =
      descriptor(TERRESTRIAL_DELIVERY_SYSTEM, {0x03, 0x03, 0x5D, 0x40, 0x3F, 0xAC, 0x51, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_THAT(trace_of(valid, 7),
              HasSubstr("Cf: 50552128, Bw: 1, Con: 2, Hier: 5, \nHp: 4, Lp: 2, Guard: 2, Tmode 0, OF: 1\n"));
  EXPECT_EQ(text("SELECT freq || ' ' || dvb_type || ' ' || hf_conn || ' ' || tuner_params FROM tuner_table"),
            "505521280 1 3 Fr:  505521280 Bw:  1 CrH:  7 CrL:  3 Mod:  3 TrM:  0 Grd:  2 Hir:  1");
  EXPECT_THAT(trace_of(valid, 7, 3), AllOf(Not(HasSubstr("Terrastrial")), Not(HasSubstr("Cf:"))));
}

}  // namespace
