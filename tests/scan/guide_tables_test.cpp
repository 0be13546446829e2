// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// One table of the guide after the other: what opens and closes them, who is given up, and what is never left.

#include "scan/guide_run.h"

namespace {

class Guide_tables_test : public Guide_test {
 protected:
  // When the services' timers were armed, in the adapter's seconds: at every request, and 180 s at every new table.
  static std::vector<double> armed(const Scan_run& run, const std::string& seconds) {
    return run.logged({"timer_settime ", " value=" + seconds + ".000000000 interval=" + seconds + ".000000000"});
  }
  // The periods of 180 s begin one after the other; who is looked at in the last second of none goes on to the next.
  static bool was_killed_a_period_later(const Scan_run& run) {
    const std::vector<double> timers = armed(run, "180");
    return !timers.empty() && opened(run, "51") - timers[0] > 200;
  }
  // The lines about tables and services, in the order of their printing, but those of a table's services sorted.
  static std::vector<std::string> steps(const Scan_run& run) {
    std::vector<std::string> all;
    size_t first_of_table = 0;
    for (const std::string& line : support::lines_of(lines_with(run.err, {"****", "Pres-"}))) {
      const bool closing = line.find("next table") != std::string::npos;
      if (closing)
        std::sort(all.begin() + static_cast<std::ptrdiff_t>(first_of_table), all.end());
      all.push_back(line);
      if (closing)
        first_of_table = all.size();
    }
    std::sort(all.begin() + static_cast<std::ptrdiff_t>(first_of_table), all.end());
    return all;
  }
  // Eight days without a gap: 26 events in the first table, 32 in the second one, 6 in the third one.
  static Json eight_days(int service_index) {
    return {{"op", "add"},
            {"path", "/services/" + std::to_string(service_index) + "/schedule"},
            {"value", Json::parse(R"({ "from": "now", "days": 8, "programmes": [{ "duration": "3h" }] })")}};
  }
};

}  // namespace

TEST_F(Guide_tables_test, present_and_following_first_then_the_schedules_in_order) {
  const Scan_run scan = scan_of({eight_days(INDEX_OF_101), eight_days(INDEX_OF_102)},
                                "verbosity 0\n" + COLLECT +
                                    "verbosity 1; wait_progress 0 100 guide 101 table 53/52 active 1 done 0 events 64; "
                                    "progress 0; sleep 10; verbosity 0",
                                10);
  EXPECT_EQ(scan.lines({"guide", "never:"}),
            "guide 101 table 53/52 active 1 done 0 events 64\n"
            "guide 102 table 53/52 active 1 done 0 events 64\n");
  std::vector<std::string> expected;
  for (const std::string table : {"4e", "50", "51", "52"}) {
    for (const char* step : {"****+ Started", "****-  Finished"})
      for (const char* service : {"101 Laine TV", "102 Luide Film"})
        expected.push_back(std::string(step) + " table " + table + " scan " + service);
    expected.push_back(table == "4e" ? "Pres-Following table 4E completed, next table 0x50"
                                     : "**** EIT loop completed, next table " + std::to_string(std::stoi(table) + 1));
  }
  EXPECT_EQ(steps(scan), expected);
  double before = 0;
  for (const char* table : {"4e", "50", "51", "52", "53"}) {
    EXPECT_GT(opened(scan, table), before) << table;
    before = opened(scan, table);
  }
  for (const std::string service : {"101", "102"}) {
    std::string events;
    for (int i = 0; i < 64; ++i)
      events += service + "|" + std::to_string(i + 1) + "|" + std::to_string(10800 * i) + "|10800\n";
    EXPECT_EQ(sql(std::string("SELECT pat_prnr, ev_id, start_epoch - ") + NOW +
                  ", dur_sec FROM epglist WHERE pat_prnr = " + service + " ORDER BY start_epoch"),
              events);
    EXPECT_EQ(sql("SELECT ev_id FROM (SELECT ev_id FROM epglist WHERE pat_prnr = " + service +
                  " ORDER BY entry LIMIT 2) ORDER BY 1"),
              "1\n2\n")
        << "present and following come first";
  }
  EXPECT_EQ(sql("SELECT count(*) FROM epglist WHERE run_status = 4 AND start_epoch = " + std::string(NOW)), "2\n");
}

TEST_F(Guide_tables_test, table_that_nobody_sends_is_never_left) {
  const Scan_run scan = scan_of(both(TWO_EVENTS),
                                COLLECT +
                                    "wait_progress 0 100 guide 101 table 51/50 active 1 done 0 events 2; sleep 600; "
                                    "progress 0",
                                60);
  EXPECT_EQ(scan.lines({"guide", "never:"}),
            "guide 101 table 51/50 active 1 done 0 events 2\n"
            "guide 102 table 51/50 active 1 done 0 events 2\n");
  EXPECT_EQ(scan.count_err("Kill scan"), 0U) << "no section comes that could look at the timers";
  EXPECT_EQ(opened(scan, "52"), -1);
}

