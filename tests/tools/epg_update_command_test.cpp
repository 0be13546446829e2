// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/command.h"
#include "support/support.h"
#include "tools/guide_fixture.h"
#include "tools/prepared_db.h"

// `kelvo epg update` under the software adapter, in virtual time.

namespace {

using support::Command_result;
using support::run_command;

std::multiset<std::string> lines_of(const std::string& text) {
  std::istringstream in(text);
  std::multiset<std::string> out;
  for (std::string line; std::getline(in, line);) {
    out.insert(line);
  }
  return out;
}

class Epg_update : public Guide_fixture {
 protected:
  Words update(const Words& options, const Words& arguments = {}) const {
    return kelvo(options, joined({"epg", "update"}, arguments));
  }
};

TEST_F(Epg_update, ends_when_all_services_are_done) {
  scan(network());
  const Command_result result = run_command(update(network(), {"--for", "24h"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
            "506.000 MHz    1  Kuldnokk      48  complete\n"
            "506.000 MHz    2  Öökull        48  complete\n"
            "514.000 MHz   11  Шпак          48  complete\n"
            "\n"
            "3 of 3 services done, 144 events, 144 of them new.\n");
  EXPECT_EQ(lines_of(result.err), (std::multiset<std::string>{"Kuldnokk: complete, 48 events",
                                                              "Öökull: complete, 48 events", "[1/2] 506.000 MHz: done",
                                                              "Шпак: complete, 48 events", "[2/2] 514.000 MHz: done"}));
  EXPECT_EQ(value(guide_, "SELECT count(*) || ' ' || count(DISTINCT channel || '/' || start_epoch) FROM epglist;"),
            "144 144");
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist_lang WHERE ev_name = 'Uudised' AND ev_desc = 'Ilm';"), "144");
  EXPECT_EQ(integrity(), "ok");

  const Command_result again = run_command(update(network(), {"--all"}));
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.out.substr(again.out.find("\n\n") + 2), "3 of 3 services done, 144 events, 0 of them new.\n");
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist;"), "144");
}

TEST_F(Epg_update, adapters_work_side_by_side) {
  scan(network());
  Words options = network();
  const Words muxes(options.begin() + 4, options.end());
  options = joined(joined(options, {"--adapter", "1"}), muxes);
  const std::string log = dir_.file("log");
  const Command_result result =
      run_command(update(joined(options, {"--log", log}), {"--adapter", "0", "--adapter", "1"}));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
            "506.000 MHz    1  Kuldnokk      48  complete\n"
            "506.000 MHz    2  Öökull        48  complete\n"
            "514.000 MHz   11  Шпак          48  complete\n"
            "\n"
            "3 of 3 services done, 144 events, 144 of them new.\n");
  // Each read the guide of one of them.
  const std::string calls = support::read_file(log);
  for (const char* demux : {"demux0.0", "demux0.1"}) {
    EXPECT_TRUE(std::regex_search(calls, std::regex(std::string(demux) + " [0-9]+ DMX_SET_FILTER pid=0x12 filter=50")))
        << demux;
  }
}

TEST_F(Epg_update, collects_the_frequencies_that_are_named) {
  scan(network());
  const Command_result result = run_command(update(network(), {"--freq", "514000000", "--freq", "514000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME  EVENTS  GUIDE\n"
            "514.000 MHz   11  Шпак      48  complete\n"
            "\n"
            "1 of 1 services done, 48 events, 48 of them new.\n");
}

TEST_F(Epg_update, a_frequency_that_is_not_known_is_scanned_first) {
  const Command_result result = run_command(update(network(), {"--freq", "514000000"}));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME  EVENTS  GUIDE\n"
            "514.000 MHz   11  Шпак      48  complete\n"
            "\n"
            "1 of 1 services done, 48 events, 48 of them new.\n");
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "1");
}

TEST_F(Epg_update, a_multiplex_without_a_lock_does_not_stop_the_others) {
  scan(network());
  const Command_result result = run_command(update(joined(network(), {"--signal", "506000000:status=0"})));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME  EVENTS  GUIDE\n"
            "506.000 MHz    -  -          0  no lock\n"
            "514.000 MHz   11  Шпак      48  complete\n"
            "\n"
            "1 of 1 services done, 48 events, 48 of them new.\n");
  EXPECT_EQ(result.err, "[1/2] 506.000 MHz: no lock\nШпак: complete, 48 events\n[2/2] 514.000 MHz: done\n");
}

