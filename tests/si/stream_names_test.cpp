// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Streams of a PMT by name, and what of them reaches the database.
#include "si/stream_names.h"

#include "base/receiver_profile.h"
#include "db/sdbl_parts.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

Bytes extension(int tag, const Bytes& body) {
  return descriptor(tag::EXTENSION, join({u8(tag), body}));
}

Bytes teletext_page(const std::string& language, unsigned type, unsigned magazine, unsigned page) {
  return join({bytes(language), u8(type << 3 | magazine), u8(page)});
}
Bytes teletext(const Bytes& pages) {
  return descriptor(tag::TELETEXT, pages);
}

Bytes supplementary_audio(unsigned classification, const std::string& language = "") {
  return extension(extension_tag::SUPPLEMENTARY_AUDIO,
                   join({u8(0x80 | classification << 2 | (language.empty() ? 0U : 1U)), bytes(language)}));
}

Bytes hevc(unsigned profile, unsigned level, unsigned hdr) {
  return descriptor(tag::HEVC_VIDEO, join({u8(profile), Bytes(10, 0), u8(level), u8(hdr), {0}}));
}

// "video HEVC Main@L4.1 #7 est/hard of hearing/777 ...", without what there is none of.
std::string shown(const Stream_detail& stream) {
  std::string out = stream.kind;
  for (const std::string& word : {stream.codec, stream.profile})
    out += word.empty() ? "" : " " + word;
  if (stream.component_tag >= 0)
    out += formatted(" #%d", stream.component_tag);
  for (const Stream_language& language : stream.languages) {
    out += " " + language.code;
    if (!language.role.empty() || language.page != 0)
      out += "/" + language.role;
    if (language.page != 0)
      out += formatted("/%d", language.page);
  }
  return out;
}

Texts shown(const std::vector<Stream_ca>& systems) {
  Texts all;
  for (const Stream_ca& ca : systems)
    all.push_back(formatted("%x %04x %x", static_cast<unsigned>(ca.es_pid), static_cast<unsigned>(ca.ca_sysid),
                            static_cast<unsigned>(ca.ca_pid)));
  return all;
}

const Bytes EST = languages({{"est", 0}});
const Bytes LATIN = Bytes{0x10, 0x20};

