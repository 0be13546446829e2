// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>

#include "tools/command_fixture.h"

// `kelvo scan` under the software adapter. Times are compressed and masked ("#.# s"); everything else is exact.

namespace {

using support::Running_command;
using testing::_;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// The column of the times is as wide as the longest, which a busy machine makes longer.
std::string masked(const std::string& text) {
  const std::string times = std::regex_replace(text, std::regex(" *[0-9]+\\.[0-9] s"), " #.# s");
  return std::regex_replace(times, std::regex("SERVICES +TIME  RESULT"), "SERVICES   TIME  RESULT");
}

const std::string HEAD = "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH   SNR  SERVICES   TIME  RESULT\n";

// The sample network, made once.
const Words& sample_muxes() {
  static const support::Temp_dir dir;
  static const Words made = [] {
    Words options;
    for (const std::string mhz : {"474", "498", "522"}) {
      const std::string file = dir.file(mhz + ".ts");
      const Command_result run = run_command({SOFTDVB_MUX_COMMAND, KELVO_SAMPLES "/kuldnokk-" + mhz + ".json", "-o",
                                              file, "--now", "2026-03-01T18:00:00Z"});
      EXPECT_EQ(run.exit_code, 0) << run.err;
      options = joined({options, {"--mux", mhz + "000000=" + file}});
    }
    return options;
  }();
  return made;
}

class Scan : public Command_fixture {
 protected:
  Scan() { device_ = "box"; }  // whose exact report and readings stand in the tables