TEST_F(Epg_update, a_carrier_without_a_stream_is_told_from_no_lock) {
  scan(network());
  const Command_result result = run_command(
      update(joined(network(), {"--stop-after", "506000000=0.001"}), {"--freq", "506000000", "--freq", "514000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("506.000 MHz    -  -          0  no MPEG stream\n"), std::string::npos) << result.out;
}

TEST_F(Epg_update, leaves_out_what_no_frontend_receives) {
  scan(network());
  const Command_result result = run_command(update(joined(network(), {"--frequency-range", "470000000-510000000"})));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
            "506.000 MHz    1  Kuldnokk      48  complete\n"
            "506.000 MHz    2  Öökull        48  complete\n"
            "514.000 MHz    -  -              0  out of the frontend's range\n"
            "\n"
            "2 of 2 services done, 96 events, 96 of them new.\n");
}

// A network may send now and next only, or announce services that never send an event.
TEST_F(Epg_update, says_what_is_not_sent) {
  const Guide_streams streams;
  const std::string file =
      streams.make("506", 1,
                   Guide_streams::service(101, 1, "Praegu",
                                          Guide_streams::DAY_OF_EVENTS + std::string(", \"eit_schedule\": false")) +
                       "," + Guide_streams::service(102, 2, "Vaikne"));
  const Words options{"--time", "x20", "--now", Guide_streams::NOW_EPOCH, "--mux", "506000000=" + file};
  scan(options, {"506000000"});
  const Command_result result = run_command(update(options));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME    EVENTS  GUIDE\n"
            "506.000 MHz    1  Praegu       2  no schedule sent, now and next only\n"
            "506.000 MHz    2  Vaikne       0  nothing sent\n"
            "\n"
            "2 of 2 services done, 2 events, 2 of them new.\n");
}

// The last section of the second service's schedule is never sent, so it is waited for.
class Slow_service : public Epg_update {
 protected:
  Words slow_network(const std::string& speed) const {
    return {"--time", speed, "--now", Guide_streams::NOW_EPOCH, "--mux", "506000000=" + file_};
  }

 private:
  Guide_streams streams_;
  std::string file_ = streams_.make(
      "506", 1,
      Guide_streams::service(101, 1, "Kuldnokk", Guide_streams::DAY_OF_EVENTS) + "," +
          Guide_streams::service(102, 2, "Öökull", Guide_streams::DAY_OF_EVENTS),
      R"(, "faults": [{ "fault": "drop", "table": "eit_schedule_actual", "service_id": 102, "section": 56 }])");
};

TEST_F(Slow_service, when_the_time_is_up_it_is_said_what_is_there_and_what_not) {
  scan(slow_network("x5"));
  const Command_result result = run_command(update(slow_network("x5"), {"--for", "30s"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out.substr(0, result.out.find("48  complete")),
            "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
            "506.000 MHz    1  Kuldnokk      ");
  EXPECT_TRUE(std::regex_search(
      result.out, std::regex("\n506.000 MHz    2  Öökull       +[0-9]+  incomplete, at table 0x50 of 0x50: time is "
                             "up\n\n1 of 2 services done, [0-9]+ events, [0-9]+ of them new.\n")))
      << result.out;
  EXPECT_EQ(result.err, "Kuldnokk: complete, 48 events\n[1/1] 506.000 MHz: time is up\n");
}

TEST_F(Slow_service, an_interrupt_keeps_what_was_stored) {
  scan(slow_network("x5"));
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    support::Running_command running(update(slow_network("x5")));
    ASSERT_TRUE(running.wait_for_err("Kuldnokk: complete, 48 events\n")) << running.err();
    ASSERT_EQ(kill(running.pid(), signal), 0);
    const Command_result result = running.wait();
    EXPECT_EQ(result.exit_code, 130);
    EXPECT_EQ(result.err,
              "Kuldnokk: complete, 48 events\n"
              "[1/1] 506.000 MHz: interrupted\n"
              "kelvo: interrupted; what was collected is kept\n");
    EXPECT_NE(result.out.find("incomplete, at table 0x50 of 0x50: interrupted\n\n1 of 2 services done, "),
              std::string::npos)
        << result.out;
    EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist WHERE channel = 1;"), "48");
    EXPECT_EQ(integrity(), "ok");
  }
}

TEST_F(Slow_service, an_interrupt_at_the_first_frequency_leaves_the_others_alone) {
  support::Running_command running(
      update(slow_network("x5"), {"--freq", "506000000", "--freq", "514000000", "--freq", "522000000"}));
  ASSERT_TRUE(running.wait_for_err("Kuldnokk: complete, 48 events\n")) << running.err();
  ASSERT_EQ(kill(running.pid(), SIGINT), 0);
  const Command_result result = running.wait();
  EXPECT_EQ(result.exit_code, 130);
  EXPECT_NE(result.out.find("514.000 MHz    -  -              0  not begun\n"
                            "522.000 MHz    -  -              0  not begun\n"),
            std::string::npos)
      << result.out;
  EXPECT_EQ(result.err,
            "Kuldnokk: complete, 48 events\n"
            "[1/3] 506.000 MHz: interrupted\n"
            "kelvo: interrupted; what was collected is kept\n");
}

TEST_F(Epg_update, shows_a_bar_a_service_on_a_terminal) {
  scan(network());
  const Command_result result = support::run_on_terminal(update(network(), {"--freq", "506000000"}), {}, 100);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("506.000 MHz  0 of 1 multiplexes done\r\n"), std::string::npos) << result.out;
  // Events, table reached and last table, name.
  EXPECT_TRUE(
      std::regex_search(result.out, std::regex("\n  \\[[#.]{16}\\]  +[0-9]+ events  0x4E/ +(-|0x50)  Kuldnokk\r\n"
                                               "  \\[[#.]{16}\\]  +[0-9]+ events  0x4E/ +(-|0x50)  Öökull\r\n")))
      << result.out;
  EXPECT_TRUE(std::regex_search(result.out, std::regex("events  0x50/0x50  Kuldnokk\r\n"))) << result.out;
  EXPECT_EQ(result.out.find("complete, "), std::string::npos) << "plain lines are for files";
  // All of it has been taken away before the report.
  const size_t last = result.out.rfind("A\r\x1B[J");
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(result.out.substr(last + 5, 11), "  MULTIPLEX") << result.out.substr(last);
}

// What has scrolled out of the window cannot be written over.
TEST_F(Epg_update, the_bars_fit_the_window) {
  scan(network());
  const Command_result result =
      support::run_on_terminal(update(network(), {"--freq", "506000000"}), {}, 20, /* lines */ 3);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("506.000 MHz  0 of 1\r\n  [................\r\n\x1B[2A\r\x1B[J"), std::string::npos)
      << result.out;
  EXPECT_EQ(result.out.find("\x1B[3A"), std::string::npos);
}

