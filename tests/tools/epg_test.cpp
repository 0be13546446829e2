// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"

// `kelvo epg` on prepared databases. What is on now is asked of events that begin hours around the test's own time; the
// zone is set for the command only.

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

class Epg : public Command_fixture {
 protected:
  void SetUp() override {
    make_prepared_db(db_);
    // Far from today, and in the times of 32 bits. 2035-03-24 22:30 UTC and on; Central European time changes at
    // 2035-03-25 01:00 UTC.
    run_sql(guide_, R"(
      INSERT INTO epglist (entry, channel, ev_id, start_epoch, dur_sec, content_id, rating)
      VALUES (1, 1, 11, 2058388200, 5400, '1.0.0.0 1.5.0.0 2.0.0.0 ', '09@EST '),
             (2, 1, 12, 2058393600, 93600, '0.0.0.0', '0@est'),
             (3, 1, 13, 2058487200, 0, '0.0.0.0', '0@est'),
             (4, 2, 14, 2058393600, 3600, '0.0.0.0', '0@est'),
             (5, 77, 15, 2058393600, 3600, '0.0.0.0', '0@est');
      INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list)
      VALUES (1, 'est', 'Üle keskööfilm', 'Lühike.', 'Pikk', 'RežissöörRežissöör:Liis Kask,OsadesOsades:A, B: C,'),
             (1, 'eng', 'Over midnight', 'Short.', '', ''),
             (2, 'est', char(21) || 'Pikk' || char(134) || ' päev' || char(135) || char(138) || 'x',
              'a' || char(27) || '[2Jb' || char(57478) || 'c' || char(57482) || 'd', '', ''),
             (4, 'rus', CAST(x'01BFE0D8D2D5E2' AS TEXT), '<b>&"', '', '');
    )");
  }
  Command_result epg(const Words& arguments = {}, const std::string& zone = "UTC") const {
    return run_command(joined({{KELVO_COMMAND, "epg", "--db", db_}, arguments}), {{"TZ", zone}});
  }
  // By the DTD, where xmllint and the DTD are installed; else at least well-formed to the eye of this test.
  void expect_valid_xmltv(const std::string& text) const {
    EXPECT_THAT(text, Not(HasSubstr("\x1B")));
    EXPECT_THAT(text, AnyOf(testing::EndsWith("</tv>\n"),
                            testing::EndsWith("<tv generator-info-name=\"kelvo/" KELVO_VERSION "\" />\n")));
    const std::string dtd = "/usr/share/xmltv/xmltv.dtd";
    if (access(dtd.c_str(), R_OK) != 0 || access("/usr/bin/xmllint", X_OK) != 0)
      GTEST_SKIP() << "needs xmllint and the DTD";
    support::write_file(dir_.file("guide.xml"), text);
    EXPECT_EQ(run_command({"/usr/bin/xmllint", "--noout", "--dtdvalid", dtd, dir_.file("guide.xml")}).exit_code, 0)
        << text;
  }
  Command_result no_guide_yet() const {
    return prints("", "No guide in " + guide_ + " yet; 'kelvo epg update' collects it.\n");
  }
};

const Command_result NO_SUCH_EVENTS =
    prints("", "No such events in the guide; 'kelvo epg update' collects newer ones.\n");
const std::string NO_EVENTS = "{\n  \"format\": \"kelvo-guide\",\n  \"version\": 1,\n  \"events\": []\n}\n";
constexpr int64_t MIDNIGHT = 2058393600;  // 2035-03-25 00:00 UTC
const std::string CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST_F(Epg, a_channel_that_is_unknown_or_ambiguous_is_one_line) {
  EXPECT_EQ(epg({"--channel", "Olematu"}), fails("--channel Olematu: no such channel; 'kelvo channels' lists them"));
  EXPECT_EQ(epg({"--channel", "12"}),
            fails("--channel 12: 2 channels are meant: #1 Kuldnokk, #4 a[2J b; give one as #NUMBER"));
}

TEST_F(Epg, a_missing_guide_is_an_empty_one) {
  ASSERT_EQ(std::remove(guide_.c_str()), 0);
  EXPECT_EQ(epg(), no_guide_yet());
  EXPECT_EQ(epg({"--format", "json"}).out, NO_EVENTS);
}

TEST_F(Epg, a_guide_that_is_no_database_is_refused) {
  support::write_file(guide_, std::string(5000, 'x'));
  EXPECT_EQ(epg(), fails(guide_ + NO_DATABASE));
}

TEST_F(Epg, shows_everything_clean) {
  EXPECT_EQ(epg(), prints("LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
                          " 12  Kuldnokk  2035-03-24  22:30-00:00  Üle keskööfilm  Lühike.\n"
                          " 12  Kuldnokk  2035-03-25  00:00-02:00  Pikk päev x     a[2Jbc d\n"
                          " 12  Kuldnokk  2035-03-26  02:00-02:00  -               -\n"
                          "  -  Raadio    2035-03-25  00:00-01:00  Привет          <b>&\"\n"));
}

