// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// When the guide is collected and what a host is told: the first scan of an empty database, requests, change code 4,
// exports, and the progress of every service.

#include "scan/guide_run.h"

namespace {

class Guide_requests_test : public Guide_test {
 protected:
  // 102 as radio, and so many events of ten minutes on 101.
  std::string one_service(int count) {
    return stream({only_101(),
                   {{"op", "add"},
                    {"path", "/services/0/schedule"},
                    {"value",
                     {{"from", "2026-03-03T00:00:00Z"},
                      {"days", 1},
                      {"programmes", Json::array({{{"duration", std::to_string(86400 / count + 1) + "s"}}})}}}}});
  }
  // 101 gets another title and a later end; the second event of 102 begins later.
  static Json changed_events() {
    return {{{"op", "add"},
             {"path", "/services/0/events"},
             {"value", Json::parse(R"([{ "start": "now-30m", "duration": "70m", "name": "Other" },
                                       { "start": "now+40m", "duration": "1h" }])")}},
            {{"op", "add"},
             {"path", "/services/1/events"},
             {"value", Json::parse(R"([{ "start": "now-30m", "duration": "1h" }])")}},
            {{"op", "add"}, {"path", "/versions"}, {"value", {{"eit_pf_actual", 1}, {"eit_schedule_actual", 1}}}}};
  }
  void find_services(const std::string& file) {
    ASSERT_EQ(run(on_freq(file), SCAN_ONCE).lines({"done", "no"}), "done 0 0\n");
    ASSERT_EQ(sql("SELECT count(*) FROM epglist"), "0\n");
  }
};

}  // namespace

// The list of services is made when the request is taken, so before the services are known.
TEST_F(Guide_requests_test, first_scan_of_an_empty_database_collects_nothing_and_nothing_restarts_it) {
  const Scan_run scan =
      scan_of(both(TWO_EVENTS),
              "kelvo 0 tuner; progress 0; verbosity 1; freq 0 506000000; wait_done 0 60; wait_filter 0 18 3 30; "
              "verbosity 0; progress 0; channel 0 506000000 1; sleep 10; scan 0 off; sleep 2; "
              "scan 0 on; sleep 10; export 0 " +
                  folder_.file("copy.db") +
                  "; wait_change 0 8 20; sleep 320; progress 0; sql SELECT count(*) FROM epglist; state 0",
              30);
  EXPECT_EQ(
      scan.lines(),
      "no guide\nfreq -1\ndone 0 0\nno guide\nchannel -1\nexport 1\nchange 0 8\nno guide\nsql 0\nstate 1 0 1\nend\n");
  EXPECT_EQ(lines_with(scan.err, {"****", "Pres-"}),
            "Pres-Following table 4E completed, next table 0x50\n**** EIT loop completed, next table 51\n")
      << "up to the first table that nobody sends";
  for (const char* table : {"4e", "50"})
    EXPECT_EQ(scan.logged({std::string("DMX_SET_FILTER pid=0x12 filter=") + table}).size(), 1U) << table;
}

TEST_F(Guide_requests_test, whole_it_is_there_after_the_first_scan_of_an_empty_database_and_goes_on) {
  auto options = on_freq(stream(both(TWO_EVENTS)));
  const std::vector<std::string> then{"--then", "506000000=40:" + stream(changed_events())};
  options.insert(options.end(), then.begin(), then.end());
  const Scan_run scan = run(options,
                            "any_linux; kelvo 0 tuner; freq 0 506000000; wait_done 0 60; "
                            "wait_progress 0 30 guide 101 table 50/50 active 0 done 1 events 2; "
                            "wait_progress 0 30 guide 102 table 50/50 active 0 done 1 events 2; mirror 0; "
                            "wait_sql 60 SELECT count(*) = 3 FROM epglist; sleep 10; mirror 0");
  EXPECT_EQ(scan.lines({"freq", "done", "never"}), "freq -1\ndone 0 0\n");
  const std::string told = scan.lines({"mirror"});
  const size_t later = told.find('\n') + 1;
  for (const char* event : {" 1|1|1772386200", " 1|2|1772389800", " 2|1|1772386200", " 2|2|1772389800"})
    EXPECT_THAT(told.substr(0, later), testing::HasSubstr(event));
  EXPECT_EQ(
      told.substr(later),
      "mirror " + sql("SELECT group_concat(channel || '|' || ev_id || '|' || start_epoch, ' ') FROM (SELECT * FROM "
                      "epglist ORDER BY entry)"))
      << "what a host was told is what there is";
  EXPECT_EQ(sql("SELECT pat_prnr, ev_id, start_epoch - 1772388000, dur_sec FROM epglist ORDER BY 1, 2"),
            "101|1|-1800|4200\n101|2|2400|3600\n102|1|-1800|3600\n");
  EXPECT_EQ(scan.logged({"DMX_SET_FILTER pid=0x12 "}).size(), 1U) << "one filter for all";
}

TEST_F(Guide_requests_test, whole_it_is_told_to_nobody_with_the_box) {
  const Scan_run scan = scan_of(both(TWO_EVENTS),
                                "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; freq 0 506000000; wait_done 0 60; "
                                "wait_guide 0 60; mirror 0; sql SELECT count(*) FROM epglist");
  EXPECT_EQ(scan.lines({"guide", "mirror", "sql"}), "guide complete\nmirror\nsql 4\n");
}

TEST_F(Guide_requests_test, second_frequency_request_collects_the_guide) {
  const Scan_run scan = scan_of(both(TWO_EVENTS),
                                "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; sleep 10; "
                                "sql SELECT count(*) FROM epglist; freq 0 506000000; wait_done 0 60; wait_guide 0 60; "
                                "sleep 20");
  EXPECT_EQ(scan.lines({"done", "sql", "guide", "change", "no"}), "done 0 0\nsql 0\ndone 0 0\nguide complete\n");
  EXPECT_EQ(events(),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|2|20260301|183000|1800|010000|3600|0.0.0.0|0@est|1|0\n"
            "102|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "102|2|20260301|183000|1800|010000|3600|0.0.0.0|0@est|1|0\n");
}

TEST_F(Guide_requests_test, channel_request_from_another_frequency_collects_the_guide) {
  const Scan_run scan = run(on_freq(stream(both(TWO_EVENTS)), {"--mux", "514000000=" + empty_stream()}),
                            "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; freq 0 514000000; wait_done 0 60; "
                            "channel 0 506000000 1; wait_guide 0 60");
  EXPECT_EQ(scan.lines({"done", "channel", "guide", "no"}), "done 0 0\ndone 0 -1\nchannel -1\nguide complete\n");
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"), "101|2\n102|2\n");
  // Not with the tuning, but when it is 5 to 6 s old.
  const std::vector<double> tunings = scan.logged({"FE_SET_FRONTEND freq=506000000"});
  ASSERT_EQ(tunings.size(), 2U);
  const std::vector<double> guides = scan.logged({"DMX_SET_FILTER pid=0x12 filter=4e"});
  ASSERT_FALSE(guides.empty());  // that of the first request may not have begun when the second one came
  expect_seconds(5, guides.back() - tunings[1]);
}

// The timers of the services begin with the request and run for ten seconds each time, so they are about to run out
// when the scan gives up after 40 s. With a channel they begin anew together with the guide.
TEST_F(Guide_requests_test, quirk_after_a_scan_that_timed_out_present_and_following_are_given_up_at_once) {
  const std::string file = stream({events_of(INDEX_OF_101, TWO_EVENTS),
                                   events_of(INDEX_OF_102, TWO_EVENTS),
                                   {{"op", "add"}, {"path", "/services/0/eit_schedule"}, {"value", false}},
                                   {{"op", "add"}, {"path", "/services/1/eit_schedule"}, {"value", false}},
                                   {{"op", "add"}, {"path", "/services/1/pmt"}, {"value", false}}});
  // Slowly enough that a busy machine, and an emulated one, does not miss the timers' last second: until the scan is
  // merged and the first section has come.
  const Scan_run scan = run(on_freq(file, {"--mux", "514000000=" + empty_stream()}),
                            COLLECT +
                                "wait_table 0 50 30; sql SELECT count(*) FROM epglist; verbosity 2; freq 0 514000000; "
                                "wait_done 0 60; channel 0 506000000 1; wait_table 0 50 30",
                            2);
  EXPECT_EQ(scan.lines({"done", "reached", "not", "sql"}), "done 0 0\ndone 0 0\nreached\nsql 0\ndone 0 -1\nreached\n");
  const std::string killed = lines_with(scan.err, {"Kill"});
  EXPECT_EQ(killed.find("Kill scan for service 101 , "), 0U) << killed;
  EXPECT_NE(std::string::npos, killed.find("Kill scan for service 102 , ")) << killed;
  EXPECT_EQ(scan.count_err(" table 4e, ttl 10\n"), 2U) << killed;
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM epglist GROUP BY pat_prnr"), "101|2\n102|2\n");
}

// --- Change code 4 ---------------------------------------------------------------------------------------------------

TEST_F(Guide_requests_test, more_than_twenty_new_events_are_told_once_at_a_rescan_of_the_pmts) {
  for (const int count : {20, 21}) {
    SCOPED_TRACE(count);
    std::filesystem::remove_all(database());
    std::filesystem::remove_all(folder_.file("dvb_epg.db"));
    const std::string file = one_service(count);
    find_services(file);
    const Scan_run scan = run(on_freq(file),
                              "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; wait_guide 0 60; sleep 20; "
                              "verbosity 0",
                              10);
    EXPECT_EQ(scan.lines({"channel", "change", "done", "end"}),
              count == 20 ? "channel -1\nend\n" : "channel -1\nchange 0 4\nend\n");
    EXPECT_EQ(scan.lines({"guide"}), "guide complete\n");
    EXPECT_EQ(scan.count_err("WARNING: db_change_callback 4, retval 0\n"), count == 20 ? 0U : 1U);
    EXPECT_EQ(sql("SELECT count(*) FROM epglist"), std::to_string(count) + "\n");
  }
}

TEST_F(Guide_requests_test, frequency_request_tells_of_new_events_when_the_next_scan_ends) {
  const Scan_run scan =
      run(on_freq(one_service(21)), COLLECT +
                                        "wait_guide 0 60; sleep 20; freq 0 506000000; wait_done 0 60; sleep 20; "
                                        "freq 0 506000000; wait_done 0 60; sleep 5");
  EXPECT_EQ(scan.lines({"done", "guide", "change", "no"}),
            "done 0 0\ndone 0 0\nguide complete\nchange 0 4\ndone 0 0\ndone 0 0\n");
}

// --- Exports ---------------------------------------------------------------------------------------------------------

TEST_F(Guide_requests_test, export_in_the_middle_purges_copies_and_the_guide_goes_on) {
  // The last section of the schedule comes late: the export is in the middle of its table.
  const std::string file =
      stream({events_of(INDEX_OF_101,
                        R"([{ "start": "now-30m", "duration": "1h", "name": "Uudised" },
                            { "start": "now+30m", "duration": "1h", "name": "Film" },
                            { "start": "now+12h", "duration": "1h", "name": "Hommik" }])"),
              only_101(), faults(R"([{ "fault": "drop", "table": "eit_schedule_actual", "section": 80, "to": 16 }])")});
  find_services(file);
  const std::string copy = folder_.file("copy.db");
  const Scan_run scan =
      run(on_freq(file),
          // The second of them is just young enough.
          "insert INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (1, 900, 1772388000 - 86500, 60); "
          "insert INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (1, 'est', 'Eilne'); "
          "insert INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (1, 901, 1772388000 - 86000, 60); "
          "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; "
          "wait_progress 0 30 guide 101 table 50/50 active 0 done 0 events 4; export 0 " +
              copy + "; wait_change 0 8 20; wait_guide 0 60; sleep 10; verbosity 0",
          2);
  EXPECT_EQ(scan.lines(), "channel -1\nexport 1\nchange 0 8\nguide complete\nend\n");
  EXPECT_EQ(scan.count_err("WARNING: Running backup\n"), 1U);
  EXPECT_NE(std::string::npos, scan.err.find(" msec, removed 2 entries. "));
  EXPECT_EQ(scan.count_err("WARNING: Restarting EIT scan\n"), 2U) << "it begins anew after an export";
  EXPECT_EQ(sql("SELECT ev_id, (SELECT ev_name FROM epglist_lang WHERE source_oid = entry) FROM epglist "
                "ORDER BY start_epoch"),
            "901|NULL\n1|Uudised\n2|Film\n3|Hommik\n");
  const std::string guide_of_copy = folder_.file("copy_epg.db");
  EXPECT_EQ(support::query_database(guide_of_copy, "SELECT ev_id FROM epglist ORDER BY start_epoch"), "901\n1\n2\n");
  EXPECT_EQ(support::query_database(guide_of_copy, "SELECT ev_name FROM epglist_lang ORDER BY 1"), "Film\nUudised\n");
  EXPECT_EQ(support::query_database(guide_of_copy, "PRAGMA integrity_check"), "ok\n");
}

// --- Progress --------------------------------------------------------------------------------------------------------

TEST_F(Guide_requests_test, progress_shows_every_service_through_its_stages) {
  // The SDT comes after 2 s, the events of 102 after 7 s and its schedule after 13 s.
  const Json patch = {events_of(INDEX_OF_101, TWO_EVENTS), events_of(INDEX_OF_102, TWO_EVENTS),
                      faults(R"([{ "fault": "drop", "table": "sdt_actual", "to": 2 },
                                              { "fault": "drop", "table": "eit_pf_actual", "service_id": 102, "to": 7 },
                                              { "fault": "drop", "table": "eit_schedule_actual", "service_id": 102,
                                                "to": 13 }])")};
  const Scan_run scan = scan_of(patch,
                                "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; progress 0; freq 0 506000000; "
                                "wait_progress 0 10 guide 101 table 0/0 active 1 done 0 events 0; progress 0; "
                                "wait_done 0 60; wait_progress 0 10 guide 101 table 4e/0 active 0 done 1 events 2; "
                                "progress 0; wait_progress 0 10 guide 101 table 50/50 active 0 done 1 events 2; "
                                "progress 0; wait_progress 0 10 guide 101 table 51/50 active 1 done 0 events 2; "
                                "progress 0; freq 0 506000000; "
                                "wait_progress 0 10 guide 101 table 0/0 active 1 done 0 events 2; progress 0",
                                2);
  EXPECT_EQ(scan.lines({"guide", "no", "never:"}),
            "no guide\n"
            "guide 101 table 0/0 active 1 done 0 events 0\n"
            "guide 102 table 0/0 active 1 done 0 events 0\n"
            "guide 101 table 4e/0 active 0 done 1 events 2\n"
            "guide 102 table 4e/0 active 1 done 0 events 0\n"
            "guide 101 table 50/50 active 0 done 1 events 2\n"
            "guide 102 table 50/0 active 1 done 0 events 2\n"
            "guide 101 table 51/50 active 1 done 0 events 2\n"
            "guide 102 table 51/50 active 1 done 0 events 2\n"
            "guide 101 table 0/0 active 1 done 0 events 2\n"
            "guide 102 table 0/0 active 1 done 0 events 2\n");
}