TEST_F(Guide_tables_test, service_without_present_event_is_killed_when_its_timer_has_less_than_a_second_left) {
  const Scan_run scan = scan_of(Json::array({events_of(INDEX_OF_101, TWO_EVENTS)}),
                                COLLECT + "wait_table 0 50 30; progress 0; sleep 4", 4);
  EXPECT_EQ(scan.lines({"reached", "not", "guide"}),
            "reached\nguide 101 table 50/0 active 1 done 0 events 2\nguide 102 table 50/0 active 1 done 0 events 0\n");
  EXPECT_EQ(lines_with(scan.err, {"Kill"}), "Kill scan for service 102 , Laine TV table 4e, ttl 10\n")
      << "with the name of the service whose section came";
  const std::vector<double> timers = armed(scan, "10");
  ASSERT_EQ(timers.size(), 2U);
  expect_seconds(9, opened(scan, "50") - timers[1], 4);
}

TEST_F(Guide_tables_test, service_without_schedule_is_killed_after_three_minutes) {
  const Scan_run scan =
      scan_until_seen({events_of(INDEX_OF_101, TWO_EVENTS),
                       events_of(INDEX_OF_102, TWO_EVENTS),
                       {{"op", "add"}, {"path", "/services/1/eit_schedule"}, {"value", false}}},
                      COLLECT + "wait_table 0 51 600; progress 0; sleep 40", 40, was_killed_a_period_later);
  EXPECT_EQ(scan.lines({"reached", "not", "guide"}),
            "reached\nguide 101 table 51/50 active 1 done 0 events 2\nguide 102 table 51/0 active 1 done 0 events 2\n");
  EXPECT_EQ(lines_with(scan.err, {"Kill"}), "Kill scan for service 102 , Laine TV table 50, ttl 180\n");
  const std::vector<double> timers = armed(scan, "180");
  ASSERT_EQ(timers.size(), 4U) << "two services, at the end of two tables";
  expect_seconds(179, opened(scan, "51") - timers[1], 40);
}

// A section without events is not looked at, so it is not counted either when it is the last one.
TEST_F(Guide_tables_test, quirk_table_whose_last_section_is_empty_is_left_after_three_minutes) {
  // The last three hours of the fourth day have no event.
  constexpr char GAP[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "2026-03-05T12:00:00Z", "duration": "2h" }])";
  const Scan_run scan = scan_until_seen({events_of(INDEX_OF_101, GAP), only_101()},
                                        COLLECT + "wait_guide 0 600; sleep 40", 40, was_killed_a_period_later);
  EXPECT_EQ(scan.lines({"guide"}), "guide complete\n");
  EXPECT_EQ(lines_with(scan.err, {"Kill"}), "Kill scan for service 101 , Laine TV table 50, ttl 180\n");
  EXPECT_EQ(events(),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|2|20260305|120000|324000|020000|7200|0.0.0.0|0@est|1|0\n");
  const std::vector<double> timers = armed(scan, "180");
  ASSERT_FALSE(timers.empty());
  expect_seconds(179, opened(scan, "51") - timers[0], 40);
}

TEST_F(Guide_tables_test, killing_is_not_told_at_2) {
  const Scan_run scan = scan_of(Json::array({events_of(INDEX_OF_101, TWO_EVENTS)}),
                                "verbosity 2\n" + COLLECT + "wait_table 0 50 30\n", 10);
  EXPECT_EQ(scan.lines({"reached", "not"}), "reached\n");
  EXPECT_EQ(lines_with(scan.err, {"Kill"}), "");
}

