// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Exports, the test signal, failing devices and the end, in the middle of a scan.

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

constexpr char SCAN_ONCE[] = "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; ";

class Scan_states_test : public Scan_test {
 protected:
  void with_options(std::vector<std::string> more, const std::string& script, Scan_run* result) {
    std::vector<std::string> options = on_freq(stream());
    options.insert(options.end(), more.begin(), more.end());
    *result = run(options, script);
  }
};

}  // namespace

TEST_F(Scan_states_test, export_while_scanning_stops_the_filters_tells_8_and_starts_them_again) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  // The SDT begins late, so the scan is in the middle.
  const Scan_run exported =
      run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                              [{ "fault": "drop", "table": "sdt_actual", "to": 10 }] }])"_json)),
          "verbosity 1; kelvo 0 tuner; "
          "sql INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1772388000 - 86400 - 600, 60); "
          "sql INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1772388000, 60); "
          "freq 0 506000000; sleep 4; export 0 /dvbfiles/backup.db; wait_change 0 8 20; state 0; "
          "exists /dvbfiles/backup_epg.db; exists /dvbfiles/epg_export_tmp.db; wait_done 0 60");
  EXPECT_EQ(exported.lines({"freq", "export", "change", "state", "exists", "done", "no"}),
            "freq -1\nexport 1\nchange 0 8\nstate 0 0 1\nexists yes\nexists no\ndone 0 0\n");
  EXPECT_EQ(exported.count_err("WARNING: Running backup\n"), 1U);
  const std::vector<Scan_run::Span> sdt = exported.filtered("0x11");
  ASSERT_EQ(sdt.size(), 2U) << "set again after the export";
  const std::vector<double> moves = exported.logged({"system", "mv "});
  ASSERT_EQ(moves.size(), 1U);
  EXPECT_GE(moves[0], sdt[0].to) << "stopped before";
  EXPECT_LE(moves[0], sdt[1].from) << "started after it";
  EXPECT_EQ(support::query_database(sandbox() + "/dvbfiles/backup_epg.db", "SELECT channel, start_epoch FROM epglist"),
            "1|1772388000\n");
  EXPECT_EQ(sql("SELECT start_epoch FROM epglist"), "1772388000\n") << "old events are removed first";
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, export_starts_the_scan_s_timers_anew) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                [{ "fault": "missing", "table": "sdt_actual" }] }])"_json)),
                            "kelvo 0 tuner; freq 0 506000000; sleep 20; export 0 /dvbfiles/backup.db; "
                            "wait_done 0 100");
  expect_seconds(39, late.at("done 0 0") - late.at("change 0 8"));
}

TEST_F(Scan_states_test, export_works_while_paused_and_before_any_request) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const Scan_run exported = run(on_freq(stream()),
                                "kelvo 0 tuner; export 0 /dvbfiles/one.db; wait_change 0 8 20; freq 0 506000000; "
                                "wait_done 0 60; scan 0 off; sleep 2; export 0 /dvbfiles/two.db; wait_change 0 8 20; "
                                "export_channels 0 /dvbfiles/channels.db; exists /dvbfiles/one_epg.db; "
                                "exists /dvbfiles/two_epg.db; exists /dvbfiles/channels.db");
  EXPECT_EQ(exported.lines({"exists", "no"}), "exists yes\nexists yes\nexists yes\n");
}

TEST_F(Scan_states_test, test_signal_file_is_passed_on_once_and_removed) {
  Scan_run signalled;
  with_options({},
               std::string(SCAN_ONCE) +
                   "verbosity 1; write /tmp/testsig 1f; wait_change 0 31 20; sleep 3; exists /tmp/testsig; "
                   "verbosity 0; write /tmp/testsig 0x40; wait_change 0 64 20",
               &signalled);
  EXPECT_EQ(signalled.lines({"change", "exists", "no"}), "change 0 31\nexists no\nchange 0 64\n");
  EXPECT_EQ(signalled.count_err("WARNING: Sending callback signal 1f "), 1U);
  EXPECT_EQ(signalled.count_err("signal 40"), 0U);
}

TEST_F(Scan_states_test, test_signal_without_a_number_is_0) {
  Scan_run signalled;
  with_options({}, std::string(SCAN_ONCE) + "write /tmp/testsig nothing; sleep 3; exists /tmp/testsig", &signalled);
  EXPECT_EQ(signalled.lines({"change", "exists"}), "change 0 0\nexists no\n");
}

TEST_F(Scan_states_test, test_signal_waits_while_nothing_is_scanned) {
  Scan_run signalled;
  with_options({},
               "kelvo 0 tuner; write /tmp/testsig 1f; sleep 3; exists /tmp/testsig; scan 0 on; "
               "wait_change 0 31 10",
               &signalled);
  EXPECT_EQ(signalled.lines({"change", "exists", "no"}), "exists yes\nchange 0 31\n");
}