TEST_F(Epg, one_channel_has_its_full_texts) {
  EXPECT_EQ(epg({"--channel", "kuldnokk", "--day", "2035-03-24"}).out,
            "LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
            " 12  Kuldnokk  2035-03-24  22:30-00:00  Üle keskööfilm  Lühike. Pikk Režissöör: Liis Kask; Osades: A, B: "
            "C\n");
  EXPECT_EQ(epg({"--channel", "STARLING", "--search", "liis"}).out,
            epg({"--channel", "#1", "--day", "2035-03-24"}).out);
}

TEST_F(Epg, prefers_languages_and_falls_back) {
  EXPECT_EQ(epg({"--lang", "fin,ENG", "--day", "2035-03-24"}).out,
            "LCN  CHANNEL   DATE        TIME         TITLE          TEXT\n"
            " 12  Kuldnokk  2035-03-24  22:30-00:00  Over midnight  Short.\n");
  EXPECT_THAT(epg({"--lang", "eng"}).out, HasSubstr("Pikk päev x"));
}

// The day on which summer time begins has 23 hours; it began in the reader's zone an hour before the one of UTC.
TEST_F(Epg, days_and_times_are_those_of_the_readers_zone) {
  EXPECT_EQ(epg({"--day", "2035-03-25", "--search", ""}, CENTRAL_EUROPE).exit_code, 2);
  EXPECT_EQ(epg({"--day", "2035-03-25", "--channel", "#1"}, CENTRAL_EUROPE).out,
            "LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
            " 12  Kuldnokk  2035-03-24  23:30-01:00  Üle keskööfilm  Lühike. Pikk Režissöör: Liis Kask; Osades: A, B: "
            "C\n"
            " 12  Kuldnokk  2035-03-25  01:00-04:00  Pikk päev x     a[2Jbc d\n");
}

// An hour east of UTC, and from 2035-03-25 01:00 UTC two.
TEST_F(Epg, times_of_the_broadcasts_zone_follow_its_change) {
  const Words here = support::lines_of(epg({"--zone", "broadcast"}).out);
  EXPECT_EQ(here, support::lines_of(epg().out)) << "nothing is known of it";
  run_sql(db_, R"(
      CREATE TABLE broadcast_zone (freq int, hf_conn int, dvb_type int, country text, region int, offset_min int,
                                   change_epoch int, next_offset_min int);
      INSERT INTO broadcast_zone VALUES (506000000, 0, 0, 'CZE', 0, 60, 2058397200, 120);)");
  EXPECT_EQ(support::lines_of(epg().out), here) << "it is not asked for";
  EXPECT_EQ(epg({"--zone", "broadcast"}), prints("LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
                                                 " 12  Kuldnokk  2035-03-24  23:30-01:00  Üle keskööfilm  Lühike.\n"
                                                 " 12  Kuldnokk  2035-03-25  01:00-04:00  Pikk päev x     a[2Jbc d\n"
                                                 " 12  Kuldnokk  2035-03-26  04:00-04:00  -               -\n"
                                                 "  -  Raadio    2035-03-25  01:00-03:00  Привет          <b>&\"\n"));
  const json all = json::parse(epg({"--zone", "broadcast", "--format", "json"}).out)["events"];
  EXPECT_EQ(all.at(0)["start"], "2035-03-24T23:30:00+0100");
  EXPECT_EQ(all.at(2)["start"], "2035-03-26T04:00:00+0200");
  EXPECT_EQ(all.at(2)["start_epoch"], 2058487200);
  EXPECT_THAT(epg({"--zone", "broadcast", "--format", "xmltv"}).out, HasSubstr("start=\"20350324233000 +0100\""));
  run_sql(db_, "UPDATE broadcast_zone SET offset_min = -210, change_epoch = 0;");
  EXPECT_THAT(epg({"--zone", "broadcast"}).out, HasSubstr("2035-03-24  19:00-20:30"));
  run_sql(db_, "UPDATE broadcast_zone SET offset_min = 100000;");
  EXPECT_EQ(support::lines_of(epg({"--zone", "broadcast"}).out), here) << "no zone is that far";
}

TEST_F(Epg, search_folds_letters_of_every_language) {
  EXPECT_EQ(epg({"--search", "ПРИВЕТ"}).out,
            "LCN  CHANNEL  DATE        TIME         TITLE   TEXT\n"
            "  -  Raadio   2035-03-25  00:00-01:00  Привет  <b>&\"\n");
  EXPECT_EQ(epg({"--search", "nowhere"}), NO_SUCH_EVENTS);
}

