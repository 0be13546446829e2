// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Channel requests: a service is watched, its multiplex's PMTs are read again every 3 s and everything every 300 s.

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

constexpr char GUIDE_BEGINS[] = "DMX_SET_FILTER pid=0x12 filter=4e";
const auto WITHOUT_TOT = R"([{ "op": "replace", "path": "/time", "value": { "tot": false } }])"_json;
const auto WITHOUT_102 = R"([{ "op": "remove", "path": "/services/1" }])"_json;

class Scan_channel_test : public Scan_test {
 protected:
  // Whatever began at that time of the log, its end starts the timer of the PMTs anew, and so does each reading of
  // them.
  static void expect_pmts_are_not_read_for_3_seconds_after(double time, const Scan_run& run) {
    const std::vector<double> armed = run.logged({"timer_settime", Scan_run::timer_of(3)});
    const auto anew = std::find_if(armed.begin(), armed.end(), [&](double at) { return at >= time; });
    ASSERT_GE(armed.end() - anew, 2);
    EXPECT_GE(anew[1] - anew[0], 1.95);
  }
};

const Scan_case CASES[] = {
    {.legend = "request on the frequency already tuned does nothing",
     .known = true,
     .script = "kelvo 0 tuner; freq 0 506000000; wait_done 0 60; verbosity 1; channel 0 506000000 1; sleep 10; "
               "verbosity 0",
     .said = "freq -1; done 0 0; channel -1",
     .printed = {{"local channel is 1", 0}},
     .logged = {{"DMX_SET_FILTER pid=0x100 ", 1}}},
    {.legend = "changed pmt is found by a rescan and told with 1",
     .patch = R"([{ "op": "add", "path": "/services/0/pmt_changes", "value": [{ "at": 13, "streams": [
                    { "type": "mpeg2-video", "pid": 257 },
                    { "type": "mpeg2-audio", "pid": 258, "languages": ["est"] },
                    { "type": "mpeg2-audio", "pid": 259, "languages": ["fin"] }] }] }])"_json,
     .known = true,
     .script = "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; wait_change 0 1 19; verbosity 0",
     .said = "channel -1; change 0 1",
     .seconds = 13,
     .printed = {{"WARNING: db_change_callback 1, retval 30\n", 1}},
     .reference = "channel_pmt_changed.txt"},
    {.legend = "service whose pmt stops is found lost by the scan after the time out",
     .patch = WITHOUT_102,
     .known = true,
     .script = "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; wait_change 0 2 60; verbosity 0",
     .said = "channel -1; change 0 2",
     .seconds = 39,
     .printed = {{"WARNING: mode 1 scan timed out for frequency 506000000\n", 1}}},
    {.legend = "without data goes on trying",
     .patch = NO_STREAM,
     .known = true,
     .script = "verbosity 3; kelvo 0 tuner; channel 0 506000000 1; sleep 45; verbosity 0; state 0",
     .said = "channel -1; state 0 0 1",
     .printed = {{"Mux is DVB-H", 0},
                 {"WARNING: mode 1 scan timed out for frequency 506000000\n", 1},
                 {"Restarting autoscan from PAT\n", 1}}},
    {.legend = "resuming starts the guide from its first table",
     .patch = Scan_table::with_events(3),
     .known = true,
     .script = "kelvo 0 tuner; channel 0 506000000 1; wait_table 0 50 60; sleep 2; scan 0 off; sleep 2; scan 0 on; "
               "sleep 4",
     .said = "channel -1; reached",
     .logged = {{GUIDE_BEGINS, 2}}},
};

}  // namespace

