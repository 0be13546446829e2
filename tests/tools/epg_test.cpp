#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/command.h"
#include "support/support.h"
#include "tools/prepared_db.h"

// `kelvo epg` on prepared databases. The time of day is not asked for where the output depends on it; the zone is set
// for the command only.

namespace {

using support::Command_result;
using support::run_command;

class Epg : public testing::Test {
 protected:
  void SetUp() override {
    make_prepared_db(db_);
    // 2040-03-24 22:30 UTC and on; Central European time changes at 2040-03-25 01:00 UTC.
    run_sql(guide_, R"(
      INSERT INTO epglist (entry, channel, ev_id, start_epoch, dur_sec, content_id, rating)
      VALUES (1, 1, 11, 2216241000, 5400, '1.0.0.0 1.5.0.0 2.0.0.0 ', '09@EST '),
             (2, 1, 12, 2216246400, 93600, '0.0.0.0', '0@est'),
             (3, 1, 13, 2216340000, 0, '0.0.0.0', '0@est'),
             (4, 2, 14, 2216246400, 3600, '0.0.0.0', '0@est'),
             (5, 77, 15, 2216246400, 3600, '0.0.0.0', '0@est');
      INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list)
      VALUES (1, 'est', 'Üle keskööfilm', 'Lühike.', 'Pikk', 'RežissöörRežissöör:Liis Kask,OsadesOsades:A, B: C,'),
             (1, 'eng', 'Over midnight', 'Short.', '', ''),
             (2, 'est', char(21) || 'Pikk' || char(134) || ' päev' || char(135) || char(138) || 'x',
              'a' || char(27) || '[2Jb' || char(57478) || 'c' || char(57482) || 'd', '', ''),
             (4, 'rus', CAST(x'01BFE0D8D2D5E2' AS TEXT), '<b>&"', '', '');
    )");
  }
  Command_result epg(std::vector<std::string> arguments, const std::string& zone = "UTC") const {
    arguments.insert(arguments.begin(), {KELVO_COMMAND, "epg", "--db", db_});
    return run_command(arguments, {{"TZ", zone}});
  }

  support::Temp_dir dir_;
  std::string db_ = dir_.file("dvb.db");
  std::string guide_ = dir_.file("dvb_epg.db");
};

TEST_F(Epg, an_unknown_channel_is_one_line) {
  const Command_result result = epg({"--channel", "Olematu"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: --channel Olematu: no such channel; 'kelvo channels' lists them\n");
  EXPECT_EQ(result.out, "");
}

TEST_F(Epg, an_ambiguous_channel_is_one_line) {
  const Command_result result = epg({"--channel", "12"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: --channel 12: 2 channels are meant: #1 Kuldnokk, #4 a[2J b; give one as #NUMBER\n");
}

TEST_F(Epg, wrong_days_and_languages_are_usage_errors) {
  for (const char* day : {"2040-02-30", "2040-3-1", "soon", "2040-03-01x", "2040-13-01"}) {
    const Command_result result = epg({"--day", day});
    EXPECT_EQ(result.exit_code, 2) << day;
    EXPECT_EQ(result.err,
              "kelvo: --day " + std::string(day) + ": not a date; give YYYY-MM-DD, today, tomorrow or yesterday\n");
  }
  const Command_result result = epg({"--lang", "est,english"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.err,
            "kelvo: --lang est,english: not a list of languages; give codes of three letters, such as est,eng\n");
}

TEST_F(Epg, only_one_choice_at_a_time) {
  EXPECT_EQ(epg({"--now", "--next"}).exit_code, 2);
  EXPECT_EQ(epg({"--day", "today", "--search", "x"}).exit_code, 2);
}

TEST_F(Epg, a_missing_guide_is_an_empty_one) {
  ASSERT_EQ(std::remove(guide_.c_str()), 0);
  const Command_result result = epg({});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "No guide in " + guide_ + " yet; 'kelvo epg update' collects it.\n");
  EXPECT_EQ(epg({"--format", "json"}).out, "[]\n");
}

TEST_F(Epg, a_guide_that_is_no_database_is_refused) {
  support::write_file(guide_, std::string(5000, 'x'));
  const Command_result result = epg({});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + guide_ + ": not a database; name another file with --db\n");
}

TEST_F(Epg, shows_everything_clean) {
  const Command_result result = epg({});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
            " 12  Kuldnokk  2040-03-24  22:30-00:00  Üle keskööfilm  Lühike.\n"
            " 12  Kuldnokk  2040-03-25  00:00-02:00  Pikk päev x     a[2Jbc d\n"
            " 12  Kuldnokk  2040-03-26  02:00-02:00  -               -\n"
            "  -  Raadio    2040-03-25  00:00-01:00  Привет          <b>&\"\n");
}

TEST_F(Epg, one_channel_has_its_full_texts) {
  EXPECT_EQ(epg({"--channel", "kuldnokk", "--day", "2040-03-24"}).out,
            "LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
            " 12  Kuldnokk  2040-03-24  22:30-00:00  Üle keskööfilm  Lühike. Pikk Režissöör: Liis Kask; Osades: A, B: "
            "C\n");
  EXPECT_EQ(epg({"--channel", "STARLING", "--search", "liis"}).out,
            epg({"--channel", "#1", "--day", "2040-03-24"}).out);
}

TEST_F(Epg, prefers_languages_and_falls_back) {
  const std::string head = "LCN  CHANNEL   DATE        TIME         TITLE          TEXT\n";
  const std::string english = head + " 12  Kuldnokk  2040-03-24  22:30-00:00  Over midnight  Short.\n";
  EXPECT_EQ(epg({"--lang", "fin,ENG", "--day", "2040-03-24"}).out, english);
  EXPECT_NE(epg({"--lang", "eng"}).out.find("Pikk päev x"), std::string::npos);
}

// The day on which summer time begins has 23 hours; it began in the reader's zone an hour before the one of UTC.
TEST_F(Epg, days_and_times_are_those_of_the_readers_zone) {
  const std::string zone = "CET-1CEST,M3.5.0,M10.5.0/3";
  EXPECT_EQ(epg({"--day", "2040-03-25", "--search", ""}, zone).exit_code, 2);
  EXPECT_EQ(epg({"--day", "2040-03-25", "--channel", "#1"}, zone).out,
            "LCN  CHANNEL   DATE        TIME         TITLE           TEXT\n"
            " 12  Kuldnokk  2040-03-24  23:30-01:00  Üle keskööfilm  Lühike. Pikk Režissöör: Liis Kask; Osades: A, B: "
            "C\n"
            " 12  Kuldnokk  2040-03-25  01:00-04:00  Pikk päev x     a[2Jbc d\n");
}

TEST_F(Epg, search_folds_letters_of_every_language) {
  EXPECT_EQ(epg({"--search", "ПРИВЕТ"}).out,
            "LCN  CHANNEL  DATE        TIME         TITLE   TEXT\n"
            "  -  Raadio   2040-03-25  00:00-01:00  Привет  <b>&\"\n");
  const Command_result none = epg({"--search", "nowhere"});
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err, "No such events in the guide; 'kelvo epg update' collects newer ones.\n");
}

TEST_F(Epg, json_has_everything) {
  const Command_result result = epg({"--format", "json", "--lang", "eng"});
  ASSERT_EQ(result.exit_code, 0);
  const nlohmann::json events = nlohmann::json::parse(result.out);
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0]["start"], "2040-03-24T22:30:00+0000");
  EXPECT_EQ(events[0]["duration"], 5400);
  EXPECT_EQ(events[0]["genres"], nlohmann::json({"Movie/Drama", "News/Current affairs"}));
  EXPECT_EQ(events[0]["ratings"][0]["age"], 12);
  EXPECT_EQ(events[0]["texts"][0]["title"], "Over midnight");
  EXPECT_EQ(events[0]["texts"][1]["items"][1]["text"], "A, B: C");
  EXPECT_EQ(events[1]["duration"], 93600);
  EXPECT_EQ(events[2]["texts"], nlohmann::json::array());
}

