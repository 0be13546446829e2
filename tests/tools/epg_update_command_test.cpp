// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/guide_fixture.h"

// `kelvo epg update` under the software adapter, in virtual time.

namespace {

using support::lines_of;
using support::Running_command;
using testing::_;
using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

const std::string HEAD = "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n";
const std::string ROWS_OF_506 =
    "506.000 MHz    1  Kuldnokk      48  complete\n"
    "506.000 MHz    2  Öökull        48  complete\n";
const std::string EVERYTHING = HEAD + ROWS_OF_506 +
                               "514.000 MHz   11  Шпак          48  complete\n"
                               "\n"
                               "3 of 3 services done, 144 events, 144 of them new.\n";
const std::string ONLY_514 =
    "  MULTIPLEX  LCN  NAME  EVENTS  GUIDE\n"
    "514.000 MHz   11  Шпак      48  complete\n"
    "\n"
    "1 of 1 services done, 48 events, 48 of them new.\n";

class Epg_update : public Guide_fixture {
 protected:
  Words command(const Words& options, const Words& arguments = {}) const {
    return kelvo(options, joined({{"epg", "update"}, arguments}));
  }
  Command_result update(const Words& options, const Words& arguments = {}) const {
    return without_carousels(run_command(command(options, arguments)));
  }
};

TEST_F(Epg_update, ends_when_all_services_are_done) {
  scan(network());
  const Command_result result = update(network(), {"--for", "24h"});
  EXPECT_THAT(
      lines_of(result.err),
      testing::UnorderedElementsAre("Kuldnokk: complete, 48 events", "Öökull: complete, 48 events",
                                    "[1/2] 506.000 MHz: done", "Шпак: complete, 48 events", "[2/2] 514.000 MHz: done"));
  EXPECT_THAT(result, ends(0, EVERYTHING));
  EXPECT_EQ(value(guide_, "SELECT count(*) || ' ' || count(DISTINCT channel || '/' || start_epoch) FROM epglist;"),
            "144 144");
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist_lang WHERE ev_name = 'Uudised' AND ev_desc = 'Ilm';"), "144");
  EXPECT_EQ(integrity(), "ok");

  EXPECT_THAT(update(network(), {"--all"}),
              ends(0, EndsWith("\n\n3 of 3 services done, 144 events, 0 of them new.\n")));
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist;"), "144");
}

TEST_F(Epg_update, says_how_long_the_carousel_is) {
  scan(network());
  EXPECT_THAT(run_command(command(network(), {"--freq", "506000000"})).out,
              ContainsRegex("\n\n506.000 MHz: complete after [0-9.]+ m?s; the slowest table came every [0-9.]+ m?s\n\n"
                            "2 of 2 services done"));
  EXPECT_THAT(run_command(command(network(), {"--freq", "506000000", "--profile", "box"})).out,
              Not(HasSubstr("the slowest table")));
}

TEST_F(Epg_update, adapters_work_side_by_side) {
  scan(network());
  const std::string log = dir_.file("log");
  const Command_result result = update(joined({network(), {"--adapter", "1"}, two_muxes(), {"--log", log}}),
                                       {"--adapter", "0", "--adapter", "1"});
  EXPECT_THAT(result, ends(0, EVERYTHING));
  // Each read the guide of one of them.
  const std::string calls = support::read_file(log);
  for (const std::string demux : {"demux0.0", "demux0.1"})
    EXPECT_TRUE(std::regex_search(calls, std::regex(demux + " [0-9]+ DMX_SET_FILTER pid=0x12 filter=40"))) << demux;
}

TEST_F(Epg_update, collects_the_frequencies_that_are_named) {
  scan(network());
  EXPECT_THAT(update(network(), {"--freq", "514000000", "--freq", "514000000"}), ends(0, ONLY_514));
}

TEST_F(Epg_update, a_frequency_that_is_not_known_is_scanned_first) {
  EXPECT_THAT(update(network(), {"--freq", "514000000"}), ends(0, ONLY_514));
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid;"), "1");
  EXPECT_EQ(value(dir_.file("dvb.db.good"), "SELECT count(*) FROM kanalid;"), "1") << "the copy for a repair";
}

TEST_F(Epg_update, quietly_as_one_object_tells_the_same) {
  scan(network());
  const Command_result result =
      run_command(command(joined({network(), {"--signal", "506000000:status=0"}}), {"--quiet", "--json"}));
  EXPECT_THAT(result, ends(0, testing::_, ""));
  auto report = nlohmann::ordered_json::parse(result.out);
  auto& second = report["multiplexes"][1];
  EXPECT_GT(second["complete_after"].get<double>(), 0);
  EXPECT_GT(second["slowest_table_every"].get<double>(), 0);
  second["complete_after"] = second["slowest_table_every"] = 0;
  EXPECT_EQ(
      report.dump(),
      R"({"multiplexes":[{"frequency":506000000,"result":"no signal","complete_after":null,)"
      R"("slowest_table_every":null,"lost":null,"services":[]},)"
      R"({"frequency":514000000,"result":"done","complete_after":0,"slowest_table_every":0,"lost":null,"services":)"
      R"([{"channel":3,"lcn":11,"name":"Шпак","events":48,"new":48,"state":"complete","guide":"complete"}]}],)"
      R"("services":1,"done":1,"events":48,"new":48})");
}

TEST_F(Epg_update, a_multiplex_without_a_lock_does_not_stop_the_others) {
  scan(network());
  EXPECT_EQ(update(joined({network(), {"--signal", "506000000:status=0"}})),
            prints("  MULTIPLEX  LCN  NAME  EVENTS  GUIDE\n"
                   "506.000 MHz    -  -          0  no signal\n"
                   "514.000 MHz   11  Шпак      48  complete\n"
                   "\n"
                   "1 of 1 services done, 48 events, 48 of them new.\n",
                   "[1/2] 506.000 MHz: no signal\nШпак: complete, 48 events\n[2/2] 514.000 MHz: done\n"));
}

TEST_F(Epg_update, a_carrier_without_a_stream_is_told_from_no_lock) {
  scan(network());
  EXPECT_THAT(
      update(joined({network(), {"--stop-after", "506000000=0.001"}}), {"--freq", "506000000", "--freq", "514000000"}),
      ends(0, HasSubstr("506.000 MHz    -  -          0  locked, no stream\n")));
}

TEST_F(Epg_update, leaves_out_what_no_frontend_receives) {
  scan(network());
  EXPECT_THAT(update(joined({network(), {"--frequency-range", "470000000-510000000"}})),
              ends(0, HEAD + ROWS_OF_506 +
                          "514.000 MHz    -  -              0  out of the frontend's range\n"
                          "\n"
                          "2 of 2 services done, 96 events, 96 of them new.\n"));
}

// A network may send now and next only, or announce services that never send an event.
TEST_F(Epg_update, says_what_is_not_sent) {
  const Words options =
      at_speed("x20", mux("506", service(101, 1, "Praegu", DAY_OF_EVENTS + ", \"eit_schedule\": false") + "," +
                                     service(102, 2, "Vaikne")));
  scan(options, {"506000000"});
  EXPECT_THAT(update(options), ends(0,
                                    "  MULTIPLEX  LCN  NAME    EVENTS  GUIDE\n"
                                    "506.000 MHz    1  Praegu       2  no schedule sent, now and next only\n"
                                    "506.000 MHz    2  Vaikne       0  nothing sent\n"
                                    "\n"
                                    "2 of 2 services done, 2 events, 2 of them new.\n"));
}

// The last section of the second service's schedule is never sent.
TEST_F(Epg_update, a_gap_is_given_up_when_everything_else_has_come_again_twice) {
  const Words options = at_speed(
      "x10",
      mux("506", service(101, 1, "Kuldnokk", DAY_OF_EVENTS) + "," + service(102, 2, "Öökull", DAY_OF_EVENTS),
          R"(, "faults": [{ "fault": "drop", "table": "eit_schedule_actual", "service_id": 102, "section": 56 }])"));
  scan(options, {"506000000"});
  EXPECT_THAT(update(options), ends(0,
                                    "  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
                                    "506.000 MHz    1  Kuldnokk      48  complete\n"
                                    "506.000 MHz    2  Öökull        42  9 of 10 sections, the rest is not sent\n"
                                    "\n"
                                    "2 of 2 services done, 90 events, 90 of them new.\n"));
}

// The same where the schedules come so slowly that it is still waited for.
class Slow_service : public Epg_update {
 protected:
  const Words slow_network_ = at_speed(
      "x5", mux("506", service(101, 1, "Kuldnokk", DAY_OF_EVENTS) + "," + service(102, 2, "Öökull", DAY_OF_EVENTS),
                R"(, "faults": [{ "fault": "drop", "table": "eit_schedule_actual", "service_id": 102, "section": 56 }],
               "intervals": { "eit_schedule_actual": 15 })"));
};

TEST_F(Slow_service, when_the_time_is_up_it_is_said_what_is_there_and_what_not) {
  scan(slow_network_);
  EXPECT_THAT(update(slow_network_, {"--for", "30s"}),
              ends(0,
                   MatchesRegex("  MULTIPLEX  LCN  NAME      EVENTS  GUIDE\n"
                                "506.000 MHz    1  Kuldnokk      48  complete\n"
                                "506.000 MHz    2  Öökull       +[0-9]+  incomplete, [0-9]+ of 10 sections: time is "
                                "up\n\n1 of 2 services done, [0-9]+ events, [0-9]+ of them new.\n"),
                   "Kuldnokk: complete, 48 events\n[1/1] 506.000 MHz: time is up\n"));
}

TEST_F(Slow_service, an_interrupt_keeps_what_was_stored) {
  scan(slow_network_);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Running_command running(command(slow_network_));
    ASSERT_TRUE(running.wait_for_err("Kuldnokk: complete, 48 events\n")) << running.err();
    EXPECT_THAT(
        ended_by(signal, running),
        ends(130,
             ContainsRegex("incomplete, [0-9]+ of 10 sections: interrupted\n(\n506[^\n]*\n)?\n1 of 2 services done, "),
             "Kuldnokk: complete, 48 events\n"
             "[1/1] 506.000 MHz: interrupted\n"
             "kelvo: interrupted; what was collected is kept\n"));
    EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist WHERE channel = 1;"), "48");
    EXPECT_EQ(integrity(), "ok");
  }
}

TEST_F(Slow_service, an_interrupt_at_the_first_frequency_leaves_the_others_alone) {
  Running_command running(
      command(slow_network_, {"--freq", "506000000", "--freq", "514000000", "--freq", "522000000"}));
  ASSERT_TRUE(running.wait_for_err("Kuldnokk: complete, 48 events\n")) << running.err();
  EXPECT_THAT(ended_by(SIGINT, running), ends(130,
                                              HasSubstr("514.000 MHz    -  -              0  not begun\n"
                                                        "522.000 MHz    -  -              0  not begun\n"),
                                              "Kuldnokk: complete, 48 events\n"
                                              "[1/3] 506.000 MHz: interrupted\n"
                                              "kelvo: interrupted; what was collected is kept\n"));
}

TEST_F(Epg_update, the_guide_of_another_multiplex_is_collected_where_it_is_asked_for) {
  const auto titled = [](const std::string& title) {
    return R"(, "schedule": { "from": "today", "days": 1, "programmes": [{ "duration": "30m", "name": ")" + title +
           R"(" }] })";
  };
  const std::string others = R"(, "other_transport_streams": [{ "transport_stream_id": 2, "original_network_id": 65281,
      "services": [{ "service_id": 201, "name": "Spak")" +
                             titled("Mujalt") + R"( }, { "service_id": 202, "name": "Vaikne")" + titled("Mujalt") +
                             "}] }]";
  const Words options =
      at_speed("x10", joined({mux("506", service(101, 1, "Kuldnokk", DAY_OF_EVENTS), others),
                              mux("514", service(201, 11, "Spak", titled("Oma")) + "," + service(202, 12, "Vaikne"))}));
  scan(options, {"506000000", "514000000"});
  const auto titles = [&](int lcn) {
    const std::string channel = value(db_, "SELECT channel FROM kanalid WHERE lcn = " + std::to_string(lcn));
    return value(guide_,
                 "SELECT group_concat(line, ' ') FROM (SELECT ev_name || ' ' || count(*) AS line FROM epglist JOIN "
                 "epglist_lang ON source_oid = entry WHERE channel = " +
                     channel + " GROUP BY ev_name ORDER BY ev_name)");
  };
  EXPECT_EQ(run(options, {"epg", "update", "--freq", "506000000", "--freq", "514000000"}).exit_code, 0);
  EXPECT_EQ(titles(1), "Uudised 48");
  EXPECT_EQ(titles(11), "Oma 48");
  EXPECT_EQ(titles(12), "NULL");
  // What the multiplex says of itself counts more than what another one says of it.
  EXPECT_EQ(run(options, {"epg", "update", "--freq", "506000000", "--other"}).exit_code, 0);
  EXPECT_EQ(titles(1), "Uudised 48");
  EXPECT_EQ(titles(11), "Oma 48");
  EXPECT_EQ(titles(12), "Mujalt 48");
}