TEST_P(Scan_table, of_channels) {
  expect(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, Scan_table, testing::ValuesIn(CASES), Scan_table::name);

TEST_F(Scan_channel_test, is_tuned_by_the_worker_and_reads_the_pmts_again_every_3_seconds) {
  scan_first();
  const Scan_run watched = scan_of(BASE,
                                   "verbosity 4; kelvo 0 tuner; channel 0 506000000 1; sleep 20; scan 0 off; sleep 2; "
                                   "verbosity 0; state 0; readings 0",
                                   10);
  EXPECT_EQ(watched.lines({"channel", "done", "change", "state"}), "channel -1\nstate 0 0 1\n");
  // Every service of type 1; no PAT, NIT or SDT in between.
  const std::vector<double> pmts = watched.logged({"DMX_SET_FILTER pid=0x100 filter=02"});
  EXPECT_EQ(watched.logged({"DMX_SET_FILTER pid=0x110 filter=02"}).size(), pmts.size());
  EXPECT_EQ(watched.logged({"DMX_SET_FILTER pid=0x120 "}).size(), 0U);
  EXPECT_EQ(watched.logged({"DMX_SET_FILTER pid=0x0 "}).size(), 0U);
  EXPECT_GE(pmts.size(), 5U);
  EXPECT_LE(pmts.size(), 11U);
  for (size_t i = 1; i < pmts.size(); ++i) {
    EXPECT_GE(pmts[i] - pmts[i - 1], 1.9);
    EXPECT_LE(pmts[i] - pmts[i - 1], 2 + 1 + 0.25 * 10);
  }
  EXPECT_EQ(watched.count_err("starting scan from PMT"), 1U);
  EXPECT_EQ(watched.count_err("Starting scan from PAT"), 0U);
  EXPECT_GE(watched.count_err("Restarting autoscan from PMT\n"), 4U);
  EXPECT_GE(watched.count_err("PMT version match, skipping db recalc\n"), 3U);
  EXPECT_EQ(watched.count_err("Master update PMT\n"), 2U)
      << "no version is known at first, nor after the guide's start";
  EXPECT_EQ(watched.count_err("Flushing\n"), 1U) << "at the request";
  // At the request and with switching on; of the three, the autoscan timer is left alone by rescans of the PMTs.
  const size_t rescans = watched.count_err("Restarting autoscan from PMT\n");
  EXPECT_EQ(watched.timers(), (std::vector<size_t>{2, 2 + rescans, 2 + rescans}));
  support::expect_reference("scan/channel.txt", dump());
}

TEST_F(Scan_channel_test, progress_is_silent_at_verbosity_0_and_each_line_appears_at_its_level) {
  scan_first();
  const std::string file = stream();
  for (int level = 0; level <= 4; ++level) {
    run(on_freq(file),
        "verbosity " + std::to_string(level) +
            "; kelvo 0 tuner; sleep 2; channel 0 506000000 1; sleep 16; scan 0 off; sleep 8; scan 0 on; sleep 8; "
            "verbosity -1",
        40)
        .expect_levels(level, {{"WARNING: Loop init, local channel is 1\n", 1},
                               {"WARNING: Starting kelvo PAT/PMT", 1},
                               {"WARNING: Restarting EIT scan\n", 1},
                               {"WARNING: Restarting EPG\n", 1},
                               {"WARNING: Stopping kelvo scanner\n", 1},
                               {"starting scan from PMT", 2},
                               {"M:", 3},
                               {"Restarting autoscan from PMT\n", 3},
                               {"PMT version match, skipping db recalc\n", 4},
                               {"Data scan loop\n", 4},
                               {"wait loop nr 0\n", 4}});
  }
}

TEST_F(Scan_channel_test, guide_is_started_5_to_6_seconds_after_the_tuning_and_once) {
  scan_first();
  const Scan_run watched =
      scan_of(BASE, "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; sleep 20; verbosity 0", 10);
  expect_seconds(5, watched.logged_once({GUIDE_BEGINS}) - watched.logged_once({"FE_SET_FRONTEND freq=506000000"}), 10);
  EXPECT_EQ(watched.count_err("WARNING: Restarting EIT scan\n"), 1U);
}

TEST_F(Scan_channel_test, guide_is_started_again_by_the_next_request) {
  scan_first();
  const Scan_run watched = run(on_freq(stream(), {"--mux", "514000000=" + stream()}),
                               "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; sleep 13; channel 0 514000000 1; "
                               "sleep 13; verbosity 0",
                               10);
  EXPECT_EQ(watched.count_err("WARNING: Restarting EIT scan\n"), 2U);
  const std::vector<double> starts = watched.logged({GUIDE_BEGINS});
  ASSERT_EQ(starts.size(), 2U);
  expect_seconds(5, starts[1] - watched.logged_once({"FE_SET_FRONTEND freq=514000000"}), 10);
}

TEST_F(Scan_channel_test, guide_that_has_grown_by_more_than_20_events_is_told_with_4) {
  for (const int events : {20, 21}) {
    scan_first(with_events(events));
    const Scan_run watched = scan_of(with_events(events),
                                     "verbosity 1; insert DELETE FROM epglist; kelvo 0 tuner; channel 0 506000000 1; "
                                     "wait_sql 60 SELECT count(*) = " +
                                         std::to_string(events) + " FROM epglist; sleep 10; verbosity 0");
    EXPECT_EQ(watched.lines({"channel", "done", "change", "true", "never"}),
              events == 20 ? "channel -1\ntrue\n" : "channel -1\ntrue\nchange 0 4\n");
    EXPECT_EQ(watched.count_err("WARNING: db_change_callback 4, retval 0\n"), events == 20 ? 0U : 1U);
    EXPECT_EQ(sql("SELECT count(*) FROM epglist"), std::to_string(events) + "\n");
    support::expect_reference("scan/channel.txt", dump());
  }
}

TEST_F(Scan_channel_test, export_restarts_filters_and_all_three_timers_and_the_guide) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  scan_first();
  const Scan_run watched = scan_of(WITHOUT_TOT,
                                   "verbosity 3; kelvo 0 tuner; channel 0 506000000 1; sleep 13; "
                                   "export 0 /dvbfiles/backup.db; wait_change 0 8 20; sleep 13; scan 0 off; sleep 2; "
                                   "verbosity 0",
                                   10);
  EXPECT_EQ(watched.lines(), "channel -1\nexport 1\nchange 0 8\nend\n");
  EXPECT_EQ(watched.count_err("WARNING: Running backup\n"), 1U);
  const size_t rescans = watched.count_err("Restarting autoscan from PMT\n");
  EXPECT_EQ(watched.timers(), (std::vector<size_t>{3, 3 + rescans, 3 + rescans}));
  // The filter of the time that nobody sends runs from the request on, and again after the export.
  const std::vector<Scan_run::Span> time = watched.filtered("0x14");
  ASSERT_EQ(time.size(), 2U);
  const double moved = watched.logged_once({"rename ", "/dvbfiles/backup_epg.db"});
  EXPECT_GE(moved, time[0].to) << "the filters are stopped before";
  EXPECT_LE(moved, time[1].from) << "and started after it";
  expect_pmts_are_not_read_for_3_seconds_after(time[0].to, watched);
  EXPECT_EQ(watched.count_err("WARNING: Restarting EIT scan\n"), 2U);
  const std::vector<double> guide = watched.logged({GUIDE_BEGINS});
  // Started, started again with all filters, and started anew.
  ASSERT_EQ(guide.size(), 3U);
  EXPECT_GE(guide[2] - time[0].to, 4.95);
  support::expect_reference("scan/channel.txt", dump());
}