TEST_F(Epg, xmltv_is_valid) {
  const Command_result result = epg({"--format", "xmltv"});
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("<title lang=\"est\">Üle keskööfilm</title>"), std::string::npos);
  EXPECT_NE(result.out.find("start=\"20400324223000 +0000\" stop=\"20400325000000 +0000\""), std::string::npos);
  EXPECT_NE(result.out.find("&lt;b&gt;&amp;\""), std::string::npos);
  EXPECT_EQ(result.out.find('\x1B'), std::string::npos);
  const std::string dtd = "/usr/share/xmltv/xmltv.dtd";
  if (access(dtd.c_str(), R_OK) != 0 || access("/usr/bin/xmllint", X_OK) != 0) {
    GTEST_SKIP() << "needs xmllint and the DTD";
  }
  support::write_file(dir_.file("guide.xml"), result.out);
  const Command_result check = run_command({"/usr/bin/xmllint", "--noout", "--dtdvalid", dtd, dir_.file("guide.xml")});
  EXPECT_EQ(check.exit_code, 0) << check.err;
}

TEST_F(Epg, update_wants_a_time_and_known_channels) {
  const Command_result time = run_command({KELVO_COMMAND, "epg", "update", "--for", "10", "--db", db_});
  EXPECT_EQ(time.exit_code, 2);
  EXPECT_EQ(time.err, "kelvo: --for 10: not a time; give for example 90s, 10m or 1h\n");
  const Command_result order = run_command({KELVO_COMMAND, "epg", "--db", db_, "update"});
  EXPECT_EQ(order.exit_code, 2);
  EXPECT_EQ(order.err,
            "kelvo: --db: stands before 'update'; its options stand behind it (see 'kelvo epg update --help')\n");
  run_sql(db_, "DELETE FROM kanalid;");
  const Command_result none = run_command({KELVO_COMMAND, "epg", "update", "--db", db_});
  EXPECT_EQ(none.exit_code, 1);
  EXPECT_EQ(none.err, "kelvo: " + db_ + ": no channels yet; find them with 'kelvo scan'\n");
}

TEST_F(Epg, watch_wants_a_known_channel) {
  EXPECT_EQ(run_command({KELVO_COMMAND, "watch", "--db", db_}).exit_code, 2);
  const Command_result result = run_command({KELVO_COMMAND, "watch", "Olematu", "--db", db_});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: channel Olematu: no such channel; 'kelvo channels' lists them\n");
}

}  // namespace
