// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/guide_fixture.h"

// `kelvo watch` under the software adapter, in virtual time. What it says of clock and zone: watch_clock_test.cpp.

namespace {

using support::Running_command;
using testing::_;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class Watch : public Guide_fixture {
 protected:
  Words command(const Words& options, const Words& arguments) const {
    return kelvo(options, joined({{"watch"}, arguments}));
  }
  Command_result watch(const Words& options, const Words& arguments) const {
    return run_command(command(options, arguments));
  }
  // What a run that ends well says.
  static Words said(const Command_result& result) {
    EXPECT_THAT(result, ends(0, _, ""));
    return timed_lines_of(result.out);
  }
};

TEST_F(Watch, says_how_the_guide_grows) {
  scan(network());
  const Words lines = said(watch(network(), {"1", "--for", "60s"}));
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front(), "watching Kuldnokk on 506.000 MHz, 0 events in the guide");
  EXPECT_EQ(lines.back(), "stopped, 96 events in the guide");
  // The steps add up to what is there; a step has more than 20 events.
  int events = 0;
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    std::smatch parts;
    if (lines[i] == "guide complete, 96 events") {
      events = 96;
      continue;
    }
    ASSERT_TRUE(std::regex_match(lines[i], parts, std::regex("guide grown to ([0-9]+) events \\(\\+([0-9]+)\\)")))
        << lines[i];
    EXPECT_EQ(std::stoi(parts[1]), events + std::stoi(parts[2]));
    events = std::stoi(parts[1]);
  }
  EXPECT_GT(events, 96 - 21);
}

TEST_F(Watch, shows_the_library_s_messages_when_asked_to) {
  scan(network());
  EXPECT_EQ(watch(network(), {"1", "--for", "2s"}).err, "");
  EXPECT_THAT(watch(network(), {"1", "--for", "2s", "-vv"}).err,
              HasSubstr("\nWARNING: Loop init, local channel is 1\n"));
}

// The guide is complete, and then another version of it is sent.
TEST_F(Watch, says_which_events_change) {
  const auto events = [](const std::string& list) {
    return mux("506", service(101, 1, "Kuldnokk", R"(, "events": [)" + list + "]"));
  };
  const Words before = events(R"({ "event_id": 1, "start": "now-30m", "duration": "1h", "name": "Uudised" },
                                 { "event_id": 2, "start": "now+30m", "duration": "1h", "name": "Film" },
                                 { "event_id": 3, "start": "now+90m", "duration": "1h", "name": "Sport" })");
  const Words after = events(R"({ "event_id": 1, "start": "now-30m", "duration": "1h", "name": "Uudised" },
                                { "event_id": 2, "start": "now+45m", "duration": "1h", "name": "Film" },
                                { "event_id": 4, "start": "now+180m", "duration": "1h", "name": "Arutelu" })");
  scan(at_speed("x10", before), {"506000000"});
  const std::string file = after[1].substr(after[1].find('=') + 1);
  const Words lines =
      said(watch(at_speed("x10", joined({before, {"--then", "506000000=40:" + file}})), {"1", "--for", "70s"}));
  EXPECT_THAT(lines, testing::IsSupersetOf({"guide complete, 3 events", "stopped, 3 events in the guide"}));
  EXPECT_THAT(lines, Contains(MatchesRegex("event moved: Kuldnokk, 2026-03-01 [0-9:]+, Film")));
  EXPECT_THAT(lines, Contains(MatchesRegex("event new: Kuldnokk, 2026-03-01 [0-9:]+, Arutelu")));
  EXPECT_THAT(lines, Contains(MatchesRegex("event cancelled: Kuldnokk, 2026-03-01 [0-9:]+")));
  EXPECT_THAT(lines, Not(Contains(HasSubstr("Uudised"))));
}

TEST_F(Watch, an_object_a_line_tells_the_same) {
  scan(network());
  const Command_result result = watch(network(), {"1", "--for", "60s", "--json"});
  EXPECT_THAT(result, ends(0, testing::_, ""));
  std::vector<nlohmann::json> lines;
  for (const std::string& line : support::lines_of(result.out))
    lines.push_back(nlohmann::json::parse(line));
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front()["about"], "watching");
  EXPECT_EQ(lines.front()["text"], "watching Kuldnokk on 506.000 MHz, 0 events in the guide");
  EXPECT_GT(lines.front()["time"].get<int64_t>(), 0);
  EXPECT_THAT(lines, Contains(testing::ResultOf(
                         [](const nlohmann::json& line) {
                           return line["about"] == "guide" && line["complete"] == true ? line["events"].get<int>() : 0;
                         },
                         96)));
  EXPECT_EQ(lines.back()["about"], "stopped");
}

