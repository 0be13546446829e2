// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the broadcast time does to the clock and the zone, from the stream to what the adapter recorded and what the C
// library reads afterwards. Nothing here sets the machine's clock or zone.

#include "scan/scan_run.h"
#include "si/broadcast_time.h"

using nlohmann::literals::operator""_json;
using Lines = support::Texts;

namespace {

constexpr int64_t NOW = 1772388000;  // 2026-03-01 18:00 UTC, the time of the streams

// What the log holds of calls whose name is one of `names`: "settimeofday 1700000000.000000000 = 0".
Lines calls_of(const Scan_run& run, const Lines& names) {
  Lines calls;
  for (const std::string& line : support::lines_of(run.log)) {
    std::istringstream words(line);
    std::string seconds, pid, tid, call;
    words >> seconds >> pid >> tid >> call;
    if (std::count(names.begin(), names.end(), call) != 0)
      calls.push_back(line.substr(line.find(call)));
  }
  return calls;
}

Lines clock_settings(const Scan_run& run) {
  return calls_of(run,
                  {"settimeofday", "clock_settime", "adjtime", "adjtimex", "clock_adjtime", "ntp_adjtime", "stime"});
}

Lines shell_commands(const Scan_run& run) {
  return calls_of(run, {"system"});
}

}  // namespace

// The host sees a clock that stands nearly still, so that seconds can be told from each other on a busy machine: ten
// times as long as the machine's. Its multiplex is tuned by another program, and sent as fast as it is read.
class Clock_test : public Scan_test {
 protected:
  // A second of stream whose time tables all say `utc`.
  std::string stream_at(const std::string& utc, const Json& more = Json::array()) {
    Json patch = {{{"op", "replace"}, {"path", "/now"}, {"value", utc}},
                  {{"op", "replace"}, {"path", "/duration"}, {"value", 1}}};
    patch.insert(patch.end(), more.begin(), more.end());
    return stream(patch);
  }
  Scan_run run_at(int64_t host_time, const std::string& file, const Lines& more = {}) {
    Lines options = on_freq(file, {"--now", std::to_string(host_time), "--time", "x0.1", "--tuned",
                                   std::to_string(FREQ), "--pace", "fast", "--start", "filter"});
    options.insert(options.end(), more.begin(), more.end());
    return run(options, "kelvo 0 passive; verbosity 4; freq 0 506000000; wait_done 0 100; verbosity 0; state 0");
  }
};

TEST_F(Clock_test, up_to_ten_seconds_off_it_stays_and_beyond_it_is_set_once) {
  const std::string file = stream_at("2026-03-01T18:00:00Z");
  const Lines set = {"settimeofday 1772388000.000000000 = 0"};
  const struct {
    const char* what;
    int64_t host_time;
    bool sets;
  } cases[] = {
      {"right", NOW, false},         {"10 s late", NOW - 10, false}, {"10 s early", NOW + 10, false},
      {"11 s late", NOW - 11, true}, {"11 s early", NOW + 11, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::remove(database());
    const Scan_run scanned = run_at(c.host_time, file);
    EXPECT_EQ(scanned.lines({"done", "state"}), "done 0 0\nstate 1 0 1\n");
    EXPECT_EQ(clock_settings(scanned), c.sets ? set : Lines{});
    EXPECT_EQ(scanned.count_err("Time offset section\n"), 1U) << "one TOT is read per filter";
    EXPECT_EQ(scanned.count_err("Changing system clock\n"), c.sets ? 1U : 0U);
  }
}

TEST_F(Clock_test, every_date_that_can_be_sent_is_set) {
  const struct {
    const char* sent;  // MJD and time as they are broadcast
    int64_t host_time;
    const char* set;
    bool fits = true;  // into a clock of 32 bits
  } cases[] = {
      {"eeac 180000", 1000, "settimeofday 1772388000.000000000 = 0"},
      {"eeac 180000", 946684798, "settimeofday 1772388000.000000000 = 0"},
      {"eeac 180000", 2147483648, "settimeofday 1772388000.000000000 = 0"},
      {"eeac 180000", 3786912000, "settimeofday 1772388000.000000000 = 0"},
      {"9e8b 000000", NOW, "settimeofday 0.000000000 = 0"},
      {"9e8a 235958", NOW, "settimeofday -2.000000000 = -1 EINVAL"},
      {"c957 235959", NOW, "settimeofday 946684799.000000000 = 0"},
      {"c993 123456", NOW, "settimeofday 951827696.000000000 = 0"},
      {"ffa2 031407", NOW, "settimeofday 2147483647.000000000 = 0"},
      {"ffa2 031408", NOW, "settimeofday 2147483648.000000000 = 0", false},
      {"ffff 235959", NOW, "settimeofday 2155593599.000000000 = 0", false},
      {"eeac 1A7F99", NOW, "settimeofday 1772400399.000000000 = 0"},  // 20 h, 85 min and 99 s
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sent);
    const std::string file =
        stream_at("2026-03-01T18:00:00Z",
                  faults(std::string(R"([{ "fault": "wrong_bytes", "table": "tot", "offset": 3, "hex": ")") + c.sent +
                         R"(" }])"));
    std::filesystem::remove(database());
    const Scan_run scanned = run_at(c.host_time, file);
    EXPECT_EQ(clock_settings(scanned), c.fits || sizeof(time_t) == 8 ? Lines{c.set} : Lines{});
    EXPECT_EQ(scanned.lines({"state"}), "state 1 0 1\n") << "the clock counts as valid";
  }
}

