// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Frequency requests on made streams: what a host is told and what the database holds afterwards.
#include <cctype>

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

constexpr char SCAN_ONCE[] = "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; ";

// The numbers that stand in `text` between `before` and a tabulator.
std::vector<int> numbers(const std::string& text, const std::string& before) {
  std::vector<int> all;
  for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
    const size_t start = at + before.size();
    size_t end = start;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0)
      ++end;
    if (end > start && end < text.size() && text[end] == '\t')
      all.push_back(std::stoi(text.substr(start, end - start)));
  }
  return all;
}

bool has_number(const std::string& text, const std::string& before) {
  return !numbers(text, before).empty();
}

// The arming of one of the worker's timers, as it is logged.
std::string timer_of(int seconds) {
  return " value=" + std::to_string(seconds) + ".000000000 interval=1.000000000 ";
}

}  // namespace

TEST_F(Scan_test, first_scan_fills_the_channel_list) {
  const Scan_run first = run(on_freq(stream()), std::string("verbosity 3\n") + SCAN_ONCE + "state 0\n");
  EXPECT_EQ(first.lines(), "freq -1\ndone 0 0\nstate 1 0 1\nend\n");
  EXPECT_EQ(first.logged({"DMX_SET_FILTER pid=0x14 filter=73"}).size(), 1U);
  EXPECT_EQ(first.count_err("Flushing\n"), 2U) << "at the request, and after a merge that changed something";
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_test, second_scan_finds_nothing_new_and_modifies_nothing) {
  const Scan_run both =
      run(on_freq(stream()), std::string(SCAN_ONCE) +
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
  run(on_freq(stream()), SCAN_ONCE);
  run(on_freq(stream(R"([{ "op": "remove", "path": "/services/1" }])"_json)), SCAN_ONCE);
  support::expect_reference("scan/service_lost.txt", dump());
  run(on_freq(stream()), SCAN_ONCE);
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_test, new_service_is_added_behind_the_old_ones) {
  run(on_freq(stream(R"([{ "op": "remove", "path": "/services/0" }])"_json)), SCAN_ONCE);
  run(on_freq(stream()), SCAN_ONCE);
  EXPECT_EQ(sql("SELECT pat_prnr, channel FROM kanalid ORDER BY channel"), "102|1\n103|2\n101|3\n");
  EXPECT_EQ(sql("SELECT pat_prnr, count(*) FROM kanalid k, estreams e WHERE k.channel = e.channel GROUP BY pat_prnr"),
            "101|6\n102|2\n103|1\n");
}

TEST_F(Scan_test, changed_pmt_changes_the_streams_at_the_next_scan) {
  run(on_freq(stream()), SCAN_ONCE);
  run(on_freq(stream(R"([{ "op": "replace", "path": "/services/0/streams/2/languages", "value": ["eng"] },
                         { "op": "remove", "path": "/services/0/streams/4" },
                         { "op": "add", "path": "/services/0/pmt_version", "value": 1 }])"_json)),
      SCAN_ONCE);
  support::expect_reference("scan/pmt_changed.txt", dump());
}

TEST_F(Scan_test, pat_that_is_not_there_ends_the_scan_after_40_seconds_with_nothing) {
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                [{ "fault": "missing", "table": "pat" }] }])"_json)),
                            std::string("verbosity 1\n") + SCAN_ONCE);
  EXPECT_EQ(late.lines({"done", "change", "no"}), "done 0 0\n");
  expect_seconds(39, late.at("done 0 0") - late.at("freq -1"));
  EXPECT_EQ(late.count_err("WARNING: mode 2 scan timed out for frequency 506000000\n"
                           "F0-S2-P0-T0 . Total 2\n"),
            1U);
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_test, sdt_that_is_not_there_ends_the_scan_after_40_seconds_with_nothing) {
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                [{ "fault": "missing", "table": "sdt_actual" }] }])"_json)),
                            std::string("verbosity 1\n") + SCAN_ONCE);
  EXPECT_EQ(late.lines({"done", "change", "no"}), "done 0 0\n");
  expect_seconds(39, late.at("done 0 0") - late.at("freq -1"));
  EXPECT_EQ(late.count_err("WARNING: mode 2 scan timed out for frequency 506000000\n"), 1U);
  support::expect_reference("scan/sdt_missing.txt", dump());
}