TEST_F(Watch, finds_a_channel_by_number_name_and_row) {
  scan(network());
  const struct {
    const char* wanted;
    const char* name_and_freq;
  } cases[] = {{"2", "Öökull on 506.000"},  {"öÖK", "Öökull on 506.000"}, {"Öökull", "Öökull on 506.000"},
               {"ШПАК", "Шпак on 514.000"}, {"#3", "Шпак on 514.000"},    {"11", "Шпак on 514.000"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.wanted);
    EXPECT_THAT(said(watch(network(), {c.wanted, "--for", "1s"})).front(),
                testing::StartsWith(std::string("watching ") + c.name_and_freq + " MHz, "));
  }
}

TEST_F(Watch, says_when_quality_is_lost_and_back) {
  device_ = "box";  // whose status and bit errors can be set one by one
  scan(network());
  const struct {
    const char* legend;
    const char* profile;
    const char* bad;
    const char* good;
  } cases[] = {
      {"nothing is received", "any", "status 506000000 = 0", "status 506000000 = 0x1f"},
      {"a signal without a lock", "any", "status 506000000 = 0x0f", "status 506000000 = 0x1f"},
      {"a lock whose bits are wrong", "box", "ber 506000000 = 1000000", "ber 506000000 = 0"},
  };
  for (const auto& [legend, profile, bad, good] : cases) {
    SCOPED_TRACE(legend);
    Running_command running(controlled(network("x4"), {"watch", "Kuldnokk", "--profile", profile}));
    // The guide grows some 10 s after the lock.
    ASSERT_TRUE(running.wait_for_out("guide grown to ") || running.wait_for_out(" 96 events")) << running.out();
    control(std::string("adapter 0 ") + bad);
    ASSERT_TRUE(running.wait_for_out("quality lost\n")) << running.out();
    EXPECT_THAT(running.out(), Not(HasSubstr("quality back")));
    control(std::string("adapter 0 ") + good);
    ASSERT_TRUE(running.wait_for_out("quality back\n")) << running.out();
    EXPECT_THAT(said(ended_by(SIGINT, running)),
                AllOf(Contains("quality lost").Times(1), Contains("quality back").Times(1)));
    std::filesystem::remove(guide_);
  }
}

// Nobody may wait in front of a silent screen for a channel that is not there.
TEST_F(Watch, says_when_there_is_no_lock_and_when_it_comes) {
  device_ = "box";  // looks for a lock without beginning anew
  scan(network());
  Running_command running(controlled(joined({network("x4"), {"--signal", "506000000:status=0"}}), {"watch", "1"}));
  ASSERT_TRUE(running.wait_for_out("quality lost\n")) << running.out();
  control("adapter 0 status 506000000 = 0x1f");
  ASSERT_TRUE(running.wait_for_out("quality back\n")) << running.out();
  const Words lines = said(ended_by(SIGTERM, running));
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[1], "quality lost");
}

TEST_F(Watch, tuning_to_a_good_channel_is_no_loss_of_quality) {
  scan(network());
  for (const char* channel : {"1", "11"})
    EXPECT_THAT(watch(network("x4"), {channel, "--for", "8s"}).out, Not(HasSubstr("quality")));
}

TEST_F(Watch, says_when_the_streams_of_a_service_change) {
  const Words options = joined({at_speed("x10", mux("506", service(101, 1, "Kuldnokk",
                                                                   R"(, "pmt_changes": [{ "at": 15, "streams": [
                                                 { "type": "mpeg2-audio", "pid": 900 },
                                                 { "type": "mpeg2-video", "pid": 901 }] }])"))),
                                {"--once"}});
  scan(options, {"506000000"});
  EXPECT_THAT(said(watch(options, {"1", "--for", "25s"})),
              AllOf(Contains("streams changed").Times(1), Not(Contains("channels changed"))));
  EXPECT_EQ(value(dir_.file("dvb.db.good"), "SELECT count(*) FROM estreams WHERE es_pid IN (900, 901)"), "2")
      << "the copy for a repair follows";
  EXPECT_EQ(value(db_, "SELECT group_concat(es_pid) FROM (SELECT es_pid FROM estreams ORDER BY es_pid);"), "900,901");
}

// The PMT of a service that has gone is waited for 40 s; then everything is read again.
TEST_F(Watch, says_when_a_service_is_lost) {
  scan(network());
  add_lost_service(999);
  EXPECT_THAT(said(watch(network("x20"), {"1", "--for", "60s"})), Contains("channels changed"));
  EXPECT_EQ(value(db_, "SELECT scan_state FROM kanalid WHERE lcn = 77;"), "0");
}

