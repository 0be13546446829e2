// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Frequency requests on made streams: what a host is told and what the database holds afterwards.

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

// The pass that finds the first section, counted from the request.
const std::regex FIRST_DATA("M:([0-9]+)\t");

const Scan_case CASES[] = {
    // Flushed at the request, and after a merge that changed something.
    {.legend = "first scan fills the channel list",
     .script = "verbosity 3; " + SCAN_ONCE + "state 0",
     .said = "freq -1; done 0 0; state 1 0 1",
     .printed = {{"Flushing\n", 2}},
     .logged = {{"DMX_SET_FILTER pid=0x14 filter=73", 1}},
     .reference = "first.txt"},
    {.legend = "scan without a channel is done once",
     .script = "verbosity 3; " + SCAN_ONCE + "sleep 310; verbosity 0",
     .speed = 60,
     .said = "freq -1; done 0 0",
     .printed = {{"Restarting", 0}},
     .logged = {{"DMX_SET_FILTER pid=0x0 ", 1}, {"DMX_SET_FILTER pid=0x100 ", 1}},
     .reference = "first.txt"},
    {.legend = "pat that is not there ends the scan after 40 seconds with nothing",
     .patch = Scan_table::missing("pat"),
     .script = "verbosity 1; " + SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .seconds = 39,
     .printed = {{"WARNING: mode 2 scan timed out for frequency 506000000\nF0-S2-P0-T0 . Total 2\n", 1}},
     .reference = "nothing.txt"},
    {.legend = "time out is silent at verbosity 0 but for the list of filters",
     .patch = Scan_table::missing("pat"),
     .script = SCAN_ONCE,
     .printed = {{"timed out", 0}, {"F0-S2-P0-T0 . Total 2\n", 1}}},
    {.legend = "sdt that is not there ends the scan after 40 seconds with nothing",
     .patch = Scan_table::missing("sdt_actual"),
     .script = "verbosity 1; " + SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .seconds = 39,
     .printed = {{"WARNING: mode 2 scan timed out for frequency 506000000\n", 1}},
     .reference = "sdt_missing.txt"},
    {.legend = "pmt that is not there is waited for and the rest is merged",
     .patch = R"([{ "op": "add", "path": "/services/1/pmt", "value": false }])"_json,
     .script = SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .seconds = 39,
     .reference = "pmt_missing.txt"},
    {.legend = "passes without data are counted from 0 since the request",
     .patch = NO_STREAM,
     .script = "verbosity 4; kelvo 0 tuner; sleep 8; freq 0 506000000; sleep 8; freq 0 506000000; "
               "sleep 8; verbosity 0",
     .printed = {{"wait loop nr 0\n", 3}, {"wait loop nr 1\n", 3}}},
    {.legend = "no stream is not told at verbosity 2",
     .patch = NO_STREAM,
     .script = "verbosity 2; " + SCAN_ONCE,
     .said = "freq -1; done 0 -1",
     .printed = {{"Mux is DVB-H", 0}}},
    {.legend = "no stream where services are known changes nothing",
     .patch = NO_STREAM,
     .known = true,
     .script = "verbosity 1; " + SCAN_ONCE + "sleep 3; verbosity 0; state 0",
     .said = "freq -1; done 0 -1; state 1 0 1",
     .printed = {{"WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n", 1}},
     .reference = "first.txt"},
    {.legend = "frequency without lock is refused after three checks",
     .script = "kelvo 0 tuner; freq 0 538000000; sleep 10; state 0",
     .said = "freq 0; state 1 0 1",
     .logged = {{"FE_GET_FRONTEND freq=538000000", 3}},
     .reference = "nothing.txt"},
    {.legend = "frequency outside the frontend s range is refused",
     .script = "kelvo 0 tuner; freq 0 900000000",
     .said = "freq 0",
     .printed = {{"ERROR: Setting frontend parameters for /dev/dvb/adapter0/frontend0 failed\n", 1}}},
    {.legend = "passive scan reads whatever stream arrives under the frequency asked for",
     .options = {"--tuned", "506000000"},
     .script = "kelvo 0 passive; freq 0 506000000; wait_done 0 60; readings 0",
     .said = "freq -1; done 0 0; readings 0 -24.0 32 1.00 0.1",
     .printed = {{"Tuner disconnected, passive stream scan\n", 1}},
     .logged = {{"frontend0", 0}},
     .reference = "first.txt"},
    // The SDT begins late, so the scan is in the middle when it is paused; for longer than a scan may take.
    {.legend = "paused scan keeps its state and merges nothing until it goes on",
     .patch = Scan_table::faults(R"([{ "fault": "drop", "table": "sdt_actual", "to": 10 }])"),
     .script = "verbosity 1; kelvo 0 tuner; freq 0 506000000; sleep 4; scan 0 off; sleep 60; state 0; "
               "sql SELECT count(*) FROM kanalid; sql SELECT count(*) FROM kanalid_scan_0; scan 0 on; "
               "wait_done 0 60",
     .said = "freq -1; state 0 0 1; sql 0; sql 3; done 0 0",
     .printed = {{"timed out", 0}, {"WARNING: Stopping kelvo scanner\n", 1}, {"WARNING: Starting kelvo PAT/PMT", 2}},
     .reference = "first.txt"},
    {.legend = "request switches a paused adapter on",
     .script = SCAN_ONCE + "scan 0 off; sleep 3; freq 0 506000000; wait_done 0 60",
     .said = "freq -1; done 0 0; freq -1; done 0 0"},
};

}  // namespace