// None of these may change the databases.
class Epg_update_failing : public Epg_update, public testing::WithParamInterface<Failing_case> {};

TEST_P(Epg_update_failing, is_one_line) {
  expect_failure({"epg", "update"}, GetParam());
}

const Failing_case FAILING[] = {
    {"missing_device",
     {},
     {"--adapter", "1"},
     "/dev/dvb/adapter1/frontend0: no such device; is the adapter plugged in?"},
    {"one_of_two_devices_missing",
     {},
     {"--adapter", "0", "--adapter", "3"},
     "/dev/dvb/adapter3/frontend0: no such device; is the adapter plugged in?"},
    {"busy_device",
     {"--fault", "open(frontend0)=EBUSY"},
     {},
     "/dev/dvb/adapter0/frontend0: in use by another program; stop it first"},
    {"no_permission",
     {"--fault", "open(frontend0)=EACCES"},
     {},
     "/dev/dvb/adapter0/frontend0: permission denied; is the user in group video?"},
    {"cable_receiver", {"--type", "qam"}, {}, "/dev/dvb/adapter0/frontend0: softdvb DVB-C 0 does not receive DVB-T"},
    {"database_not_writable", {"--fault", "access(dvb.db)=EACCES"}, {}, "DB: cannot be written: Permission denied"},
    {"guide_not_writable",
     {"--fault", "access(dvb_epg.db)=EROFS"},
     {},
     "GUIDE: cannot be written: Read-only file system"},
};

INSTANTIATE_TEST_SUITE_P(cases, Epg_update_failing, testing::ValuesIn(FAILING),
                         [](const auto& test) { return std::string(test.param.legend); });

TEST_F(Epg_update, damaged_files_are_refused_and_left_alone) {
  make_prepared_db(db_);
  const std::string channels = support::read_file(db_);
  const std::string guide = support::read_file(guide_);
  const struct {
    std::string db;
    std::string guide;
    std::string err;
  } cases[] = {
      {std::string(3000, 'x'), guide, db_ + ": not a database; name another file with --db"},
      {channels.substr(0, channels.size() / 2), guide,
       db_ + ": the database is damaged; restore a copy, or move it away and scan again"},
      {channels, std::string(3000, 'x'), guide_ + ": not a database; name another file with --db"},
      {channels, guide.substr(0, guide.size() / 2),
       guide_ + ": the database is damaged; restore a copy, or move it away and scan again"},
  };
  for (const auto& c : cases) {
    support::write_file(db_, c.db);
    support::write_file(guide_, c.guide);
    const Command_result result = run_command(update(network(), {"--freq", "506000000"}));
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "kelvo: " + c.err + "\n");
    EXPECT_EQ(support::read_file(db_), c.db);
    EXPECT_EQ(support::read_file(guide_), c.guide);
  }
}

