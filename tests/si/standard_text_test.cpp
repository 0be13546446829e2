// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// DVB texts read by the whole standard. The default's way with the same bytes: text_test.cpp.
#include <iconv.h>

#include "si/eit_lang.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;
using namespace std::string_literals;

namespace {

// Of a profile with Texts::STANDARD and this charset.
struct Standard_bench : Parser_bench {
  explicit Standard_bench(const std::string& charset = "") {
    Receiver_profile profile;
    profile.texts = Receiver_profile::Texts::STANDARD;
    profile.charset = charset;
    printed = messages_at(0, [&] { parser.parts().read_as(profile); });
  }
  std::string converted(std::string text) {
    printed = messages_at(0, [&] { EXPECT_EQ(parser.dvb_text_to_utf8(&text), &text); });
    return text;
  }
  EIT_lang* language(const char* code) { return parser.find_create_epglang(code); }
  std::string printed;
};

class Standard_text_test : public testing::Test, protected Standard_bench {};

struct Text_case {
  const char* legend;
  std::string text;
  std::string utf8;
};

const Text_case TEXTS[] = {
    // Selectors.
    {"01: ISO 8859-5", "\x01\xB6\xE3", "Жу"},
    {"02: ISO 8859-6", "\x02\xC7", "ا"},
    {"03: ISO 8859-7", "\x03\xC1\xDC", "Αά"},
    {"04: ISO 8859-8", "\x04\xE0", "א"},
    {"05: ISO 8859-9", "\x05\xDD\xF0", "İğ"},
    {"06: ISO 8859-10", "\x06\xBF", "ŋ"},
    {"07: ISO 8859-11, where AD is a letter", "\x07\xA1\xAD", "กญ"},
    {"08: reserved", "\x08 a\xE0", " a\uFFFD"},
    {"09: ISO 8859-13", "\x09\xF5\xF0", "õš"},
    {"0A: ISO 8859-14", "\x0A\xF0", "ŵ"},
    {"0B: ISO 8859-15", "\x0B\xA4\xF5", "€õ"},
    {"reserved ones", "\x0C"s + "b\xE4", "b\uFFFD"},
    {"10: ISO 8859-1", "\x10\0\1\xE9"s, "é"},
    {"10: ISO 8859-2", "\x10\0\2\xF8"s, "ř"},
    {"10: ISO 8859-3", "\x10\0\3\xA1"s, "Ħ"},
    {"10: ISO 8859-4", "\x10\0\4\xA2"s, "ĸ"},
    {"10: ISO 8859-5", "\x10\0\5\xB6"s, "Ж"},
    {"10: ISO 8859-6", "\x10\0\6\xC7"s, "ا"},
    {"10: ISO 8859-7", "\x10\0\7\xC1"s, "Α"},
    {"10: ISO 8859-8", "\x10\0\x08\xE0"s, "א"},
    {"10: ISO 8859-9", "\x10\0\x09\xF0"s, "ğ"},
    {"10: ISO 8859-10", "\x10\0\x0A\xBF"s, "ŋ"},
    {"10: ISO 8859-11", "\x10\0\x0B\xA1"s, "ก"},
    {"10: ISO 8859-13", "\x10\0\x0D\xF0"s, "š"},
    {"10: ISO 8859-14", "\x10\0\x0E\xF0"s, "ŵ"},
    {"10: ISO 8859-15", "\x10\0\x0F\xA4"s, "€"},
    {"10: there is no ISO 8859-12", "\x10\0\x0C"s + "a\xE9", "a\uFFFD"},
    {"10: nor 0", "\x10\0\0a\xE9"s, "a\uFFFD"},
    {"10: nor 16", "\x10\0\x10"s + "a\xE9", "a\uFFFD"},
    {"10: the second byte counts, too", "\x10\1\2a\xF8", "a\uFFFD"},
    {"10: cut", "\x10\0"s, ""},
    {"10: alone", "\x10", ""},
    {"11: UTF-16BE", "\x11\0A\x04\x16"s, "AЖ"},
    {"11: beyond the first plane", "\x11\xD8\x3D\xDE\x00\0!"s, "😀!"},
    {"11: half a pair", "\x11\xD8\x3D\0!\xDE\0\0!"s, "\uFFFD!\uFFFD!"},
    {"11: half a pair at the end", "\x11\0a\xD8\x3D"s, "a"},
    {"11: byte order mark", "\x11\xFE\xFF\x04\x16"s, "Ж"},
    {"11: the other byte order", "\x11\xFF\xFE\x16\x04"s, "Ж"},
    {"11: odd length", "\x11\0a\0"s, "a"},
    {"12: KS X 1001", "\x12\xB0\xA1 a", "가 a"},
    {"12: no pair", "\x12\xB0 a\xFF\xFE!", "\uFFFD a\uFFFD\uFFFD!"},
    {"12: cut inside a pair", "\x12\xB0\xA1\xB0", "가"},
    {"13: GB 2312", "\x13\xD6\xD0", "中"},
    {"13: GBK", "\x13\x81\x40\x90\x45", "丂怑"},
    {"14: UTF-16BE", "\x14\x4E\x2D\0A"s, "中A"},
    {"15: UTF-8", "\x15ř😀", "ř😀"},
    {"15: with byte order mark", "\x15\uFEFFř", "ř"},
    {"15: too long", "\x15\xE0\x80\xAF.", "\uFFFD\uFFFD\uFFFD."},
    {"an accent on a sign that takes none", "a\xC2\xE3.", "a\uFFFDª."},
    {"15: broken inside", "\x15"s + "a\xC3(\xE2\x82)\xC0\x80\xED\xA0\x80.",
     "a\uFFFD(\uFFFD)\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD."},
    {"15: cut", "\x15"s + "a\xE2\x82", "a"},
    {"1F: secret", "\x1F\1\x80\x12\x34", "\uFFFD[1F 01]"},
    {"1F: no encoding at all", "\x1F", ""},
    {"selector alone", "\x05", ""},

    // The default table.
    {"empty", "", ""},
    {"euro and currency sign", "\xA4 \xA8 $ #", "€ ¤ $ #"},
    {"D with stroke, not Eth", "\xE2\xF2\xF3", "Đđð"},
    {"undefined bytes",
     "a\xC0"
     "b\xC9"
     "c\xA6"
     "d\xD8"
     "e\xE5.",
     "a\uFFFD"
     "b\uFFFD"
     "c\uFFFD"
     "d\uFFFD"
     "e\uFFFD."},
    {"letters with accents are composed",
     "\xC2"
     "e\xC8O\xCAu\xCFr\xC4N\xCB"
     "c\xCD"
     "o\xCE"
     "a\xC7z\xC5u\xC6g\xC3s\xC1i",
     "éÖůřÑçőążūğŝì"},
    {"also those that 8859 does not have",
     "\xC2G\xC4"
     "e\xCAy\xC2\xF1",
     "Ǵẽẙǽ"},
    {"what is not composed keeps a mark", "\xC2q", "q\u0301"},
    {"an i without a dot gets the accent of one", "\xC2\xF5", "í"},
    {"accents alone", "\xC2 \xC8 ", "´¨"},
    {"an accent before something else",
     "\xC2\xC2"
     "a\xC8(",
     "\uFFFDá\uFFFD("},
    {"cut between accent and letter", "nakupov\xC2", "nakupov"},
    {"a Czech encoder's U with ring", "SV\xCA\xADJ", "SVŮJ"},

    // Control codes.
    {"emphasis and line break",
     "a\x86"
     "b\x87\x8A"
     "c",
     "ab\nc"},
    {"user-defined and reserved ones",
     "\x05"
     "a\x80\x92\x9F"
     "b",
     "ab"},
    {"in ISO 8859",
     "\x05\x86"
     "a\x87\x8A"
     "b",
     "a\nb"},
    {"in UTF-16", "\x11\xE0\x86\0a\xE0\x87\xE0\x8A\0b\0\x8A\0c"s, "a\nb\nc"},
    {"in UTF-8",
     "\x15\xEE\x82\x86"
     "a\xEE\x82\x87\xEE\x82\x8A"
     "b\xC2\x8A"
     "c\x8A"
     "d",
     "a\nb\nc\nd"},
    {"in pairs", "\x12\xE0\x86\xB0\xA1\xE0\x87\xE0\x8A\xB0\xA1", "가\n가"},
    {"in pairs of Chinese", "\x13\xE0\x8A\xD6\xD0", "\n中"},
    {"those of ASCII",
     "a\1b\x1B"
     "c\x7F"
     "d",
     "abcd"},
    {"line breaks and tab of ASCII", "a\r\nb\nc\rd\te", "a\nb\nc\nd e"},
    {"zero bytes", "a\0b\0"s, "ab"},
    {"zero bytes in front", "\0\0abc"s, "abc"},
    {"soft hyphens",
     "\x05"
     "a\xAD"
     "b",
     "ab"},
    {"soft hyphens in the default table",
     "a\xFF"
     "b",
     "ab"},
    {"soft hyphens in UTF-8",
     "\x15"
     "a\u00AD"
     "b",
     "ab"},
    {"hard blanks stay",
     "\x05"
     "a\xA0"
     "b",
     "a\u00A0b"},

    // UTF-8 that does not say so.
    {"one letter", "poča", "poča"},
    {"one sign of three bytes", "5 €", "5 €"},
    {"Cyrillic", "Новости", "Новости"},
    {"one Cyrillic letter could be two signs", "\xD2\xBB", "®»"},
    {"broken is no UTF-8",
     "é\xC2"
     "e",
     "\uFFFD‘é"},
    {"the same behind a selector is none", "\x05\xC3\xA9", "Ã©"},
};

TEST_F(Standard_text_test, every_text_becomes_utf_8_in_silence) {
  for (const Text_case& c : TEXTS) {
    EXPECT_EQ(converted(c.text), c.utf8) << c.legend;
    EXPECT_EQ(printed, "") << c.legend;
  }
}

TEST_F(Standard_text_test, is_of_any_length) {
  const std::string text(5000, '\xE4');
  EXPECT_EQ(converted("\x05" + text).size(), 10000u);
  EXPECT_EQ(printed, "");
}

bool is_utf8(std::string text) {
  static const iconv_t converter = iconv_open("UTF-32LE", "UTF-8");
  std::string out(text.size() * 4, '\0');
  char* in = text.data();
  char* to = out.data();
  size_t left = text.size(), room = out.size();
  return iconv(converter, &in, &left, &to, &room) == 0 && left == 0;
}

TEST_F(Standard_text_test, any_two_bytes_behind_any_selector_become_valid_utf_8) {
  Text_converter::Lines lines = Text_converter::Lines::BLANKS;
  for (unsigned selector = 0; selector < 0x21; ++selector)
    for (unsigned first = 0x20; first < 0x100; first += 3)
      for (unsigned second = 0; second < 0x100; second += 5) {
        std::string text = {static_cast<char>(selector), 'a', static_cast<char>(first), static_cast<char>(second), 'b'};
        parser.parts().text().convert(&text, lines);
        ASSERT_TRUE(is_utf8(text)) << selector << ' ' << first << ' ' << second;
        ASSERT_EQ(text.find_first_of("\0\x1B\n"s), std::string::npos);
      }
}

// --- Texts that announce no table ------------------------------------------------------------------------------------

TEST(Standard_texts, that_announce_no_table_are_in_the_one_that_the_host_names) {
  const struct {
    const char* charset;
    const char* text;
    const char* utf8;
  } cases[] = {
      {"ISO-8859-2", "\xF8\x8A", "ř\n"},
      {"WINDOWS-1250", "\x8A\xF8\x81.", "Šř\uFFFD."},
      {"UTF-8", "\xD2\xBB", "һ"},
      {"GB18030", "\xD6\xD0", "中"},
      {"ISO6937", "\xCFr", "ř"},
      {"ISO-8859-2", "\xC5\x99", "Ĺ"},  // although it looks like UTF-8; 0x99 is a control code
      {"ISO-8859-2", "\x05\xFD", "ı"},  // an announcement counts more
  };
  for (const auto& c : cases) {
    Standard_bench bench(c.charset);
    EXPECT_EQ(bench.converted(c.text), c.utf8) << c.charset << ' ' << c.text;
    EXPECT_EQ(bench.printed, "") << c.charset;
  }
}

TEST(Standard_texts, with_a_table_that_iconv_does_not_know_are_read_without_it_after_one_error) {
  Standard_bench bench("EBCDIC-ET");
  EXPECT_EQ(bench.printed, "ERROR: Cannot read texts in EBCDIC-ET, Invalid argument\n");
  EXPECT_EQ(bench.converted("\xCFr"), "ř");
  EXPECT_EQ(bench.printed, "");
}

TEST(Standard_texts, of_the_default_profile_know_no_charset) {
  Parser_bench bench;
  Receiver_profile profile;
  profile.charset = "ISO-8859-2";
  bench.parser.parts().read_as(profile);
  std::string text = "\xF8z";
  EXPECT_EQ(*bench.parser.dvb_text_to_utf8(&text), "łz");
}

// An SDT whose original_network_id is this.
Bytes sdt_of(unsigned original_network_id, const std::string& name) {
  const Bytes loop = service_descriptor(1, "Provider", name);
  return section(table::SDT_ACTUAL, TS_ID,
                 join({u16(original_network_id), {0xFF}, u16(7), {0xFF}, status_loop(4, 0, loop)}));
}

Texts names_with(Parser_bench& bench, unsigned original_network_id) {
  bench.scan(pat({{7, 0x100}}));
  bench.scan(sdt_of(original_network_id, "M\xFCnchen"));
  return bench.rows("SELECT serv_name FROM kanalid_scan_0");
}

TEST(Standard_texts, without_a_selector_are_those_of_the_standard_whatever_the_network) {
  for (const unsigned network : {0x0085u, 0x2114u}) {
    Standard_bench standard;
    EXPECT_THAT(names_with(standard, network), ElementsAre("Mþnchen")) << network;
    Standard_bench named("ISO-8859-2");
    EXPECT_THAT(names_with(named, network), ElementsAre("München")) << network;
    Parser_bench plain;
    EXPECT_THAT(names_with(plain, network), ElementsAre("Mþnchen")) << network;
  }
}

// --- Names and descriptions ------------------------------------------------------------------------------------------

TEST_F(Standard_text_test, line_breaks_are_blanks_in_names_and_stay_in_descriptions) {
  parse(short_event("est", "Two\x8Alines", "Two\x8Alines"), 1);
  EXPECT_EQ(language("est")->ev_name, "Two lines");
  EXPECT_EQ(language("est")->ev_desc, "Two\nlines");
}

TEST_F(Standard_text_test, what_is_stored_of_two_byte_texts_is_whole) {
  scan(pat({{7, 0x100}}));
  scan(sdt_of(0x20, "\x11\0R\0\xE4\0d\0i\0o"s));
  EXPECT_THAT(rows("SELECT serv_name FROM kanalid_scan_0"), ElementsAre("Rädio"));
}

// --- Extended texts --------------------------------------------------------------------------------------------------

Bytes extended(int number, int last, const std::vector<std::pair<std::string, std::string>>& items,
               const std::string& text) {
  const Bytes entries = each(items, [](const auto& item) { return join({sized(item.first), sized(item.second)}); });
  return descriptor(tag::EXTENDED_EVENT,
                    join({u8(number << 4 | last), bytes("ces"), u8(entries.size()), entries, sized(text)}));
}

struct Extended_case {
  const char* legend;
  std::vector<Bytes> parts;
  std::string plain;     // long text, then ext_list behind a bar
  std::string standard;  // the same
};

const std::vector<Extended_case> EXTENDED = {
    {"an accent and its letter in two parts",
     {extended(0, 1, {}, "po\xCF"), extended(1, 1, {}, "cas\xC2i")},
     "počasí|",
     "počasí|"},
    {"twice in a row",
     {extended(0, 2, {}, "\xC8"), extended(1, 2, {}, "o\xCF"), extended(2, 2, {}, "r")},
     "öř|",
     "öř|"},
    {"with a part without text between them",
     {extended(0, 2, {}, "po\xCF"), extended(1, 2, {{"A", "1"}}, ""), extended(2, 2, {}, "cas")},
     "počas|AA:1,",
     "počas|A:1\n"},
    {"no part behind it", {extended(0, 1, {}, "a\xCF")}, "a\xCF|", "a|"},
    {"in the last part", {extended(0, 1, {}, "a"), extended(1, 1, {}, "b\xCF")}, "ab\xCF|", "ab|"},
    {"the further part has a selector", {extended(0, 1, {}, "a\xCF"), extended(1, 1, {}, "\5\xFC")}, "a\xCFü|", "aü|"},
    {"no accent behind a selector", {extended(0, 1, {}, "\5b\xCF"), extended(1, 1, {}, "cas")}, "bÏcas|", "bÏcas|"},
    {"parts that announce different tables",
     {extended(0, 1, {}, "\5\xFC"), extended(1, 1, {}, "\1\xB6")},
     "üЖ|",
     "üЖ|"},
    {"another order",
     {extended(1, 1, {{"B", "2"}}, "cas"), extended(0, 1, {{"A", "1"}}, "po\xCF")},
     "caspo\xCF|BB:2,AA:1,",
     "počas|A:1\nB:2\n"},
    {"repeated",
     {extended(0, 1, {{"A", "1"}}, "a"), extended(0, 1, {{"A", "1"}}, "a"), extended(1, 1, {}, "b")},
     "aab|AA:1,AA:1,",
     "ab|A:1\n"},
    {"UTF-8 that is cut",
     {extended(0, 1, {}, "\x15\xC5"), extended(1, 1, {}, "\x15\x99.")},
     "\x15\xC5\x15\x99.|",
     "ř.|"},
    {"UTF-16 that is cut", {extended(0, 1, {}, "\x11\x01"), extended(1, 1, {}, "\x11\x59")}, "\x11\1\x11\x59|", "ř|"},
    {"an item in two parts",
     {extended(0, 1, {{"Hraj\xC2i:", "Ji\xCF"}}, ""), extended(1, 1, {{"", "r\xC2i"}, {"B", "2"}}, "")},
     "|Hrají:Hrají:"
     ":Ji\xCF,:rí,BB:2,",
     "|Hrají:Jiří\nB:2\n"},
};

TEST(Extended_texts_of_events, are_joined_before_they_are_read) {
  for (const Extended_case& c : EXTENDED) {
    SCOPED_TRACE(c.legend);
    Parser_bench plain;
    Standard_bench standard;
    for (const Bytes& part : c.parts) {
      plain.parse(part, 1);
      EXPECT_EQ(messages_at(0, [&] { standard.parse(part, 1); }), "");
    }
    const auto kept = [](Parser_bench& bench) {
      const EIT_lang* language = bench.parser.find_create_epglang("ces");
      return language->ext_desc + "|" + language->ext_list;
    };
    EXPECT_EQ(kept(plain), c.plain);
    EXPECT_EQ(kept(standard), c.standard);
  }
}

TEST(Extended_texts_of_events, that_are_cut_are_no_error_of_the_default) {
  Parser_bench plain;
  EXPECT_EQ(messages_at(0,
                        [&] {
                          plain.parse(extended(0, 1, {}, "po\xCF"), 1);
                          plain.parse(extended(1, 1, {}, "cas"), 1);
                        }),
            "");
}

TEST_F(Standard_text_test, of_a_part_that_comes_twice_the_first_counts) {
  parse(extended(0, 1, {{"Director", "A"}}, "first"), 1);
  parse(extended(0, 1, {{"Director", "B"}}, "second"), 1);
  EXPECT_EQ(language("ces")->ext_desc, "first");
  EXPECT_THAT(language("ces")->items, ElementsAre(std::pair("Director"s, "A"s)));
}

TEST_F(Standard_text_test, items_are_pairs_each_once) {
  parse(extended(0, 1, {{"Director", "A"}, {"Cast", "B, "}, {"", "C"}}, ""), 1);
  parse(extended(1, 1, {{"", ", D"}, {"Director", "A"}, {"", ""}, {"Director", "E"}}, ""), 1);
  EXPECT_THAT(language("ces")->items,
              ElementsAre(std::pair("Director"s, "A"s), std::pair("Cast"s, "B, C, D"s), std::pair("Director"s, "E"s)));
}

TEST_F(Standard_text_test, languages_do_not_mix) {
  parse(extended(0, 1, {}, "po\xCF"), 1);
  Bytes other = extended(0, 0, {}, "x");
  other[3] = 's';
  parse(other, 1);
  parse(extended(1, 1, {}, "cas"), 1);
  EXPECT_EQ(language("ces")->ext_desc, "počas");
  EXPECT_EQ(language("ses")->ext_desc, "x");
}

// --- Recordings ------------------------------------------------------------------------------------------------------

std::string from_hex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

Texts split(const std::string& line) {
  Texts fields;
  std::istringstream in(line);
  for (std::string field; std::getline(in, field, '\t');)
    fields.push_back(field);
  // An empty field at the end of the line.
  if (!line.empty() && line.back() == '\t')
    fields.emplace_back();
  return fields;
}

struct Recording {
  const char* file;
  int names;   // different ones
  int events;  // different ones
};
void PrintTo(const Recording& recording, std::ostream* out) {
  *out << recording.file;
}

class Recorded_texts : public testing::TestWithParam<Recording> {
 protected:
  // All that the reference decoder reads, hex decoded behind the first field.
  std::vector<Texts> reference() {
    const std::string command =
        "python3 '" KELVO_SOURCE_DIR "/tests/si/reference_texts.py' '" + support::capture_file(GetParam().file) + "'";
    std::vector<Texts> all;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
      return all;
    char* line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, pipe) > 0) {
      Texts fields = split(std::string(line, std::strcspn(line, "\n")));
      for (size_t i = 1; i < fields.size(); ++i)
        fields[i] = from_hex(fields[i]);
      all.push_back(fields);
    }
    std::free(line);
    EXPECT_EQ(pclose(pipe), 0);
    return all;
  }
};