TEST_P(Scan_table, of_requests) {
  expect(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, Scan_table, testing::ValuesIn(CASES), Scan_table::name);

TEST_F(Scan_test, second_scan_finds_nothing_new_and_modifies_nothing) {
  const Scan_run both =
      scan_of(BASE, SCAN_ONCE +
                        "sleep 5; sql SELECT sum(modified) FROM kanalid; verbosity 3; freq 0 506000000; "
                        "wait_done 0 60; verbosity 0; sql SELECT sum(modified) FROM kanalid");
  EXPECT_EQ(both.lines({"done", "change", "no"}), "done 0 0\ndone 0 0\n");
  EXPECT_EQ(both.count_err("Scan from 2 for freq 506000000, ch_add 0, ch_delete 0, estrm_add 0, estrm_delete 0\n"), 1U);
  EXPECT_EQ(both.count_err("Flushing\n"), 1U) << "at the request; the merge changed nothing";
  const std::string sums = both.lines({"sql"});
  EXPECT_EQ(sums.substr(sums.size() / 2), sums.substr(0, sums.size() / 2)) << "a row counts as modified";
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_test, lost_service_keeps_its_row_and_comes_back_with_its_number) {
  scan_of(BASE, SCAN_ONCE);
  scan_of(R"([{ "op": "remove", "path": "/services/1" }])"_json, SCAN_ONCE);
  support::expect_reference("scan/service_lost.txt", dump());
  scan_of(BASE, SCAN_ONCE);
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_test, new_service_is_added_behind_the_old_ones) {
  scan_of(R"([{ "op": "remove", "path": "/services/0" }])"_json, SCAN_ONCE);
  scan_of(BASE, SCAN_ONCE);
  EXPECT_EQ(sql("SELECT pat_prnr, channel FROM kanalid ORDER BY channel"), "102|1\n103|2\n101|3\n");
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM kanalid k, estreams e WHERE k.channel = e.channel GROUP BY pat_prnr"),
            "101|6\n102|2\n103|1\n");
}

TEST_F(Scan_test, changed_pmt_changes_the_streams_at_the_next_scan) {
  scan_of(BASE, SCAN_ONCE);
  scan_of(R"([{ "op": "replace", "path": "/services/0/streams/2/languages", "value": ["eng"] },
           { "op": "remove", "path": "/services/0/streams/4" },
           { "op": "add", "path": "/services/0/pmt_version", "value": 1 }])"_json,
          SCAN_ONCE);
  support::expect_reference("scan/pmt_changed.txt", dump());
}

TEST_F(Scan_test, end_of_a_scan_removes_all_filters_but_those_of_guide_and_time) {
  // Neither SDT nor TOT nor one of the PMTs, so that each has its filter at the time-out.
  const Scan_run late = scan_of(R"([{ "op": "add", "path": "/faults", "value": [
                                   { "fault": "missing", "table": "sdt_actual" },
                                   { "fault": "missing", "table": "nit_actual" },
                                   { "fault": "missing", "table": "pmt", "service_id": 102 }] },
                                 { "op": "replace", "path": "/time", "value": { "tot": false } }])"_json,
                                SCAN_ONCE + "sleep 20\n");
  for (const char* pid : {"0x10", "0x11", "0x110"})
    expect_seconds(39, late.filtered_once(pid).length());
  EXPECT_GE(late.filtered_once("0x14").length(), 58) << "to the end";
  expect_seconds(39, late.filtered_once("0x12").from - late.filtered_once("0x14").from);
  EXPECT_GE(late.filtered_once("0x12").length(), 19) << "to the end";
}