TEST_F(Epg_update, shows_a_bar_a_service_on_a_terminal) {
  scan(network());
  const Command_result result = support::run_on_terminal(command(network(), {"--freq", "506000000"}), {}, 100);
  EXPECT_THAT(result, ends(0, AllOf(HasSubstr("506.000 MHz  0 of 1 multiplexes done\r\n"),
                                    // Events, sections that came and how many are known of, name.
                                    ContainsRegex("\n  \\[[#.]{16}\\]  +[0-9]+ events  +[0-9]+/ +[0-9]+  Kuldnokk\r\n"
                                                  "  \\[[#.]{16}\\]  +[0-9]+ events  +[0-9]+/ +[0-9]+  Öökull\r\n"))));
  EXPECT_THAT(result.out, Not(HasSubstr("complete, "))) << "plain lines are for files";
  // All of it has been taken away before the report.
  const size_t last = result.out.rfind("A\r\x1B[J");
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(result.out.substr(last + 5, 11), "  MULTIPLEX") << result.out.substr(last);
}

// What has scrolled out of the window cannot be written over.
TEST_F(Epg_update, the_bars_fit_the_window) {
  scan(network());
  EXPECT_THAT(support::run_on_terminal(command(network(), {"--freq", "506000000"}), {}, 20, /* lines */ 3),
              ends(0, AllOf(ContainsRegex("506.000 MHz  0 of 1\r\n \\[[#.]{6}\\] Kuldnokk \r\n\x1B\\[2A\r\x1B\\[J"),
                            Not(HasSubstr("\x1B[3A")))));
}

