// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/command_fixture.h"
#include "tools/watch/zone_file.h"

// What `kelvo watch` says of clock and zone, under the software adapter, in virtual time.

namespace {

constexpr int64_t NOW = 1772388000;  // 2026-03-01 18:00 UTC, the time of the streams
const char* const STAYED = "clock set, but it stayed as it was, more than 10 s from the broadcast";
const char* const ZONE_SET = "time zone set: EST, UTC+03:00";

// One channel, whose network is called "levira", and whose time table has an offset.
class Watch_clock : public Command_fixture {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root() + "/dvbfiles");
    send("+03:00");
    const Command_result scanned = run({"--time", "x10", "--now", std::to_string(NOW), "--mux", "506000000=" + stream_},
                                       {"scan", "--freq", "506000000"});
    ASSERT_EQ(scanned.exit_code, 0) << scanned.err;
  }

  void send(const std::string& offset, const std::string& network = "levira") {
    support::write_file(dir_.file("mux.json"),
                        R"({ "fast": true, "duration": 2, "payload_rate": 0, "transport_stream_id": 1,
                             "original_network_id": 8193, "network": { "name": ")" +
                            network + R"(" },
                             "services": [{ "service_id": 101, "lcn": 1, "name": "Laine", "provider": "Meedia",
                                            "streams": [{ "type": "mpeg2-audio", "languages": ["est"] }] }],
                             "time": { "offsets": [{ "country": "EST", "offset": ")" +
                            offset + R"(" }] } })");
    const Command_result made =
        run_command({SOFTDVB_MUX_COMMAND, dir_.file("mux.json"), "-q", "-o", stream_, "--now", "2026-03-01T18:00:00Z"});
    ASSERT_EQ(made.exit_code, 0) << made.err;
  }

  struct How {
    Words options{};                 // of the adapter
    Words arguments{"--set-clock"};  // of the command
    std::string preload{};
    // Slow enough that the time until the lock, by which the clock of the host is ahead, is no 10 s on a busy machine.
    std::string speed = "x1";
    std::string seconds = "6s";
    std::string until{};  // a line that ends it before its time
  };

  // The lines without the first and the last one and without the time of day that each begins with.
  Words watch(int64_t host_time, const std::string& zone, const How& how) const {
    support::Running_command running(
        kelvo(joined({{"--root", root(), "--time", how.speed, "--now", std::to_string(host_time), "--mux",
                       "506000000=" + stream_},
                      how.options}),
              joined({{"watch", "Laine", "--for", how.until.empty() ? how.seconds : "200s"}, how.arguments}),
              how.preload.empty() ? "" : "LD_PRELOAD=" + how.preload + ":$LD_PRELOAD exec \"$@\""),
        {{"TZ", zone}});
    if (!how.until.empty()) {
      (void)running.wait_for_out(how.until);
      kill(running.pid(), SIGINT);
    }
    const Command_result result = running.wait();
    EXPECT_THAT(result, ends(0, testing::_, ""));
    const Words lines = timed_lines_of(result.out);
    EXPECT_GE(lines.size(), 2U);
    if (lines.size() < 2)
      return {};
    EXPECT_EQ(lines.front(), "watching Laine on 506.000 MHz, 0 events in the guide");
    EXPECT_EQ(lines.back(), "stopped, 0 events in the guide");
    return {lines.begin() + 1, lines.end() - 1};
  }
  std::string root() const { return dir_.file("root"); }
  static bool have_zic() { return access("/usr/sbin/zic", X_OK) == 0; }

  const std::string stream_ = dir_.file("mux.ts");
};

}  // namespace

TEST_F(Watch_clock, a_right_clock_and_zone_are_not_worth_a_line) {
  EXPECT_EQ(watch(NOW, "MSK-3", {}), Words{});
}

TEST_F(Watch_clock, says_by_how_much_the_clock_was_set) {
  for (const int64_t off : {-3600, 3600}) {
    const Words lines = watch(NOW + off, "MSK-3", {.preload = MOVING_CLOCK, .until = " clock set by"});
    ASSERT_EQ(lines.size(), 1U) << testing::PrintToString(lines);
    std::smatch by;
    ASSERT_TRUE(std::regex_match(lines[0], by, std::regex("clock set by ([+-][0-9]+) s"))) << lines[0];
    // The adapter's clock goes on from the start of the command, the stream's from the lock.
    EXPECT_LE(std::stoll(by[1]), -off + 2);
    EXPECT_GE(std::stoll(by[1]), -off - 60);
  }
}

TEST_F(Watch_clock, says_that_a_clock_that_may_not_be_set_stays) {
  EXPECT_EQ(watch(NOW - 3600, "MSK-3", {.until = STAYED}), Words{STAYED}) << "the adapter only records";
  const std::string refused = " s slow by the broadcast; no right to set it";
  EXPECT_THAT(watch(NOW - 3600, "MSK-3", {.options = {"--fault", "settimeofday=EPERM"}, .until = refused}),
              testing::ElementsAre(testing::MatchesRegex("the clock is 3[56][0-9][0-9]" + refused)));
}