TEST_F(Scan_test, end_of_a_scan_removes_all_filters_but_those_of_guide_and_time) {
  // Neither SDT nor TOT nor one of the PMTs, so that each has its filter at the time-out.
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value": [
                                                  { "fault": "missing", "table": "sdt_actual" },
                                                  { "fault": "missing", "table": "nit_actual" },
                                                  { "fault": "missing", "table": "pmt", "service_id": 102 }] },
                                                { "op": "replace", "path": "/time", "value": { "tot": false } }])"_json)),
                            std::string(SCAN_ONCE) + "sleep 20\n");
  for (const char* pid : {"0x10", "0x11", "0x110"}) {
    const std::vector<Scan_run::Span> spans = late.filtered(pid);
    ASSERT_EQ(spans.size(), 1U) << pid;
    expect_seconds(39, spans[0].to - spans[0].from);
  }
  const std::vector<Scan_run::Span> time = late.filtered("0x14");
  ASSERT_EQ(time.size(), 1U);
  EXPECT_GE(time[0].to - time[0].from, 58) << "to the end";
  const std::vector<Scan_run::Span> guide = late.filtered("0x12");
  ASSERT_EQ(guide.size(), 1U);
  expect_seconds(39, guide[0].from - time[0].from);
  EXPECT_GE(guide[0].to - guide[0].from, 19) << "to the end";
}

TEST_F(Scan_test, end_of_a_scan_removes_filters_on_low_pids_too) {
  // PMTs that never come, on PIDs beside those of guide and time.
  const Scan_run late = run(on_freq(stream(R"([{ "op": "replace", "path": "/services/0/pmt_pid", "value": 19 },
                             { "op": "replace", "path": "/services/1/pmt_pid", "value": 21 },
                             { "op": "replace", "path": "/services/2/pmt_pid", "value": 31 },
                             { "op": "add", "path": "/faults", "value": [{ "fault": "missing", "table": "pmt" }] }])"_json)),
                            std::string(SCAN_ONCE) + "sleep 10");
  EXPECT_EQ(late.lines({"done", "no"}), "done 0 0\n");
  for (const char* pid : {"0x13", "0x15", "0x1f"}) {
    const std::vector<Scan_run::Span> spans = late.filtered(pid);
    ASSERT_EQ(spans.size(), 1U) << pid;
    expect_seconds(39, spans[0].to - spans[0].from);
  }
}

TEST_F(Scan_test, request_starts_all_timers_and_counters_anew) {
  const Scan_run twice = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                 [{ "fault": "missing", "table": "sdt_actual" }] }])"_json)),
                             "verbosity 4; kelvo 0 tuner; freq 0 506000000; sleep 30; freq 0 506000000; "
                             "wait_done 0 60");
  EXPECT_EQ(twice.lines(), "freq -1\nfreq -1\ndone 0 0\nend\n");
  expect_seconds(39, twice.at("done 0 0") - twice.times("freq -1")[1]);
  // At each request, and when the first one switched scanning on.
  EXPECT_EQ(twice.logged({"timer_settime", timer_of(300)}).size(), 3U);
  EXPECT_EQ(twice.logged({"timer_settime", timer_of(3)}).size(), 3U);
  EXPECT_EQ(twice.logged({"timer_settime", timer_of(40)}).size(), 3U);
  const std::vector<int> first_data = numbers(twice.err, "M:");
  ASSERT_EQ(first_data.size(), 2U) << "the pass with the first section is told for each request";
  EXPECT_LE(first_data[1], 5);
}

TEST_F(Scan_test, passes_without_data_are_counted_from_0_since_the_request) {
  const Scan_run idle = run(on_freq(empty_stream()),
                            "verbosity 4; kelvo 0 tuner; sleep 8; freq 0 506000000; sleep 8; freq 0 506000000; "
                            "sleep 8; verbosity 0");
  EXPECT_EQ(idle.count_err("wait loop nr 0\n"), 3U);
  EXPECT_EQ(idle.count_err("wait loop nr 1\n"), 3U);
}