  static Words network(const std::string& speed = "x10") { return joined({{"--time", speed}, sample_muxes()}); }
  Words command(const Words& options, const Words& arguments) const {
    return kelvo(options, joined({{"scan"}, arguments}));
  }
  // Its times are masked.
  Command_result scan(const Words& options, const Words& arguments) const {
    const Command_result result = run_command(command(options, arguments));
    return {result.exit_code, masked(result.out), masked(result.err)};
  }
  std::string stored(const std::string& sql) const { return value(db_, sql); }
};

TEST_F(Scan, finds_the_services_of_a_multiplex) {
  EXPECT_EQ(scan(network(), {"--freq", "522000000"}),
            prints(HEAD + "522.000 MHz        0  DVB-T       78 %  98 %         8 #.# s  locked\n"
                          "\n"
                          "CHANGE  LCN  NAME           TYPE   PROVIDER           FREQUENCY\n"
                          "new     101  Raadio Tõrvik  radio  Kuldnokk Meedia  522.000 MHz\n"
                          "new     102  Öine Klassika  radio  Kuldnokk Meedia  522.000 MHz\n"
                          "new     103  Ράδιο Ψαρόνι   radio  Ψαρόνι ΜΜΕ       522.000 MHz\n"
                          "new     104  Λαϊκό Κύμα     radio  Ψαρόνι ΜΜΕ       522.000 MHz\n"
                          "new     105  Rádio Špaček   radio  Špaček Média     522.000 MHz\n"
                          "new     106  Řeka Dvě       radio  Špaček Média     522.000 MHz\n"
                          "new     107  Радіо Шпак     radio  Шпак Медіа       522.000 MHz\n"
                          "new     108  Радио Филин    radio  Филин            522.000 MHz\n"
                          "\n"
                          "1 of 1 frequency with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n",
                   "[1/1] 522.000 MHz: locked, 8 services, #.# s\n"));
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1 AND row_status = 0;"), "8");
}

TEST_F(Scan, quietly_says_what_it_found_and_what_failed) {
  EXPECT_THAT(scan(network(), {"--freq", "522M", "-q"}), ends(0, HasSubstr("8 services: 8 new, 0 back"), ""));
  EXPECT_THAT(scan(network(), {"--freq", "530 MHz", "-q"}), ends(1, _, "kelvo: no services found\n"));
}

TEST_F(Scan, a_second_one_changes_nothing) {
  ASSERT_EQ(scan(network(), {"--freq", "474000000"}).exit_code, 0);
  const char* const everything = "SELECT group_concat(channel || serv_name || modified) FROM kanalid;";
  const std::string before = stored(everything);
  EXPECT_THAT(scan(network(), {"--freq", "474000000"}),
              ends(0, HEAD + "474.000 MHz        0  DVB-T       78 %  98 %         8 #.# s  locked\n"
                             "\n"
                             "1 of 1 frequency with a multiplex, 8 services: 0 new, 0 back, 0 lost.\n"));
  EXPECT_EQ(stored(everything), before);
}

TEST_F(Scan, says_what_is_back_and_what_is_lost) {
  ASSERT_EQ(scan(network(), {"--freq", "474000000"}).exit_code, 0);
  run_sql(db_, "UPDATE kanalid SET scan_state = 0 WHERE lcn = 2;");
  add_lost_service();
  EXPECT_THAT(scan(network(), {"--freq", "474000000"}),
              ends(0, HEAD + "474.000 MHz        0  DVB-T       78 %  98 %         8 #.# s  locked\n"
                             "\n"
                             "CHANGE  LCN  NAME        TYPE  PROVIDER           FREQUENCY\n"
                             "back      2  Kuldnokk 2  TV    Kuldnokk Meedia  474.000 MHz\n"
                             "lost     77  Kadunud     TV    Keegi            474.000 MHz\n"
                             "\n"
                             "1 of 1 frequency with a multiplex, 8 services: 0 new, 1 back, 1 lost.\n"));
}

TEST_F(Scan, a_frequency_without_signal_is_tuned_once_and_nothing_found_is_a_failure) {
  const std::string log = dir_.file("log");
  EXPECT_EQ(scan(joined({network("x1"), {"--log", log}}), {"--freq", "530000000", "--freq", "538000000"}),
            (Command_result{1,
                            "  MULTIPLEX  ADAPTER  SYSTEM  STRENGTH  SNR  SERVICES   TIME  RESULT\n"
                            "530.000 MHz        0  -              -    -         - #.# s  no signal\n"
                            "538.000 MHz        0  -              -    -         - #.# s  no signal\n"
                            "\n"
                            "0 of 2 frequencies with a multiplex, 0 services: 0 new, 0 back, 0 lost.\n",
                            "[1/2] 530.000 MHz: no signal, #.# s\n[2/2] 538.000 MHz: no signal, #.# s\n"
                            "kelvo: no services found\n"}));
  const std::string calls = support::read_file(log);
  EXPECT_EQ(support::count_of(calls, "FE_SET_PROPERTY"), 2U) << calls;
  const std::string opened =
      "open /dev/dvb/adapter0/frontend0 " + support::hexadecimal(O_RDWR | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(support::count_of(calls, opened), 1U) << calls;
}

TEST_F(Scan, tells_a_carrier_without_stream_from_none) {
  std::string nothing;
  for (int i = 0; i < 20000; ++i)
    nothing += "\x47\x1F\xFF\x10" + std::string(184, '\xFF');
  const support::Temp_dir folder;
  support::write_file(folder.file("empty.ts"), nothing);
  EXPECT_THAT(scan({"--time", "x10", "--mux", "530000000=" + folder.file("empty.ts")}, {"--freq", "530000000"}),
              ends(1, _, "[1/1] 530.000 MHz: locked, no stream, #.# s\nkelvo: no services found\n"));
}

// The library answers again and again while a DVB-H multiplex is tuned; the next frequency must not take that for its
// own answer.
TEST_F(Scan, a_dvbh_multiplex_does_not_answer_for_the_next_one) {
  EXPECT_THAT(
      scan(joined({network(), {"--signal", "474000000:status=0x9f"}}), {"--freq", "474000000", "--freq", "522000000"}),
      ends(0, _, "[1/2] 474.000 MHz: locked, no stream, #.# s\n[2/2] 522.000 MHz: locked, 8 services, #.# s\n"));
}

TEST_F(Scan, says_when_a_table_never_came) {
  const Words without_sdt = joined({network("x40"), {"--section", "17=silence"}});
  EXPECT_THAT(scan(without_sdt, {"--freq", "522000000", "--profile", "box"}),
              ends(0, _, "[1/1] 522.000 MHz: locked; the SDT did not come, 0 services, #.# s\n"));
  // What has come is believed.
  EXPECT_THAT(scan(without_sdt, {"--freq", "522000000"}),
              ends(0, _, "[1/1] 522.000 MHz: locked; the SDT did not come, 8 services, #.# s\n"));
}

TEST_F(Scan, says_whose_pmts_never_came) {
  const Words without_pmt = joined({network("x10"), {"--section", "256/2=silence"}});
  EXPECT_THAT(scan(without_pmt, {"--freq", "522000000", "--profile", "box"}),
              ends(0, _, "[1/1] 522.000 MHz: locked; the PMT of 1 service did not come, 8 services, #.# s\n"));
  EXPECT_THAT(scan(without_pmt, {"--freq", "522000000"}),
              ends(0, _, "[1/1] 522.000 MHz: locked; the PMT of 1 service did not come, 8 services, #.# s\n"));
  const Words without_two = joined({without_pmt, {"--section", "272/2=silence"}});
  EXPECT_THAT(scan(without_two, {"--freq", "522000000"}),
              ends(0, _, "[1/1] 522.000 MHz: locked; the PMTs of 2 services did not come, 8 services, #.# s\n"));
}

TEST_F(Scan, adapters_share_the_list) {
  Words adapters{"--time", "x4"};
  for (const char* number : {"0", "1", "2", "3"})
    adapters = joined({adapters, {"--adapter", number}, sample_muxes()});
  const Command_result result =
      scan(adapters, {"--adapter", "0", "--adapter", "1", "--adapter", "2", "--adapter", "3", "--freq", "474000000",
                      "--freq", "498000000", "--freq", "522000000", "--freq", "530000000"});
  EXPECT_THAT(result,
              ends(0, HasSubstr("\n3 of 4 frequencies with a multiplex, 24 services: 24 new, 0 back, 0 lost.\n")));
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1 AND row_status = 0;"), "24");
  for (const std::string number : {"0", "1", "2", "3"})
    EXPECT_THAT(result.out, HasSubstr("MHz        " + number + "  ")) << "every adapter took one";
}

// The sample network's second multiplex, on another frequency than the first time.
TEST_F(Scan, services_keep_their_rows_when_the_old_frequency_does_not_lock) {
  for (const bool any : {true, false}) {
    SCOPED_TRACE(any ? "any" : "box");
    std::filesystem::remove(db_);
    std::filesystem::remove(guide_);
    const Words profile{"--profile", any ? "any" : "box"};
    ASSERT_EQ(scan(network(), joined({{"--freq", "522000000"}, profile})).exit_code, 0);
    const std::string stream = sample_muxes().back().substr(sample_muxes().back().find('=') + 1);
    // The new place comes first, when nobody knows yet that the old one is empty.
    const Command_result moved = scan({"--time", "x10", "--mux", "514000000=" + stream},
                                      joined({{"--freq", "514000000", "--freq", "522000000"}, profile}));
    EXPECT_EQ(moved.exit_code, 0);
    EXPECT_EQ(
        stored("SELECT count(*) || ' ' || min(channel) || ' ' || max(channel) FROM kanalid WHERE freq = 514000000 "
               "AND scan_state = 1;"),
        any ? "8 1 8" : "8 9 16");
    EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE freq = 522000000 AND scan_state = 0;"), "8");
    EXPECT_THAT(moved.out,
                HasSubstr(any ? "\nmoved   101  Raadio Tõrvik  radio  Kuldnokk Meedia  522.000 MHz -> 514.000 MHz\n"
                              : "\nnew     101  Raadio Tõrvik  radio  Kuldnokk Meedia  514.000 MHz\n"));
    EXPECT_THAT(moved.out, HasSubstr("moved to 514.000 MHz"));
  }
}

TEST_F(Scan, reports_to_programs_what_it_reports_to_people) {
  const Command_result first = scan(network(), {"--freq", "522000000", "--freq", "530000000", "--json"});
  EXPECT_EQ(first.exit_code, 0);
  EXPECT_THAT(first.out, StartsWith("{\n  \"multiplexes\": [\n    {\n      \"frequency\": 522000000,\n"));
  EXPECT_THAT(first.out, HasSubstr("\"result\": \"no signal\""));
  EXPECT_EQ(support::count_of(first.out, "\"change\": \"new\""), 8U);
  EXPECT_EQ(support::count_of(first.out, "\"streams\": ["), 8U);
  EXPECT_EQ(support::count_of(first.out, "\"kind\": \"audio\""), 8U) << first.out;
  run_sql(db_, "UPDATE kanalid SET serv_name = 'Vana' WHERE lcn = 101;");
  const Command_result second = scan(network(), {"--freq", "522000000", "--json"});
  EXPECT_THAT(second.out, HasSubstr("\"kinds\": [\n        \"renamed\"\n      ],\n      \"old\": {\n"
                                    "        \"name\": \"Vana\","));
}

TEST_F(Scan, a_frequency_named_twice_is_scanned_once) {
  EXPECT_THAT(scan(network(), {"--freq", "530000000", "--freq", "530000000", "--adapter", "0", "--adapter", "0"}),
              ends(1, _, "[1/1] 530.000 MHz: no signal, #.# s\nkelvo: no services found\n"));
}

TEST_F(Scan, leaves_out_what_the_frontend_cannot_receive) {
  EXPECT_THAT(
      scan(joined({network(), {"--frequency-range", "470000000-600000000"}}),
           {"--freq", "522000000", "--freq", "177500000"}),
      ends(0, HasSubstr("177.500 MHz        -  -              -     -         -      -  out of the frontend's range\n"),
           "[1/2] 522.000 MHz: locked, 8 services, #.# s\n"));
}

TEST_F(Scan, is_quiet_unless_asked) {
  const auto err = [&](const Words& more) { return scan(network(), joined({{"--freq", "530000000"}, more})).err; };
  EXPECT_THAT(err({}), Not(HasSubstr("WARNING")));
  EXPECT_THAT(err({"-vv"}), AllOf(HasSubstr("WARNING: Using default fe data for freq 530000000\n"),
                                  Not(HasSubstr("Front end name is"))));
  EXPECT_THAT(err({"-vvvv"}), HasSubstr("Front end name is"));
}

TEST_F(Scan, shows_a_bar_on_a_terminal_and_takes_it_away) {
  const Command_result result =
      support::run_on_terminal(command(network(), {"--freq", "522000000", "--freq", "530000000"}), {}, 100);
  EXPECT_THAT(result, ends(0, AllOf(HasSubstr("\r[....................] 0/2  522.000 MHz  signal "),
                                    HasSubstr("\r[##########..........] 1/2  530.000 MHz  signal "),
                                    ContainsRegex("  8 services  left [0-9]+:[0-9]{2}\x1B\\[K"))));
  EXPECT_THAT(result.out, Not(HasSubstr("[1/2] "))) << "plain lines are for files";
  const size_t last = result.out.rfind("\r\x1B[K");
  ASSERT_NE(last, std::string::npos);
  EXPECT_LT(last, result.out.find("MULTIPLEX"));
}

TEST_F(Scan, the_bar_fits_a_narrow_terminal) {
  EXPECT_THAT(support::run_on_terminal(command(network(), {"--freq", "522000000"}), {}, 30),
              ends(0, HasSubstr("\r[......] 0/1  522.000 MHz  si\x1B[K")));
}

TEST_F(Scan, an_interrupt_keeps_what_was_found) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove(db_);
    Running_command running(
        command(network("x3"), {"--freq", "522000000", "--freq", "474000000", "--freq", "498000000"}));
    ASSERT_TRUE(running.wait_for_err("[1/3]")) << running.err();
    usleep(100'000);  // Into the second multiplex.
    const Command_result result = ended_by(signal, running);
    EXPECT_EQ(masked(result.err),
              "[1/3] 522.000 MHz: locked, 8 services, #.# s\n"
              "[2/3] 474.000 MHz: not scanned: interrupted\n"
              "kelvo: interrupted; what was found is kept\n");
    EXPECT_THAT(
        result,
        ends(130,
             AllOf(
                 HasSubstr("474.000 MHz        0  -              -     -         -      -  not scanned: interrupted\n"
                           "498.000 MHz        -  -              -     -         -      -  not scanned: interrupted\n"),
                 HasSubstr("\n1 of 3 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"))));
    EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "8");
    EXPECT_EQ(stored("PRAGMA integrity_check;"), "ok");
  }
}

