// Exports, the test signal, failing devices and the end, in the middle of a scan.
#include <filesystem>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "scan/scan_run.h"

using nlohmann::literals::operator""_json;

namespace {

constexpr char SCAN_ONCE[] =
    "kelvo 0 tuner\n"
    "freq 0 506000000\n"
    "wait_done 0 100\n";

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
          "verbosity 1\n"
          "kelvo 0 tuner\n"
          "sql INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1772388000 - 86400 - 600, 60)\n"
          "sql INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1772388000, 60)\n"
          "freq 0 506000000\n"
          "sleep 4\n"
          "export 0 /dvbfiles/backup.db\n"
          "wait_change 0 8 20\n"
          "state 0\n"
          "exists /dvbfiles/backup_epg.db\n"
          "exists /dvbfiles/epg_export_tmp.db\n"
          "wait_done 0 60\n");
  EXPECT_EQ("freq -1\nexport 1\nchange 0 8\nstate 0 0 1\nexists yes\nexists no\ndone 0 0\n",
            exported.lines({"freq", "export", "change", "state", "exists", "done", "no"}));
  EXPECT_EQ(1U, exported.count_err("WARNING: Running backup\n"));
  const std::vector<Scan_run::Span> sdt = exported.filtered("0x11");
  ASSERT_EQ(2U, sdt.size()) << "set again after the export";
  const std::vector<double> moves = exported.logged({"system", "mv "});
  ASSERT_EQ(1U, moves.size());
  EXPECT_GE(moves[0], sdt[0].to) << "stopped before";
  EXPECT_LE(moves[0], sdt[1].from) << "started after it";
  EXPECT_EQ("1|1772388000\n",
            support::query_database(sandbox() + "/dvbfiles/backup_epg.db", "SELECT channel, start_epoch FROM epglist"));
  EXPECT_EQ("1772388000\n", sql("SELECT start_epoch FROM epglist")) << "old events are removed first";
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, export_starts_the_scan_s_timers_anew) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const Scan_run late = run(on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                [{ "fault": "missing", "table": "sdt_actual" }] }])"_json)),
                            "kelvo 0 tuner\n"
                            "freq 0 506000000\n"
                            "sleep 20\n"
                            "export 0 /dvbfiles/backup.db\n"
                            "wait_done 0 100\n");
  expect_seconds(39, late.at("done 0 0") - late.at("change 0 8"));
}

TEST_F(Scan_states_test, export_works_while_paused_and_before_any_request) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const Scan_run exported = run(on_freq(stream()),
                                "kelvo 0 tuner\n"
                                "export 0 /dvbfiles/one.db\n"
                                "wait_change 0 8 20\n"
                                "freq 0 506000000\n"
                                "wait_done 0 60\n"
                                "scan 0 off\n"
                                "sleep 2\n"
                                "export 0 /dvbfiles/two.db\n"
                                "wait_change 0 8 20\n"
                                "export_channels 0 /dvbfiles/channels.db\n"
                                "exists /dvbfiles/one_epg.db\n"
                                "exists /dvbfiles/two_epg.db\n"
                                "exists /dvbfiles/channels.db\n");
  EXPECT_EQ("exists yes\nexists yes\nexists yes\n", exported.lines({"exists", "no"}));
}

TEST_F(Scan_states_test, test_signal_file_is_passed_on_once_and_removed) {
  Scan_run signalled;
  with_options({},
               std::string(SCAN_ONCE) +
                   "verbosity 1\n"
                   "write /tmp/testsig 1f\n"
                   "wait_change 0 31 20\n"
                   "sleep 3\n"
                   "exists /tmp/testsig\n"
                   "verbosity 0\n"
                   "write /tmp/testsig 0x40\n"
                   "wait_change 0 64 20\n",
               &signalled);
  EXPECT_EQ("change 0 31\nexists no\nchange 0 64\n", signalled.lines({"change", "exists", "no"}));
  EXPECT_EQ(1U, signalled.count_err("WARNING: Sending callback signal 1f "));
  EXPECT_EQ(0U, signalled.count_err("signal 40"));
}

TEST_F(Scan_states_test, test_signal_without_a_number_is_0) {
  Scan_run signalled;
  with_options({}, std::string(SCAN_ONCE) + "write /tmp/testsig nothing\nsleep 3\nexists /tmp/testsig\n", &signalled);
  EXPECT_EQ("change 0 0\nexists no\n", signalled.lines({"change", "exists"}));
}