TEST_F(Scan_test, scan_without_a_channel_is_done_once) {
  const Scan_run once = run(on_freq(stream()), std::string("verbosity 3\n") + SCAN_ONCE + "sleep 310; verbosity 0", 60);
  EXPECT_EQ(once.lines(), "freq -1\ndone 0 0\nend\n");
  EXPECT_EQ(once.logged({"DMX_SET_FILTER pid=0x0 "}).size(), 1U);
  EXPECT_EQ(once.logged({"DMX_SET_FILTER pid=0x100 "}).size(), 1U);
  EXPECT_EQ(once.count_err("Restarting"), 0U);
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_test, guide_that_has_grown_by_more_than_20_events_is_told_with_4_at_the_next_scan) {
  run(on_freq(stream()), SCAN_ONCE);
  for (const int events : {20, 21}) {
    const std::string all = std::to_string(events);
    for (const int level : {0, 1}) {
      const Scan_run told = run(on_freq(stream(with_events(events))),
                                "insert DELETE FROM epglist; verbosity " + std::to_string(level) + "\n" + SCAN_ONCE +
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
      "sleep 2; "
      "insert DELETE FROM epglist WHERE entry NOT IN (SELECT max(entry) FROM epglist); ";
  const Scan_run told = run(on_freq(stream(with_events(21))), "kelvo 0 tuner\n" + scan + scan + wait + scan + forget +
                                                                  scan + wait + scan + forget + scan + wait + scan);
  // 21 events are more than 20; 41 are not more than 21 and 20; 61 are.
  EXPECT_EQ(told.lines({"done", "change", "true", "never"}),
            "done 0 0\ndone 0 0\ntrue\nchange 0 4\ndone 0 0\n"
            "done 0 0\ntrue\ndone 0 0\n"
            "done 0 0\ntrue\nchange 0 4\ndone 0 0\n");
}

TEST_F(Scan_test, time_out_is_silent_at_verbosity_0_but_for_the_list_of_filters) {
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                [{ "fault": "missing", "table": "pat" }] }])"_json)),
                            SCAN_ONCE);
  EXPECT_EQ(late.count_err("timed out"), 0U);
  EXPECT_EQ(late.count_err("F0-S2-P0-T0 . Total 2\n"), 1U);
}

TEST_F(Scan_test, pmt_that_is_not_there_is_waited_for_and_the_rest_is_merged) {
  const Scan_run late =
      run(on_freq(stream(R"([{ "op": "add", "path": "/services/1/pmt", "value": false }])"_json)), SCAN_ONCE);
  expect_seconds(39, late.at("done 0 0") - late.at("freq -1"));
  support::expect_reference("scan/pmt_missing.txt", dump());
}

TEST_F(Scan_test, quirk_nit_on_another_pid_is_not_read_and_the_scan_ends_by_time_out_without_ids) {
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/nit_pid", "value": 32 }])"_json)), SCAN_ONCE);
  expect_seconds(39, late.at("done 0 0") - late.at("freq -1"));
  EXPECT_EQ(sql("SELECT pat_prnr, network_id, orig_network_id, lcn FROM kanalid ORDER BY pat_prnr"),
            "101|0|0|65535\n102|0|0|65535\n103|0|0|65535\n");
}

TEST_F(Scan_test, no_section_within_6_seconds_is_answered_with_minus_1_and_clears_the_filters) {
  const Scan_run silent =
      run(on_freq(empty_stream()), std::string("verbosity 3\n") + SCAN_ONCE + "sleep 3; state 0", 5);
  EXPECT_EQ(silent.lines({"done", "change", "no", "state"}), "done 0 -1\nstate 1 0 1\n");
  expect_seconds(5, silent.at("done 0 -1") - silent.at("freq -1"), 5);
  EXPECT_EQ(silent.count_err("Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n"), 1U);
  EXPECT_EQ(silent.logged({"DMX_SET_FILTER pid=0x0 "}).size(), 1U);
  const std::vector<double> stops = silent.logged({"DMX_STOP"});
  ASSERT_GE(stops.size(), 2U);
  const std::vector<double> tunings = silent.logged({"FE_SET_FRONTEND freq=506000000"});
  ASSERT_EQ(tunings.size(), 1U);
  expect_seconds(5, stops[1] - tunings[0], 5);  // both filters are stopped with the answer
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_test, no_stream_is_not_told_at_verbosity_2) {
  const Scan_run silent = run(on_freq(empty_stream()), std::string("verbosity 2\n") + SCAN_ONCE);
  EXPECT_EQ(silent.lines({"done"}), "done 0 -1\n");
  EXPECT_EQ(silent.count_err("Mux is DVB-H"), 0U);
}