TEST_F(Scan, a_device_that_cannot_be_used_is_one_line_and_nothing_is_made) {
  const struct {
    const char* legend;
    Words adapter;
    std::string err;
  } cases[] = {
      {"held by another program", {"--fault", "open(frontend0)=EBUSY"}, "frontend0" + BUSY_DEVICE},
      {"no permission", {"--fault", "open(frontend0)=EACCES"}, "frontend0" + DENIED_DEVICE},
      {"no demultiplexer", {"--fault", "open(demux0)=ENOENT"}, "demux0" + NO_DEVICE},
      {"another failure", {"--fault", "open(demux0)=EIO"}, "demux0: cannot be opened: Input/output error"},
      {"does not answer", {"--fault", "FE_GET_INFO=EIO"}, "frontend0: cannot be opened: Input/output error"},
      {"for satellites", {"--type", "qpsk"}, "frontend0: softdvb DVB-S 0 does not receive DVB-T or DVB-T2"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    EXPECT_EQ(scan(joined({network(), c.adapter}), {"--freq", "522000000"}), fails("/dev/dvb/adapter0/" + c.err));
    EXPECT_TRUE(folder_is_empty());
  }
}

TEST_F(Scan, a_missing_adapter_is_no_reason_to_start_with_the_other) {
  EXPECT_EQ(scan(network(), {"--adapter", "0", "--adapter", "1", "--freq", "522000000"}),
            fails("/dev/dvb/adapter1/frontend0" + NO_DEVICE));
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(Scan, a_database_of_another_kind_is_left_alone) {
  const std::string other(3000, 'x');
  support::write_file(db_, other);
  EXPECT_EQ(scan(network(), {"--freq", "522000000"}), fails(db_ + NO_DATABASE));
  EXPECT_EQ(support::read_file(db_), other);

  std::filesystem::remove(db_);
  support::write_file(guide_, other);
  EXPECT_EQ(scan(network(), {"--freq", "522000000"}), fails(guide_ + NO_DATABASE));
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(Scan, a_folder_that_is_not_there_is_not_made) {
  db_ = dir_.file("missing/dvb.db");
  EXPECT_EQ(scan(network(), {"--freq", "522000000"}),
            fails(db_ + ": cannot be made: " + dir_.file("missing") + ": No such file or directory"));
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(Scan, a_file_system_without_files_is_an_error) {
  db_ = "/proc/kelvo.db";
  const Command_result result = scan(network(), {"--freq", "522000000"});
  EXPECT_THAT(result, ends(1, "", StartsWith("kelvo: /proc/kelvo.db")));
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

// A limit on the size of files, inside the adapter's own, stands for the disk.
TEST_F(Scan, a_full_disk_is_an_error) {
  EXPECT_EQ(run(network(), {"scan", "--freq", "522000000"}, "trap '' XFSZ; ulimit -f 64; exec \"$@\""),
            fails(db_ + ": cannot be written: disk I/O error"));
  EXPECT_TRUE(folder_is_empty()) << "half a database is left";
}

// Nothing is written to a file that another program has taken away, nor to what it has put there.
TEST_F(Scan, a_database_that_is_moved_away_is_an_error_and_whole) {
  const std::string away = dir_.file("away.db");
  Running_command running(
      command(network("x2"), {"--freq", "522000000", "--freq", "474000000", "--freq", "498000000"}));
  ASSERT_TRUE(running.wait_for_err("[1/3]")) << running.err();
  std::filesystem::rename(db_, away);
  support::write_file(db_, "another program's");
  EXPECT_THAT(running.wait(), ends(1, HasSubstr(" services: "),
                                   HasSubstr("kelvo: " + db_ +
                                             ": another program has moved or replaced it, or its "
                                             "guide; what came since is not stored\n")));
  EXPECT_EQ(support::read_file(db_), "another program's");
  EXPECT_FALSE(std::filesystem::exists(db_ + "-wal"));
  EXPECT_EQ(value(away, "PRAGMA integrity_check;"), "ok");
  EXPECT_GE(std::stoi(value(away, "SELECT count(*) FROM kanalid;")), 8);
  std::filesystem::rename(away, db_);
  EXPECT_EQ(scan(network(), {"--freq", "522000000", "--freq", "474000000"}).exit_code, 0);
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid;"), "16");
}

TEST_F(Scan, the_default_database_is_made_with_its_folders) {
  const std::string data = dir_.file("share/deep");
  const Command_result result =
      run_command(joined({{SOFTDVB_COMMAND}, network(), {"--", KELVO_COMMAND, "scan", "--freq", "530000000"}}),
                  {{"XDG_DATA_HOME", data}});
  EXPECT_EQ(result.exit_code, 1) << result.err;
  EXPECT_TRUE(std::filesystem::exists(data + "/kelvo/dvb.db"));
}

TEST_F(Scan, the_guide_of_what_was_found_is_collected) {
  ASSERT_EQ(scan(network(), {"--freq", "474000000"}).exit_code, 0);
  std::filesystem::remove(guide_);  // a part of it comes with the scan
  EXPECT_THAT(without_carousels(run(network(), {"epg", "update", "--for", "10m"})),
              ends(0,
                   "  MULTIPLEX  LCN  NAME               EVENTS  GUIDE\n"
                   "474.000 MHz    1  Kuldnokk 1            140  complete\n"
                   "474.000 MHz    2  Kuldnokk 2             84  complete\n"
                   "474.000 MHz    3  Öökull HD              84  complete\n"
                   "474.000 MHz    4  Põnn & Põder           84  complete\n"
                   "474.000 MHz    5  Шпак ТВ                60  complete\n"
                   "474.000 MHz    6  Синій Їжак             60  complete\n"
                   "474.000 MHz    7  Филин ТВ               60  complete\n"
                   "474.000 MHz  900  Kuldnoka tarkvara       0  nothing sent\n"
                   "\n"
                   "8 of 8 services done, 572 events, 572 of them new.\n"));
}

}  // namespace