TEST_F(Clock_test, a_tdt_is_not_asked_for) {
  const std::string file =
      stream_at("2026-03-01T18:00:00Z", R"([{ "op": "replace", "path": "/time", "value": { "tot": false } }])"_json);
  const Scan_run scanned = run_at(1000, file);
  EXPECT_EQ(scanned.lines({"done", "state"}), "done 0 0\nstate 1 0 0\n") << "the clock is not valid yet";
  EXPECT_EQ(clock_settings(scanned), Lines{});
  EXPECT_EQ(scanned.logged({"DMX_SET_FILTER pid=0x14 filter=73 "}).size(), 1U);
  EXPECT_EQ(scanned.logged({"DMX_SET_FILTER pid=0x14 filter=70 "}).size(), 0U);
}

// A TOT has no syntax indicator, so the kernel does not look at its CRC, and this filter leaves the check to the
// kernel.
TEST_F(Clock_test, quirk_a_tot_with_a_wrong_crc_is_believed) {
  const std::string file = stream_at("2026-03-01T18:00:00Z", R"([{ "op": "add", "path": "/faults", "value":
                                                                  [{ "fault": "wrong_crc", "table": "tot" }] }])"_json);
  EXPECT_EQ(clock_settings(run_at(1000, file)), Lines{"settimeofday 1772388000.000000000 = 0"});
}

TEST_F(Clock_test, a_host_that_may_not_set_it_goes_on) {
  const std::string file = stream_at("2026-03-01T18:00:00Z");
  const Scan_run scanned = run_at(1000, file, {"--fault", "settimeofday=EPERM"});
  EXPECT_EQ(scanned.lines({"done", "state"}), "done 0 0\nstate 1 0 1\n");
  EXPECT_EQ(scanned.count_err("Changing system clock\n"), 1U);
}

// A watched channel's multiplex is scanned from its PAT every 300 s, and its TOT read with it. The clock that is only
// recorded stays wrong, so it is set again.
TEST_F(Scan_test, a_watched_multiplex_sets_the_clock_at_every_full_scan) {
  const Lines options = on_freq(stream(), {"--now", "1000"});
  run(options, SCAN_ONCE);
  const Scan_run watched = run(options, "kelvo 0 tuner; channel 0 506000000 1; sleep 320; state 0", 100);
  const std::vector<double> filters = watched.logged({"DMX_SET_FILTER pid=0x14 filter=73 "});
  const std::vector<double> settings = watched.logged({"settimeofday 17723880"});
  ASSERT_EQ(filters.size(), 2U);
  ASSERT_EQ(settings.size(), 2U);
  expect_seconds(299, filters[1] - filters[0], 100);
  EXPECT_GT(settings[0], filters[0]);
  EXPECT_LT(settings[0], filters[1]);
  EXPECT_GT(settings[1], filters[1]);
}