TEST_F(Scan_test, no_stream_where_services_are_known_changes_nothing) {
  run(on_freq(stream()), SCAN_ONCE);
  const Scan_run silent =
      run(on_freq(empty_stream()), std::string("verbosity 1\n") + SCAN_ONCE + "sleep 3; verbosity 0; state 0");
  EXPECT_EQ(silent.lines(), "freq -1\ndone 0 -1\nstate 1 0 1\nend\n");
  EXPECT_EQ(silent.count_err("WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n"), 1U);
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_test, request_without_data_is_never_answered) {
  const Scan_run silent = run(on_freq(empty_stream()),
                              "verbosity 3; kelvo 0 tuner; freq_without_data 0 506000000; sleep 2; state 0; sleep 8; "
                              "state 0");
  EXPECT_EQ(silent.lines({"done", "state"}), "state 0 0 1\nstate 1 0 1\n");
  EXPECT_EQ(silent.count_err("Mux is DVB-H or NO MPEG stream decoded"), 1U);

  const Scan_run complete =
      run(on_freq(stream()),
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

TEST_F(Scan_test, frequency_without_lock_is_refused_after_three_checks) {
  const Scan_run none = run(on_freq(stream()), "kelvo 0 tuner; freq 0 538000000; sleep 10; state 0");
  EXPECT_EQ(none.lines(), "freq 0\nstate 1 0 1\nend\n");
  EXPECT_EQ(none.logged({"FE_GET_FRONTEND freq=538000000"}).size(), 3U);
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_test, frequency_outside_the_frontend_s_range_is_refused) {
  const Scan_run none = run(on_freq(stream()), "kelvo 0 tuner; freq 0 900000000");
  EXPECT_EQ(none.lines({"freq", "done"}), "freq 0\n");
  EXPECT_EQ(none.count_err("ERROR: Setting frontend parameters for /dev/dvb/adapter0/frontend0 failed\n"), 1U);
}

TEST_F(Scan_test, passive_scan_reads_whatever_stream_arrives_under_the_frequency_asked_for) {
  std::vector<std::string> options = on_freq(stream());
  options.insert(options.end(), {"--tuned", "506000000"});
  const Scan_run passive = run(options, "kelvo 0 passive; freq 0 506000000; wait_done 0 60; readings 0");
  EXPECT_EQ(passive.lines({"freq", "done", "readings"}), "freq -1\ndone 0 0\nreadings 0 -24.0 32 1.00 0.1\n");
  EXPECT_EQ(passive.count_err("Tuner disconnected, passive stream scan\n"), 1U);
  EXPECT_TRUE(passive.logged({"frontend0"}).empty());
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_test, tuner_connected_later_is_used) {
  const Scan_run later = run(on_freq(stream()),
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

TEST_F(Scan_test, paused_scan_keeps_its_state_and_merges_nothing_until_it_goes_on) {
  // The SDT begins late, so the scan is in the middle when it is paused; for longer than a scan may take.
  const Scan_run paused = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                  [{ "fault": "drop", "table": "sdt_actual", "to": 10 }] }])"_json)),
                              "verbosity 1; kelvo 0 tuner; freq 0 506000000; sleep 4; scan 0 off; sleep 60; state 0; "
                              "sql SELECT count(*) FROM kanalid; sql SELECT count(*) FROM kanalid_scan_0; scan 0 on; "
                              "wait_done 0 60");
  EXPECT_EQ(paused.lines(), "freq -1\nstate 0 0 1\nsql 0\nsql 3\ndone 0 0\nend\n");
  EXPECT_EQ(paused.count_err("timed out"), 0U);
  EXPECT_EQ(paused.count_err("WARNING: Stopping kelvo scanner\n"), 1U);
  EXPECT_EQ(paused.count_err("WARNING: Starting kelvo PAT/PMT"), 2U);
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_test, request_switches_a_paused_adapter_on) {
  const Scan_run paused =
      run(on_freq(stream()), std::string(SCAN_ONCE) + "scan 0 off; sleep 3; " + "freq 0 506000000; wait_done 0 60");
  EXPECT_EQ(paused.lines({"done", "no"}), "done 0 0\ndone 0 0\n");
}