TEST_F(Epg_update, without_channels_there_is_nothing_to_do) {
  Command_result result = run_command(update(network()));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: " + db_ + ": No such file or directory; make it with 'kelvo scan'\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
  make_prepared_db(db_);
  run_sql(db_, "DELETE FROM kanalid;");
  result = run_command(update(network()));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + db_ + ": no channels yet; find them with 'kelvo scan'\n");
}

// A limit on the size of files stands for the disk.
TEST_F(Epg_update, no_half_made_database_stays_when_there_is_no_room) {
  const std::string command = std::string(KELVO_COMMAND) + " epg update --freq 506000000 --db " + db_;
  const Command_result result = run_command(
      joined(joined({SOFTDVB_COMMAND}, network()), {"--", "sh", "-c", "trap '' XFSZ; ulimit -f 64; exec " + command}));
  EXPECT_EQ(result.exit_code, 1) << result.out;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: " + db_ + ": cannot be written: disk I/O error\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(Epg_update, a_full_guide_is_one_line_and_stays_sound) {
  scan(network());
  // All but a few of the pages that the library allows a file.
  run_sql(guide_, "CREATE TABLE filler (bytes); INSERT INTO filler VALUES (zeroblob(7950 * 4096));");
  ASSERT_EQ(value(guide_, "PRAGMA page_size;"), "4096");
  const Command_result result = run_command(update(network()));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(result.err.ends_with("kelvo: " + db_ +
                                   ": no room for more events: the disk is full, or the guide is as large as it may "
                                   "be\n"))
      << result.err;
  EXPECT_NE(result.out.find(" services done, "), std::string::npos) << "what there is was not said";
  EXPECT_EQ(integrity(), "ok");
}

// A file system of its own that fills up while events are stored.
TEST_F(Epg_update, a_full_disk_is_one_line_and_the_guide_stays_sound) {
  if (run_command({"unshare", "-rm", "true"}).exit_code != 0) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  const Guide_streams streams;
  const std::string file = streams.make(
      "506", 1,
      Guide_streams::service(101, 1, "Pikk",
                             R"(, "schedule": { "from": "today", "days": 5, "programmes": [
                                              { "duration": "30m", "name": "Sari", "extended": { "text": ")" +
                                 std::string(3000, 'x') + R"(" } }] })"),
      R"(, "bit_rate": 6000000, "intervals": { "eit_schedule_actual": 5, "eit_schedule_actual_later": 5 })");
  const Words options{"--time", "x10", "--now", Guide_streams::NOW_EPOCH, "--mux", "506000000=" + file};
  scan(options, {"506000000"});
  // Room enough to begin, not for 240 long events. The files are copied out before the file system is gone.
  const std::string disk = dir_.file("disk");
  std::filesystem::create_directory(disk);
  const std::string script = "mount -t tmpfs -o size=1200k none " + disk + " && cp " + db_ + " " + guide_ + " " + disk +
                             " && { " + KELVO_COMMAND + " epg update --db " + disk + "/dvb.db; code=$?; cp " + disk +
                             "/dvb.db " + disk + "/dvb_epg.db " + dir_.path() + "; exit $code; }";
  const Command_result result =
      run_command(joined(joined({"unshare", "-rm", SOFTDVB_COMMAND}, options), {"--", "sh", "-c", script}));
  EXPECT_EQ(result.exit_code, 1) << result.out;
  EXPECT_EQ(result.err, "[1/1] 506.000 MHz: interrupted\nkelvo: " + disk +
                            "/dvb.db: no room for more events: the disk is full, or the guide is as large as it may "
                            "be\n");
  EXPECT_EQ(integrity(), "ok");
  const int stored = std::stoi(value(guide_, "SELECT count(*) FROM epglist;"));
  EXPECT_GT(stored, 20);
  EXPECT_LT(stored, 240);
}

TEST_F(Epg_update, a_report_that_cannot_be_written_is_an_error) {
  scan(network());
  const std::string command = std::string(KELVO_COMMAND) + " epg update --freq 514000000 --db " + db_ + " >/dev/full";
  const Command_result result = run_command(joined(joined({SOFTDVB_COMMAND}, network()), {"--", "sh", "-c", command}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(result.err.ends_with("kelvo: cannot write the report: No space left on device\n")) << result.err;
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist;"), "48") << "the events are stored all the same";
}

// The times that are right get as far as the missing database.
TEST(Epg_update_time, may_be_joined) {
  const support::Temp_dir dir;
  for (const char* time : {"1s", "90s", "10m", "1h", "1h30m", "168h", "604800s", "007s"}) {
    const Command_result result =
        run_command({KELVO_COMMAND, "epg", "update", "--for", time, "--db", dir.file("dvb.db")});
    EXPECT_EQ(result.exit_code, 1) << time;
    EXPECT_EQ(result.err, "kelvo: " + dir.file("dvb.db") + ": No such file or directory; make it with 'kelvo scan'\n")
        << time;
  }
}

}  // namespace
