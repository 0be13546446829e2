// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/command_fixture.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// `tv_grab_kelvo`, in a home of its own. Events lie around the midnights of its zone, half an hour before or behind
// each.
class Grabber : public Command_fixture {
 protected:
  void SetUp() override {
    make_prepared_db(db_);
    std::string all = "BEGIN;";
    for (int hour = -30; hour < 96; ++hour)
      all += event(1 + (hour & 1), midnight_ + hour * 3600 + 1800, hour % 5 == 0 ? 5000 : 3600, std::to_string(hour));
    run_sql(guide_, all + "COMMIT;");
  }
  static std::string event(int channel, int64_t start, int duration, const std::string& title) {
    return "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (" + std::to_string(channel) + ", 1, " +
           std::to_string(start) + ", " + std::to_string(duration) +
           "); INSERT INTO epglist_lang (source_oid, lang, ev_name) SELECT max(entry), 'est', '" + title +
           "' FROM epglist;";
  }
  Command_result grab(const Words& arguments, const std::string& answers = "") const {
    support::write_file(dir_.file("answers"), answers);
    const Words shell{"sh", "-c", "exec \"$0\" \"$@\" <" + dir_.file("answers"), KELVO_GRABBER};
    return run_command(joined({shell, arguments}), home());
  }
  support::Environment home() const {
    return {{"HOME", dir_.path()}, {"XDG_DATA_HOME", dir_.file("data")}, {"TZ", "<noon>" + std::to_string(west_)}};
  }
  static Command_result fails(const std::string& line, int exit_code = 1) {
    return {exit_code, "", "tv_grab_kelvo: " + line + "\n"};
  }
  // Of the programmes that are handed over.
  static Words titles(const Command_result& result) {
    Words out;
    static const std::regex title("<title lang=\"et\">(.*)</title>");
    for (std::sregex_iterator at(result.out.begin(), result.out.end(), title), end; at != end; ++at)
      out.push_back((*at)[1]);
    return out;
  }
  // Hours west of UTC where it is between noon and one now, so that no midnight comes while the test runs.
  const int west_ = static_cast<int>(time(nullptr) % 86400 / 3600) - 12;
  const int64_t midnight_ = (time(nullptr) - west_ * 3600) / 86400 * 86400 + west_ * 3600;
  const std::string settings_ = dir_.file(".xmltv/tv_grab_kelvo.conf");
};

TEST_F(Grabber, says_what_it_is_and_can) {
  EXPECT_EQ(grab({"--description"}), prints("DVB-T and DVB-T2 guide, received over the air (kelvo)\n"));
  EXPECT_EQ(grab({"--version"}), prints("tv_grab_kelvo " KELVO_VERSION "\n"));
  EXPECT_EQ(grab({"--capabilities"}), prints("baseline\nmanualconfig\napiconfig\npreferredmethod\n"));
  EXPECT_EQ(grab({"--preferredmethod"}), prints("allatonce\n"));
  EXPECT_THAT(grab({"--help"}), ends(0, HasSubstr("--config-file FILE")));
}