// None of these may change the databases.
TEST_F(Epg_update, a_failure_is_one_line) {
  device_ = "box";  // the one that can be of another type
  expect_failures(
      {"epg", "update"},
      {{"missing device", {}, {"--adapter", "1"}, "/dev/dvb/adapter1/frontend0" + NO_DEVICE},
       {"one of two devices missing",
        {},
        {"--adapter", "0", "--adapter", "3"},
        "/dev/dvb/adapter3/frontend0" + NO_DEVICE},
       {"busy device", {"--fault", "open(frontend0)=EBUSY"}, {}, "/dev/dvb/adapter0/frontend0" + BUSY_DEVICE},
       {"no permission", {"--fault", "open(frontend0)=EACCES"}, {}, "/dev/dvb/adapter0/frontend0" + DENIED_DEVICE},
       {"cable receiver",
        {"--type", "qam"},
        {},
        "/dev/dvb/adapter0/frontend0: softdvb DVB-C 0 does not receive DVB-T or DVB-T2"},
       {"database not writable", {"--fault", "access(dvb.db)=EACCES"}, {}, "DB: cannot be written: Permission denied"},
       {"guide not writable",
        {"--fault", "access(dvb_epg.db)=EROFS"},
        {},
        "GUIDE: cannot be written: Read-only file system"},
       {"folder not writable",
        {"--fault", "access(" + dir_.path() + ")=EROFS"},
        {},
        "DB: cannot be written: " + dir_.path() + ": Read-only file system"}});
}