const struct {
  const char* legend;
  uint8_t type;
  Bytes descriptors;
  const char* shown;
} STREAMS[] = {
    {"MPEG-1 video", 0x01, {}, "video MPEG-1"},
    {"MPEG-2 video", 0x02, {}, "video MPEG-2"},
    {"MPEG-2 video with its profile", 0x02, descriptor(tag::VIDEO_STREAM, {0x18, 0x48, 0x5F}),
     "video MPEG-2 Main@Main"},
    {"MPEG-1 in a stream of type 2", 0x02, descriptor(tag::VIDEO_STREAM, {0x1C, 0x48, 0x5F}), "video MPEG-2"},
    {"H.264", 0x1B, {}, "video H.264"},
    {"H.264 with its profile", 0x1B, descriptor(tag::AVC_VIDEO, {100, 0, 40, 0x3F}), "video H.264 High@L4.0"},
    {"H.264 of an unknown profile", 0x1B, descriptor(tag::AVC_VIDEO, {99, 0, 40, 0x3F}), "video H.264"},
    {"HEVC", 0x24, {}, "video HEVC"},
    {"HEVC with its profile", 0x24, hevc(1, 123, 0), "video HEVC Main@L4.1"},
    {"HEVC with HDR", 0x24, hevc(2, 153, 2), "video HEVC Main 10@L5.1 HDR"},
    {"HEVC, a temporal subset", 0x25, {}, "video HEVC"},
    {"VVC", 0x33, {}, "video VVC"},
    {"VVC with its profile", 0x33, descriptor(tag::VVC_VIDEO, {1 << 1, 0, 0, 83, 0, 0}), "video VVC Main 10@L5.1"},
    {"VVC with a sub-profile", 0x34, descriptor(tag::VVC_VIDEO, {1 << 1, 1, 9, 9, 9, 9, 0, 80}),
     "video VVC Main 10@L5.0"},
    {"VVC with more sub-profiles than bytes", 0x33, descriptor(tag::VVC_VIDEO, {1 << 1, 200, 0, 83}), "video VVC"},

    {"MPEG audio", 0x03, EST, "audio MPEG-1 est"},
    {"MPEG-2 audio in two languages", 0x04, languages({{"est", 0}, {"rus", 3}}),
     "audio MPEG-2 est rus/audio description"},
    {"every audio type", 0x03, languages({{"aaa", 1}, {"bbb", 2}, {"ccc", 3}, {"ddd", 4}}),
     "audio MPEG-1 aaa/clean effects bbb/hard of hearing ccc/audio description ddd"},
    {"AAC", 0x0F, EST, "audio AAC est"},
    {"HE-AAC in ADTS", 0x0F, descriptor(tag::AAC, {0x2D}), "audio HE-AAC"},
    {"HE-AAC v2 in LATM", 0x11, descriptor(tag::AAC, {0x31}), "audio HE-AAC v2"},
    {"AAC in LATM", 0x11, descriptor(tag::AAC, {0x29}), "audio AAC"},
    {"LATM without a descriptor", 0x11, {}, "audio HE-AAC"},
    {"LATM of an unknown profile", 0x11, descriptor(tag::AAC, {0xFE}), "audio HE-AAC"},
    {"LATM by the other descriptor", 0x11, descriptor(tag::MPEG4_AUDIO, {0x31}), "audio HE-AAC v2"},
    {"AAC for who cannot see", 0x11, join({EST, descriptor(tag::AAC, {0x2D, 0x80, 0x47})}),
     "audio HE-AAC est/audio description"},
    {"AAC whose type is not announced", 0x11, join({EST, descriptor(tag::AAC, {0x2D, 0x00, 0x47})}),
     "audio HE-AAC est"},
    {"AAC on a private stream", 0x06, descriptor(tag::AAC, {0x2D}), "audio HE-AAC"},
    {"AC-3", 0x06, join({EST, descriptor(tag::AC3, {0})}), "audio AC-3 est"},
    {"AC-3 for who cannot see", 0x06, join({EST, descriptor(tag::AC3, {0x80, 2 << 3 | 2})}),
     "audio AC-3 est/audio description"},
    {"AC-3 for who cannot hear well", 0x06, join({EST, descriptor(tag::AC3, {0x80, 3 << 3 | 2})}),
     "audio AC-3 est/hard of hearing"},
    {"AC-3 whose component type is cut off", 0x06, join({EST, descriptor(tag::AC3, {0x80})}), "audio AC-3 est"},
    {"E-AC-3", 0x06, join({EST, descriptor(tag::ENHANCED_AC3, {0})}), "audio E-AC-3 est"},
    {"E-AC-3, a commentary", 0x06, join({EST, descriptor(tag::ENHANCED_AC3, {0x80, 0x80 | 5 << 3 | 2})}),
     "audio E-AC-3 est/commentary"},
    {"E-AC-3 that is AC-3 for old receivers", 0x06,
     join({descriptor(tag::AC3, {0}), descriptor(tag::ENHANCED_AC3, {0})}), "audio E-AC-3"},
    {"AC-3 by its type", 0x81, {}, "audio AC-3"},
    {"E-AC-3 by its type", 0x87, EST, "audio E-AC-3 est"},
    {"AC-4", 0x06, join({extension(extension_tag::AC4, {0}), EST}), "audio AC-4 est"},
    {"DTS", 0x06, descriptor(tag::DTS, {0, 0, 0, 0, 0}), "audio DTS"},
    {"DTS-HD", 0x06, extension(extension_tag::DTS_HD, {0}), "audio DTS-HD"},
    {"DTS-UHD", 0x06, extension(extension_tag::DTS_UHD, {0}), "audio DTS-UHD"},
    {"MPEG-H", 0x2D, {}, "audio MPEG-H"},
    {"by registration", 0x06, descriptor(tag::REGISTRATION, bytes("EAC3")), "audio E-AC-3"},
    {"a descriptor goes before a registration", 0x06,
     join({descriptor(tag::AC3, {0}), descriptor(tag::REGISTRATION, bytes("Opus"))}), "audio AC-3"},
    {"supplementary audio", 0x04, join({EST, supplementary_audio(1)}), "audio MPEG-2 est/audio description"},
    {"supplementary audio with a language of its own", 0x11, supplementary_audio(3, "ces"),
     "audio HE-AAC ces/spoken subtitles"},
    {"supplementary audio goes before the component type", 0x06,
     join({supplementary_audio(1), descriptor(tag::AC3, {0x80, 3 << 3}), EST}), "audio AC-3 est/audio description"},
    {"main audio", 0x04, join({EST, supplementary_audio(0)}), "audio MPEG-2 est"},

    {"teletext, all pages", 0x06,
     teletext(join({teletext_page("cze", 1, 1, 0x00), teletext_page("cze", 2, 8 & 7, 0x88),
                    teletext_page("cze", 5, 7, 0x77), teletext_page("eng", 3, 1, 0xA0)})),
     "teletext cze/index/100 cze/subtitles/888 cze/hard of hearing/777 eng/additional information"},
    {"teletext beside a language", 0x06, join({EST, teletext(teletext_page("est", 1, 1, 0))}),
     "teletext est/index/100"},
    {"DVB subtitles", 0x06, subtitling({{"est", 0x10, 1, 2}, {"est", 0x20, 3, 4}, {"rus", 0x24}, {"fin", 0x31}}),
     "subtitles DVB est//1 est/hard of hearing/3 rus/hard of hearing fin/sign language"},
    {"TTML", 0x06, extension(extension_tag::TTML_SUBTITLING, join({bytes("est"), {0x10 << 2, 0}})),
     "subtitles TTML est/hard of hearing"},
    {"TTML that is cut off", 0x06, extension(extension_tag::TTML_SUBTITLING, bytes("est")), "subtitles TTML"},

    {"HbbTV", 0x05, descriptor(tag::APPLICATION_SIGNALLING, {0x00, 0x10, 0xE1}), "application HbbTV"},
    {"MHP", 0x05, descriptor(tag::APPLICATION_SIGNALLING, {0x80, 0x01, 0xE1}), "application MHP"},
    {"an unknown application", 0x05, descriptor(tag::APPLICATION_SIGNALLING, {0x0F, 0x01, 0xE1}), "application"},
    {"DSM-CC", 0x0B, {}, "data DSM-CC"},
    {"an object carousel", 0x0B, descriptor(tag::DATA_BROADCAST_ID, {0x01, 0x23}), "data HbbTV carousel"},
    {"splice points", 0x86, {}, "data"},
    {"private sections", 0x05, {}, "data"},
    {"a private stream", 0x06, {}, "data"},
    {"a type that nobody knows", 0x7F, descriptor(tag::REGISTRATION, bytes("abcd")), "data"},
    {"a public type is not what a descriptor says", 0x02, descriptor(tag::AC3, {0}), "video MPEG-2"},
    {"a component tag", 0x02, descriptor(tag::STREAM_IDENTIFIER, {7}), "video MPEG-2 #7"},
    {"a language that is no text", 0x03, languages({{std::string("\0\xE8 ", 3), 0}}), "audio MPEG-1 ???"},
    {"empty descriptors", 0x06,
     join({descriptor(tag::VIDEO_STREAM, {}), descriptor(tag::AVC_VIDEO, {}), descriptor(tag::HEVC_VIDEO, {}),
           descriptor(tag::VVC_VIDEO, {}), descriptor(tag::MPEG4_AUDIO, {}), descriptor(tag::REGISTRATION, {}),
           descriptor(tag::STREAM_IDENTIFIER, {}), descriptor(tag::DATA_BROADCAST_ID, {}), descriptor(tag::AAC, {}),
           descriptor(tag::EXTENSION, {}), extension(extension_tag::SUPPLEMENTARY_AUDIO, {}), descriptor(tag::CA, {})}),
     "data"},
};