TEST_F(Grabber, asks_for_each_channel) {
  const Command_result asked = grab({"--configure", "--db", db_}, "y\nno\n\nx\n");
  EXPECT_EQ(asked.out, "");
  EXPECT_THAT(asked.err, testing::StartsWith("Add channel 3 Žluťoučký? [yes,no,all,none (default=yes)] Add channel 12 "
                                             "Kuldnokk? [yes,no,all,none (default=yes)] "));
  EXPECT_THAT(asked.err, testing::EndsWith("tv_grab_kelvo: " + settings_ + ": 4 of 5 channels\n"));
  EXPECT_EQ(support::read_file(settings_),
            "# What tv_grab_kelvo(1) makes a guide of: channel=ID is wanted, channel!ID is not.\n"
            "database=" +
                db_ +
                "\n#languages=est,eng\n"
                "channel=1.6.9.dvb.guide  # 12 a[2J b\n"
                "channel!1001.7.9.dvb.guide  # 12 Kuldnokk\n"
                "channel=1002.7.9.dvb.guide  # Raadio\n"
                "channel=1003.7.9.dvb.guide  # 3 Žluťoučký\n"
                "channel=2.6.9.dvb.guide  # -\n");
  // What was chosen before is the default, and the other lines stay.
  run_sql(db_, "DELETE FROM kanalid WHERE channel = 5;");
  support::write_file(settings_, std::regex_replace(support::read_file(settings_), std::regex("#lang"), "lang"));
  EXPECT_THAT(grab({"--configure"}, "\n\n").err, HasSubstr("Kuldnokk? [yes,no,all,none (default=no)]"));
  EXPECT_THAT(support::read_file(settings_), AllOf(HasSubstr("\nlanguages=est,eng\nchannel=1.6.9"),
                                                   HasSubstr("\nchannel!1001.7.9"), Not(HasSubstr("2.6.9"))));
  EXPECT_EQ(titles(grab({"--days", "1", "--quiet"})).size(), 13U) << "Raadio's, and what still runs";
  const auto chosen = [&](const std::string& answers) {
    EXPECT_EQ(grab({"--configure"}, answers).exit_code, 0);
    return support::count_of(support::read_file(settings_), "\nchannel=");
  };
  EXPECT_EQ(chosen("all\n"), 4U);
  EXPECT_EQ(chosen("no\nnone\n"), 0U);
  EXPECT_EQ(chosen("Yes\nn\nAL\n"), 3U);
}

TEST_F(Grabber, gives_days_that_fit_together) {
  const Words db{"--db", db_, "--quiet"};
  const auto days = [&](int offset, int count) {
    Words out = titles(grab(joined({db, {"--offset", std::to_string(offset), "--days", std::to_string(count)}})));
    std::sort(out.begin(), out.end());
    return out;
  };
  Words both = joined({days(1, 1), days(2, 1)});
  std::sort(both.begin(), both.end());
  EXPECT_EQ(both.size(), 48U);
  EXPECT_EQ(both, days(1, 2));
  EXPECT_THAT(days(0, 1), AllOf(testing::SizeIs(25), testing::Contains("-1"), Not(testing::Contains("-3"))));
  EXPECT_EQ(days(3, 300).size(), 24U);
  EXPECT_THAT(grab(joined({db, {"--offset", "9"}})), ends(0, Not(HasSubstr("<channel")), ""));
  // What begins ends what was on, also when it begins on a day that is not asked for.
  run_sql(guide_, event(2, midnight_ + 2 * 86400 + 60, 60, "lõpp"));
  EXPECT_THAT(grab(joined({db, {"--offset", "1", "--days", "1"}})).out,
              testing::ContainsRegex("000100 [+-][0-9]*\" channel=\"1002.7.9.dvb.guide\">\n    <title lang=\"et\">47"));
}

TEST_F(Grabber, without_settings_all_channels_are_wanted) {
  std::filesystem::create_directories(dir_.file("data/kelvo"));
  for (const char* end : {".db", "_epg.db"})
    std::filesystem::copy(dir_.file(std::string("dvb") + end), dir_.file(std::string("data/kelvo/dvb") + end));
  const Command_result all = grab({});
  EXPECT_THAT(all, ends(0, AllOf(HasSubstr("<channel id=\"1001.7.9.dvb.guide\">"),
                                 HasSubstr("<channel id=\"1002.7.9.dvb.guide\">"), Not(HasSubstr("id=\"2.6.9")))));
  EXPECT_EQ(support::count_of(grab({"--list-channels"}).out, "<channel "), 5U);
  run_sql(dir_.file("data/kelvo/dvb.db"),
          "CREATE TABLE service_detail (channel int, visible int); INSERT INTO service_detail VALUES (1, 0);");
  EXPECT_THAT(grab({}).out, Not(HasSubstr("1001.7.9"))) << "hidden";
  EXPECT_EQ(grab({"--output", dir_.file("out.xml")}), prints(""));
  EXPECT_EQ(support::read_file(dir_.file("out.xml")), grab({}).out);
  EXPECT_THAT(grab({"--configure-api", "--stage", "start"}),
              ends(0, AllOf(HasSubstr("<string id=\"database\" default=\"" + dir_.file("data/kelvo/dvb.db") + "\">"),
                            HasSubstr("<nextstage stage=\"select-channels\" />"))));
}