TEST_F(Epg_update, damaged_files_are_refused_and_left_alone) {
  make_prepared_db(db_);
  const std::string channels = support::read_file(db_);
  const std::string guide = support::read_file(guide_);
  const std::string no_database = std::string(3000, 'x');
  const struct {
    std::string db;
    std::string guide;
    std::string err;
  } cases[] = {{no_database, guide, db_ + NO_DATABASE},
               {channels.substr(0, channels.size() / 2), guide, db_ + DAMAGED},
               {channels, no_database, guide_ + NO_DATABASE},
               {channels, guide.substr(0, guide.size() / 2), guide_ + DAMAGED}};
  for (const auto& c : cases) {
    support::write_file(db_, c.db);
    support::write_file(guide_, c.guide);
    EXPECT_EQ(update(network(), {"--freq", "506000000"}), fails(c.err));
    EXPECT_EQ(support::read_file(db_), c.db);
    EXPECT_EQ(support::read_file(guide_), c.guide);
  }
}

TEST_F(Epg_update, without_channels_there_is_nothing_to_do) {
  EXPECT_EQ(update(network()), fails(db_ + MISSING));
  EXPECT_TRUE(folder_is_empty());
  make_prepared_db(db_);
  run_sql(db_, "DELETE FROM kanalid;");
  EXPECT_EQ(update(network()), fails(db_ + ": no channels yet; find them with 'kelvo scan'"));
}