TEST(Stream_names, are_those_of_types_and_descriptors) {
  for (const auto& c : STREAMS) {
    SCOPED_TRACE(c.legend);
    const Bytes section = pmt(1, 0x101, {{0x02, 0x99}, {c.type, 0x102, c.descriptors}, {0x03, 0x103}});
    const Programme_streams programme = streams_of_pmt(section);
    ASSERT_EQ(programme.streams.size(), 3U);
    EXPECT_EQ(programme.streams[1].es_pid, 0x102);
    EXPECT_EQ(shown(programme.streams[1]), c.shown);
    EXPECT_EQ(shown(programme.streams[2]), "audio MPEG-1") << "nothing reaches the next stream";
  }
}

TEST(Stream_names, of_two_streams_with_one_pid_the_first_counts) {
  const Programme_streams programme = streams_of_pmt(pmt(1, 1, {{0x02, 0x99}, {0x03, 0x99, ca(0x500, 0x111)}}));
  ASSERT_EQ(programme.streams.size(), 1U);
  EXPECT_EQ(shown(programme.streams[0]), "video MPEG-2");
  EXPECT_THAT(programme.ca, IsEmpty());
}

TEST(Stream_names, all_systems_are_kept_those_of_the_programme_and_those_of_its_streams) {
  const Bytes two = join({ca(0x500, 0x111), ca(0xB00, 0x112), ca(0x500, 0x111)});
  EXPECT_EQ(shown(streams_of_pmt(pmt(1, 1, {{0x02, 0x99, ca(0x100, 0x113)}, {0x03, 0x9A, two}}, two)).ca),
            (Texts{"0 0500 111", "0 0b00 112", "99 0100 113", "9a 0500 111", "9a 0b00 112"}));
}