TEST_F(Guide_tables_test, sections_out_of_order_are_all_stored) {
  // Today at half past five in section 40, tomorrow at 0, 3 and 6 o'clock in 64, 72 and 80, of which the last one must
  // come twice. What is on now never comes with present and following, however long a busy machine looks there.
  constexpr char NIGHT[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "2026-03-02T00:00:00Z", "duration": "1h" },
          { "start": "2026-03-02T03:00:00Z", "duration": "1h" }, { "start": "2026-03-02T06:00:00Z", "duration": "1h" }])";
  const Scan_run scan =
      scan_until_seen({events_of(INDEX_OF_101, NIGHT),
                       faults(R"([{ "fault": "drop", "table": "eit_schedule_actual", "section": 40, "to": 14 },
                                  { "fault": "drop", "table": "eit_schedule_actual", "section": 64, "to": 14 },
                                  { "fault": "drop", "table": "eit_schedule_actual", "section": 80, "to": 17 },
                                  { "fault": "drop", "table": "eit_pf_actual", "section": 0, "to": 1000 }])"),
                       only_101()},
                      COLLECT + "wait_guide 0 60\n", 5,
                      [](const Scan_run& run) { return opened(run, "50") > 12; });  // section 72 came with the others
  EXPECT_EQ(scan.lines({"guide"}), "guide complete\n");
  EXPECT_EQ(lines_with(events(), {"101"}),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|0|0\n"
            "101|2|20260302|000000|21600|010000|3600|0.0.0.0|0@est|1|0\n"
            "101|3|20260302|030000|32400|010000|3600|0.0.0.0|0@est|0|0\n"
            "101|4|20260302|060000|43200|010000|3600|0.0.0.0|0@est|0|0\n");
  EXPECT_EQ(sql("SELECT pat_prnr, ev_id FROM epglist ORDER BY entry"), "101|2\n101|3\n101|1\n101|4\n");
}

// Done is who has sent the last section twice more after the first one; a section that was lost meanwhile is missing
// until the next tuning.
TEST_F(Guide_tables_test, quirk_section_lost_while_the_last_one_comes_twice_is_missing_until_the_next_tuning) {
  constexpr char NIGHT[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "now+30m", "duration": "1h" },
          { "start": "2026-03-02T00:00:00Z", "duration": "1h" }, { "start": "2026-03-02T03:00:00Z", "duration": "1h" }])";
  const std::string good = stream({events_of(INDEX_OF_101, NIGHT), only_101()});
  const std::string lossy =
      stream({events_of(INDEX_OF_101, NIGHT), only_101(),
              faults(R"([{ "fault": "drop", "table": "eit_schedule_actual", "section": 64, "to": 19 }])")});
  const auto ids = [&] { return sql("SELECT ev_id FROM epglist ORDER BY start_epoch"); };
  const Scan_run lost =
      run(on_freq(lossy), COLLECT + "wait_progress 0 30 guide 101 table 51/50 active 1 done 0 events 3\n", 5);
  EXPECT_EQ(lost.lines({"never:"}), "");
  EXPECT_EQ(ids(), "1\n2\n4\n");
  run(on_freq(good),
      "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; "
      "wait_progress 0 30 guide 101 table 51/50 active 1 done 0 events 4",
      5);
  EXPECT_EQ(ids(), "1\n2\n3\n4\n");
}

// Where the profile repeats what was lost, it is not: the last section has to come twice again after each wrong CRC.
TEST_F(Guide_tables_test, section_lost_while_the_last_one_comes_twice_is_waited_for_where_the_profile_says_so) {
  constexpr char NIGHT[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "now+30m", "duration": "1h" },
          { "start": "2026-03-02T00:00:00Z", "duration": "1h" }, { "start": "2026-03-02T03:00:00Z", "duration": "1h" }])";
  const Scan_run scan = scan_until_seen(
      {events_of(INDEX_OF_101, NIGHT), only_101(),
       faults(R"([{ "fault": "wrong_crc", "table": "eit_schedule_actual", "section": 64, "to": 13 }])")},
      "repeat_lost; " + COLLECT + "wait_progress 0 20 guide 101 table 51/50 active 1 done 0 events 4; lost 0", 5,
      [](const Scan_run& run) { return run.lines({"lost"}) == "lost nothing\n"; });
  EXPECT_EQ(scan.lines({"never:"}), "");
  EXPECT_THAT(scan.lines({"lost"}), testing::MatchesRegex("lost 18 0 [1-9][0-9]*\n"));
  EXPECT_EQ(sql("SELECT ev_id FROM epglist ORDER BY start_epoch"), "1\n2\n3\n4\n");
}

TEST_F(Guide_tables_test, repeated_sections_are_neither_stored_nor_asked_for_again) {
  // The following event of 102 comes late, so that the present ones are read again and again.
  const std::string file =
      stream({events_of(INDEX_OF_101, TWO_EVENTS), events_of(INDEX_OF_102, TWO_EVENTS),
              faults(R"([{ "fault": "drop", "table": "eit_pf_actual", "section": 1, "to": 6 }])")});
  const Scan_run scan = run(on_freq(file), COLLECT + "verbosity 4; wait_table 0 50 30; verbosity 0", 4);
  EXPECT_EQ(scan.lines({"reached", "not"}), "reached\n");
  EXPECT_EQ(scan.count_err("Db event "), 4U) << "statements that store an event";
  EXPECT_GE(scan.count_err("match is 1\n"), 20U) << "events that were known";
  EXPECT_EQ(scan.count_err("epg cache entry inserted\n"), 4U);
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"), "101|2\n102|2\n");

  // And nothing at the next request, when the cache comes from the database.
  const std::string before = events();
  const Scan_run again = run(on_freq(file),
                             "verbosity 4; kelvo 0 tuner; freq 0 506000000; wait_done 0 30; wait_table 0 50 30; "
                             "verbosity 0",
                             4);
  EXPECT_EQ(again.lines({"reached", "not"}), "reached\n");
  EXPECT_EQ(again.count_err("Db event "), 0U);
  EXPECT_EQ(again.count_err("epg cache entry inserted\n"), 0U);
  EXPECT_EQ(events(), before);
}