TEST_F(Scan_test, end_of_a_scan_removes_filters_on_low_pids_too) {
  // PMTs that never come, on PIDs beside those of guide and time.
  const Scan_run late = scan_of(R"([{ "op": "replace", "path": "/services/0/pmt_pid", "value": 19 },
                                 { "op": "replace", "path": "/services/1/pmt_pid", "value": 21 },
                                 { "op": "replace", "path": "/services/2/pmt_pid", "value": 31 },
                                 { "op": "add", "path": "/faults",
                                   "value": [{ "fault": "missing", "table": "pmt" }] }])"_json,
                                SCAN_ONCE + "sleep 10");
  EXPECT_EQ(late.lines({"done", "no"}), "done 0 0\n");
  for (const char* pid : {"0x13", "0x15", "0x1f"})
    expect_seconds(39, late.filtered_once(pid).length());
}

TEST_F(Scan_test, request_starts_all_timers_and_counters_anew) {
  const Scan_run twice =
      scan_of(missing("sdt_actual"),
              "verbosity 4; kelvo 0 tuner; freq 0 506000000; sleep 30; freq 0 506000000; wait_done 0 60");
  EXPECT_EQ(twice.lines(), "freq -1\nfreq -1\ndone 0 0\nend\n");
  expect_seconds(39, twice.at("done 0 0") - twice.at("freq -1", 1));
  EXPECT_EQ(twice.timers(), (std::vector<size_t>{3, 3, 3})) << "at each request, and when scanning was switched on";
  std::smatch first;
  std::smatch second;
  ASSERT_TRUE(std::regex_search(twice.err, first, FIRST_DATA)) << "the pass with the first section is told";
  const std::string behind = first.suffix();
  ASSERT_TRUE(std::regex_search(behind, second, FIRST_DATA)) << "for each request";
  EXPECT_LE(std::stoi(second[1]), 5);
  const std::string rest = second.suffix();
  EXPECT_FALSE(std::regex_search(rest, FIRST_DATA));
}

TEST_F(Scan_test, guide_that_has_grown_by_more_than_20_events_is_told_with_4_at_the_next_scan) {
  scan_of(BASE, SCAN_ONCE);
  for (const int events : {20, 21}) {
    const std::string all = std::to_string(events);
    for (const int level : {0, 1}) {
      const Scan_run told = scan_of(
          with_events(events), "insert DELETE FROM epglist; verbosity " + std::to_string(level) + "\n" + SCAN_ONCE +
                                   "wait_sql 60 SELECT count(*) = " + all +
                                   " FROM epglist; sleep 5; freq 0 506000000; wait_done 0 60; sleep 2; verbosity -1");
      EXPECT_EQ(told.lines({"done", "change", "true", "never"}),
                events == 20 ? "done 0 0\ntrue\ndone 0 0\n" : "done 0 0\ntrue\nchange 0 4\ndone 0 0\n");
      EXPECT_EQ(told.count_err("WARNING: db_change_callback"), events == 21 && level == 1 ? 1U : 0U);
      EXPECT_EQ(told.count_err("WARNING: db_change_callback 4, retval 0\n"), events == 21 && level == 1 ? 1U : 0U);
      EXPECT_EQ(sql("SELECT count(*) FROM epglist"), all + "\n");
    }
  }
}

TEST_F(Scan_test, growth_of_the_guide_is_counted_from_the_last_time_it_was_told) {
  const std::string scan = "freq 0 506000000; wait_done 0 60; ";
  const std::string wait = "wait_sql 60 SELECT count(*) = 21 FROM epglist\n";
  const std::string forget =
      "sleep 2; insert DELETE FROM epglist WHERE entry NOT IN (SELECT max(entry) FROM epglist); ";
  const Scan_run told = scan_of(with_events(21), "kelvo 0 tuner\n" + scan + scan + wait + scan + forget + scan + wait +
                                                     scan + forget + scan + wait + scan);
  // 21 events are more than 20; 41 are not more than 21 and 20; 61 are.
  EXPECT_EQ(told.lines({"done", "change", "true", "never"}),
            "done 0 0\ndone 0 0\ntrue\nchange 0 4\ndone 0 0\n"
            "done 0 0\ntrue\ndone 0 0\n"
            "done 0 0\ntrue\nchange 0 4\ndone 0 0\n");
}