TEST_F(Epg, json_has_everything) {
  const Command_result result = epg({"--format", "json", "--lang", "eng"});
  ASSERT_EQ(result.exit_code, 0);
  const json events = json::parse(result.out)["events"];
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0]["start"], "2035-03-24T22:30:00+0000");
  EXPECT_EQ(events[0]["duration"], 5400);
  EXPECT_EQ(events[0]["channel_id"], "1001.7.9.dvb.guide");
  EXPECT_EQ(events[0]["contents"][1], json({{"level1", 1},
                                            {"level2", 5},
                                            {"user", 0},
                                            {"name", "Movie/Drama"},
                                            {"detail", "Soap/Melodrama/Folkloric"}}));
  EXPECT_EQ(events[0]["genres"], json({"Movie/Drama", "News/Current affairs"}));
  EXPECT_EQ(events[0]["ratings"][0]["age"], 12);
  EXPECT_EQ(events[0]["texts"][0]["title"], "Over midnight");
  EXPECT_EQ(events[0]["texts"][1]["items"][1]["text"], "A, B: C");
  EXPECT_EQ(events[1]["duration"], 93600);
  EXPECT_EQ(events[2]["texts"], json::array());
}

TEST_F(Epg, xmltv_is_valid) {
  const Command_result result = epg({"--format", "xmltv"});
  EXPECT_THAT(result, ends(0, AllOf(HasSubstr("<title lang=\"et\">Üle keskööfilm</title>"),
                                    HasSubstr("start=\"20350324223000 +0000\" stop=\"20350325000000 +0000\""),
                                    HasSubstr("&lt;b&gt;&amp;\""))));
  expect_valid_xmltv(result.out);
}

TEST_F(Epg, update_wants_its_options_behind_it_and_known_channels) {
  EXPECT_EQ(epg({"update"}),
            fails("--db: stands before 'update'; its options stand behind it (see 'kelvo epg update --help')", 2));
  run_sql(db_, "DELETE FROM kanalid;");
  EXPECT_EQ(run_command({KELVO_COMMAND, "epg", "update", "--db", db_}),
            fails(db_ + ": no channels yet; find them with 'kelvo scan'"));
}

TEST_F(Epg, watch_wants_a_known_channel) {
  EXPECT_EQ(run_command({KELVO_COMMAND, "watch", "--db", db_}).exit_code, 2);
  EXPECT_EQ(run_command({KELVO_COMMAND, "watch", "Olematu", "--db", db_}),
            fails("channel Olematu: no such channel; 'kelvo channels' lists them"));
}

// A guide of a few events around the present time, or of such as a test puts in.
class Empty_guide : public Epg {
 protected:
  void SetUp() override { make_prepared_db(db_); }

  void add(int channel, int64_t start, int duration, const std::string& title, const std::string& description = "",
           const std::string& language = "est") {
    run_sql(guide_, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) VALUES (" +
                        std::to_string(channel) + ", 1, " + std::to_string(start) + ", " + std::to_string(duration) +
                        ", '0.0.0.0', '0@est');");
    add_text(title, description, language);
  }
  void clear() { run_sql(guide_, "DELETE FROM epglist; DELETE FROM epglist_lang;"); }
  // In one more language, to the last event.
  void add_text(const std::string& title, const std::string& description, const std::string& language) {
    run_sql(guide_,
            "INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list) "
            "VALUES ((SELECT max(entry) FROM epglist), " +
                blob(language) + ", " + blob(title) + ", " + blob(description) + ", '', '');");
  }
  // Any bytes as SQL text.
  static std::string blob(const std::string& bytes) {
    std::string out = "CAST(x'";
    char digits[3];
    for (const char c : bytes) {
      snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += digits;
    }
    return out + "' AS TEXT)";
  }
  static std::string utc(int64_t epoch, const char* format) {
    const auto time = static_cast<time_t>(epoch);
    tm parts{};
    char text[32];
    return {text, strftime(text, sizeof text, format, gmtime_r(&time, &parts))};
  }
  // "2026-03-01  18:00-19:00"
  static std::string times(int64_t start, int duration) {
    return utc(start, "%Y-%m-%d  %H:%M-") + utc(start + duration, "%H:%M");
  }
  // The titles that are printed, in order; the search must find them all.
  Words titles(const Words& arguments, const std::string& zone = "UTC") {
    const Command_result result = epg(joined({{"--format", "json"}, arguments}), zone);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    Words out;
    const json guide = json::parse(result.out);
    for (const auto& event : guide["events"])
      out.push_back(event["texts"].empty() ? "" : event["texts"][0]["title"]);
    return out;
  }
};

constexpr int HOUR = 3600;