// The database's times have 32 bits. A host's clock has more, or cannot be told there: it then stands in 2038.
TEST_F(Scan_test, a_host_whose_clock_is_beyond_2038_scans_and_purges) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const Scan_run scanned = run(on_freq(stream(), {"--now", "3786912000"}),
                               "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; freq 0 506000000; wait_done 0 100; "
                               "sql INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 2100000000, 60), "
                               "(1, 2147483646, 60); "
                               "export 0 /dvbfiles/backup.db; wait_change 0 8 20");
  EXPECT_EQ(scanned.count_err("CHECK"), 0U) << scanned.err;
  EXPECT_EQ(sql("SELECT pat_prnr, modified FROM kanalid ORDER BY pat_prnr"),
            "101|2147483647\n102|2147483647\n103|2147483647\n");
  EXPECT_EQ(sql("SELECT start_epoch FROM epglist"), sizeof(time_t) > 4 ? "" : "2147483646\n");
}

// The zone is set for a multiplex of the preferred network that the database knows.
class Zone_test : public Scan_test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(sandbox() + "/dvbfiles");
    host_zone("EET-2");
  }
  void TearDown() override { unsetenv("TZ"); }

  // Each tuning finds the stream at its beginning, with the TOT, however late its first filter is set.
  static Lines on_freq(const std::string& file, Lines more = {}) {
    more.insert(more.end(), {"--start", "filter"});
    return Scan_test::on_freq(file, more);
  }

  static void host_zone(const std::string& tz) { setenv("TZ", tz.c_str(), 1); }

  // A stream of network "levira" whose time tables are described by `time`. The SDT, without which no scan ends, begins
  // behind the tenth TOT: on a busy machine the first ones may go by before their filter is open.
  std::string stream_with(const Json& time, const std::string& network = "levira") {
    return stream(
        {{{"op", "replace"}, {"path", "/time"}, {"value", time}},
         {{"op", "replace"}, {"path", "/network/name"}, {"value", network}},
         {{"op", "add"}, {"path", "/faults"}, {"value", {{{"fault", "drop"}, {"table", "sdt_actual"}, {"to", 10}}}}},
         {{"op", "add"}, {"path", "/intervals"}, {"value", {{"tot", 1}}}}});
  }
  std::string stream_of(const std::string& offset, const std::string& country = "EST", int region = 0) {
    return stream_with({{"offsets", {{{"country", country}, {"region", region}, {"offset", offset}}}}});
  }
  // One scan by a host whose database knows the multiplex.
  Scan_run scan(const std::string& file, const Lines& more = {}, int verbosity = 1) {
    return run(on_freq(file, more),
               "insert INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 0, 0, 'levira'); "
               "verbosity " +
                   std::to_string(verbosity) +
                   "; kelvo 0 tuner; freq 0 506000000; wait_done 0 100; verbosity 0; told_time 0");
  }
  // What the host is told of clock and zone.
  static std::string told(int clock, int zone, const std::string& offset = "0 ") {
    return "told " + std::to_string(clock) + " " + std::to_string(zone) + " " + offset + "\n";
  }
  // The same after the clock was right, or set because the machine took its time until the first filter.
  static std::string told_of(const Scan_run& run, int zone, const std::string& offset) {
    return told(clock_settings(run).empty() ? CLOCK_RIGHT : CLOCK_SET, zone, offset);
  }
  std::string source_file() const { return sandbox() + "/tmp/zoneinfo/timezone.txt"; }
  std::string source() const { return support::read_file(source_file()); }
  std::string installed_file() const { return sandbox() + "/dvbfiles/localtime"; }

  // Name and offset that the C library reads from the installed zone, in winter and in summer.
  std::string installed() const {
    if (!std::filesystem::exists(installed_file()))
      return "none";
    const char* before = getenv("TZ");
    const std::string kept = before != nullptr ? before : "";
    host_zone("UTC0");  // a file is read anew only when TZ has changed
    tzset();
    host_zone(":" + installed_file());
    tzset();
    std::string read;
    for (const time_t when : {static_cast<time_t>(NOW), static_cast<time_t>(NOW + 150 * 86400)}) {
      tm local{};
      char text[64];
      localtime_r(&when, &local);
      read += std::string(read.empty() ? "" : ", ") + std::string(text, strftime(text, sizeof text, "%Z %z", &local));
    }
    host_zone(kept);
    tzset();
    return read;
  }
};