TEST_F(Scan_states_test, demux_that_cannot_be_opened_answers_0_with_nothing_found) {
  Scan_run failed;
  with_options({"--fault", "open(demux0)=EBUSY"}, std::string("verbosity 1\n") + SCAN_ONCE, &failed);
  EXPECT_EQ(failed.lines({"done", "no"}), "done 0 0\n");
  expect_seconds(4, failed.at("done 0 0") - failed.at("freq -1"));
  EXPECT_EQ(failed.count_err("WARNING: Filter pid 0, tid 0 open retries > 4, removing filter\n"), 1U);
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_states_test, demux_that_can_be_opened_at_the_third_try_is_used) {
  Scan_run late;
  with_options({"--fault", "open(demux0)=EBUSY*4"}, SCAN_ONCE, &late);
  EXPECT_EQ(late.lines({"done", "no"}), "done 0 0\n");
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, failing_wait_is_printed_and_the_scan_goes_on) {
  Scan_run failed;
  with_options({"--fault", "select=EINTR*3"}, SCAN_ONCE, &failed);
  EXPECT_EQ(failed.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(failed.count_err("Select: : Interrupted system call\n"), 3U);
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, overflow_of_the_kernel_s_buffer_costs_only_what_was_queued) {
  Scan_run overflown;
  with_options({"--fault", "read(demux0)=EOVERFLOW@3*5"}, std::string("verbosity 1\n") + SCAN_ONCE, &overflown);
  EXPECT_EQ(overflown.lines({"done", "no"}), "done 0 0\n");
  EXPECT_EQ(overflown.count_err("WARNING: Resetting dmxdev kernel ringbuffer, overflow\n"), 5U);
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, noisy_stream_gives_the_same_result) {
  const Json patch = R"([{ "op": "add", "path": "/faults", "value": [
                           { "fault": "wrong_crc", "table": "all", "every": 2 },
                           { "fault": "lose_packet", "table": "all", "every": 3 },
                           { "fault": "transport_error", "table": "all", "every": 5 },
                           { "fault": "discontinuity", "table": "all", "every": 7 }] }])"_json;
  const Scan_run noisy = run(on_freq(stream(patch)), SCAN_ONCE);
  EXPECT_EQ(noisy.lines({"done", "no"}), "done 0 0\n");
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, stream_that_stops_in_the_middle_ends_by_time_out) {
  std::vector<std::string> options = on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                        [{ "fault": "missing", "table": "sdt_actual" }] }])"_json));
  options.insert(options.end(), {"--stop-after", "506000000=3"});
  const Scan_run stopped = run(options, SCAN_ONCE);
  EXPECT_EQ(stopped.lines({"done", "no"}), "done 0 0\n");
  expect_seconds(39, stopped.at("done 0 0") - stopped.at("freq -1"));
}

TEST_F(Scan_states_test, can_be_destroyed_at_any_moment_of_a_scan) {
  std::string script;
  for (const double delay : {0.0, 0.02, 0.05, 0.1, 0.15, 0.2, 0.3, 0.5, 0.8, 1.3, 2.5, 6.5})
    script += "kelvo 0 tuner; freq 0 506000000; sleep " + std::to_string(delay) + "\ndelete 0\n";
  const Scan_run ended = run(on_freq(stream()), script, 5);
  EXPECT_EQ(ended.logged({"open /dev/dvb/adapter0/frontend0"}).size(), 12U);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
  EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "3\n");
}

TEST_F(Scan_states_test, can_be_destroyed_in_every_state) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const std::string begin = "kelvo 0 tuner\n";
  const std::string states[] = {
      "",                                                                                       // no request
      "scan 0 on; sleep 0.5",                                                                   // nothing to scan
      "freq 0 506000000; sleep 0.1; scan 0 off; sleep 1",                                       // paused
      "freq 0 506000000; export 0 /dvbfiles/a.db",                                              // exporting
      "freq 0 514000000; sleep 7",                                                              // no stream
      "freq 0 538000000\n",                                                                     // no lock
      "channel 0 506000000 1\n",                                                                // tuning
      "channel 0 506000000 1; sleep 4",                                                         // between rescans
      "channel 0 506000000 1; sleep 7",                                                         // collecting the guide
      "freq 0 506000000; wait_done 0 20; freq 0 506000000",                                     // a second request
      "tuner 0 off; freq 0 506000000",                                                          // passive
      "freq 0 506000000; sleep 0.2; tuner 0 off; sleep 1; tuner 0 on; channel 0 506000000 2; "  // tuner exchanged
  };
  std::string script;
  for (const std::string& state : states)
    script += begin + state + "; delete 0\n";
  std::vector<std::string> options = on_freq(stream());
  options.insert(options.end(), {"--mux", "514000000=" + empty_stream()});
  const Scan_run ended = run(options, script);
  // One each, and the tuners that were taken away and put back.
  EXPECT_EQ(ended.logged({"close /dev/dvb/adapter0/frontend0"}).size(), std::size(states) + 1);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
  // Nothing is left behind that a whole scan would not make good.
  run(on_freq(stream()), SCAN_ONCE);
  run(on_freq(stream()), SCAN_ONCE);
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_states_test, default_parameters_use_7_mhz_up_to_399999999_hz_and_8_mhz_above) {
  Scan_run tuned;
  with_options({"--frequency-range", "47000000-862000000"},
               "kelvo 0 tuner; freq 0 177500000; freq 0 399999999; freq 0 400000000", &tuned);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=474000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size(),
            1U);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=177500000 inv=0 bw=1 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size(),
            1U);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=399999999 inv=0 bw=1 "}).size(), 1U);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=400000000 inv=0 bw=0 "}).size(), 1U);
}