TEST_F(Empty_guide, now_and_next_are_of_every_channel) {
  const int64_t hour = time(nullptr) / 60 * 60;
  add(1, hour - 3 * HOUR, 2 * HOUR, "Lõppenud");
  add(1, hour - HOUR, 2 * HOUR, "Praegune", "Käib");
  add(1, hour + HOUR, HOUR, "Järgmine", "Tuleb");
  add(1, hour + 2 * HOUR, HOUR, "Hiljem");
  add(2, hour + 5 * HOUR, HOUR, "Pärast pausi");
  add(3, hour - HOUR, 3 * HOUR, "Ainult nüüd");
  EXPECT_EQ(epg({"--now"}), prints("LCN  CHANNEL    DATE        TIME         TITLE        TEXT\n"
                                   "  3  Žluťoučký  " +
                                   times(hour - HOUR, 3 * HOUR) +
                                   "  Ainult nüüd  -\n"
                                   " 12  Kuldnokk   " +
                                   times(hour - HOUR, 2 * HOUR) + "  Praegune     Käib\n"));
  EXPECT_EQ(epg({"--next"}), prints("LCN  CHANNEL   DATE        TIME         TITLE         TEXT\n"
                                    " 12  Kuldnokk  " +
                                    times(hour + HOUR, HOUR) +
                                    "  Järgmine      Tuleb\n"
                                    "  -  Raadio    " +
                                    times(hour + 5 * HOUR, HOUR) + "  Pärast pausi  -\n"));
  EXPECT_EQ(titles({"--channel", "raadio", "--next"}), Words{"Pärast pausi"});
  EXPECT_EQ(epg({"--channel", "raadio", "--now"}), NO_SUCH_EVENTS);
  EXPECT_EQ(titles({}), (Words{"Ainult nüüd", "Praegune", "Järgmine", "Hiljem", "Pärast pausi"}));
}

TEST_F(Empty_guide, days_can_be_named) {
  const int64_t noon = time(nullptr) / 86400 * 86400 + 12 * HOUR;
  add(1, noon - 86400, HOUR, "Eile");
  add(1, noon, HOUR, "Täna");
  add(1, noon + 86400, HOUR, "Homme");
  EXPECT_EQ(titles({"--day", "yesterday"}), Words{"Eile"});
  EXPECT_EQ(titles({"--day", "today"}), Words{"Täna"});
  EXPECT_EQ(titles({"--day", "tomorrow"}), Words{"Homme"});
}

TEST_F(Empty_guide, a_day_ends_where_the_next_begins) {
  add(1, MIDNIGHT - HOUR, HOUR, "Kuni südaööni");
  add(1, MIDNIGHT - 60, 120, "Üle südaöö");
  add(1, MIDNIGHT, 60, "Südaööst");
  add(2, MIDNIGHT, 0, "Kestuseta");
  add(1, MIDNIGHT - 2 * 86400, 4 * 86400, "Mitu päeva");
  EXPECT_EQ(titles({"--day", "2035-03-24"}), (Words{"Mitu päeva", "Kuni südaööni", "Üle südaöö"}));
  EXPECT_EQ(titles({"--day", "2035-03-25"}), (Words{"Mitu päeva", "Üle südaöö", "Südaööst", "Kestuseta"}));
}

// A day of 25 hours, one of 23, zones far from UTC, and one where summer time begins at midnight, which then is not.
TEST_F(Empty_guide, days_are_as_long_as_in_the_readers_zone) {
  const struct {
    const char* zone;
    const char* day;
    int64_t begin;
    int hours;
  } cases[] = {
      {CENTRAL_EUROPE.c_str(), "2035-10-28", 2077135200, 25},
      {CENTRAL_EUROPE.c_str(), "2035-03-25", 2058390000, 23},
      {"EET-2EEST,M4.5.5/0,M10.5.4/24", "2035-04-27", 2061237600, 23},
      {"<+14>-14", "2035-03-25", MIDNIGHT - 14 * HOUR, 24},
      {"<-1130>11:30", "2035-03-25", MIDNIGHT + 11 * HOUR + HOUR / 2, 24},
  };
  for (const auto& c : cases) {
    clear();
    add(1, c.begin - 60, 60, "enne");
    add(1, c.begin, 60, "esimene");
    add(1, c.begin + c.hours * HOUR - 60, 60, "viimane");
    add(1, c.begin + c.hours * HOUR, 60, "pärast");
    EXPECT_EQ(titles({"--day", c.day}, c.zone), (Words{"esimene", "viimane"})) << c.zone << c.day;
  }
}