// A limit on the size of files stands for the disk.
TEST_F(Epg_update, no_half_made_database_stays_when_there_is_no_room) {
  EXPECT_EQ(run(network(), {"epg", "update", "--freq", "506000000"}, "trap '' XFSZ; ulimit -f 64; exec \"$@\""),
            fails(db_ + ": cannot be written: disk I/O error"));
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(Epg_update, a_full_guide_is_one_line_and_stays_sound) {
  scan(network());
  fill_up(guide_);
  // What there is is said all the same.
  EXPECT_THAT(update(network()), ends(1, HasSubstr(" services done, "), EndsWith("kelvo: " + db_ + ": " + NO_ROOM)));
  EXPECT_EQ(integrity(), "ok");
}

// A file system of its own that fills up while events are stored.
TEST_F(Epg_update, a_full_disk_is_one_line_and_the_guide_stays_sound) {
  if (run_command({"unshare", "-rm", "true"}).exit_code != 0)
    GTEST_SKIP() << "no file system can be mounted here";
  const Words options = at_speed("x10", mux("506",
                                            service(101, 1, "Pikk",
                                                    R"(, "schedule": { "from": "today", "days": 5, "programmes": [
                                         { "duration": "30m", "name": "Sari", "extended": { "text": ")" +
                                                        std::string(3000, 'x') + R"(" } }] })"),
                                            R"(, "bit_rate": 6000000,
                               "intervals": { "eit_schedule_actual": 5, "eit_schedule_actual_later": 5 })"));
  scan(options, {"506000000"});
  std::filesystem::remove(guide_);  // a scan has stored some of it
  // Room enough to begin, not for 240 long events. The files are copied out before the file system is gone.
  const std::string disk = dir_.file("disk");
  std::filesystem::create_directory(disk);
  const std::string script = "mount -t tmpfs -o size=1600k none " + disk + " && cp " + db_ + " " + disk + " && { " +
                             KELVO_COMMAND + " epg update --db " + disk + "/dvb.db; code=$?; cp " + disk + "/dvb.db " +
                             disk + "/dvb_epg.db " + dir_.path() + "; exit $code; }";
  EXPECT_THAT(run_command(joined({{"unshare", "-rm", SOFTDVB_COMMAND}, options, {"--", "sh", "-c", script}})),
              ends(1, _, "[1/1] 506.000 MHz: interrupted\nkelvo: " + disk + "/dvb.db: " + NO_ROOM));
  EXPECT_EQ(integrity(), "ok");
  EXPECT_THAT(std::stoi(value(guide_, "SELECT count(*) FROM epglist;")), AllOf(testing::Gt(0), testing::Lt(240)));
}

TEST_F(Epg_update, a_report_that_cannot_be_written_is_an_error) {
  scan(network());
  EXPECT_THAT(run(network(), {"epg", "update", "--freq", "514000000"}, "\"$@\" >/dev/full"),
              ends(1, "", EndsWith("kelvo: cannot write the report: No space left on device\n")));
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist;"), "48") << "the events are stored all the same";
}

// The times that are right get as far as the missing database.
TEST_F(Epg_update, times_may_be_joined) {
  for (const char* time : {"1s", "90s", "10m", "1h", "1h30m", "168h", "604800s", "007s"}) {
    EXPECT_EQ(run_command({KELVO_COMMAND, "epg", "update", "--for", time, "--db", db_}), fails(db_ + MISSING)) << time;
  }
}

}  // namespace