TEST_F(Scan_channel_test, quirk_request_on_the_constructor_s_frequency_does_nothing) {
  const Scan_run first = run({"--mux", "474000000=" + stream()},
                             "kelvo 0 tuner; sleep 1; verbosity 1; channel 0 474000000 1; sleep 5; verbosity 0");
  EXPECT_EQ(first.lines({"channel"}), "channel -1\n");
  EXPECT_EQ(first.count_err("Loop init"), 0U);
}

TEST_F(Scan_channel_test, everything_is_read_again_after_300_seconds_and_a_lost_service_is_told_with_2) {
  // A long stream at a low rate, without the radio service from 200 s on.
  const Json patch = R"([{ "op": "replace", "path": "/duration", "value": 330 },
                         { "op": "replace", "path": "/bit_rate", "value": 300000 },
                         { "op": "add", "path": "/intervals", "value": { "pat": 1, "pmt": 1, "nit_actual": 1, "pcr": 1,
                           "sdt_actual": 1, "eit_pf_actual": 2, "eit_schedule_actual": 5 } },
                         { "op": "add", "path": "/services/2/vanishes_at", "value": 200 }])"_json;
  scan_first(patch);
  const Scan_run watched = scan_of(patch,
                                   "verbosity 3; kelvo 0 tuner; channel 0 506000000 1; wait_change 0 2 320; sleep 10; "
                                   "scan 0 off; sleep 30; verbosity 0",  // no rescan halfway when the messages end
                                   60);
  EXPECT_EQ(watched.lines({"channel", "done", "no", "change"}), "channel -1\nchange 0 2\n");
  EXPECT_EQ(watched.count_err("Restarting autoscan from PAT\n"), 1U);
  EXPECT_EQ(watched.count_err("WARNING: db_change_callback 2, retval 1\n"), 1U);
  EXPECT_EQ(watched.count_err("Channel changed EIT scan\n"), 1U) << "the guide is to be started again";
  EXPECT_EQ(watched.count_err("WARNING: Restarting EIT scan\n"), 2U);
  const size_t of_pmts = watched.count_err("Restarting autoscan from PMT\n");
  EXPECT_EQ(watched.timers(), (std::vector<size_t>{3, 2 + of_pmts, 3 + of_pmts})) << "that of the PMTs goes on";
  expect_seconds(299,
                 watched.logged_once({"DMX_SET_FILTER pid=0x0 filter=00"}) -
                     watched.logged_once({"FE_SET_FRONTEND freq=506000000"}),
                 60);
  support::expect_reference("scan/channel_service_lost.txt", dump());
}