// Every five minutes everything is read again; a service that has come meanwhile is found then.
TEST_F(Watch, says_when_a_service_is_new) {
  const Words made = mux("506", service(101, 1, "Kuldnokk") + "," + service(102, 2, "Uus", R"(, "appears_at": 20)"));
  scan(joined({at_speed("x10", made), {"--once"}}), {"506000000"});
  ASSERT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "1");
  // Played from behind that second, again and again.
  Running_command running(command(joined({at_speed("x60", made), {"--offset", "21"}}), {"1"}));
  ASSERT_TRUE(running.wait_for_out("channels changed")) << running.out();
  EXPECT_THAT(said(ended_by(SIGINT, running)), Contains("channels changed").Times(1));
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "2");
}

TEST_F(Watch, ends_when_it_is_interrupted) {
  scan(network());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Running_command running(command(network("x1"), {"2"}));
    ASSERT_TRUE(running.wait_for_out("watching Öökull")) << running.err();
    EXPECT_THAT(ended_by(signal, running),
                ends(0,
                     MatchesRegex(TIME_OF_DAY + "watching Öökull on 506.000 MHz, [0-9]+ events in the guide\n" +
                                  TIME_OF_DAY + "stopped, [0-9]+ events in the guide\n"),
                     ""))
        << signal;
    EXPECT_EQ(integrity(), "ok");
  }
}

// 474 MHz is tuned from the start, and a request for a channel there would do nothing.
TEST_F(Watch, a_channel_on_the_first_frequency_is_watched_too) {
  const Words options = at_speed("x10", mux("474", service(101, 1, "Esimene", DAY_OF_EVENTS)));
  scan(options, {"474000000"});
  EXPECT_EQ(said(watch(options, {"Esimene", "--for", "40s"})).back(), "stopped, 48 events in the guide");
}

TEST_F(Watch, a_guide_that_is_missing_is_made) {
  scan(network());
  ASSERT_TRUE(std::filesystem::remove(guide_));
  EXPECT_EQ(said(watch(network(), {"11", "--for", "40s"})).back(), "stopped, 48 events in the guide");
}

TEST_F(Watch, a_reader_that_goes_away_ends_it) {
  scan(network());
  const std::string code = dir_.file("code");
  EXPECT_THAT(run(network(), {"watch", "1", "--for", "60s"}, "(\"$@\"; echo $? >" + code + ") | true"), ends(0, _, ""));
  EXPECT_EQ(support::read_file(code), "141\n");
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(Watch, a_full_guide_is_one_line) {
  scan(network());
  fill_up(guide_);
  EXPECT_THAT(watch(network(), {"1", "--for", "60s"}), ends(1, _, "kelvo: " + db_ + ": " + NO_ROOM));
  EXPECT_EQ(integrity(), "ok");
}

// None of these may change the databases.
TEST_F(Watch, a_failure_is_one_line) {
  const std::string unknown = ": no such channel; 'kelvo channels' lists them";
  const std::string help = " (see 'kelvo watch --help')";
  expect_failures(
      {"watch"},
      {{"unknown name", {}, {"Olematu"}, "channel Olematu" + unknown},
       {"unknown number", {}, {"999"}, "channel 999" + unknown},
       {"unknown row", {}, {"#999"}, "channel #999" + unknown},
       {"no number means no number", {}, {"65535"}, "channel 65535" + unknown},
       {"empty name", {}, {""}, "channel " + unknown},
       {"hostile name", {}, {"\x1B[2J\nx"}, "channel [2J x" + unknown},
       {"ambiguous part",
        {},
        {"A"},
        "channel A: 3 channels are meant: #1 Kuldnokk, #2 Raadio, #4 a[2J b; give one as #NUMBER"},
       {"ambiguous number",
        {},
        {"12"},
        "channel 12: 2 channels are meant: #1 Kuldnokk, #4 a[2J b; give one as #NUMBER"},
       {"no channel", {}, {}, "CHANNEL is required" + help, 2},
       {"two channels", {}, {"1", "2"}, "The following argument was not expected: 2" + help, 2},
       {"wrong time", {}, {"#1", "--for", "10"}, "--for 10: not a time; give for example 90s, 10m or 1h", 2},
       {"wrong adapter", {}, {"#1", "--adapter", "4"}, "--adapter: Value 4 not in range 0 to 3" + help, 2},
       {"missing device", {}, {"#1", "--adapter", "1"}, "/dev/dvb/adapter1/frontend0" + NO_DEVICE},
       {"busy device", {"--fault", "open(frontend0)=EBUSY"}, {"#1"}, "/dev/dvb/adapter0/frontend0" + BUSY_DEVICE},
       {"no permission", {"--fault", "open(demux0)=EACCES"}, {"#1"}, "/dev/dvb/adapter0/demux0" + DENIED_DEVICE},
       {"database not writable",
        {"--fault", "access(dvb.db)=EACCES"},
        {"#1"},
        "DB: cannot be written: Permission denied"}});
}

}  // namespace