TEST_F(Empty_guide, the_hour_that_comes_twice_is_shown_twice) {
  add(1, 2077142400, HOUR, "Suvel");  // 2035-10-28 00:00 UTC
  add(1, 2077146000, HOUR, "Talvel");
  EXPECT_EQ(epg({}, CENTRAL_EUROPE).out,
            "LCN  CHANNEL   DATE        TIME         TITLE   TEXT\n"
            " 12  Kuldnokk  2035-10-28  02:00-02:00  Suvel   -\n"
            " 12  Kuldnokk  2035-10-28  02:00-03:00  Talvel  -\n");
  const json events = json::parse(epg({"--format", "json"}, CENTRAL_EUROPE).out)["events"];
  EXPECT_EQ(events[0]["start"], "2035-10-28T02:00:00+0200");
  EXPECT_EQ(events[1]["start"], "2035-10-28T02:00:00+0100");
  EXPECT_THAT(epg({"--format", "xmltv"}, CENTRAL_EUROPE).out,
              HasSubstr("start=\"20351028020000 +0200\" stop=\"20351028020000 +0100\""));
}

// The library stores none of these; another program could.
TEST_F(Empty_guide, a_time_that_the_machine_does_not_have_is_its_last_one) {
  const std::string last = "2038-01-19T03:14:07+0000";
  add(1, 2208988800, HOUR, "2040");
  add(1, std::numeric_limits<int64_t>::max() - 1, HOUR, "Kauge");
  const json events = json::parse(epg({"--format", "json"}).out)["events"];
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0]["start"], sizeof(time_t) == 8 ? "2040-01-01T00:00:00+0000" : last);
  EXPECT_EQ(events[1]["start_epoch"], 1099511627776) << "sums with it are numbers";
  EXPECT_EQ(events[1]["start"], sizeof(time_t) == 8 ? "36812-02-20T00:36:16+0000" : last);
}