TEST_F(Scan_channel_test, empty_list_is_filled_by_the_scan_after_300_seconds_and_told_with_3) {
  const Scan_run watched = scan_of(WITHOUT_TOT,
                                   "verbosity 1; kelvo 0 tuner; channel 0 506000000 1; sleep 200; "
                                   "sql SELECT count(*) FROM kanalid; wait_change 0 3 200; verbosity 0",
                                   60);
  EXPECT_EQ(watched.lines(), "channel -1\nsql 0\nchange 0 3\nend\n");
  EXPECT_EQ(watched.count_err("WARNING: db_change_callback 3, retval 22\n"), 1U);
  expect_seconds(299, watched.at("change 0 3") - watched.at("channel -1"), 60);
  const std::vector<Scan_run::Span> time = watched.filtered("0x14");
  ASSERT_EQ(time.size(), 2U);
  EXPECT_LE(time[0].to, time[1].from) << "the filter of the time is removed and made again";
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_channel_test, each_line_of_a_full_rescan_appears_at_its_level_and_not_below) {
  const std::string missing = stream(WITHOUT_102);
  for (int level = 0; level <= 3; ++level) {
    scan_first();
    const Scan_run watched =
        run(on_freq(missing),
            "verbosity " + std::to_string(level) +
                "; kelvo 0 tuner; channel 0 506000000 1; sleep 10; scan 0 off; sleep 2; scan 0 on; "
                "wait_change 0 2 100; sleep 1; verbosity -1",
            40);
    EXPECT_EQ(watched.lines({"channel", "change", "no"}), "channel -1\nchange 0 2\n");
    watched.expect_levels(level,
                          {{"WARNING: mode 1 scan timed out for frequency 506000000\n", 1},
                           {"WARNING: db_change_callback 2, retval 1\n", 1},
                           {"Restarting autoscan from PAT\n", 3},
                           {"Channel changed EIT scan\n", 3}},
                          1);
  }
}

TEST_F(Scan_channel_test, pat_scan_that_times_out_with_the_sdt_merges_nothing_and_starts_again_from_the_pat) {
  scan_first();
  const Scan_run watched = scan_of(faults(R"([{ "fault": "missing", "table": "pmt", "service_id": 102 },
                                           { "fault": "missing", "table": "sdt_actual" }])"),
                                   "verbosity 3; kelvo 0 tuner; channel 0 506000000 1; sleep 100; "
                                   "sql SELECT count(*) FROM kanalid_scan_0; verbosity 0");
  EXPECT_EQ(watched.count_err("WARNING: mode 1 scan timed out for frequency 506000000\n"), 1U);
  EXPECT_EQ(watched.count_err("WARNING: mode 2 scan timed out for frequency 506000000\n"), 1U);
  EXPECT_EQ(watched.count_err("Restarting autoscan from PAT\n"), 2U);
  EXPECT_EQ(watched.count_err("Master update PAT\n"), 0U);
  EXPECT_EQ(watched.lines(), "channel -1\nsql 3\nend\n");
  const std::vector<double> pats = watched.logged({"DMX_SET_FILTER pid=0x0 filter=00"});
  ASSERT_EQ(pats.size(), 2U);
  expect_seconds(39, pats[1] - pats[0]);
  support::expect_reference("scan/channel_timed_out.txt", dump());
}

