// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/command.h"
#include "support/support.h"
#include "tools/guide_fixture.h"
#include "tools/prepared_db.h"

// `kelvo watch` under the software adapter, in virtual time. What it says of clock and zone: watch_clock_test.cpp.

namespace {

using support::Command_result;
using support::run_command;

const std::string TIME_OF_DAY = "[0-2][0-9]:[0-5][0-9]:[0-5][0-9] ";

// The lines without the time of day that each begins with.
std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) {
    EXPECT_TRUE(std::regex_search(line, std::regex("^" + TIME_OF_DAY))) << line;
    out.push_back(line.size() > 9 ? line.substr(9) : line);
  }
  return out;
}

size_t count_of(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

class Watch : public Guide_fixture {
 protected:
  Words watch(const Words& options, const Words& arguments) const {
    return kelvo(options, joined({"watch"}, arguments));
  }
};

TEST_F(Watch, says_how_the_guide_grows) {
  scan(network());
  const Command_result result = run_command(watch(network(), {"1", "--for", "60s"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  std::vector<std::string> lines = lines_of(result.out);
  ASSERT_GE(lines.size(), 3U) << result.out;
  EXPECT_EQ(lines.front(), "watching Kuldnokk on 506.000 MHz, 0 events in the guide");
  EXPECT_EQ(lines.back(), "stopped, 96 events in the guide");
  // The steps add up to what is there; a step has more than 20 events.
  int events = 0;
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(lines[i], parts, std::regex("guide grown to ([0-9]+) events \\(\\+([0-9]+)\\)")))
        << lines[i];
    EXPECT_EQ(std::stoi(parts[1]), events + std::stoi(parts[2]));
    events = std::stoi(parts[1]);
  }
  EXPECT_GT(events, 96 - 21);
}

TEST_F(Watch, finds_a_channel_by_number_name_and_row) {
  scan(network());
  const struct {
    const char* wanted;
    const char* name;
    const char* freq;
  } cases[] = {{"2", "Öökull", "506.000"},  {"öÖK", "Öökull", "506.000"}, {"Öökull", "Öökull", "506.000"},
               {"ШПАК", "Шпак", "514.000"}, {"#3", "Шпак", "514.000"},    {"11", "Шпак", "514.000"}};
  for (const auto& c : cases) {
    const Command_result result = run_command(watch(network(), {c.wanted, "--for", "1s"}));
    EXPECT_EQ(result.exit_code, 0) << c.wanted << result.err;
    ASSERT_FALSE(result.out.empty());
    EXPECT_EQ(lines_of(result.out).front(),
              std::string("watching ") + c.name + " on " + c.freq + " MHz, 0 events in the guide");
  }
}

TEST_F(Watch, says_when_quality_is_lost_and_back) {
  scan(network());
  // A lost lock, then a lock whose bits are wrong.
  for (const auto& [bad, good] : {std::pair("status 506000000 = 0", "status 506000000 = 0x1f"),
                                  std::pair("ber 506000000 = 1000000", "ber 506000000 = 0")}) {
    support::Running_command running(controlled(network("x4"), {"watch", "Kuldnokk"}));
    // The guide grows some 10 s after the lock.
    ASSERT_TRUE(running.wait_for_out("guide grown to ") || running.wait_for_out(" 96 events")) << running.out();
    control(std::string("adapter 0 ") + bad);
    ASSERT_TRUE(running.wait_for_out("quality lost\n")) << running.out();
    EXPECT_EQ(running.out().find("quality back"), std::string::npos);
    control(std::string("adapter 0 ") + good);
    ASSERT_TRUE(running.wait_for_out("quality back\n")) << running.out();
    ASSERT_EQ(kill(running.pid(), SIGINT), 0);
    const Command_result result = running.wait();
    EXPECT_EQ(result.exit_code, 0);
    const std::vector<std::string> lines = lines_of(result.out);
    EXPECT_EQ(count_of(lines, "quality lost"), 1U) << result.out;
    EXPECT_EQ(count_of(lines, "quality back"), 1U) << result.out;
    std::filesystem::remove(guide_);
  }
}

// Nobody may wait in front of a silent screen for a channel that is not there.
TEST_F(Watch, says_when_there_is_no_lock_and_when_it_comes) {
  scan(network());
  support::Running_command running(
      controlled(joined(network("x4"), {"--signal", "506000000:status=0"}), {"watch", "1"}));
  ASSERT_TRUE(running.wait_for_out("quality lost\n")) << running.out();
  control("adapter 0 status 506000000 = 0x1f");
  ASSERT_TRUE(running.wait_for_out("quality back\n")) << running.out();
  ASSERT_EQ(kill(running.pid(), SIGTERM), 0);
  const Command_result result = running.wait();
  EXPECT_EQ(result.exit_code, 0);
  const std::vector<std::string> lines = lines_of(result.out);
  ASSERT_GE(lines.size(), 2U) << result.out;
  EXPECT_EQ(lines[1], "quality lost");
}

TEST_F(Watch, tuning_to_a_good_channel_is_no_loss_of_quality) {
  scan(network());
  for (const char* channel : {"1", "11"}) {
    const Command_result result = run_command(watch(network("x4"), {channel, "--for", "8s"}));
    EXPECT_EQ(result.out.find("quality"), std::string::npos) << result.out;
  }
}

TEST_F(Watch, says_when_the_streams_of_a_service_change) {
  const Guide_streams streams;
  const std::string file = streams.make(
      "506", 1,
      Guide_streams::service(101, 1, "Kuldnokk",
                             R"(, "pmt_changes": [{ "at": 15, "streams": [{ "type": "mpeg2-audio", "pid": 900 },
                                 { "type": "mpeg2-video", "pid": 901 }] }])"));
  const Words options{"--time", "x10", "--now", Guide_streams::NOW_EPOCH, "--once", "--mux", "506000000=" + file};
  scan(options, {"506000000"});
  const Command_result result = run_command(watch(options, {"1", "--for", "25s"}));
  EXPECT_EQ(result.exit_code, 0);
  const std::vector<std::string> lines = lines_of(result.out);
  EXPECT_EQ(count_of(lines, "streams changed"), 1U) << result.out;
  EXPECT_EQ(count_of(lines, "channels changed"), 0U) << result.out;
  EXPECT_EQ(value(db_, "SELECT group_concat(es_pid) FROM (SELECT es_pid FROM estreams ORDER BY es_pid);"), "900,901");
}