namespace {

constexpr char CHECKED[] = "WARNING: Checking mux 506000000 provider levira = timezone levira\n";
constexpr char FIRST_LINE[] = "# Automatically generated timezone file for network levira\n";
const Lines INSTALLING = {"system /usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt = 0",
                          "system cp -f '/tmp/zoneinfo/EST_0' /dvbfiles/localtime = 0"};

// What is printed of zones. Messages of other threads may come between, and some of them end no line.
std::string zone_lines(const Scan_run& run) {
  static const std::regex TEXTS("(Country id|WARNING: Checking mux|WARNING: Setting timezone|WARNING: Timezone).*\n");
  std::string found;
  for (std::sregex_iterator at(run.err.begin(), run.err.end(), TEXTS); at != std::sregex_iterator(); ++at)
    found += at->str();
  return found;
}

bool have_zic() {
  return access("/usr/sbin/zic", X_OK) == 0;
}

}  // namespace

TEST_F(Zone_test, a_known_multiplex_installs_its_zone_at_its_second_scan) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  const std::string file = stream_of("+03:00");
  const std::string scan_once =
      "verbosity 1; freq 0 506000000; wait_done 0 100; verbosity 0; "
      "exists /tmp/zoneinfo/timezone.txt; exists /dvbfiles/localtime; ";
  const Scan_run scanned = run(on_freq(file), "kelvo 0 tuner\n" + scan_once + scan_once);
  EXPECT_EQ(scanned.lines({"done", "exists"}), "done 0 0\nexists no\nexists no\ndone 0 0\nexists yes\nexists yes\n")
      << "at the first one its rows are not there yet";
  EXPECT_EQ(zone_lines(scanned), std::string(CHECKED) + "WARNING: Setting timezone to 180\n");
  EXPECT_EQ(shell_commands(scanned), INSTALLING);
  EXPECT_EQ(installed(), "EST +0300, EST +0300");
}

TEST_F(Zone_test, every_offset_is_written_compiled_and_read_back) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  const struct {
    const char* host_zone;
    const char* offset;
    const char* country;
    int region;
    int minutes;
    const char* line;
    const char* read;
  } cases[] = {
      {"UTC0", "+02:00", "EST", 0, 120, "Zone EST_0  02:00 - EST\n", "EST +0200, EST +0200"},
      {"EET-2", "+03:00", "EST", 0, 180, "Zone EST_0  03:00 - EST\n", "EST +0300, EST +0300"},
      {"UTC0", "-01:30", "PRT", 2, -90, "Zone PRT_2 -01:30 - PRT\n", "PRT -0130, PRT -0130"},
      {"EET-2", "+00:00", "GBR", 0, 0, "Zone GBR_0 -00:00 - GBR\n", "GBR +0000, GBR +0000"},
      {"UTC0", "+05:30", "IND", 63, 330, "Zone IND_63  05:30 - IND\n", "IND +0530, IND +0530"},
      {"EET-2", "-03:30", "CAN", 1, -210, "Zone CAN_1 -03:30 - CAN\n", "CAN -0330, CAN -0330"},
      {"EET-2", "+00:30", "xyz", 0, 30, "Zone xyz_0  00:30 - xyz\n", "xyz +0030, xyz +0030"},
      {"UTC0", "+14:00", "KIR", 3, 840, "Zone KIR_3  14:00 - KIR\n", "KIR +1400, KIR +1400"},
      {"UTC0", "-02:00", "BRA", 4, -120, "Zone BRA_4 -02:00 - BRA\n", "BRA -0200, BRA -0200"},
      {"UTC0", "-12:00", "UMI", 0, -720, "Zone UMI_0 -12:00 - UMI\n", "UMI -1200, UMI -1200"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.offset);
    host_zone(c.host_zone);
    std::filesystem::remove(database());
    std::filesystem::remove(installed_file());
    const Scan_run scanned = scan(stream_of(c.offset, c.country, c.region));
    EXPECT_EQ(zone_lines(scanned),
              std::string(CHECKED) + "WARNING: Setting timezone to " + std::to_string(c.minutes) + "\n");
    EXPECT_EQ(scanned.lines({"told"}), told_of(scanned, ZONE_SET, std::to_string(c.minutes) + " " + c.country));
    EXPECT_EQ(source(), std::string(FIRST_LINE) + c.line);
    EXPECT_EQ(installed(), c.read);
    EXPECT_FALSE(std::filesystem::exists(sandbox() + "/tmp/zoneinfo/" + c.country + "_" + std::to_string(c.region)));
  }
}