TEST_F(Scan_channel_test, on_dvb_h_is_not_told_but_counts_as_answered) {
  scan_first();
  const Scan_run dvbh = run(on_freq(empty_stream(), {"--signal", "506000000:status=0x9f"}),
                            "verbosity 3; kelvo 0 tuner; channel 0 506000000 1; sleep 10; verbosity 0; state 0");
  EXPECT_EQ(dvbh.lines(), "channel -1\nstate 1 0 1\nend\n");
  EXPECT_GE(dvbh.count_err("Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n"), 2U);
  EXPECT_EQ(sql("SELECT channel FROM kanalid ORDER BY channel"), "1\n2\n3\n");
}

TEST_F(Scan_channel_test, without_a_tuner_reads_the_pmts_of_the_frequency_asked_for) {
  scan_first();
  const Scan_run passive =
      run(on_freq(stream(), {"--tuned", "506000000"}), "kelvo 0 passive; channel 0 506000000 1; sleep 10; state 0");
  EXPECT_EQ(passive.lines(), "channel -1\nstate 0 0 1\nend\n");
  EXPECT_GE(passive.logged({"DMX_SET_FILTER pid=0x100 filter=02"}).size(), 2U);
  EXPECT_TRUE(passive.logged({"frontend0"}).empty());
  support::expect_reference("scan/channel.txt", dump());
}

TEST_F(Scan_channel_test, without_lock_is_not_told_and_goes_on) {
  scan_first();
  const Scan_run none = scan_of(BASE,
                                "kelvo 0 tuner; channel 0 538000000 1; sleep 10; state 0; channel 0 506000000 1; "
                                "sleep 5; readings 0");
  EXPECT_EQ(none.lines({"channel", "state", "done", "change"}), "channel -1\nstate 0 0 1\nchannel -1\n");
  EXPECT_EQ(none.lines({"readings"}).find("readings 506000000 100.0 31 "), 0U);
}

TEST_F(Scan_channel_test, pause_stops_the_rescans_and_resuming_starts_their_timers_anew) {
  scan_first();
  for (const bool guide_started : {true, false}) {
    const Scan_run paused = scan_of(WITHOUT_TOT,
                                    std::string("verbosity 3; kelvo 0 tuner; channel 0 506000000 1; sleep ") +
                                        (guide_started ? "13" : "2.5") +
                                        "; scan 0 off; sleep 30; scan 0 on; sleep 13; scan 0 off; sleep 2; verbosity 0",
                                    10);
    EXPECT_EQ(paused.lines(), "channel -1\nend\n");
    // The filter of the time that nobody sends runs while scanning is on.
    const std::vector<Scan_run::Span> on = paused.filtered("0x14");
    ASSERT_EQ(on.size(), 2U);
    expect_seconds(29, on[1].from - on[0].to, 10);
    expect_pmts_are_not_read_for_3_seconds_after(on[0].to, paused);
    const size_t rescans = paused.count_err("Restarting autoscan from PMT\n");
    EXPECT_EQ(paused.timers(), (std::vector<size_t>{3, 3 + rescans, 3 + rescans}));
    // A guide that had been started is started again at once; one that had not waits its time.
    const std::vector<double> guide = paused.logged({GUIDE_BEGINS});
    EXPECT_EQ(paused.count_err("WARNING: Restarting EPG\n"), guide_started ? 1U : 0U);
    EXPECT_EQ(paused.count_err("WARNING: Restarting EIT scan\n"), 1U);
    ASSERT_EQ(guide.size(), guide_started ? 2U : 1U);
    if (guide_started)
      EXPECT_LE(guide[1] - on[1].from, 0.25 * 10);
    else
      EXPECT_GE(guide[0] - on[0].to, 30 + 4.95);
    support::expect_reference("scan/channel.txt", dump());
  }
}
