// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Texts in every character table, from a stream to the database.
#include "support/database.h"
#include "tools/guide_fixture.h"

namespace {

struct Name {
  const char* charset;
  const char* name;
  std::string any = {};      // what is stored, where it is not the name
  std::string latin_2 = {};  // with --charset ISO-8859-2, where it is not `any`
  std::string box = {};      // with --profile box, where it is not the name
};

// The box takes what iconv gives, else what was broadcast, up to the first zero byte.
const std::vector<Name> NAMES = {
    {"iso6937", "Õhtu €", "", "ÄOhtu ¤", "\xC4Ohtu \xA4"},
    {"iso8859-5", "Шпак"},
    {"iso8859-15", "Raha €"},
    {"0x10/2", "Počasí"},
    {"utf-16", "Öökull 😀", "", "", "\x11"},
    {"ksx1001", "한국방송", "", "", "\x12\xC7\xD1\xB1\xB9\xB9\xE6\xBC\xDB"},
    {"gb2312", "中国", "", "", "\x13\xD6\xD0\xB9\xFA"},
    {"gbk", "丂国", "", "", "\x13\x81\x40\xB9\xFA"},
    {"0x14/utf-16", "公視", "", "", "\x14\x51\x6C\x89\x96"},
    {"utf-8", "Öökull 😀", "", "", "\x15Öökull 😀"},
    {"silent/utf-8", "Öökull", "", "ĂĂśkull", ""},
    {"silent/iso8859-2", "Jihočeské", "JihoŁeskØ", "Jihočeské", "JihoŁeskØ"},
};

std::string first_of(std::initializer_list<std::string> texts) {
  const auto found = std::find_if(texts.begin(), texts.end(), [](const std::string& text) { return !text.empty(); });
  return found != texts.end() ? *found : "";
}

class Charsets_test : public Guide_fixture {
 protected:
  Charsets_test() { device_ = "box"; }
};

TEST_F(Charsets_test, names_are_stored_as_they_were_written) {
  std::string services;
  Words any, latin_2, box;
  for (const Name& one : NAMES) {
    const int number = static_cast<int>(any.size()) + 1;
    services += (number == 1 ? "" : ",") +
                service(number, number, one.name, R"(, "charset": ")" + std::string(one.charset) + "\"");
    any.push_back(first_of({one.any, one.name}));
    latin_2.push_back(first_of({one.latin_2, one.any, one.name}));
    box.push_back(first_of({one.box, one.name}));
  }
  const Words network = at_speed("x10", mux("506", services));
  const std::pair<Words, Words> cases[] = {
      {{}, any}, {{"--charset", "ISO-8859-2"}, latin_2}, {{"--profile", "box"}, box}};
  for (const auto& [options, names] : cases) {
    std::filesystem::remove(db_);
    ASSERT_EQ(run(network, joined({{"scan", "--freq", "506000000"}, options})).exit_code, 0);
    EXPECT_EQ(support::Other_connection(db_).rows("SELECT serv_name FROM kanalid ORDER BY pat_prnr"), names);
  }
}

TEST_F(Charsets_test, extended_texts_are_whole_although_they_are_cut_inside_letters) {
  const Words network = at_speed("x10", mux("506", service(1, 1, "Kuldnokk", R"(, "events": [{ "start": "now-5m",
      "duration": "2h", "name": "Ilm", "extended": { "room": 16, "torn": true, "text": "abcdefghijklmno\u0159k",
      "items": [{ "name": "Juht", "text": "J\u00fcri ja Mari ja Anu" }] } }])")));
  scan(network, {"506000000"});
  ASSERT_EQ(run(network, {"epg", "update", "--for", "60s"}).exit_code, 0);
  EXPECT_EQ(value(guide_, "SELECT ext_desc FROM epglist_lang"), "abcdefghijklmnořk");
  EXPECT_EQ(value(guide_, "SELECT ext_list FROM epglist_lang"), "Juht:Jüri ja Mari ja Anu\n");
  const Command_result shown =
      run_command({KELVO_COMMAND, "epg", "--format", "json", "--day", "2026-03-01", "--db", db_}, {{"TZ", "UTC0"}});
  EXPECT_THAT(shown.out, testing::ContainsRegex("\"name\": *\"Juht\",[[:space:]]*\"text\": *\"Jüri ja Mari ja Anu\""));
}

}  // namespace