TEST_F(Scan_states_test, test_signal_waits_while_nothing_is_scanned) {
  Scan_run signalled;
  with_options({},
               "kelvo 0 tuner\n"
               "write /tmp/testsig 1f\n"
               "sleep 3\n"
               "exists /tmp/testsig\n"
               "scan 0 on\n"
               "wait_change 0 31 10\n",
               &signalled);
  EXPECT_EQ("exists yes\nchange 0 31\n", signalled.lines({"change", "exists", "no"}));
}

TEST_F(Scan_states_test, demux_that_cannot_be_opened_answers_0_with_nothing_found) {
  Scan_run failed;
  with_options({"--fault", "open(demux0)=EBUSY"}, std::string("verbosity 1\n") + SCAN_ONCE, &failed);
  EXPECT_EQ("done 0 0\n", failed.lines({"done", "no"}));
  expect_seconds(4, failed.at("done 0 0") - failed.at("freq -1"));
  EXPECT_EQ(1U, failed.count_err("WARNING: Filter pid 0, tid 0 open retries > 4, removing filter\n"));
  support::expect_reference("scan/nothing.txt", dump());
}

TEST_F(Scan_states_test, demux_that_can_be_opened_at_the_third_try_is_used) {
  Scan_run late;
  with_options({"--fault", "open(demux0)=EBUSY*4"}, SCAN_ONCE, &late);
  EXPECT_EQ("done 0 0\n", late.lines({"done", "no"}));
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, failing_wait_is_printed_and_the_scan_goes_on) {
  Scan_run failed;
  with_options({"--fault", "select=EINTR*3"}, SCAN_ONCE, &failed);
  EXPECT_EQ("done 0 0\n", failed.lines({"done", "no"}));
  EXPECT_EQ(3U, failed.count_err("Select: : Interrupted system call\n"));
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, overflow_of_the_kernel_s_buffer_costs_only_what_was_queued) {
  Scan_run overflown;
  with_options({"--fault", "read(demux0)=EOVERFLOW@3*5"}, std::string("verbosity 1\n") + SCAN_ONCE, &overflown);
  EXPECT_EQ("done 0 0\n", overflown.lines({"done", "no"}));
  EXPECT_EQ(5U, overflown.count_err("WARNING: Resetting dmxdev kernel ringbuffer, overflow\n"));
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, noisy_stream_gives_the_same_result) {
  const Json patch = R"([{ "op": "add", "path": "/faults", "value": [
                           { "fault": "wrong_crc", "table": "all", "every": 2 },
                           { "fault": "lose_packet", "table": "all", "every": 3 },
                           { "fault": "transport_error", "table": "all", "every": 5 },
                           { "fault": "discontinuity", "table": "all", "every": 7 }] }])"_json;
  const Scan_run noisy = run(on_freq(stream(patch)), SCAN_ONCE);
  EXPECT_EQ("done 0 0\n", noisy.lines({"done", "no"}));
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, stream_that_stops_in_the_middle_ends_by_time_out) {
  std::vector<std::string> options = on_freq(stream(R"([{ "op": "add", "path": "/faults", "value":
                                                        [{ "fault": "missing", "table": "sdt_actual" }] }])"_json));
  options.insert(options.end(), {"--stop-after", "506000000=3"});
  const Scan_run stopped = run(options, SCAN_ONCE);
  EXPECT_EQ("done 0 0\n", stopped.lines({"done", "no"}));
  expect_seconds(39, stopped.at("done 0 0") - stopped.at("freq -1"));
}

TEST_F(Scan_states_test, can_be_destroyed_at_any_moment_of_a_scan) {
  std::string script;
  for (const double delay : {0.0, 0.02, 0.05, 0.1, 0.15, 0.2, 0.3, 0.5, 0.8, 1.3, 2.5, 6.5})
    script += "kelvo 0 tuner\nfreq 0 506000000\nsleep " + std::to_string(delay) + "\ndelete 0\n";
  const Scan_run ended = run(on_freq(stream()), script, 5);
  EXPECT_EQ(12U, ended.logged({"open /dev/dvb/adapter0/frontend0"}).size());
  EXPECT_EQ("ok\n", sql("PRAGMA integrity_check"));
  EXPECT_EQ("3\n", sql("SELECT count(*) FROM kanalid"));
}