TEST_F(Zone_test, the_right_zone_is_left_alone) {
  const Scan_run scanned = scan(stream_of("+02:00"));
  EXPECT_EQ(zone_lines(scanned), std::string(CHECKED) + "WARNING: Timezone OK\n");
  EXPECT_EQ(scanned.lines({"told"}), told_of(scanned, ZONE_RIGHT, "120 EST"));
  EXPECT_EQ(shell_commands(scanned), Lines{});
  EXPECT_FALSE(std::filesystem::exists(source_file()));
  EXPECT_EQ(installed(), "none");
}

TEST_F(Zone_test, a_box_whose_zone_is_the_installed_one_follows_the_broadcast) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  host_zone(":" + installed_file());
  EXPECT_EQ(shell_commands(scan(stream_of("+02:00"))), INSTALLING);
  EXPECT_EQ(installed(), "EST +0200, EST +0200");
  const Scan_run again = scan(stream_of("+02:00"));
  EXPECT_EQ(again.count_err("WARNING: Timezone OK\n"), 1U);
  EXPECT_EQ(shell_commands(again), Lines{});
  EXPECT_EQ(shell_commands(scan(stream_of("+03:00"))), INSTALLING) << "summer time begins";
  EXPECT_EQ(installed(), "EST +0300, EST +0300");
}

TEST_F(Zone_test, every_entry_is_taken_and_only_the_present_offset_of_it) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  const std::string file = stream_with(R"({ "offsets": [
    { "country": "EST", "offset": "+02:00", "change": "2026-03-29T01:00:00Z", "next": "+03:00" },
    { "country": "CAN", "region": 7, "offset": "-03:30", "change": "2026-11-01T04:05:06Z", "next": "-02:30" }] })"_json);
  const Scan_run scanned = scan(file, {}, 3);
  EXPECT_EQ(zone_lines(scanned),
            "Country id EST region id 0, offset 200, next_offset 300 , polarity 0, ymd 20260329, "
            "hms 10000\n" +
                std::string(CHECKED) +
                "WARNING: Timezone OK\n"
                "Country id CAN region id 7, offset 330, next_offset 230 , polarity 1, ymd 20261101, "
                "hms 40506\n" +
                CHECKED + "WARNING: Setting timezone to -210\n");
  EXPECT_EQ(source(), std::string(FIRST_LINE) + "Zone CAN_7 -03:30 - CAN\n");
  EXPECT_EQ(installed(), "CAN -0330, CAN -0330");
}

TEST_F(Zone_test, a_tot_without_offsets_sets_the_clock_alone) {
  const Scan_run scanned = scan(stream_with(Json::object()), {"--now", "1000"}, 3);
  EXPECT_EQ(clock_settings(scanned).size(), 1U);
  EXPECT_EQ(scanned.lines({"told"}), told(CLOCK_SET, ZONE_UNTOUCHED));
  EXPECT_EQ(scanned.count_err("Country id"), 0U);
  EXPECT_EQ(scanned.count_err("Checking mux"), 0U);
  EXPECT_EQ(shell_commands(scanned), Lines{});
}

TEST_F(Zone_test, another_network_changes_nothing) {
  const std::string file = stream_with(R"({ "offsets": [{ "country": "EST", "offset": "+03:00" }] })"_json, "Levira");
  const Scan_run scanned = run(on_freq(file),
                               "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; verbosity 1; freq 0 506000000; "
                               "wait_done 0 100");
  EXPECT_EQ(scanned.count_err("WARNING: Checking mux 506000000 provider Levira = timezone levira\n"), 1U);
  EXPECT_EQ(scanned.count_err("timezone to"), 0U);
  EXPECT_EQ(scanned.count_err("Timezone OK"), 0U);
  EXPECT_EQ(shell_commands(scanned), Lines{});
  EXPECT_FALSE(std::filesystem::exists(source_file()));
}