TEST_F(Scan_test, new_request_replaces_one_that_is_not_answered) {
  std::vector<std::string> options = on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                        [{ "fault": "missing", "table": "sdt_actual" }] }])"_json));
  options.insert(options.end(), {"--mux", "514000000=" + stream()});
  const Scan_run replaced =
      run(options, "kelvo 0 tuner; freq 0 506000000; sleep 3; freq 0 514000000; wait_done 0 60; sleep 50");
  EXPECT_EQ(replaced.lines(), "freq -1\nfreq -1\ndone 0 0\nend\n");
  // The filters go before the tuning.
  const std::vector<Scan_run::Span> sdt = replaced.filtered("0x11");
  const std::vector<double> tunings = replaced.logged({"FE_SET_FRONTEND freq=514000000"});
  ASSERT_EQ(sdt.size(), 2U);
  ASSERT_EQ(tunings.size(), 1U);
  EXPECT_LE(sdt[0].to, tunings[0]);
  EXPECT_EQ(sql("SELECT freq, count(*) FROM kanalid GROUP BY freq"), "514000000|3\n");
}

TEST_F(Scan_test, request_that_fails_ends_the_scan_under_way_without_a_merge) {
  for (const char* freq : {"538000000", "900000000"}) {
    const Scan_run failed = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                    [{ "fault": "missing", "table": "sdt_actual" }] }])"_json)),
                                "kelvo 0 tuner\n"
                                "freq 0 506000000\n"
                                "wait_sql 10 SELECT count(*) FROM estreams_scan_0\n"
                                "freq 0 " +
                                    std::string(freq) +
                                    "\n"
                                    "sleep 5\n");
    EXPECT_EQ(failed.lines(), "freq -1\ntrue\nfreq 0\ndone 0 0\nend\n") << freq;
    EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "0\n") << freq;
  }
}

TEST_F(Scan_test, each_line_of_progress_appears_at_its_level_and_not_below) {
  const std::string file = stream();
  struct Line {
    const char* text;
    int level;
  };
  const Line lines[] = {{"WARNING: Loop init, local channel is -1\n", 1},
                        {"WARNING: Starting kelvo PAT/PMT", 1},
                        {"WARNING: Stopping kelvo scanner\n", 1},
                        {"WARNING: Running backup\n", 1},
                        {"Starting scan from PAT", 2},
                        {"MSG: Captured channel eit info\n", 4}};
  for (int level = 0; level <= 4; ++level) {
    const Scan_run scan =
        run(on_freq(file), "verbosity " + std::to_string(level) +
                               "; kelvo 0 tuner; freq 0 506000000; wait_done 0 60; export 0; wait_change 0 8 20; "
                               "scan 0 off; sleep 3; verbosity -1");
    for (const Line& line : lines)
      EXPECT_EQ(scan.count_err(line.text) > 0, level >= line.level) << line.text << " at " << level;
    EXPECT_EQ(has_number(scan.err, "M:"), level >= 3) << level;
    EXPECT_EQ(has_number(scan.err, "OK MSG at loop "), level >= 3) << level;
  }
}

TEST_F(Scan_test, scan_ends_with_the_last_section_that_it_needed) {
  // Everything is there at once but the NIT, which begins 2 s after the tuning.
  const Scan_run timed = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                 [{ "fault": "drop", "table": "nit_actual", "to": 2 }] }])"_json)),
                             SCAN_ONCE, 1);
  const double took = timed.at("done 0 0") - timed.at("freq -1");
  EXPECT_GT(took, 1.5);
  EXPECT_LT(took, 2.0 + 0.1 + 0.3);
  support::expect_reference("scan/first.txt", dump());
}
