// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Exports, the test signal, failing devices and the end, in the middle of a scan.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scan/scan_run.h"

namespace {

class Scan_states_test : public Scan_test {
 protected:
  void SetUp() override { std::filesystem::create_directories(sandbox() + "/dvbfiles"); }
};

// What is tuned to on 506 MHz when the NIT's parameters are stored: 3/4, 1/2, 64-QAM, 8k, 1/4.
const std::string AS_STORED = "FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=3 lp=1 const=3 mode=2 guard=3 hier=0";

const Scan_case CASES[] = {
    {.legend = "test signal file is passed on once and removed",
     .script = SCAN_ONCE + "verbosity 1; write /tmp/testsig 1f; wait_change 0 31 20; sleep 3; exists /tmp/testsig; "
                           "verbosity 0; write /tmp/testsig 0x40; wait_change 0 64 20",
     .said = "freq -1; done 0 0; change 0 31; exists no; change 0 64",
     .printed = {{"WARNING: Sending callback signal 1f ", 1}, {"signal 40", 0}}},
    {.legend = "test signal without a number is 0",
     .script = SCAN_ONCE + "write /tmp/testsig nothing; sleep 3; exists /tmp/testsig",
     .said = "freq -1; done 0 0; change 0 0; exists no"},
    {.legend = "test signal waits while nothing is scanned",
     .script = "kelvo 0 tuner; write /tmp/testsig 1f; sleep 3; exists /tmp/testsig; scan 0 on; wait_change 0 31 10",
     .said = "exists yes; change 0 31"},
    {.legend = "demux that cannot be opened answers 0 with nothing found",
     .options = {"--fault", "open(demux0)=EBUSY"},
     .script = "verbosity 1; " + SCAN_ONCE,
     .speed = 4,  // five tries come before the table's timer, on a busy machine as well
     .said = "freq -1; done 0 0",
     .seconds = 4,
     .printed = {{"WARNING: Filter pid 0, tid 0 open retries > 4, removing filter\n", 1}},
     .reference = "nothing.txt"},
    {.legend = "demux that can be opened at the third try is used",
     .options = {"--fault", "open(demux0)=EBUSY*4"},
     .script = SCAN_ONCE,
     .speed = 4,  // five tries come before the table's timer, on a busy machine as well
     .said = "freq -1; done 0 0",
     .reference = "first.txt"},
    {.legend = "failing wait is printed and the scan goes on",
     .options = {"--fault", "select=ENOMEM*3"},
     .script = SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .printed = {{"Select: : Cannot allocate memory\n", 3}},
     .reference = "first.txt"},
    {.legend = "calls that signals end are made again",
     .options = {"--fault", "open(frontend0)=EINTR*3", "--fault", "open(demux0)=EINTR*3",
                 "--fault", "FE_GET_INFO=EINTR*3",     "--fault", "FE_SET_FRONTEND=EINTR*3",
                 "--fault", "FE_READ_STATUS=EINTR*3",  "--fault", "FE_GET_FRONTEND=EINTR*3",
                 "--fault", "DMX_SET_FILTER=EINTR*3",  "--fault", "DMX_START=EINTR*3",
                 "--fault", "DMX_STOP=EINTR*3",        "--fault", "read(demux0)=EINTR*3",
                 "--fault", "select=EINTR*3",          "--fault", "poll=EINTR*3"},
     .script = "verbosity 1; " + SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .printed = {{"Interrupted", 0}, {"ailed to open", 0}, {"DMX_", 0}, {"Setting frontend", 0}},
     .reference = "first.txt"},
    {.legend = "frontend that was opened without a core behind it is opened again",
     .options = {"--dead-reopen", "1"},
     .script = SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .logged = {{"open /dev/dvb/adapter0/frontend0", 2}},
     .reference = "first.txt"},
    // As drivers do that have no reading before a lock.
    {.legend = "frontend whose readings answer eagain all the time is opened again once",
     .options = {"--fault", "FE_READ_SIGNAL_STRENGTH=EAGAIN", "--fault", "FE_READ_BER=EAGAIN"},
     .script = "kelvo 0 tuner; freq 0 514000000; freq 0 522000000; freq 0 514000000",
     .said = "freq 0; freq 0; freq 0",
     .logged = {{"open /dev/dvb/adapter0/frontend0", 2}}},
    {.legend = "signals every few milliseconds cost nothing",
     .script = "verbosity 1; kelvo 0 tuner; signals 3; freq 0 506000000; wait_done 0 100; signals 0",
     .said = "freq -1; done 0 0; signals came",
     .printed = {{"Interrupted", 0}, {"ailed to open", 0}, {"DMX_", 0}, {"Setting frontend", 0}},
     .reference = "first.txt"},
    {.legend = "overflow of the kernel s buffer costs only what was queued",
     .options = {"--fault", "read(demux0)=EOVERFLOW@3*5"},
     .script = "verbosity 1; " + SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .printed = {{"WARNING: Resetting dmxdev kernel ringbuffer, overflow\n", 5}},
     .reference = "first.txt"},
    {.legend = "noisy stream gives the same result",
     .patch = Scan_table::faults(R"([{ "fault": "wrong_crc", "table": "all", "every": 2 },
                                     { "fault": "lose_packet", "table": "all", "every": 3 },
                                     { "fault": "transport_error", "table": "all", "every": 5 },
                                     { "fault": "discontinuity", "table": "all", "every": 7 }])"),
     .script = SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .reference = "first.txt"},
    {.legend = "stream that stops in the middle ends by time out",
     .patch = Scan_table::missing("sdt_actual"),
     .options = {"--stop-after", "506000000=3"},
     .script = SCAN_ONCE,
     .said = "freq -1; done 0 0",
     .seconds = 39},
    {.legend = "default parameters use 7 mhz up to 399999999 hz and 8 mhz above",
     .options = {"--frequency-range", "47000000-862000000"},
     .script = "kelvo 0 tuner; freq 0 177500000; freq 0 399999999; freq 0 400000000",
     .logged = {{"FE_SET_FRONTEND freq=474000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0", 1},
                {"FE_SET_FRONTEND freq=177500000 inv=0 bw=1 hp=9 lp=9 const=6 mode=3 guard=4 hier=0", 1},
                {"FE_SET_FRONTEND freq=399999999 inv=0 bw=1 ", 1},
                {"FE_SET_FRONTEND freq=400000000 inv=0 bw=0 ", 1}}},
    {.legend = "parameters of the nit are used for the next tuning",
     .script = SCAN_ONCE + "freq 0 506000000; wait_done 0 60",
     .logged = {{"FE_SET_FRONTEND freq=506000000 inv=0 bw=0 hp=9 lp=9 const=6 mode=3 guard=4 hier=0", 1},
                {AS_STORED, 1}}},
    // In look-ups the two are exchanged; the line under their own names is not the one to be found.
    {.legend = "connector and type of the host are those of the tuner s look up and of a new tuner s",
     .script = "insert INSERT INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) "
               "VALUES (506000000, 3, 1, 'Fr:  506000000 Bw:  0 CrH:  3 CrL:  1 Mod:  3 TrM:  2 Grd:  3 Hir:  0'); "
               "kelvo 0 tuner 3 1; freq 0 506000000; wait_done 0 100; tuner 0 off; tuner 0 on; freq 0 506000000",
     .logged = {{"FE_SET_FRONTEND freq=506000000", 2}, {AS_STORED, 2}}},
};

}  // namespace