// What the reference has of an event, as its fields are.
Texts fields_of(const By_language<EIT_lang>& texts) {
  Texts fields;
  for (const EIT_lang* language : texts.list()) {
    for (const std::string& text : {language->lang, language->ev_name, language->ev_desc, language->ext_desc,
                                    std::to_string(language->items.size())})
      fields.push_back(text);
    for (const auto& [description, item] : language->items) {
      fields.push_back(description);
      fields.push_back(item);
    }
  }
  return fields;
}

TEST_P(Recorded_texts, are_what_another_decoder_reads) {
  if (support::capture_file(GetParam().file).empty())
    GTEST_SKIP() << "no recordings here";
  Standard_bench bench;
  int names = 0, events = 0;
  for (Texts& fields : reference()) {
    const Texts expected(fields.begin() + 2, fields.end());
    Texts found;
    if (fields[0] == "name") {
      ++names;
      found.push_back(bench.converted(fields[1]));
    } else {
      ++events;
      Found& collected = bench.parser.parts().found_by_hand();
      collected.event.reset();
      const ConditionalAccessSection holder(cat(Bytes(fields[1].begin(), fields[1].end())).data());
      for (Descriptor* descriptor : *holder.getDescriptors())
        bench.parser.parse_descriptor_info(descriptor, 1);
      found = fields_of(collected.event_at_hand().texts);
    }
    EXPECT_EQ(found, expected) << fields[0];
    for (const std::string& text : found)
      EXPECT_EQ(text.find("\uFFFD"), std::string::npos) << text;
  }
  EXPECT_EQ(names, GetParam().names);
  EXPECT_EQ(events, GetParam().events);
}

INSTANTIATE_TEST_SUITE_P(
    Recorded, Recorded_texts,
    testing::Values(Recording{"cz_db_mux24_2023.si.ts", 21, 787}, Recording{"eit_hu_2024.ts", 0, 46},
                    Recording{"eit_pl_2023_utf8.ts", 0, 5}, Recording{"eit_pl_2024_8859_13.ts", 0, 53},
                    Recording{"fr_r4_paris_2019_si.ts", 53, 269}, Recording{"fr_tnt_2018_all.ts", 3, 9},
                    Recording{"gr_crete_2023_noisy.si.ts", 24, 717}, Recording{"it_mediaset_2018_psi.ts", 22, 0},
                    Recording{"it_rai_2022.si.ts", 26, 13}, Recording{"nit_cz_mux21.ts", 1, 0}),
    [](const auto& row) {
      std::string name = row.param.file;
      std::replace(name.begin(), name.end(), '.', '_');
      return name;
    });

}  // namespace