TEST_F(Scan_states_test, quirk_default_transmission_mode_is_the_number_3) {
  Scan_run tuned;
  with_options({}, "kelvo 0 tuner; freq 0 506000000", &tuned);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND", " mode=3 "}).size(), tuned.logged({"FE_SET_FRONTEND"}).size());
}

TEST_F(Scan_states_test, quirk_last_sleep_of_a_tuning_is_not_followed_by_a_test) {
  // Tests are made after 0, 50 and 100 ms; then 50 ms are waited for nothing.
  for (const auto& [delay, result] : {std::pair{"70", "freq -1\n"}, std::pair{"130", "freq 0\n"}}) {
    std::vector<std::string> options = on_freq(stream());
    options.insert(options.end(), {"--lock-delay", delay});
    const Scan_run tuned = run(options, "kelvo 0 tuner; freq 0 506000000", 1);
    EXPECT_EQ(tuned.lines({"freq"}), result) << delay;
  }
}

TEST_F(Scan_states_test, parameters_of_the_nit_are_used_for_the_next_tuning) {
  Scan_run tuned;
  with_options({}, std::string(SCAN_ONCE) + "freq 0 506000000; wait_done 0 60", &tuned);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size(),
            1U);
  // 3/4, 1/2, 64-QAM, 8k, 1/4 as stored.
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=3 lp=1 const=3 mode=2 guard=3 hier=0"}).size(),
            1U);
}

TEST_F(Scan_states_test, connector_and_type_of_the_host_are_those_of_the_tuner_s_look_up_and_of_a_new_tuner_s) {
  Scan_run tuned;
  // In look-ups the two are exchanged; the line under their own names is not the one to be found.
  with_options({},
               "insert INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) "
               "VALUES (506000000, 3, 1, 'Fr:  506000000 Bw:  0 CrH:  3 CrL:  1 Mod:  3 TrM:  2 Grd:  3 Hir:  0'); "
               "kelvo 0 tuner 3 1; freq 0 506000000; wait_done 0 100; tuner 0 off; tuner 0 on; freq 0 506000000",
               &tuned);
  const std::vector<double> tunings = tuned.logged({"FE_SET_FRONTEND freq=506000000"});
  EXPECT_EQ(tunings.size(), 2U);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND freq=506000000 ", " const=3 "}).size(), 2U) << tuned.log;
}

TEST_F(Scan_states_test, destruction_ends_the_worker_then_parser_filters_and_tuner) {
  // Deleting a timer is logged only when it is made to fail.
  Scan_run ended;
  with_options({"--fault", "timer_delete=EINVAL"},
               std::string(SCAN_ONCE) + "freq 0 506000000; wait_done 0 100; delete 0", &ended);
  // T a timer, D a handle of the demultiplexer, F the frontend; in small letters by the worker.
  std::string order;
  std::istringstream in(ended.log);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string seconds, process, thread, call, path;
    words >> seconds >> process >> thread >> call >> path;
    const bool timer = call == "timer_delete";
    if (timer || call == "close")
      order += timer ? (thread == process ? 'T' : 't') : path == "/dev/dvb/adapter0/demux0" ? 'D' : 'F';
  }
  // The worker's three timers; those of the two services whose guide was collected; handles and timers of filters.
  EXPECT_THAT(order, testing::MatchesRegex("t*tttTT(DT)+F"));
}

TEST_F(Scan_states_test, request_is_picked_up_at_once) {
  // In real time: an idle worker waits a second at a time.
  const Scan_run timed = run(on_freq(stream()), "kelvo 0 tuner; sleep 1.3; freq 0 506000000; wait_done 0 60", 1);
  const std::vector<double> filters = timed.logged({"DMX_SET_FILTER pid=0x0 filter=00"});
  const std::vector<double> tunings = timed.logged({"FE_SET_FRONTEND freq=506000000"});
  ASSERT_EQ(filters.size(), 1U);
  ASSERT_EQ(tunings.size(), 1U);
  EXPECT_LT(filters[0] - tunings[0], 0.3);
}