TEST_F(Grabber, tells_what_has_changed_unless_it_is_quiet) {
  ASSERT_EQ(grab({"--configure", "--db", db_, "--quiet"}, "").exit_code, 0);
  EXPECT_EQ(grab({"--days", "1"}).err, "");
  run_sql(db_, "UPDATE kanalid SET pat_prnr = 2002 WHERE channel = 2;");
  EXPECT_EQ(grab({"--days", "1"}).err, "tv_grab_kelvo: 1002.7.9.dvb.guide: no longer in " + db_ +
                                           "\ntv_grab_kelvo: 1 more channel is in " + db_ +
                                           "; 'tv_grab_kelvo --configure' asks for them\n");
  EXPECT_EQ(grab({"--days", "1", "--quiet"}).err, "");
  std::filesystem::remove(guide_);
  EXPECT_THAT(grab({"--days", "1"}).err, testing::EndsWith("no events of these channels and days in " + db_ +
                                                           "; 'kelvo epg update' collects them\n"));
}

TEST_F(Grabber, failures_are_one_line) {
  const std::string other = dir_.file("other.conf");
  EXPECT_EQ(grab({"--config-file", other}),
            fails(other + ": No such file or directory; make it with 'tv_grab_kelvo --configure'"));
  support::write_file(other, "database=" + db_ + "\n\n # comment\nchannel=1001.7.9.dvb.guide # a\nchannel\n");
  EXPECT_EQ(grab({"--config-file", other}),
            fails(other + ":5: not understood: channel; make it anew with 'tv_grab_kelvo --configure'"));
  support::write_file(other, "languages=et\ndatabase=" + db_ + "\n");
  EXPECT_EQ(grab({"--config-file", other}),
            fails(other + ": languages=et: not a list of languages; give codes of three letters, such as est,eng"));
  EXPECT_EQ(grab({"--db", dir_.file("missing.db")}), fails(dir_.file("missing.db") + MISSING));
  EXPECT_EQ(grab({"--db", db_, "--output", dir_.file("no/out.xml")}).exit_code, 1);
  for (const Words& wrong : {Words{"--ahdmegkeja"}, Words{"--days", "0"}, Words{"--days", "x"}, Words{"film"}}) {
    const Command_result result = grab(wrong);
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_THAT(support::lines_of(result.err), ElementsAre(testing::EndsWith("(see 'tv_grab_kelvo --help')")));
  }
  EXPECT_EQ(grab({"--configure-api", "--stage", "x"}), fails("--stage x: there is only the stage start", 2));
  run_sql(db_, "DELETE FROM kanalid;");
  EXPECT_EQ(grab({"--configure", "--db", db_}), fails(db_ + ": no channels yet; find them with 'kelvo scan'"));
  EXPECT_FALSE(std::filesystem::exists(settings_));
}

TEST_F(Grabber, a_reader_that_has_enough_ends_it_without_a_word) {
  EXPECT_EQ(run_for_nobody({KELVO_GRABBER, "--db", db_, "--list-channels"}), prints("141\n"));
}

TEST_F(Grabber, passes_the_validator_of_xmltv) {
  const std::string dtd = "/usr/share/xmltv/xmltv.dtd";
  if (access(dtd.c_str(), R_OK) != 0 || access("/usr/bin/tv_validate_grabber", X_OK) != 0)
    GTEST_SKIP() << "needs xmltv-util";
  const support::Environment environment = [this] {
    support::Environment out = home();
    out["TMPDIR"] = dir_.path();
    return out;
  }();
  const Command_result result =
      run_command({"/usr/bin/tv_validate_grabber", "--dtd-file", dtd, KELVO_GRABBER " --db " + db_}, environment);
  EXPECT_THAT(result, ends(0, testing::EndsWith("Grabber validated ok.\nValidated ok.\n"))) << result.out << result.err;
}

}  // namespace