// The PMT of a service that has gone is waited for 40 s; then everything is read again.
TEST_F(Watch, says_when_a_service_is_lost) {
  scan(network());
  run_sql(db_,
          "INSERT INTO kanalid (freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, serv_name, "
          "serv_type, prov_name, scan_state, pcr_pid) SELECT freq, 9999, 999, network_id, orig_network_id, tstream_id, "
          "77, 'Kadunud', 1, 'Keegi', 1, 99 FROM kanalid WHERE lcn = 1;");
  const Command_result result = run_command(watch(network("x20"), {"1", "--for", "60s"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_GE(count_of(lines_of(result.out), "channels changed"), 1U) << result.out;
  EXPECT_EQ(value(db_, "SELECT scan_state FROM kanalid WHERE lcn = 77;"), "0");
}

// Every five minutes everything is read again; a service that has come meanwhile is found then.
TEST_F(Watch, says_when_a_service_is_new) {
  const Guide_streams streams;
  const std::string file = streams.make("506", 1,
                                        Guide_streams::service(101, 1, "Kuldnokk") + "," +
                                            Guide_streams::service(102, 2, "Uus", R"(, "appears_at": 20)"));
  const Words options{"--time", "x10", "--now", Guide_streams::NOW_EPOCH, "--once", "--mux", "506000000=" + file};
  scan(options, {"506000000"});
  ASSERT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "1");
  // Played from behind that second, again and again.
  const Words later{"--time", "x60", "--now", Guide_streams::NOW_EPOCH, "--offset", "21", "--mux", "506000000=" + file};
  support::Running_command running(watch(later, {"1"}));
  ASSERT_TRUE(running.wait_for_out("channels changed")) << running.out();
  ASSERT_EQ(kill(running.pid(), SIGINT), 0);
  const Command_result result = running.wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(count_of(lines_of(result.out), "channels changed"), 1U) << result.out;
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "2");
}

TEST_F(Watch, ends_when_it_is_interrupted) {
  scan(network());
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    support::Running_command running(watch(network("x1"), {"2"}));
    ASSERT_TRUE(running.wait_for_out("watching Öökull")) << running.err();
    ASSERT_EQ(kill(running.pid(), signal), 0);
    const Command_result result = running.wait();
    EXPECT_EQ(result.exit_code, 0) << signal;
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(std::regex_match(
        result.out, std::regex(TIME_OF_DAY + "watching Öökull on 506.000 MHz, [0-9]+ events in the guide\n" +
                               TIME_OF_DAY + "stopped, [0-9]+ events in the guide\n")))
        << result.out;
    EXPECT_EQ(integrity(), "ok");
  }
}