TEST_F(Empty_guide, search_takes_every_character_as_it_is) {
  int64_t start = MIDNIGHT;
  const char* const all[] = {"100% tõde", "100 tõde", "a_b",   "axb",      "L'amour",  "Lamour", "x\"y",
                             "C:\\kino",  "*tähed*",  "[a-z]", "ÕHTU ŽÄR", "ΑΣΤΕΡΙΑΣ", "Щука"};
  for (const char* title : all)
    add(1, std::exchange(start, start + HOUR), HOUR, title);
  const struct {
    const char* text;
    Words found;
  } cases[] = {
      {"%", {"100% tõde"}},
      {"0% T", {"100% tõde"}},
      {"_", {"a_b"}},
      {"'", {"L'amour"}},
      {"'; DROP TABLE epglist; --", {}},
      {"\"", {"x\"y"}},
      {"\\", {"C:\\kino"}},
      {"*", {"*tähed*"}},
      {"[a", {"[a-z]"}},
      {".", {}},
      {"õhtu žär", {"ÕHTU ŽÄR"}},
      {"αστερ", {"ΑΣΤΕΡΙΑΣ"}},
      {"ЩУКА", {"Щука"}},
      {"\xC3", {}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(titles({"--search", c.text}), c.found) << c.text;
}

TEST_F(Empty_guide, search_looks_into_every_text_and_language_but_not_into_the_past) {
  const int64_t now = time(nullptr);
  add(1, now - 4 * HOUR, HOUR, "otsitav");
  add(1, now - HOUR, 2 * HOUR, "Käib", "OTSITAV");
  add(2, now + HOUR, HOUR, "Tuleb");
  add_text("Coming", "the otsitav one", "eng");
  add(2, now + 2 * HOUR, HOUR, "Pikk");
  run_sql(guide_, "UPDATE epglist_lang SET ext_list = 'RollRoll:Otsitav,' WHERE ev_name = 'Pikk';");
  add(3, now + HOUR, HOUR, "Muu");
  EXPECT_EQ(titles({"--search", "otsitav"}), (Words{"Käib", "Tuleb", "Pikk"}));
  EXPECT_EQ(titles({"--search", "otsitav", "--channel", "#2"}), (Words{"Tuleb", "Pikk"}));
}

TEST_F(Empty_guide, languages_come_in_the_order_asked_for) {
  add(1, MIDNIGHT, HOUR, "Eesti", "", "est");
  add_text("English", "", "eng");
  add_text("", "без названия", "rus");
  add(1, MIDNIGHT + HOUR, HOUR, "Česky", "", "CZE");
  const struct {
    const char* list;
    Words titles;
  } cases[] = {
      {"est", {"Eesti", "Česky"}},       {"eng", {"English", "Česky"}},
      {"eng,est", {"English", "Česky"}}, {"fin,swe", {"Eesti", "Česky"}},
      {"cze,eng", {"English", "Česky"}}, {"rus,eng", {"English", "Česky"}},  // a language without a title is no help
      {"Est,CZE", {"Eesti", "Česky"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(titles({"--lang", c.list}), c.titles) << c.list;
}

TEST_F(Empty_guide, texts_that_kept_their_selector_or_control_codes_are_clean) {
  const struct {
    const char* legend;
    std::string stored;
    const char* shown;
  } cases[] = {
      {"UTF-8 with its selector", "\x15Õhtu", "Õhtu"},
      {"one-byte table 5", "\x05\xFD", "ı"},
      {"one-byte table 5, converted already", "\x05ı", "ı"},
      {"three-byte table 2", std::string("\x10\x00\x02\xE8", 4), "č"},
      {"three-byte table 16 is none", std::string("\x10\x00\x10\xE8", 4), "\xEF\xBF\xBD"},
      {"cut behind the first of three", "\x10", "-"},
      {"two bytes a character", std::string("\x11\x04\x29", 3), "Щ"},
      {"Korean", "\x12\xC7\xD1", "한"},
      {"Chinese", "\x13\xD6\xD0", "中"},
      {"Chinese, traditional", "\x14\xA4\xA4", "中"},
      {"a table that nobody knows", "\x1F\x01\x61", "a"},
      {"emphasis of one-byte tables", "a\xC2\x86ko\xC2\x87z", "akoz"},
      {"line break of one-byte tables", "a\xC2\x8Az", "a z"},
      {"emphasis of other tables", "a\xEE\x82\x86ko\xEE\x82\x87z", "akoz"},
      {"line break of other tables", "a\xEE\x82\x8Az", "a z"},
      {"other codes of that range", "a\xEE\x82\x80\xEE\x82\x9F\xC2\x80\xC2\x9Fz", "az"},
      {"selector only", "\x05", "-"},
  };
  for (const auto& c : cases) {
    clear();
    add(1, MIDNIGHT, HOUR, c.stored);
    EXPECT_THAT(epg().out, HasSubstr("\n 12  Kuldnokk  2035-03-25  00:00-01:00  " + std::string(c.shown) + " "))
        << c.legend;
  }
}

const std::string HOSTILE =
    "a\x1B[2J\x1B]0;evil\x07\nb\r\tc\x08\x7F\xC2\x9B"
    "31m\xE2\x80\xAE\xE2\x80\xA8"
    "d\xEF\xBF\xBE\xEF\xBF\xBF]]>&<\"'\xFF\xC0\x80\xED\xA0\x80z";

TEST_F(Empty_guide, hostile_texts_stay_in_their_line) {
  add(1, MIDNIGHT, HOUR, HOSTILE, HOSTILE, HOSTILE);
  add(1, MIDNIGHT + HOUR, HOUR, "järgmine");
  for (const std::string& out : {epg().out, epg({"--channel", "#1"}).out}) {
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](char c) {
      return c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != '\x7F');
    })) << out;
    EXPECT_THAT(out, HasSubstr("00:00-01:00  a[2J]0;evil b  c31m d"));
    for (const char* never : {"\xC2\x9B", "\xE2\x80\xAE", "\xE2\x80\xA8", "\xED\xA0\x80"})
      EXPECT_THAT(out, Not(HasSubstr(never)));
  }
}

TEST_F(Empty_guide, hostile_texts_leave_json_and_xmltv_valid) {
  run_sql(db_, "UPDATE kanalid SET serv_name = " + blob(HOSTILE) + " WHERE channel = 1;");
  run_sql(db_, "INSERT INTO kanalid_lang (source_oid, lang, serv_name) VALUES (1, " + blob(HOSTILE) + ", 'x');");
  add(1, MIDNIGHT, HOUR, HOSTILE, HOSTILE, HOSTILE);
  run_sql(guide_, "UPDATE epglist SET rating = " + blob("0B@" + HOSTILE + " ") +
                      ", content_id = " + blob("1.x " + HOSTILE + " zz 99999999999999999999.1 ") + ";");
  run_sql(guide_, "UPDATE epglist_lang SET ext_desc = " + blob(HOSTILE) +
                      ", ext_list = " + blob(HOSTILE + HOSTILE + ":" + HOSTILE + ",") + ";");
  const Words found = titles({});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(found[0], testing::StartsWith("a[2J]0;evil b  c31m d"));
  const Command_result xmltv = epg({"--format", "xmltv"});
  EXPECT_EQ(xmltv.exit_code, 0) << xmltv.err;
  expect_valid_xmltv(xmltv.out);
}

TEST_F(Empty_guide, an_empty_guide_is_shown_as_such) {
  EXPECT_EQ(epg(), no_guide_yet());
  EXPECT_EQ(epg({"--format", "json"}), prints(NO_EVENTS));
  const std::string xmltv = epg({"--format", "xmltv"}).out;
  EXPECT_THAT(xmltv, AllOf(HasSubstr("<channel id=\"1001.7.9.dvb.guide\">"), Not(HasSubstr("<programme"))));
  expect_valid_xmltv(xmltv);
  run_sql(db_, "DELETE FROM kanalid;");
  expect_valid_xmltv(epg({"--format", "xmltv"}).out);
}

TEST_F(Empty_guide, a_narrow_terminal_has_a_line_for_each_event) {
  add(1, MIDNIGHT, HOUR, "Pealkiri", "üks kaks kolm neli viis kuus seitse kaheksa üheksa kümme üksteist kaksteist");
  add(1, MIDNIGHT + HOUR, HOUR, "Pikem pealkiri, mis ei lõpe ega lõpe", "Sisu");
  const struct {
    int columns;
    Words more;
    const char* table;
  } cases[] = {
      {90,
       {},
       "LCN  CHANNEL   DATE        TIME         TITLE                    TEXT\r\n"
       " 12  Kuldnokk  2035-03-25  00:00-01:00  Pealkiri                 üks kaks kolm neli viis…\r\n"
       " 12  Kuldnokk  2035-03-25  01:00-02:00  Pikem pealkiri, mis ei…  Sisu\r\n"},
      {60,
       {},
       "LCN  CHANNEL   DATE        TIME         TITLE\r\n"
       " 12  Kuldnokk  2035-03-25  00:00-01:00  Pealkiri\r\n"
       " 12  Kuldnokk  2035-03-25  01:00-02:00  Pikem pealkiri, mis…\r\n"},
      {60,
       {"--wide"},
       "LCN  CHANNEL   DATE        TIME         TITLE                                 TEXT\r\n"
       " 12  Kuldnokk  2035-03-25  00:00-01:00  Pealkiri                              üks kaks kolm neli viis kuus seitse "
       "kaheksa üheksa kümme üksteist kaksteist\r\n"
       " 12  Kuldnokk  2035-03-25  01:00-02:00  Pikem pealkiri, mis ei lõpe ega lõpe  Sisu\r\n"},
  };
  for (const auto& c : cases)
    EXPECT_THAT(
        support::run_on_terminal(joined({{KELVO_COMMAND, "epg", "--db", db_}, c.more}), {{"TZ", "UTC"}}, c.columns),
        ends(0, c.table))
        << c.columns;
}

TEST_F(Empty_guide, of_overlapping_events_the_one_that_began_last_is_on) {
  const int64_t now = time(nullptr);
  add(1, now - 4 * HOUR, 12 * HOUR, "Plokk");
  add(1, now - 2 * HOUR, 10 * HOUR, "Saade");
  add(1, now + 6 * HOUR, HOUR, "Uudised");
  const json shown = json::parse(epg({"--now", "--next", "--format", "json"}).out)["events"];
  ASSERT_EQ(shown.size(), 2U);
  EXPECT_EQ(shown[0]["texts"][0]["title"], "Saade");
  EXPECT_EQ(shown[1]["texts"][0]["title"], "Uudised");
}

TEST_F(Empty_guide, now_and_next_together_are_a_line_a_channel) {
  const int64_t now = time(nullptr) / HOUR * HOUR + HOUR / 2;
  const auto at = [](int64_t start, const std::string& title) {
    char text[6];
    const time_t seconds = static_cast<time_t>(start);
    tm utc{};
    (void)strftime(text, sizeof text, "%H:%M", gmtime_r(&seconds, &utc));
    return std::string(text) + " " + title;
  };
  const int64_t begun = now - 10 * HOUR;
  const int64_t next = now + 10 * HOUR;
  add(1, begun, 20 * HOUR, "Uudised", "");
  add(1, next, HOUR, "Film", "");
  add(1, next + HOUR, HOUR, "Hilisem", "");
  add(2, next, HOUR, "Muusika", "");
  add(3, begun, 20 * HOUR, "", "");
  const Command_result table = epg({"--now", "--next"});
  EXPECT_EQ(table, prints("LCN  CHANNEL    NOW            NEXT\n"
                          "  3  Žluťoučký  " +
                          at(begun, "-") + "        -\n" + " 12  Kuldnokk   " + at(begun, "Uudised") + "  " +
                          at(next, "Film") + "\n" + "  -  Raadio     -              " + at(next, "Muusika") + "\n"));
  EXPECT_EQ(json::parse(epg({"--next", "--now", "--format", "json"}).out)["events"].size(), 4U);
}

TEST_F(Epg, shows_events_in_full) {
  const std::string night =
      "Üle keskööfilm\n"
      "  12 Kuldnokk, Saturday 2035-03-24 22:30-00:00, 90 min\n"
      "  Movie/Drama: Soap/Melodrama/Folkloric, News/Current affairs, from 12 years (EST)\n"
      "\n"
      "  Lühike.\n"
      "\n"
      "  Pikk\n"
      "\n"
      "  Režissöör: Liis Kask\n"
      "  Osades: A, B: C\n"
      "\n"
      "  Over midnight (eng)\n"
      "\n"
      "  Short.\n";
  EXPECT_EQ(epg({"--search", "keskööfilm", "--show"}), prints(night));
  EXPECT_THAT(epg({"--channel", "Kuldnokk", "--show"}), ends(0, testing::StartsWith(night + "\n\n")));
  EXPECT_EQ(epg({"--search", "olematu", "--show"}), NO_SUCH_EVENTS);
}

TEST_F(Empty_guide, events_in_full_are_broken_at_words_on_a_terminal) {
  add(1, MIDNIGHT, HOUR, "Pealkiri", "üks kaks kolm neli viis kuus seitse kaheksa üheksa");
  EXPECT_THAT(support::run_on_terminal({KELVO_COMMAND, "epg", "--db", db_, "--show"}, {{"TZ", "UTC"}}, 40),
              ends(0,
                   "Pealkiri\r\n"
                   "  12 Kuldnokk, Sunday 2035-03-25\r\n"
                   "  00:00-01:00, 1 h\r\n"
                   "\r\n"
                   "  üks kaks kolm neli viis kuus seitse\r\n"
                   "  kaheksa üheksa\r\n"));
}

TEST_F(Empty_guide, output_that_cannot_be_written_is_an_error) {
  for (int i = 0; i < 100; ++i)
    add(1, MIDNIGHT + i * HOUR, HOUR, "Pealkiri", std::string(200, 'x'));
  for (const std::string format : {"table", "json", "xmltv", "csv", "ics"})
    EXPECT_EQ(run_command({"sh", "-c", KELVO_COMMAND " epg --db " + db_ + " --format " + format + " >/dev/full"}),
              fails("cannot write the guide: No space left on device"))
        << format;
}

// Before any database is looked at.
TEST(Epg_usage, is_one_line_and_exit_2) {
  const support::Temp_dir dir;
  const std::string not_a_list = ": not a list of languages; give codes of three letters, such as est,eng";
  const std::string not_a_date = ": not a date; give YYYY-MM-DD, today, tomorrow or yesterday";
  const std::string help = " (see 'kelvo epg --help')";
  std::vector<std::pair<Words, std::string>> cases = {
      {{"--search", ""}, "--search: give a text to look for"},
      {{"--search", " \n"}, "--search: give a text to look for"},
      {{"--channel", ""}, "--channel: give a number or a name"},
      {{"--format", "html"}, "--format: html not in {table,json,xmltv,csv,ics}" + help},
      {{"--now", "--day", "today"}, "--now excludes --day" + help},
      {{"--next", "--search", "x"}, "--next excludes --search" + help},
      {{"--day", "today", "--search", "x"}, "--day excludes --search" + help},
      {{"--search"}, "--search: 1 required TEXT missing" + help},
      {{"today"}, "The following argument was not expected: today" + help},
  };
  for (const std::string list : {"", ",", "est,,eng", "est,english", "est eng", "e1t", "et"})
    cases.push_back({{"--lang", list}, "--lang " + list + not_a_list});
  for (const std::string day : {"", "2035-02-30", "2035-3-1", "soon", "2035-03-01x", "2035-13-01"})
    cases.push_back({{"--day", day}, "--day " + day + not_a_date});
  for (const auto& [arguments, err] : cases)
    EXPECT_EQ(run_command(joined({{KELVO_COMMAND, "epg", "--db", dir.file("missing.db")}, arguments})), fails(err, 2));
}

TEST_F(Epg, files_that_cannot_be_read_are_one_line) {
  const std::string whole = support::read_file(guide_);
  const std::string other = dir_.file("other.db");
  run_sql(other, "CREATE TABLE recipes (name text);");
  const struct {
    const char* legend;
    std::string guide;
    std::string err;
  } cases[] = {
      {"a guide cut off", whole.substr(0, 6000), guide_ + DAMAGED},
      {"another program's", support::read_file(other), guide_ + ": not a programme guide; name another file with --db"},
  };
  for (const auto& c : cases) {
    support::write_file(guide_, c.guide);
    for (const char* format : {"table", "json", "xmltv", "csv", "ics"})
      EXPECT_EQ(epg({"--format", format}), fails(c.err)) << c.legend << ", " << format;
    EXPECT_EQ(support::read_file(guide_), c.guide);
  }
  std::filesystem::remove(guide_);
  std::filesystem::create_directory(guide_);
  EXPECT_EQ(epg().err, "kelvo: " + guide_ + ": not a file; name another one with --db\n");
  std::filesystem::remove(db_);
  EXPECT_EQ(epg(), fails(db_ + MISSING));
}

// An empty file becomes a guide when it is first written to.
TEST_F(Epg, a_guide_of_no_bytes_is_an_empty_one) {
  support::write_file(guide_, "");
  EXPECT_EQ(epg(), no_guide_yet());
  EXPECT_EQ(support::read_file(guide_), "");
}

}  // namespace