TEST_F(Scan_states_test, can_be_destroyed_in_every_state) {
  std::filesystem::create_directories(sandbox() + "/dvbfiles");
  const std::string begin = "kelvo 0 tuner\n";
  const std::string states[] = {
      "",                                                                                       // no request
      "scan 0 on\nsleep 0.5\n",                                                                 // nothing to scan
      "freq 0 506000000\nsleep 0.1\nscan 0 off\nsleep 1\n",                                     // paused
      "freq 0 506000000\nexport 0 /dvbfiles/a.db\n",                                            // exporting
      "freq 0 514000000\nsleep 7\n",                                                            // no stream
      "freq 0 538000000\n",                                                                     // no lock
      "channel 0 506000000 1\n",                                                                // tuning
      "channel 0 506000000 1\nsleep 4\n",                                                       // between rescans
      "channel 0 506000000 1\nsleep 7\n",                                                       // collecting the guide
      "freq 0 506000000\nwait_done 0 20\nfreq 0 506000000\n",                                   // a second request
      "tuner 0 off\nfreq 0 506000000\n",                                                        // passive
      "freq 0 506000000\nsleep 0.2\ntuner 0 off\nsleep 1\ntuner 0 on\nchannel 0 506000000 2\n"  // tuner exchanged
  };
  std::string script;
  for (const std::string& state : states)
    script += begin + state + "delete 0\n";
  std::vector<std::string> options = on_freq(stream());
  options.insert(options.end(), {"--mux", "514000000=" + empty_stream()});
  const Scan_run ended = run(options, script);
  // One each, and the tuners that were taken away and put back.
  EXPECT_EQ(std::size(states) + 1, ended.logged({"close /dev/dvb/adapter0/frontend0"}).size());
  EXPECT_EQ("ok\n", sql("PRAGMA integrity_check"));
  // Nothing is left behind that a whole scan would not make good.
  run(on_freq(stream()), SCAN_ONCE);
  run(on_freq(stream()), SCAN_ONCE);
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_states_test, default_parameters_use_7_mhz_up_to_399999999_hz_and_8_mhz_above) {
  Scan_run tuned;
  with_options({"--frequency-range", "47000000-862000000"},
               "kelvo 0 tuner\n"
               "freq 0 177500000\n"
               "freq 0 399999999\n"
               "freq 0 400000000\n",
               &tuned);
  EXPECT_EQ(1U,
            tuned.logged({"FE_SET_FRONTEND freq=474000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size());
  EXPECT_EQ(1U,
            tuned.logged({"FE_SET_FRONTEND freq=177500000 inv=0 bw=1 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size());
  EXPECT_EQ(1U, tuned.logged({"FE_SET_FRONTEND freq=399999999 inv=0 bw=1 "}).size());
  EXPECT_EQ(1U, tuned.logged({"FE_SET_FRONTEND freq=400000000 inv=0 bw=0 "}).size());
}

TEST_F(Scan_states_test, quirk_default_transmission_mode_is_the_number_3) {
  Scan_run tuned;
  with_options({}, "kelvo 0 tuner\nfreq 0 506000000\n", &tuned);
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND"}).size(), tuned.logged({"FE_SET_FRONTEND", " mode=3 "}).size());
}

TEST_F(Scan_states_test, quirk_last_sleep_of_a_tuning_is_not_followed_by_a_test) {
  // Tests are made after 0, 50 and 100 ms; then 50 ms are waited for nothing.
  for (const auto& [delay, result] : {std::pair{"70", "freq -1\n"}, std::pair{"130", "freq 0\n"}}) {
    std::vector<std::string> options = on_freq(stream());
    options.insert(options.end(), {"--lock-delay", delay});
    const Scan_run tuned = run(options, "kelvo 0 tuner\nfreq 0 506000000\n", 1);
    EXPECT_EQ(result, tuned.lines({"freq"})) << delay;
  }
}

TEST_F(Scan_states_test, parameters_of_the_nit_are_used_for_the_next_tuning) {
  Scan_run tuned;
  with_options({}, std::string(SCAN_ONCE) + "freq 0 506000000\nwait_done 0 60\n", &tuned);
  EXPECT_EQ(1U,
            tuned.logged({"FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0"}).size());
  // 3/4, 1/2, 64-QAM, 8k, 1/4 as stored.
  EXPECT_EQ(1U,
            tuned.logged({"FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=3 lp=1 const=3 mode=2 guard=3 hier=0"}).size());
}

TEST_F(Scan_states_test, request_is_picked_up_at_once) {
  // In real time: an idle worker waits a second at a time.
  const Scan_run timed = run(on_freq(stream()), "kelvo 0 tuner\nsleep 1.3\nfreq 0 506000000\nwait_done 0 60\n", 1);
  const std::vector<double> filters = timed.logged({"DMX_SET_FILTER pid=0x0 filter=00"});
  const std::vector<double> tunings = timed.logged({"FE_SET_FRONTEND freq=506000000"});
  ASSERT_EQ(1U, filters.size());
  ASSERT_EQ(1U, tunings.size());
  EXPECT_LT(filters[0] - tunings[0], 0.3);
}