TEST_F(Scan_test, quirk_nit_on_another_pid_is_not_read_and_the_scan_ends_by_time_out_without_ids) {
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/nit_pid", "value": 32 }])"_json)), SCAN_ONCE);
  expect_seconds(39, late.at("done 0 0") - late.at("freq -1"));
  EXPECT_EQ(sql("SELECT pat_prnr, network_id, orig_network_id, lcn FROM kanalid ORDER BY pat_prnr"),
            "101|0|0|65535\n102|0|0|65535\n103|0|0|65535\n");
}

TEST_F(Scan_test, no_section_within_6_seconds_is_answered_with_minus_1_and_clears_the_filters) {
  const Scan_run silent = scan_of(NO_STREAM, "verbosity 3; " + SCAN_ONCE + "sleep 3; state 0", 5);
  EXPECT_EQ(silent.lines({"done", "change", "no", "state"}), "done 0 -1\nstate 1 0 1\n");
  expect_seconds(5, silent.at("done 0 -1") - silent.at("freq -1"), 5);
  EXPECT_EQ(silent.count_err("Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n"), 1U);
  EXPECT_EQ(silent.logged({"DMX_SET_FILTER pid=0x0 "}).size(), 1U);
  const std::vector<double> stops = silent.logged({"DMX_STOP"});
  ASSERT_GE(stops.size(), 2U);
  // Both filters are stopped with the answer.
  expect_seconds(5, stops[1] - silent.logged_once({"FE_SET_FRONTEND freq=506000000"}), 5);
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_test, request_without_data_is_never_answered) {
  const Scan_run silent =
      scan_of(NO_STREAM,
              "verbosity 3; kelvo 0 tuner; freq_without_data 0 506000000; sleep 2; state 0; sleep 8; "
              "state 0");
  EXPECT_EQ(silent.lines({"done", "state"}), "state 0 0 1\nstate 1 0 1\n");
  EXPECT_EQ(silent.count_err("Mux is DVB-H or NO MPEG stream decoded"), 1U);

  const Scan_run complete =
      scan_of(BASE,
              "kelvo 0 tuner; freq_without_data 0 506000000; wait_sql 30 SELECT count(*) FROM kanalid; "
              "sleep 5; state 0");
  EXPECT_EQ(complete.lines({"done", "state", "true", "never"}), "true\nstate 0 0 1\n");
}

TEST_F(Scan_test, quirk_dvb_h_is_answered_with_minus_1_at_every_pass) {
  for (const char* status : {"0x9f", "0x11f"}) {
    std::vector<std::string> options = on_freq(empty_stream());
    options.insert(options.end(), {"--signal", std::string("506000000:status=") + status});
    const Scan_run dvbh = run(options, std::string("verbosity 4\n") + SCAN_ONCE + "sleep 3; state 0");
    EXPECT_GE(dvbh.at("done 0 -1"), 0) << status;
    expect_seconds(0, dvbh.at("done 0 -1") - dvbh.at("freq -1"));
    EXPECT_EQ(dvbh.lines({"done"}).substr(0, 20), "done 0 -1\ndone 0 -1\n") << "it is said again";
    EXPECT_GE(dvbh.count_err("DVB-H channel, status is " + std::string(status + 2)), 2U);
    EXPECT_GE(dvbh.count_err("Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n"), 2U);
    support::expect_reference("scan/nothing.txt", dump());
  }
}

TEST_F(Scan_test, tuner_connected_later_is_used) {
  const Scan_run later =
      scan_of(BASE,
              "kelvo 0 passive; tuner 0 on; freq 0 506000000; wait_done 0 60; tuner 0 off; readings 0; "
              "tuner 0 on; freq 0 506000000; wait_done 0 60");
  EXPECT_EQ(later.lines({"freq", "done", "readings"}),
            "freq -1\ndone 0 0\nreadings 0 -24.0 32 1.00 0.1\nfreq -1\ndone 0 0\n");
  EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "3\n");
}