// Whatever is cut off, and whatever a length says, nothing behind the section is read (a memory checker sees it).
TEST(Stream_names, of_sections_of_every_length_are_read_as_far_as_they_go) {
  for (const auto& c : STREAMS) {
    const Bytes whole = pmt(1, 0x101, {{c.type, 0x102, c.descriptors}}, ca(0x500, 0x111));
    for (size_t size = 0; size <= whole.size(); ++size)
      EXPECT_LE(streams_of_pmt(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))).streams.size(),
                1U);
    for (size_t at = 10; at < whole.size(); ++at) {
      Bytes broken = whole;
      broken[at] = 0xFF;
      EXPECT_LE(streams_of_pmt(broken).streams.size(), 4U);
    }
  }
}

// --- Into the database -----------------------------------------------------------------------------------------------

struct Named_bench : Parser_bench {
  explicit Named_bench(bool names) {
    Receiver_profile profile;
    profile.name_streams = names;
    parser.parts().read_as(profile);
    scan(pat({{1, 0x100}, {2, 0x200}}));
  }
  Texts tables() {
    return rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name LIKE 'stream_%' ORDER BY name");
  }
  int merge(SCAN_STATE state = SCAN_PAT) { return db.update_master_scan_data(0, TYPE, CONN, FREQ, state); }
};

const Bytes PAGES = teletext(join({teletext_page("cze", 1, 1, 0x00), teletext_page("cze", 2, 0, 0x88)}));
const Bytes ONE = pmt(1, 0x101,
                      {{0x24, 0x101},
                       {0x06, 0x102, join({EST, descriptor(tag::ENHANCED_AC3, {0}), ca(0xB00, 0x502)})},
                       {0x06, 0x103, PAGES}},
                      join({ca(0x500, 0x500), ca(0x100, 0x501)}));

TEST(Named_streams, box_keeps_one_page_a_language_one_system_and_no_table) {
  Named_bench box(false);
  box.scan(ONE, 0x100);
  EXPECT_EQ(box.merge(), 2 | 32);
  EXPECT_EQ(box.rows("SELECT es_pid, es_subtype, codec, languages, p1, p2, ca_sysid, ca_pid FROM estreams"),
            (Texts{"257|0|||0|0|256|1281", "258|0||est |0|0|256|1281", "259|-2147471358||cze|136|0|256|1281"}));
  EXPECT_THAT(box.tables(), IsEmpty());
  EXPECT_EQ(box.db.read_streams(1), Programme_streams{});
}

