// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/cli/csv.h"
#include "tools/command_fixture.h"
#include "tools/epg/component_words.h"
#include "tools/epg/episode.h"
#include "tools/epg/event_words.h"
#include "tools/epg/item_words.h"
#include "tools/epg/language_code.h"
#include "tools/epg/xmltv.h"

// The guide as other programs read it: what the words of its events mean, and each format, read by a program that it is
// for where that is installed.

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* DTD = "/usr/share/xmltv/xmltv.dtd";
constexpr const char* ISO_639 = "/usr/share/iso-codes/json/iso_639-2.json";
constexpr const char* PYTHON = "/usr/bin/python3";  // the one that Debian's packages are for

bool is_there(const char* file) {
  return access(file, R_OK) == 0;
}
bool has_module(const std::string& name) {
  return is_there(PYTHON) && run_command({PYTHON, "-c", "import " + name}).exit_code == 0;
}

TEST(Language_code, has_two_letters_where_the_language_has_them) {
  const struct {
    const char* broadcast;
    const char* code;
  } cases[] = {
      {"est", "et"}, {"EST", "et"}, {"ger", "de"}, {"deu", "de"},  {"fre", "fr"},     {"cze", "cs"},    {"scr", "hr"},
      {"scc", "sr"}, {"gre", "el"}, {"zul", "zu"}, {"qaa", "qaa"}, {"gsw", "gsw"},    {"und", ""},      {"mul", ""},
      {"", ""},      {"et", ""},    {"e t", ""},   {"<b>", ""},    {"\xC3\xB5t", ""}, {"estonian", ""}, {"rae", "rae"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(language_code(c.broadcast), c.code) << c.broadcast;
}

TEST(Language_code, agrees_with_the_list_of_the_registrar) {
  if (!is_there(ISO_639))
    GTEST_SKIP() << "needs iso-codes";
  const json list = json::parse(support::read_file(ISO_639));
  int pairs = 0;
  for (const json& language : list["639-2"]) {
    for (const char* kind : {"alpha_3", "bibliographic"}) {
      if (!language.contains("alpha_2") || !language.contains(kind))
        continue;
      ++pairs;
      EXPECT_EQ(language_code(language[kind].get<std::string>()), language["alpha_2"].get<std::string>());
    }
  }
  EXPECT_GT(pairs, 180);
}

Guide_event event_of(const std::string& title, const std::string& description,
                     const std::vector<std::pair<std::string, std::string>>& items = {}) {
  Guide_event event;
  event.texts = {{"est", title, description, "", items}};
  return event;
}

TEST(Episode, is_told_where_it_is_certain) {
  const struct {
    const char* title;
    const char* description;
    Episode episode;
  } cases[] = {
      {"Sari S2 E3", "", {"S2 E3", 2, 3, 0}},
      {"Sari s02e03", "", {"s02e03", 2, 3, 0}},
      {"Sari", "Text. (S1 Ep3/6)", {"S1 Ep3/6", 1, 3, 6}},
      {"Sari", "S12, Ep 103. Text", {"S12, Ep 103", 12, 103, 0}},
      {"Sari", "Series 2, episode 3 of 10. Text", {"Series 2, episode 3 of 10", 2, 3, 10}},
      {"Sari", "Staffel 2, Folge 3 von 10", {"Staffel 2, Folge 3 von 10", 2, 3, 10}},
      {"Série", "Saison 1 : \xC3\xA9pisode 4", {"Saison 1 : \xC3\xA9pisode 4", 1, 4, 0}},
      {"Serial, sezon 3, odc. 12", "", {"sezon 3, odc. 12", 3, 12, 0}},
      {"Sari", "T2 Ep4", {"T2 Ep4", 2, 4, 0}},
      {"Folge 7", "", {"Folge 7", 0, 7, 0}},
      {"Sari", "Folge 7: Der Fund", {"Folge 7", 0, 7, 0}},
      {"Σειρά", "Ενημέρωση Επ. 13/54", {"Επ. 13/54", 0, 13, 54}},
      {"Sari (3/6)", "", {"3/6", 0, 0, 0}},
      {"Sari", "Text. (3/6).", {"3/6", 0, 0, 0}},
      {"Sari", "3/6. Text", {"3/6", 0, 0, 0}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(find_episode(event_of(c.title, c.description)), c.episode) << c.title << ", " << c.description;
}

TEST(Episode, is_not_told_where_it_may_be_something_else) {
  const Words titles = {"8 1/2",
                        "Les 400 coups",
                        "E 605",
                        "T 34",
                        "Bones 5",
                        "Apollo 13",
                        "24/7",
                        "(9/6) Film",
                        "Film (9/6)",
                        "Episode IV",
                        "S 0 E 1",
                        "S1",
                        "Kiss2 E3x",
                        "Ep",
                        "Season of Ep 100000",
                        "S99999 E99999",
                        "Hits 1 E 2x3",
                        "Classe2 Ep3liiv",
                        "Episode 123456"};
  for (const std::string& title : titles)
    EXPECT_EQ(find_episode(event_of(title, "")), std::nullopt) << title;
  for (const std::string text : {"In Folge 3 sehen wir", "Um 3/6 mehr.", "1/2 Liter Milch", "(1/2) Liter"})
    EXPECT_EQ(find_episode(event_of("Sari", text)), std::nullopt) << text;
}

TEST(Episode, is_taken_from_items_first) {
  EXPECT_EQ(find_episode(event_of("S9 E9", "", {{"Staffel", "2"}, {"Folge", "3/10"}})), (Episode{"S2E3/10", 2, 3, 10}));
  EXPECT_EQ(find_episode(event_of("Sari", "", {{"Episode Number", "14"}})), (Episode{"14", 0, 14, 0}));
  EXPECT_EQ(find_episode(event_of("Sari", "", {{"Episode", "The one with 3"}, {"Season", "two"}})), std::nullopt);
}

TEST(Episode, is_looked_for_in_the_beginning_of_a_text_of_any_length) {
  const std::string noise(100'000, 'S');
  EXPECT_EQ(find_episode(event_of("Sari", noise + " S1 E2")), std::nullopt);
  EXPECT_EQ(find_episode(event_of("Sari", "S1 E2 " + noise))->number, 2);
}

// Names are told apart in the command's locale.
class Item_words : public testing::Test {
 protected:
  void SetUp() override { (void)setlocale(LC_CTYPE, "C.UTF-8"); }
  void TearDown() override { (void)setlocale(LC_CTYPE, before_.c_str()); }
  const std::string before_ = setlocale(LC_CTYPE, nullptr);
};

TEST_F(Item_words, people_are_found_in_their_languages) {
  const struct {
    const char* name;
    const char* text;
    std::vector<Person> people;
  } cases[] = {
      {"Director", "Ann Lee", {{Item_kind::DIRECTOR, "Ann Lee", ""}}},
      {"RE\u017DISS\u00D6\u00D6R", "Liis Kask.", {{Item_kind::DIRECTOR, "Liis Kask", ""}}},
      {"Darsteller",
       "Ann Lee (Mary, 3), John Oak; Bob",
       {{Item_kind::ACTOR, "Ann Lee", "Mary, 3"}, {Item_kind::ACTOR, "John Oak", ""}, {Item_kind::ACTOR, "Bob", ""}}},
      {"\u0412 \u0440\u043E\u043B\u044F\u0445", "A, B", {{Item_kind::ACTOR, "A", ""}, {Item_kind::ACTOR, "B", ""}}},
      {"Starring", "Robert Oak, Jr., Ann", {{Item_kind::ACTOR, "Robert Oak Jr.", ""}, {Item_kind::ACTOR, "Ann", ""}}},
      {"Actors", "Ann (unclosed, Bob", {{Item_kind::ACTOR, "Ann (unclosed, Bob", ""}}},
      {"Presented by", "Ann,, ;", {{Item_kind::PRESENTER, "Ann", ""}}},
      {"Actors", ", ; ()", {}},
      {"Actors", "", {}},
      {"Music", "Ann Lee", {}},
      {"Mit", "Ann Lee", {}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(people_of(event_of("", "", {{c.name, c.text}})), c.people) << c.name << ": " << c.text;
  EXPECT_EQ(people_of(event_of("", "", {{"Cast", "Nobody, " + std::string(100, 'x')}})), std::vector<Person>{});
  const Person ann{Item_kind::DIRECTOR, "Ann", ""}, bob{Item_kind::ACTOR, "Bob", ""};
  EXPECT_EQ(people_of(event_of("", "", {{"Cast", "Bob"}, {"Director", "Ann"}, {"Regie", "Ann"}})),
            (std::vector{ann, bob}))
      << "each once, directors first";
}

TEST(Component_words, name_what_the_numbers_mean) {
  const struct {
    int content, extension, type;
    Component_words words;
  } cases[] = {
      {1, 15, 0x01, {"video", "4:3", "SD", "", "", ""}},
      {1, 15, 0x03, {"video", "16:9", "SD", "", "", ""}},
      {1, 15, 0x0B, {"video", "16:9", "HD", "", "", ""}},
      {5, 15, 0x0C, {"video", "wide", "HD", "", "", ""}},
      {5, 15, 0x11, {"video", "", "", "", "", ""}},
      {5, 15, 0x83, {"video", "16:9", "HD", "", "", ""}},
      {9, 0, 0x03, {"video", "", "HD", "", "", ""}},
      {9, 0, 0x05, {"video", "", "UHD", "", "", ""}},
      {9, 1, 0x02, {"audio", "", "", "stereo", "AC-4", ""}},
      {9, 7, 0x02, {}},
      {2, 15, 0x01, {"audio", "", "", "mono", "", ""}},
      {2, 15, 0x03, {"audio", "", "", "stereo", "", ""}},
      {2, 15, 0x40, {"audio", "", "", "", "", "audio description"}},
      {6, 15, 0x05, {"audio", "", "", "surround", "", ""}},
      {6, 15, 0x41, {"audio", "", "", "", "", "hard of hearing"}},
      {4, 15, 0x42, {"audio", "", "", "stereo", "AC-3", ""}},
      {4, 15, 0xC5, {"audio", "", "", "surround", "E-AC-3", ""}},
      {4, 15, 0x50, {"audio", "", "", "mono", "AC-3", "audio description"}},
      {7, 15, 0x01, {"audio", "", "", "", "DTS", ""}},
      {3, 15, 0x01, {"subtitles", "", "", "", "", ""}},
      {3, 15, 0x02, {"teletext", "", "", "", "", ""}},
      {3, 15, 0x14, {"subtitles", "", "", "", "", ""}},
      {3, 15, 0x24, {"subtitles", "", "", "", "", "hard of hearing"}},
      {3, 15, 0x30, {"sign language", "", "", "", "", ""}},
      {0, 0, 0, {}},
      {15, 15, 255, {}},
      {-1, -1, -1, {}},
      {1, 15, -3, {"video", "", "", "", "", ""}},
  };
  for (const auto& c : cases) {
    const Component_words words = component_words({1, c.content, c.extension, c.type, "", ""});
    EXPECT_EQ((Words{words.kind, words.aspect, words.quality, words.sound, words.codec, words.role}),
              (Words{c.words.kind, c.words.aspect, c.words.quality, c.words.sound, c.words.codec, c.words.role}))
        << c.content << "/" << c.extension << "/" << c.type;
  }
}

TEST(Paragraphs, repeat_nothing) {
  const struct {
    const char* description;
    const char* extended;
    Words paragraphs;
  } cases[] = {
      {"", "", {}},
      {"Short.", "", {"Short."}},
      {"", "Long.", {"Long."}},
      {"Short.", "Long.", {"Short.", "Long."}},
      {"Short.", "Short. And more.", {"Short. And more."}},
      {"Short  begin...", "Short begin of more.", {"Short begin of more."}},
      {"Short beg\u2026", "Short begin of more.", {"Short begin of more."}},
      {"Inside.", "Before. Inside. Behind.", {"Before. Inside. Behind."}},
      {"All of it, and more.", "All of it", {"All of it, and more."}},
      {"Same", "Same", {"Same"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(paragraphs({"est", "", c.description, c.extended, {}}), c.paragraphs) << c.description << c.extended;
}

TEST(Csv, is_quoted_where_it_must_be_and_runs_nothing) {
  EXPECT_EQ(csv_line({"a", "", "b c", "d,e", "f\"g", "h\r\ni", "-5", "5"}),
            "a,,b c,\"d,e\",\"f\"\"g\",\"h\r\ni\",-5,5\r\n");
  EXPECT_EQ(csv_line({"=1+1", "+1", "-x", "@A1", "-", "\t=1", "'", "\uFF1D1"}),
            "'=1+1,'+1,'-x,'@A1,'-,'\t=1,','\uFF1D1\r\n");
  EXPECT_EQ(csv_line({"=HYPERLINK(\"x\",\"y\")"}), "\"'=HYPERLINK(\"\"x\"\",\"\"y\"\")\"\r\n");
}

TEST(End_at_the_next, cuts_what_overlaps) {
  std::vector<Guide_event> events(5);
  const int starts[] = {0, 10, 100, 110, 200};
  const int channels[] = {1, 2, 1, 1, 1};
  const int durations[] = {150, 500, 10, 50, 0};
  for (size_t i = 0; i < events.size(); ++i) {
    events[i].start = starts[i];
    events[i].channel = channels[i];
    events[i].duration = durations[i];
  }
  end_at_the_next(&events);
  std::vector<int> found;
  for (const Guide_event& event : events)
    found.push_back(event.duration);
  EXPECT_THAT(found, ElementsAre(100, 500, 10, 50, 0));
}

class Guide_formats : public Command_fixture {
 protected:
  void SetUp() override {
    make_prepared_db(db_);
    add_event_tables(guide_);
  }
  void add_rich_events() const { ::add_rich_events(guide_); }
  Command_result epg(const Words& arguments) const {
    return run_command(joined({{KELVO_COMMAND, "epg", "--db", db_}, arguments}), {{"TZ", "UTC"}});
  }
  Command_result python(const std::string& program, const Words& arguments) const {
    return run_command(joined({{PYTHON, "-c", program}, arguments}));
  }
};

TEST_F(Guide_formats, items_come_as_the_pairs_that_are_stored) {
  add_rich_events();
  EXPECT_THAT(epg({"--channel", "#1", "--show", "--lang", "est"}).out, HasSubstr("  Muusika: heli: a: b\n"));
  const json events = json::parse(epg({"--format", "json"}).out)["events"];
  const json& items = events.at(0)["texts"].at(0)["items"];
  ASSERT_EQ(items.size(), 4U);
  EXPECT_EQ(items[0], json({{"name", "Režissöör"}, {"text", "Liis Kask"}}));
  EXPECT_EQ(items[2], json({{"name", "Muusika: heli"}, {"text", "a: b"}}));
  run_sql(guide_, "DELETE FROM event_item;");
  const json without = json::parse(epg({"--format", "json"}).out)["events"];
  EXPECT_EQ(without.at(0)["texts"].at(0)["items"], json::array({{{"name", "wrong"}, {"text", "from the list"}}}));
}

TEST_F(Guide_formats, events_in_full_have_all_that_is_stored) {
  add_rich_events();
  EXPECT_EQ(epg({"--channel", "#1", "--show", "--lang", "est"}), prints(R"(Üle keskööfilm
  12 Kuldnokk, Saturday 2035-03-24 22:30-00:00, 90 min
  Movie/Drama: Comedy, Special characteristics: Black and white, from 12 years (EST)

  Komöödia, mis; ei lõpe. Ega alga.

  Režissöör: Liis Kask
  Osades: Ann (Mari), Jüri
  Muusika: heli: a: b
  Aasta: 1994

  Over midnight (eng)

  Short. S2 Ep3/6

  Episode title: The bag
  Country: Estonia

  Episode: season 2, episode 3 of 6
  Picture: 16:9, HD
  Sound: est, surround, AC-3, Dolby; est, audio description
  Subtitles: rus; EST, hard of hearing
  Broadcast: scrambled


=1+1
  12 Kuldnokk, Sunday 2035-03-25 00:00-01:00, 1 h
  from 5 years (EST), from 8 years (FIN)

  "Да"

  Picture: 4:3, SD
  Sound: original, stereo
)"));
  // What it says of running holds while it is on.
  run_sql(guide_, "UPDATE epglist SET start_epoch = strftime('%s', 'now') - 60 WHERE entry = 1");
  EXPECT_THAT(epg({"--now", "--show"}).out, HasSubstr("\n  Broadcast: running, scrambled\n"));
}

TEST_F(Guide_formats, xmltv_has_all_that_is_stored) {
  add_rich_events();
  const Command_result result = epg({"--format", "xmltv", "--channel", "#1"});
  EXPECT_EQ(result, prints(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE tv SYSTEM "xmltv.dtd">
<tv generator-info-name="kelvo/)" KELVO_VERSION R"(">
  <channel id="1001.7.9.dvb.guide">
    <display-name>Kuldnokk</display-name>
    <display-name lang="en">Starling</display-name>
    <display-name>12</display-name>
  </channel>
  <programme start="20350324223000 +0000" stop="20350325000000 +0000" channel="1001.7.9.dvb.guide">
    <title lang="et">Üle keskööfilm</title>
    <title lang="en">Over midnight</title>
    <sub-title lang="en">The bag</sub-title>
    <desc lang="et">Komöödia, mis; ei lõpe. Ega alga.
Muusika: heli: a: b</desc>
    <desc lang="en">Short. S2 Ep3/6</desc>
    <credits>
      <director>Liis Kask</director>
      <actor role="Mari">Ann</actor>
      <actor>Jüri</actor>
    </credits>
    <date>1994</date>
    <category lang="en">Movie/Drama</category>
    <category lang="en">Comedy</category>
    <category lang="en">Black and white</category>
    <language>et</language>
    <country lang="en">Estonia</country>
    <episode-num system="xmltv_ns">1.2/6.</episode-num>
    <episode-num system="onscreen">S2 Ep3/6</episode-num>
    <episode-num system="crid">crid://meedia.ee/p</episode-num>
    <episode-num system="crid-series">crid://meedia.ee/s</episode-num>
    <video>
      <colour>no</colour>
      <aspect>16:9</aspect>
      <quality>HDTV</quality>
    </video>
    <audio>
      <stereo>dolby digital</stereo>
    </audio>
    <subtitles type="teletext">
      <language>ru</language>
    </subtitles>
    <subtitles type="teletext">
      <language>et</language>
    </subtitles>
    <rating system="DVB">
      <value>12</value>
    </rating>
  </programme>
  <programme start="20350325000000 +0000" stop="20350325010000 +0000" channel="1001.7.9.dvb.guide">
    <title lang="ru">=1+1</title>
    <desc lang="ru">"Да"</desc>
    <video>
      <aspect>4:3</aspect>
    </video>
    <audio>
      <stereo>stereo</stereo>
    </audio>
    <rating system="DVB-EST">
      <value>5</value>
    </rating>
    <rating system="DVB-FIN">
      <value>8</value>
    </rating>
  </programme>
</tv>
)"));
  if (!is_there(DTD) || !is_there("/usr/bin/tv_validate_file"))
    GTEST_SKIP() << "needs xmltv-util";
  support::write_file(dir_.file("guide.xml"), result.out);
  EXPECT_EQ(run_command({"/usr/bin/tv_validate_file", "--dtd-file", DTD, dir_.file("guide.xml")}),
            prints("Validated ok.\n"));
}

// The same service from two transmitters, and services of multiplexes that never said their ids.
TEST_F(Guide_formats, xmltv_has_an_id_once_and_the_same_in_every_database) {
  add_rich_events();
  run_sql(db_, R"(
      INSERT INTO kanalid (channel, freq, pat_prnr, orig_network_id, tstream_id, lcn, serv_name, serv_type, scan_state)
      VALUES (90, 514000000, 1001, 9, 7, 1, 'Teine saatja', 1, 1), (91, 522000000, 1001, 0, 0, 2, 'Nimeta', 1, 1),
             (92, 530000000, 1001, 0, 0, 4, 'Nimeta', 1, 1);)");
  const std::string out = epg({"--format", "xmltv"}).out;
  EXPECT_EQ(support::count_of(out, "<channel id=\"1001.7.9.dvb.guide\">"), 1U);
  EXPECT_THAT(out, Not(HasSubstr("Teine saatja")));
  EXPECT_THAT(out, HasSubstr("<channel id=\"1001.522000000hz.dvb.guide\">"));
  EXPECT_THAT(out, HasSubstr("<channel id=\"1001.530000000hz.dvb.guide\">"));
  run_sql(guide_, "UPDATE epglist SET channel = 90;");
  EXPECT_THAT(epg({"--format", "xmltv"}).out, HasSubstr("Teine saatja")) << "whoever has the events";
  run_sql(db_, "DELETE FROM kanalid WHERE channel = 90; UPDATE kanalid SET channel = 77 WHERE channel = 1;");
  run_sql(guide_, "UPDATE epglist SET channel = 77;");
  EXPECT_EQ(support::count_of(epg({"--format", "xmltv"}).out, "channel=\"1001.7.9.dvb.guide\""), 2U);
}

TEST_F(Guide_formats, json_follows_its_schema) {
  if (!has_module("jsonschema"))
    GTEST_SKIP() << "needs python3-jsonschema";
  const std::string schema = std::string(KELVO_SCHEMAS) + "/guide.schema.json";
  const auto check = [&](const std::string& text) {
    support::write_file(dir_.file("guide.json"), text);
    return run_command({PYTHON, "-W", "ignore", "-m", "jsonschema", "-i", dir_.file("guide.json"), schema});
  };
  EXPECT_EQ(check(epg({"--format", "json"}).out), prints(""));
  add_rich_events();
  const std::string whole = epg({"--format", "json"}).out;
  EXPECT_EQ(check(whole), prints(""));
  json wrong = json::parse(whole);
  wrong["events"][0].erase("episode");
  EXPECT_THAT(check(wrong.dump()), ends(1, testing::_, HasSubstr("'episode' is a required property")));
  wrong = json::parse(whole);
  wrong["version"] = 2;
  EXPECT_EQ(check(wrong.dump()).exit_code, 1);
}

TEST_F(Guide_formats, csv_is_a_line_an_event) {
  EXPECT_EQ(support::lines_of(epg({"--format", "csv"}).out).size(), 1U);
  add_rich_events();
  EXPECT_EQ(
      epg({"--format", "csv"}),
      prints("channel,channel_id,lcn,name,event_id,start,end,start_epoch,duration,language,title,description,extended,"
             "items,episode,genres,ages,series_crid,programme_crid\r\n"
             "1,1001.7.9.dvb.guide,12,Kuldnokk,11,2035-03-24 22:30:00,2035-03-25 00:00:00,2058388200,5400,est,"
             "Üle keskööfilm,\"Komöödia, mis; ei lõpe.\",\"Komöödia, mis; ei lõpe. Ega alga.\",\"Režissöör: Liis Kask; "
             "Osades: Ann (Mari), Jüri; Muusika: heli: a: b; Aasta: 1994\",S2 Ep3/6,Movie/Drama; Special "
             "characteristics,12 (EST),crid://meedia.ee/s,crid://meedia.ee/p\r\n"
             "1,1001.7.9.dvb.guide,12,Kuldnokk,12,2035-03-25 00:00:00,2035-03-25 01:00:00,2058393600,3600,rus,'=1+1,"
             "\"\"\"Да\"\"\",,,,,5 (EST); 8 (FIN),,\r\n"));
}

TEST_F(Guide_formats, calendar_is_of_content_lines) {
  add_rich_events();
  std::string out = epg({"--format", "ics"}).out;
  out = std::regex_replace(out, std::regex("DTSTAMP:[0-9]{8}T[0-9]{6}Z"), "DTSTAMP:now");
  EXPECT_EQ(out, "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//kelvo//kelvo " KELVO_VERSION
                 "//EN\r\nCALSCALE:GREGORIAN\r\n"
                 "BEGIN:VEVENT\r\nUID:20350324-11@1001.7.9.dvb.guide\r\nDTSTAMP:now\r\nDTSTART:20350324T223000Z\r\n"
                 "DTEND:20350325T000000Z\r\nSUMMARY;LANGUAGE=et:Üle keskööfilm\r\n"
                 "DESCRIPTION;LANGUAGE=et:Komöödia\\, mis\\; ei lõpe. Ega alga.\\nRežissöö\r\n"
                 " r: Liis Kask\\nOsades: Ann (Mari)\\, Jüri\\nMuusika: heli: a: b\\nAasta: 1994\r\n"
                 "LOCATION:Kuldnokk\r\nCATEGORIES:Movie/Drama,Special characteristics\r\nTRANSP:TRANSPARENT\r\n"
                 "END:VEVENT\r\n"
                 "BEGIN:VEVENT\r\nUID:20350325-12@1001.7.9.dvb.guide\r\nDTSTAMP:now\r\nDTSTART:20350325T000000Z\r\n"
                 "DTEND:20350325T010000Z\r\nSUMMARY;LANGUAGE=ru:=1+1\r\nDESCRIPTION;LANGUAGE=ru:\"Да\"\r\n"
                 "LOCATION:Kuldnokk\r\nTRANSP:TRANSPARENT\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
}

TEST_F(Guide_formats, calendar_keeps_an_event_that_moves_and_tells_apart_what_has_one_id) {
  const auto uids = [&] {
    Words out;
    for (const std::string& line : support::lines_of(epg({"--format", "ics"}).out))
      if (line.starts_with("UID:"))
        out.push_back(line);
    return out;
  };
  add_rich_events();
  const Words before = uids();
  run_sql(guide_, "UPDATE epglist SET start_epoch = start_epoch + 300;");
  EXPECT_EQ(uids(), before);
  run_sql(guide_, "UPDATE epglist SET ev_id = 0, start_epoch = 2058393600 + 4000 * entry;");
  const Words same = uids();
  ASSERT_EQ(same.size(), 2U);
  EXPECT_NE(same[0], same[1]);
}

TEST_F(Guide_formats, calendars_are_read_by_another_program) {
  if (!has_module("icalendar"))
    GTEST_SKIP() << "needs python3-icalendar";
  const std::string read_it = R"(
import sys
from icalendar import Calendar
bytes = open(sys.argv[1], 'rb').read()
assert all(len(line) <= 75 for line in bytes.split(b'\r\n')), 'a line is too long'
assert b'\n' not in bytes.replace(b'\r\n', b'')
calendar = Calendar.from_ical(bytes)
for event in calendar.walk('VEVENT'):
    print(event['SUMMARY'], event.decoded('DTSTART').isoformat(), event['LOCATION'], sep='|')
    print(repr(str(event.get('DESCRIPTION', ''))))
)";
  const auto read = [&] {
    support::write_file(dir_.file("guide.ics"), epg({"--format", "ics"}).out);
    return python(read_it, {dir_.file("guide.ics")});
  };
  EXPECT_EQ(read(), prints(""));
  add_rich_events();
  EXPECT_EQ(read(), prints("Üle keskööfilm|2035-03-24T22:30:00+00:00|Kuldnokk\n"
                           "'Komöödia, mis; ei lõpe. Ega alga.\\nRežissöör: Liis Kask\\nOsades: Ann (Mari), Jüri\\n"
                           "Muusika: heli: a: b\\nAasta: 1994'\n"
                           "=1+1|2035-03-25T00:00:00+00:00|Kuldnokk\n"
                           "'\"Да\"'\n"));
}

}  // namespace