TEST_F(Scan_test, four_adapters_scan_at_once_into_one_database) {
  std::vector<std::string> options;
  std::string create;
  std::string ask;
  std::string wait;
  for (int n = 0; n < 4; ++n) {
    const std::string freq = std::to_string(FREQ + n * 8000000);
    const Json patch = {
        {{"op", "replace"}, {"path", "/transport_stream_id"}, {"value", 7 + n}},
        {{"op", "replace"}, {"path", "/network/transport_streams/0/transport_stream_id"}, {"value", 7 + n}},
        {{"op", "replace"}, {"path", "/network/transport_streams/0/delivery/frequency"}, {"value", FREQ + n * 8000000}},
        {{"op", "replace"}, {"path", "/services/0/name"}, {"value", "Laine " + std::to_string(n)}}};
    options.insert(options.end(), {"--adapter", std::to_string(n), "--mux", freq + "=" + stream(patch)});
    const std::string number = std::to_string(n);
    create += "kelvo " + number + " tuner\n";
    ask += "freq " + number + " " + freq + "\n";
    wait += "wait_done " + number + " 60\n";
  }
  const Scan_run all = run(options, create + ask + wait + ask + wait);
  EXPECT_EQ(all.lines({"no", "change"}), "");
  EXPECT_EQ(all.count_err("ERROR: SQL"), 0U);
  support::expect_reference("scan/four_adapters.txt", dump({.numbers = false, .guide = false}));
}

TEST_F(Scan_test, new_request_replaces_one_that_is_not_answered) {
  const Scan_run replaced = run(on_freq(stream(missing("sdt_actual")), {"--mux", "514000000=" + stream()}),
                                "kelvo 0 tuner; freq 0 506000000; sleep 3; freq 0 514000000; wait_done 0 60; sleep 50");
  EXPECT_EQ(replaced.lines(), "freq -1\nfreq -1\ndone 0 0\nend\n");
  const std::vector<Scan_run::Span> sdt = replaced.filtered("0x11");
  ASSERT_EQ(sdt.size(), 2U);
  EXPECT_LE(sdt[0].to, replaced.logged_once({"FE_SET_FRONTEND freq=514000000"})) << "the filters go before the tuning";
  EXPECT_EQ(sql("SELECT freq, count(*) FROM kanalid GROUP BY freq"), "514000000|3\n");
}

TEST_F(Scan_test, request_that_fails_ends_the_scan_under_way_without_a_merge) {
  for (const std::string freq : {"538000000", "900000000"}) {
    const Scan_run failed =
        scan_of(missing("sdt_actual"),
                "kelvo 0 tuner; freq 0 506000000; wait_sql 10 SELECT count(*) FROM estreams_scan_0; freq 0 " + freq +
                    "; sleep 5");
    EXPECT_EQ(failed.lines(), "freq -1\ntrue\nfreq 0\ndone 0 0\nend\n") << freq;
    EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "0\n") << freq;
  }
}

TEST_F(Scan_test, each_line_of_progress_appears_at_its_level_and_not_below) {
  const std::string file = stream();
  for (int level = 0; level <= 4; ++level) {
    run(on_freq(file), "verbosity " + std::to_string(level) +
                           "; kelvo 0 tuner; freq 0 506000000; wait_done 0 60; export 0; wait_change 0 8 20; "
                           "scan 0 off; sleep 3; verbosity -1")
        .expect_levels(level, {{"WARNING: Loop init, local channel is -1\n", 1},
                               {"WARNING: Starting kelvo PAT/PMT", 1},
                               {"WARNING: Stopping kelvo scanner\n", 1},
                               {"WARNING: Running backup\n", 1},
                               {"Starting scan from PAT", 2},
                               {"M:[0-9]+\t", 3},
                               {"OK MSG at loop [0-9]+\t", 3},
                               {"MSG: Captured channel eit info\n", 4}});
  }
}

TEST_F(Scan_test, scan_ends_with_the_last_section_that_it_needed) {
  // Everything is there at once but the NIT, which begins 2 s after the tuning.
  const Scan_run timed = scan_of(faults(R"([{ "fault": "drop", "table": "nit_actual", "to": 2 }])"), SCAN_ONCE, 1);
  const double took = timed.at("done 0 0") - timed.at("freq -1");
  EXPECT_GT(took, 1.5);
  EXPECT_LT(took, 2.0 + 0.1 + 0.3);
  support::expect_reference("scan/first.txt", dump());
}
