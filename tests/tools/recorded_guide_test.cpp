// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A recorded multiplex from the adapter to the guide on the command line. Without the recording, which is not part of
// the tree, the test is skipped.
#include "scan/recorded_guide.h"

#include <nlohmann/json.hpp>

#include "support/db_dump.h"
#include "tools/command_fixture.h"

namespace {

constexpr char BEFORE_ALL_EVENTS[] = "1690400000";  // 2023-07-26

Command_result kelvo(const std::string& recording, const Words& arguments) {
  return run_command(joined({{SOFTDVB_COMMAND, "--now", BEFORE_ALL_EVENTS, "--time", "x8", "--pace", "fast", "--mux",
                              "498000000=" + recording, "--", KELVO_COMMAND},
                             arguments}),
                     {{"TZ", "UTC"}});
}

}  // namespace

TEST(Recorded_guide, every_event_is_collected_once_and_shown_with_its_greek_title) {
  const std::string recording = support::capture_file("gr_crete_2023_complete.ts");
  if (recording.empty())
    GTEST_SKIP() << "gr_crete_2023_complete.ts is not here";
  const support::Temp_dir dir;
  const std::string db = dir.file("dvb.db");
  const Command_result scan = kelvo(recording, {"scan", "--freq", "498000000", "--db", db});
  ASSERT_EQ(scan.exit_code, 0) << scan.err;
  std::filesystem::remove(dir.file("dvb_epg.db"));  // a part of the guide comes with the scan
  EXPECT_THAT(without_carousels(kelvo(recording, {"epg", "update", "--db", db})),
              ends(0,
                   "  MULTIPLEX  LCN  NAME        EVENTS  GUIDE\n"
                   "498.000 MHz    1  Service 9      131  complete\n"
                   "498.000 MHz    2  Service 10     138  complete\n"
                   "498.000 MHz    3  Service 11     117  complete\n"
                   "498.000 MHz    4  Service 12      87  complete\n"
                   "498.000 MHz    5  Service 20     193  complete\n"
                   "498.000 MHz    6  Service 21     115  complete\n"
                   "498.000 MHz    7  Service 22      95  complete\n"
                   "498.000 MHz    8  Service 31      41  complete\n"
                   "498.000 MHz    9  Service 32     208  complete\n"
                   "498.000 MHz   10  Service 35     153  complete\n"
                   "498.000 MHz   11  Service 40     138  complete\n"
                   "498.000 MHz   12  Service 41     143  complete\n"
                   "\n"
                   "12 of 12 services done, 1559 events, 1559 of them new.\n"));
  std::vector<std::string> recorded = scan_support::recorded_guide(recording);
  // The command leaves out soft hyphens, which the decoder keeps.
  const std::string soft_hyphen = "\u00AD";
  for (std::string& event : recorded)
    for (size_t at = 0; (at = event.find(soft_hyphen, at)) != std::string::npos;)
      event.erase(at, soft_hyphen.size());
  std::sort(recorded.begin(), recorded.end());
  scan_support::expect_same_guide(recorded, support::query_database(db, scan_support::STORED_WHOLE_GUIDE));

  const Command_result shown = kelvo(recording, {"epg", "--db", db, "--format", "json"});
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  std::string titles;
  const nlohmann::json guide = nlohmann::json::parse(shown.out);
  for (const nlohmann::json& event : guide["events"]) {
    ASSERT_EQ(event["texts"].size(), 1U) << event;
    titles += event["name"].get<std::string>() + "|" + event["event_id"].dump() + "|" + event["start_epoch"].dump() +
              "|" + event["duration"].dump() + "|" + event["texts"][0]["language"].get<std::string>() + "|" +
              event["texts"][0]["title"].get<std::string>() + "\n";
  }
  Words expected = support::lines_of(support::query_database(
      db,
      "SELECT 'Service ' || pat_prnr, ev_id, start_epoch, dur_sec, lang, ev_name FROM epglist e, epglist_lang l "
      "WHERE l.source_oid = e.entry"));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected.size(), 1559U);
  scan_support::expect_same_guide(expected, titles);
  EXPECT_THAT(titles, testing::HasSubstr("Service 10|279|1690503600|6000|gre|Τα Καλύτερά μας Χρόνια - Γ Κύκλος (E)\n"));
}

// The measurement of `make bench`, without its marks.
TEST(Guide_cycle, a_generated_guide_is_collected_while_it_is_looked_at) {
  const std::string build = std::filesystem::path(KELVO_COMMAND).parent_path().parent_path();
  const Command_result measured = run_command({"python3", KELVO_SOURCE_DIR "/bench/guide_cycle", build, "--smoke"});
  EXPECT_EQ(measured.exit_code, 0) << measured.out << measured.err;
  EXPECT_THAT(measured.out, testing::ContainsRegex("smoke +2 +108 +108 +4\\.0 s +[0-9.]+ s = +[0-9.]+ "));
}