TEST(Named_streams, all_of_a_programme_are_stored) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  EXPECT_EQ(named.merge(), 2 | 32);
  EXPECT_EQ(named.rows("SELECT es_pid, es_subtype, codec, languages, p1, p2, ca_sysid, ca_pid FROM estreams"),
            (Texts{"257|0|||0|0|256|1281", "258|0||est |0|0|256|1281", "259|-2147471359||cze|0|1|256|1281",
                   "259|-2147471358||cze|136|0|256|1281"}))
      << "as before, but for the second page of a language";
  EXPECT_EQ(named.tables(), (Texts{"stream_ca", "stream_detail", "stream_language"}));
  const Programme_streams stored = named.db.read_streams(1);
  Texts streams;
  for (const Stream_detail& stream : stored.streams)
    streams.push_back(formatted("%d ", stream.es_pid) + shown(stream));
  EXPECT_EQ(streams, (Texts{"257 video HEVC", "258 audio E-AC-3 est", "259 teletext cze/index/100 cze/subtitles/888"}));
  EXPECT_EQ(shown(stored.ca), (Texts{"0 0500 500", "0 0100 501", "102 0b00 502"}));
}

TEST(Named_streams, a_second_scan_of_the_same_changes_nothing) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  named.merge();
  const Texts before = named.rows("SELECT rowid, * FROM stream_language");
  named.db.clear_temp_tables(0);
  named.scan(pat({{1, 0x100}, {2, 0x200}}));
  named.scan(ONE, 0x100);
  EXPECT_EQ(named.merge(), 2) << "a service without a PCR PID counts as back";
  EXPECT_EQ(named.rows("SELECT rowid, * FROM stream_language"), before);
}

TEST(Named_streams, a_new_pmt_takes_the_place_of_the_old_one) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  named.scan(pmt(2, 0x201, {{0x33, 0x201}}), 0x200);
  named.merge();
  named.db.clear_temp_tables(0);
  named.run("UPDATE kanalid SET serv_type = 1");
  named.parser.init_cache_list(FREQ, SCAN_EIT);
  named.scan(pmt(1, 0x101, {{0x1B, 0x101}}, {}, 1), 0x100, SCAN_PMT);
  EXPECT_EQ(named.merge(SCAN_PMT), 16 | 32);
  EXPECT_EQ(named.rows("SELECT channel, es_pid, kind, codec FROM stream_detail ORDER BY channel"),
            (Texts{"1|257|video|H.264", "2|513|video|VVC"}));
  EXPECT_EQ(named.rows("SELECT * FROM stream_language"), Texts{});
  EXPECT_EQ(named.rows("SELECT * FROM stream_ca"), Texts{});
}

TEST(Named_streams, what_an_abandoned_scan_read_does_not_reach_the_next) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  named.db.clear_temp_tables(0);
  named.scan(pat({{1, 0x100}}));
  named.merge();
  EXPECT_THAT(named.tables(), IsEmpty());
}

TEST(Named_streams, rows_of_channels_that_the_host_has_deleted_go_with_the_next_change) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  named.merge();
  named.run("DELETE FROM kanalid");
  named.db.clear_temp_tables(0);
  named.scan(pat({{2, 0x200}}));
  named.scan(pmt(2, 0x201, {{0x33, 0x201}}), 0x200);
  named.merge();
  EXPECT_EQ(named.rows("SELECT channel, codec FROM stream_detail"), Texts{"3|VVC"});
  EXPECT_EQ(named.rows("SELECT * FROM stream_ca"), Texts{});
}

TEST(Named_streams, an_apostrophe_in_a_language_does_no_harm) {
  Named_bench named(true);
  named.scan(pmt(1, 0x101, {{0x03, 0x102, languages({{"'),", 0}})}}), 0x100);
  named.merge();
  EXPECT_EQ(named.rows("SELECT lang FROM stream_language"), Texts{"'),"});
}

TEST(Named_streams, tables_that_cannot_be_written_are_told_and_the_merge_is_done_all_the_same) {
  Named_bench named(true);
  named.scan(ONE, 0x100);
  named.run("CREATE VIEW stream_ca AS SELECT 1");
  EXPECT_THAT(messages_at(1, [&] { EXPECT_EQ(named.merge(), 2 | 32); }), HasSubstr("stream_ca"));
}

}  // namespace