TEST_F(Zone_test, odd_country_codes_reach_neither_a_file_nor_the_shell) {
  // Offset +3 h for each: ';r  ../  $(x  `r`  ;r#  E T  a/b  NUL NUL NUL  E NUL ;  -ES  Latin 1  ..  line feed  EST
  const std::string tail = "02 0300 edd2 000000 0300";
  std::string entries;
  int count = 0;
  for (const char* country : {"273b72", "2e2e2f", "242878", "607260", "3b7223", "452054", "612f62", "000000", "2d4553",
                              "c45354", "2e2e00", "450a53", "7c7263", "5c7272", "2a2a2a"}) {
    entries += std::string(country) + tail;
    ++count;
  }
  char header[8];
  std::snprintf(header, sizeof header, "58%02x", 13 * static_cast<unsigned>(count));
  const Scan_run scanned = scan(stream_with({{"descriptors", {header + entries}}}));
  EXPECT_EQ(scanned.count_err(CHECKED), static_cast<size_t>(count)) << scanned.err;
  EXPECT_EQ(scanned.count_err("Timezone OK"), 0U);
  EXPECT_EQ(scanned.count_err("Setting timezone"), 0U);
  EXPECT_EQ(shell_commands(scanned), Lines{});
  EXPECT_FALSE(std::filesystem::exists(source_file()));
  EXPECT_EQ(installed(), "none");
}

TEST_F(Zone_test, an_odd_country_code_does_not_keep_the_next_entry_away) {
  if (!have_zic())
    GTEST_SKIP() << "no zone compiler";
  const Scan_run scanned =
      scan(stream_with({{"descriptors", {"581a 273b72 02 0300 edd2 000000 0300 455354 02 0300 edd2 000000 0300"}}}));
  EXPECT_EQ(zone_lines(scanned), std::string(CHECKED) + CHECKED + "WARNING: Setting timezone to 180\n");
  EXPECT_EQ(shell_commands(scanned), INSTALLING);
  EXPECT_EQ(installed(), "EST +0300, EST +0300");
}

TEST_F(Zone_test, a_zone_that_cannot_be_set_stays_and_is_told_as_failed) {
  const std::string folder = sandbox() + "/tmp/zoneinfo";
  const std::string compile = "system /usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt";
  const Lines not_copied = {compile + " = 0", "system cp -f '/tmp/zoneinfo/EST_0' /dvbfiles/localtime = 256"};
  const struct {
    const char* what;
    const char* fault;
    bool linked;     // the folder for zones is a link, which is not followed
    bool compiled;   // with the zone compiler, so without one the row is left out
    Lines commands;  // as far as they are asked for
  } cases[] = {
      {"no zone compiler", "system(*zic*)=ENOENT", false, false, {compile + " (fault) = -1 ENOENT"}},
      {"source cannot be opened", "open(*timezone.txt)=EACCES", false, false, {}},
      {"folder is a link", "", true, false, {}},
      {"target cannot be written", "open(/dvbfiles/localtime)=EROFS", false, true, not_copied},
      {"no folder for the target", "open(/dvbfiles/localtime)=ENOENT", false, true, not_copied},
  };
  for (const auto& c : cases) {
    if (c.compiled && !have_zic())
      continue;
    SCOPED_TRACE(c.what);
    std::filesystem::remove(database());
    std::filesystem::remove_all(folder);
    std::filesystem::remove(installed_file());
    std::filesystem::create_directories(folder_.file("elsewhere"));
    if (c.linked)
      std::filesystem::create_directory_symlink(folder_.file("elsewhere"), folder);
    if (!c.compiled)  // cp -f would remove it
      support::write_file(installed_file(), "as it was");
    const Scan_run scanned = scan(stream_of("+03:00"), *c.fault != '\0' ? Lines{"--fault", c.fault} : Lines{});
    EXPECT_EQ(scanned.lines({"done"}), "done 0 0\n");
    EXPECT_EQ(scanned.lines({"told"}), told_of(scanned, ZONE_FAILED, "180 EST"));
    EXPECT_EQ(scanned.count_err("WARNING: Setting timezone to 180\n"), 1U);
    EXPECT_EQ(scanned.count_err("cp: cannot create regular file '/dvbfiles/localtime'"), c.compiled ? 1U : 0U);
    EXPECT_EQ(shell_commands(scanned), c.commands);
    EXPECT_EQ(std::filesystem::exists(installed_file()), !c.compiled);
    EXPECT_EQ(support::read_file(installed_file()), c.compiled ? "" : "as it was");
    EXPECT_TRUE(std::filesystem::is_empty(folder_.file("elsewhere")));
    EXPECT_FALSE(std::filesystem::exists(folder + "/EST_0")) << "no compiled zone is left behind";
  }
}