// 474 MHz is tuned from the start, and a request for a channel there would do nothing.
TEST_F(Watch, a_channel_on_the_first_frequency_is_watched_too) {
  const Guide_streams streams;
  const std::string file =
      streams.make("474", 1, Guide_streams::service(101, 1, "Esimene", Guide_streams::DAY_OF_EVENTS));
  const Words options{"--time", "x10", "--now", Guide_streams::NOW_EPOCH, "--mux", "474000000=" + file};
  scan(options, {"474000000"});
  const Command_result result = run_command(watch(options, {"Esimene", "--for", "40s"}));
  ASSERT_FALSE(result.out.empty()) << result.err;
  EXPECT_EQ(lines_of(result.out).back(), "stopped, 48 events in the guide");
}

TEST_F(Watch, a_guide_that_is_missing_is_made) {
  scan(network());
  ASSERT_TRUE(std::filesystem::remove(guide_));
  const Command_result result = run_command(watch(network(), {"11", "--for", "40s"}));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  ASSERT_FALSE(result.out.empty()) << result.err;
  EXPECT_EQ(lines_of(result.out).back(), "stopped, 48 events in the guide");
}

TEST_F(Watch, a_reader_that_goes_away_ends_it) {
  scan(network());
  const std::string command = "(" + std::string(KELVO_COMMAND) + " watch 1 --for 60s --db " + db_ + "; echo $? >" +
                              dir_.file("code") + ") | true";
  const Command_result result = run_command(joined(joined({SOFTDVB_COMMAND}, network()), {"--", "sh", "-c", command}));
  EXPECT_EQ(support::read_file(dir_.file("code")), "1\n");
  EXPECT_EQ(result.err, "kelvo: cannot write the changes: Broken pipe\n");
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(Watch, a_full_guide_is_one_line) {
  scan(network());
  run_sql(guide_, "CREATE TABLE filler (bytes); INSERT INTO filler VALUES (zeroblob(7950 * 4096));");
  const Command_result result = run_command(watch(network(), {"1", "--for", "60s"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err,
            "kelvo: " + db_ + ": no room for more events: the disk is full, or the guide is as large as it may be\n");
  EXPECT_EQ(integrity(), "ok");
}

// None of these may change the databases.
class Watch_failing : public Watch, public testing::WithParamInterface<Failing_case> {};

TEST_P(Watch_failing, is_one_line) {
  expect_failure({"watch"}, GetParam());
}

const Failing_case FAILING[] = {
    {"unknown_name", {}, {"Olematu"}, "channel Olematu: no such channel; 'kelvo channels' lists them"},
    {"unknown_number", {}, {"999"}, "channel 999: no such channel; 'kelvo channels' lists them"},
    {"unknown_row", {}, {"#999"}, "channel #999: no such channel; 'kelvo channels' lists them"},
    {"no_number_means_no_number", {}, {"65535"}, "channel 65535: no such channel; 'kelvo channels' lists them"},
    {"empty_name", {}, {""}, "channel : no such channel; 'kelvo channels' lists them"},
    {"hostile_name", {}, {"\x1B[2J\nx"}, "channel [2J x: no such channel; 'kelvo channels' lists them"},
    {"ambiguous_part",
     {},
     {"A"},
     "channel A: 3 channels are meant: #1 Kuldnokk, #2 Raadio, #4 a[2J b; give one as #NUMBER"},
    {"ambiguous_number", {}, {"12"}, "channel 12: 2 channels are meant: #1 Kuldnokk, #4 a[2J b; give one as #NUMBER"},
    {"no_channel", {}, {}, "CHANNEL is required (see 'kelvo watch --help')", 2},
    {"two_channels", {}, {"1", "2"}, "The following argument was not expected: 2 (see 'kelvo watch --help')", 2},
    {"wrong_time", {}, {"#1", "--for", "10"}, "--for 10: not a time; give for example 90s, 10m or 1h", 2},
    {"wrong_adapter",
     {},
     {"#1", "--adapter", "4"},
     "--adapter: Value 4 not in range 0 to 3 (see 'kelvo watch --help')",
     2},
    {"missing_device",
     {},
     {"#1", "--adapter", "1"},
     "/dev/dvb/adapter1/frontend0: no such device; is the adapter plugged in?"},
    {"busy_device",
     {"--fault", "open(frontend0)=EBUSY"},
     {"#1"},
     "/dev/dvb/adapter0/frontend0: in use by another program; stop it first"},
    {"no_permission",
     {"--fault", "open(demux0)=EACCES"},
     {"#1"},
     "/dev/dvb/adapter0/demux0: permission denied; is the user in group video?"},
    {"database_not_writable", {"--fault", "access(dvb.db)=EACCES"}, {"#1"}, "DB: cannot be written: Permission denied"},
};

INSTANTIATE_TEST_SUITE_P(cases, Watch_failing, testing::ValuesIn(FAILING),
                         [](const auto& test) { return std::string(test.param.legend); });

}  // namespace