TEST_F(Guide_tables_test, new_version_adds_what_is_new_and_leaves_what_is_stored) {
  // From 12 s on the section of 18:00 has version 1: its first event another id, the second one another duration, the
  // third one starts at another time. The last section comes later, so that nobody is done.
  constexpr char EVENING[] =
      R"([{ "start": "2026-03-01T18:30:00Z", "duration": "10m" }, { "start": "2026-03-01T19:00:00Z", "duration": "10m" },
          { "start": "2026-03-01T20:00:00Z", "duration": "10m" }, { "start": "2026-03-02T03:00:00Z", "duration": "1h" }])";
  const std::string here = R"("table": "eit_schedule_actual", "service_id": 101, "section": 48, "from": 12)";
  const Scan_run scan = scan_of({events_of(INDEX_OF_101, EVENING),
                                 faults(R"([{ "fault": "wrong_version", "version": 1, )" + here + R"(},
                                     { "fault": "wrong_bytes", "offset": 14, "hex": "0063", )" +
                                        here + R"(},
                                     { "fault": "wrong_bytes", "offset": 33, "hex": "002000", )" +
                                        here + R"(},
                                     { "fault": "wrong_bytes", "offset": 42, "hex": "204500", )" +
                                        here + R"(},
                                     { "fault": "drop", "table": "eit_schedule_actual", "section": 72, "to": 16 }])"),
                                 only_101()},
                                COLLECT + "wait_guide 0 60\n", 5);
  EXPECT_EQ(scan.lines({"guide"}), "guide complete\n");
  EXPECT_EQ(events(),
            "101|1|20260301|183000|1800|001000|600|0.0.0.0|0@est|1|0\n"
            "101|2|20260301|190000|3600|001000|600|0.0.0.0|0@est|0|0\n"
            "101|3|20260301|200000|7200|001000|600|0.0.0.0|0@est|0|0\n"
            "101|3|20260301|204500|9900|001000|600|0.0.0.0|0@est|0|0\n"
            "101|4|20260302|030000|32400|010000|3600|0.0.0.0|0@est|0|0\n");
}

TEST_F(Guide_tables_test, services_of_other_types_are_collected_when_asked_for) {
  Json patch = both(TWO_EVENTS);
  int service = 103;
  patch.push_back(events_of(2, TWO_EVENTS));  // radio
  for (const char* type : {"teletext", "radio-avc", "tv-hd-mpeg2", "tv-sd-h264", "tv-hd-h264", "tv-hevc"}) {
    ++service;
    patch.push_back({{"op", "add"},
                     {"path", "/services/-"},
                     {"value",
                      {{"service_id", service},
                       {"type", type},
                       {"name", "Teenus " + std::to_string(service)},
                       {"provider", "Rand Meedia"},
                       {"streams", Json::array({{{"type", "h264"}}})},
                       {"events", Json::parse(TWO_EVENTS)}}}});
  }
  const std::string file = stream(patch);
  const auto counts = [&] { return sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"); };
  const Scan_run narrow =
      run(on_freq(file), COLLECT + "wait_progress 0 60 guide 101 table 51/50 active 1 done 0 events 2; progress 0", 10);
  EXPECT_EQ(narrow.lines({"guide", "never:"}),
            "guide 101 table 51/50 active 1 done 0 events 2\nguide 102 table 51/50 active 1 done 0 events 2\n");
  EXPECT_EQ(counts(), "101|2\n102|2\n");

  const Scan_run wide = run(on_freq(file),
                            "types 1 2 10 17 22 25 31; kelvo 0 tuner; freq 0 506000000; wait_done 0 60; "
                            "wait_guide 0 60",
                            10);
  EXPECT_EQ(wide.lines({"guide"}), "guide complete\n");
  EXPECT_EQ(counts(), "101|2\n102|2\n103|2\n105|2\n106|2\n107|2\n108|2\n109|2\n") << "all but teletext";
}