TEST_P(Scan_table, of_states_and_failures) {
  expect(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, Scan_table, testing::ValuesIn(CASES), Scan_table::name);

// Each of the two threads would be at it all the time.
TEST_F(Scan_states_test, waits_that_fail_for_ever_are_made_a_few_times_a_second_and_the_scan_ends) {
  const Scan_run failed =
      run(on_freq(stream(), {"--fault", "select=ENOMEM", "--fault", "poll=ENOMEM"}), SCAN_ONCE + "sleep 3");
  EXPECT_EQ(failed.lines(), "freq -1\ndone 0 -1\nend\n");
  const double seconds = failed.at("end");
  const auto selects = static_cast<double>(failed.count_err("Select: : Cannot allocate memory\n"));
  EXPECT_GE(selects, 10);
  EXPECT_LE(selects, seconds * 10 + 10);
  const auto polls = static_cast<double>(failed.count_err("Lock poll thread: : Cannot allocate memory\n"));
  EXPECT_GE(polls, 5);
  EXPECT_LE(polls, seconds * 5 + 10);
}

TEST_F(Scan_states_test, test_signal_is_not_read_through_a_link) {
  std::filesystem::create_directories(sandbox() + "/tmp");
  const std::string place = sandbox() + "/tmp/testsig";
  const std::string target = folder_.file("target");
  support::write_file(target, "1f\n");
  std::filesystem::create_symlink(target, place);
  EXPECT_EQ(scan_of(BASE, SCAN_ONCE + "sleep 3").lines(), "freq -1\ndone 0 0\nend\n");
  EXPECT_TRUE(std::filesystem::is_symlink(place));
  EXPECT_EQ(support::read_file(target), "1f\n");
}

TEST_F(Scan_states_test, pipe_in_the_test_signal_s_place_is_not_opened) {
  std::filesystem::create_directories(sandbox() + "/tmp");
  const std::string place = sandbox() + "/tmp/testsig";
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  std::atomic<bool> opened{false};
  // Opening for writing waits until somebody opens it for reading, be it for a moment.
  std::thread writer([&] {
    const int end = open(place.c_str(), O_WRONLY);
    opened = true;
    close(end);
  });
  EXPECT_EQ(scan_of(BASE, SCAN_ONCE + "sleep 3").lines(), "freq -1\ndone 0 0\nend\n");
  EXPECT_FALSE(opened);
  EXPECT_TRUE(std::filesystem::is_fifo(place));
  const int own = open(place.c_str(), O_RDONLY | O_NONBLOCK);
  writer.join();
  close(own);
}

TEST_F(Scan_states_test, export_while_scanning_stops_the_filters_tells_8_and_starts_them_again) {
  // The SDT begins late, so the scan is in the middle.
  const Scan_run exported =
      scan_of(faults(R"([{ "fault": "drop", "table": "sdt_actual", "to": 10 }])"),
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
  const double moved = exported.logged_once({"rename ", "/dvbfiles/backup_epg.db"});
  EXPECT_GE(moved, sdt[0].to) << "stopped before";
  EXPECT_LE(moved, sdt[1].from) << "started after it";
  EXPECT_EQ(support::query_database(sandbox() + "/dvbfiles/backup_epg.db", "SELECT channel, start_epoch FROM epglist"),
            "1|1772388000\n");
  EXPECT_EQ(sql("SELECT start_epoch FROM epglist"), "1772388000\n") << "old events are removed first";
  support::expect_reference("scan/first.txt", dump());
}

TEST_F(Scan_states_test, export_starts_the_scan_s_timers_anew) {
  const Scan_run late = scan_of(missing("sdt_actual"),
                                "kelvo 0 tuner; freq 0 506000000; sleep 20; export 0 /dvbfiles/backup.db; "
                                "wait_done 0 100");
  expect_seconds(39, late.at("done 0 0") - late.at("change 0 8"));
}

TEST_F(Scan_states_test, export_works_while_paused_and_before_any_request) {
  const Scan_run exported =
      scan_of(BASE,
              "kelvo 0 tuner; export 0 /dvbfiles/one.db; wait_change 0 8 20; freq 0 506000000; "
              "wait_done 0 60; scan 0 off; sleep 2; export 0 /dvbfiles/two.db; wait_change 0 8 20; "
              "export_channels 0 /dvbfiles/channels.db; exists /dvbfiles/one_epg.db; "
              "exists /dvbfiles/two_epg.db; exists /dvbfiles/channels.db");
  EXPECT_EQ(exported.lines({"exists", "no"}), "exists yes\nexists yes\nexists yes\n");
}

TEST_F(Scan_states_test, can_be_destroyed_at_any_moment_of_a_scan) {
  std::string script;
  for (const double delay : {0.0, 0.02, 0.05, 0.1, 0.15, 0.2, 0.3, 0.5, 0.8, 1.3, 2.5, 6.5})
    script += "kelvo 0 tuner; freq 0 506000000; sleep " + std::to_string(delay) + "\ndelete 0\n";
  const Scan_run ended = scan_of(BASE, script, 5);
  EXPECT_EQ(ended.logged({"open /dev/dvb/adapter0/frontend0"}).size(), 12U);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
  EXPECT_EQ(sql("SELECT count(*) FROM kanalid"), "3\n");
}

TEST_F(Scan_states_test, can_be_destroyed_in_every_state) {
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
  const Scan_run ended = run(on_freq(stream(), {"--mux", "514000000=" + empty_stream()}), script);
  // One each, and the tuners that were taken away and put back.
  EXPECT_EQ(ended.logged({"close /dev/dvb/adapter0/frontend0"}).size(), std::size(states) + 1);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
  // Nothing is left behind that a whole scan would not make good.
  scan_of(BASE, SCAN_ONCE);
  scan_of(BASE, SCAN_ONCE);
  support::expect_reference("scan/again.txt", dump());
}

TEST_F(Scan_states_test, quirk_default_transmission_mode_is_the_number_3) {
  const Scan_run tuned = scan_of(BASE, "kelvo 0 tuner; freq 0 506000000");
  EXPECT_EQ(tuned.logged({"FE_SET_FRONTEND", " mode=3 "}).size(), tuned.logged({"FE_SET_FRONTEND"}).size());
}

TEST_F(Scan_states_test, quirk_last_sleep_of_a_tuning_is_not_followed_by_a_test) {
  // Tests are made after 0, 50 and 100 ms; then 50 ms are waited for nothing.
  for (const auto& [delay, result] : {std::pair{"70", "freq -1\n"}, std::pair{"130", "freq 0\n"}}) {
    const Scan_run tuned = run(on_freq(stream(), {"--lock-delay", delay}), "kelvo 0 tuner; freq 0 506000000", 1);
    EXPECT_EQ(tuned.lines({"freq"}), result) << delay;
  }
}

TEST_F(Scan_states_test, destruction_ends_the_worker_then_parser_filters_and_tuner) {
  // Deleting a timer is logged only when it is made to fail.
  const Scan_run ended = run(on_freq(stream(), {"--fault", "timer_delete=EINVAL"}),
                             SCAN_ONCE + "freq 0 506000000; wait_done 0 100; delete 0");
  // T a timer, D a handle of the demultiplexer, F the frontend; in small letters by the worker.
  std::string order;
  for (const std::string& line : support::lines_of(ended.log)) {
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
  const Scan_run timed = scan_of(BASE, "kelvo 0 tuner; sleep 1.3; freq 0 506000000; wait_done 0 60", 1);
  EXPECT_LT(
      timed.logged_once({"DMX_SET_FILTER pid=0x0 filter=00"}) - timed.logged_once({"FE_SET_FRONTEND freq=506000000"}),
      0.3);
}