TEST_F(Watch_clock, without_being_asked_nothing_is_set_and_a_minute_of_difference_is_said_once) {
  const std::string log = dir_.file("log");
  for (const auto& [off, says] : {std::pair(-3600, " slow by the broadcast; --set-clock sets it"),
                                  std::pair(3600, " fast by the broadcast; --set-clock sets it")}) {
    const Words lines =
        watch(NOW + off, "UTC0", {.options = {"--log", log}, .arguments = {}, .speed = "x20", .seconds = "100s"});
    ASSERT_EQ(lines.size(), 1U) << testing::PrintToString(lines);
    EXPECT_THAT(lines[0], testing::MatchesRegex("the clock is 3[56][0-9][0-9] s" + std::string(says)));
    EXPECT_THAT(support::read_file(log), testing::Not(testing::HasSubstr("settimeofday")));
    EXPECT_FALSE(std::filesystem::exists(root() + "/dvbfiles/localtime"));
  }
  EXPECT_EQ(watch(NOW - 30, "UTC0", {.arguments = {}}), Words{});
}

TEST_F(Watch_clock, says_once_what_is_done_at_every_time_table) {
  EXPECT_EQ(watch(NOW - 3600, "MSK-3", {.speed = "x100", .seconds = "350s"}), Words{STAYED});
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  const Words lines = watch(NOW - 3600, "UTC0", {.speed = "x100", .seconds = "350s"});
  EXPECT_EQ(lines.size(), 2U) << testing::PrintToString(lines);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), STAYED), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), ZONE_SET), 1);
}

TEST_F(Watch_clock, says_that_a_clock_before_2000_is_set) {
  const Words lines = watch(1000, "MSK-3", {.preload = MOVING_CLOCK, .until = "clock set"});
  ASSERT_EQ(lines.size(), 1U) << testing::PrintToString(lines);
  EXPECT_EQ(lines[0].substr(0, 19), "clock set by +17723") << lines[0];
  EXPECT_EQ(watch(1000, "MSK-3", {.until = STAYED}), Words{STAYED});
}

TEST_F(Watch_clock, says_which_zone_was_set) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  EXPECT_EQ(watch(NOW, "UTC0", {.until = ZONE_SET}), Words{ZONE_SET});
  EXPECT_EQ(zone_in(root() + "/dvbfiles/localtime"), "EST, UTC+03:00");
  send("-01:30");
  EXPECT_EQ(watch(NOW, "UTC0", {.until = "time zone set"}), Words{"time zone set: EST, UTC-01:30"});
}

TEST_F(Watch_clock, says_that_a_zone_could_not_be_set) {
  const Words not_set{"time zone not set: UTC+03:00 could not be compiled, or not written to /dvbfiles/localtime"};
  EXPECT_EQ(watch(NOW, "UTC0", {.options = {"--fault", "system(*zic*)=ENOENT"}, .until = not_set[0]}), not_set);
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  EXPECT_EQ(watch(NOW, "UTC0", {.options = {"--fault", "open(/dvbfiles/localtime)=EROFS"}, .until = not_set[0]}),
            not_set);
}

TEST_F(Watch_clock, takes_the_zone_of_the_network_that_is_named) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  EXPECT_EQ(watch(NOW, "UTC0", {.arguments = {"--set-clock", "--zone-of", "Levira"}}), Words{});
  EXPECT_FALSE(std::filesystem::exists(root() + "/dvbfiles/localtime"));
  EXPECT_EQ(watch(NOW, "UTC0", {.arguments = {"--set-clock", "--zone-of", "levira"}, .until = ZONE_SET}),
            Words{ZONE_SET});
}

TEST(Zone_file, tells_name_and_offset_or_the_rule) {
  const support::Temp_dir folder;
  const auto zone = [&](const std::string& end) {
    support::write_file(folder.file("zone"), "TZif2" + std::string(80, '\0') + end);
    return zone_in(folder.file("zone"));
  };
  const struct {
    const char* end;
    const char* said;
  } cases[] = {
      {"\nEST-3\n", "EST, UTC+03:00"},
      {"\nPRT1:30\n", "PRT, UTC-01:30"},
      {"\nGBR0\n", "GBR, UTC+00:00"},
      {"\nXYZ+5\n", "XYZ, UTC-05:00"},
      {"\nxyz-0:30\n", "xyz, UTC+00:30"},
      {"\nxyz0:30\n", "xyz, UTC-00:30"},
      {"\n<372>-5:45\n", "372, UTC+05:45"},
      {"\nEST-100:39\n", "EST, UTC+100:39"},
      {"\nLMT-1:23:45\n", "LMT-1:23:45"},
      {"\nCET-1CEST,M3.5.0,M10.5.0/3\n", "CET-1CEST,M3.5.0,M10.5.0/3"},
      {"\n\n", ""},
      {"\nEST-3", ""},
      {"EST-3\n", ""},
      {"\nE\033[2J\n", ""},
      {"", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(zone(c.end), c.said) << c.end;
  support::write_file(folder.file("zone"), "no zone\nEST-3\n");
  EXPECT_EQ(zone_in(folder.file("zone")), "");
  EXPECT_EQ(zone_in(folder.file("missing")), "");
}
