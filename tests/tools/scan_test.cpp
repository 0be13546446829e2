// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sqlite3.h>

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"
#include "tools/prepared_db.h"

// `kelvo scan` under the software adapter. Times are compressed and masked ("#.# s"); everything else is exact.

namespace {

using support::Command_result;
using support::run_command;

const std::string SPEED = "x10";

std::string masked(const std::string& text) {
  return std::regex_replace(text, std::regex(" *[0-9]+\\.[0-9] s"), " #.# s");
}

// The sample network, made once, and a stream without any section.
class Streams {
 public:
  Streams() {
    for (const char* freq : {"474", "498", "522"}) {
      const Command_result made =
          run_command({SOFTDVB_MUX_COMMAND, std::string(KELVO_SAMPLES "/kuldnokk-") + freq + ".json", "-o", file(freq),
                       "--now", "2026-03-01T18:00:00Z"});
      EXPECT_EQ(made.exit_code, 0) << made.err;
    }
    std::string nothing;
    for (int i = 0; i < 20000; ++i) {
      nothing += "\x47\x1F\xFF" + std::string(1, static_cast<char>(0x10)) + std::string(184, '\xFF');
    }
    support::write_file(file("empty"), nothing);
  }
  std::string file(const std::string& name) const { return dir_.file(name + ".ts"); }

 private:
  support::Temp_dir dir_;
};

const Streams& streams() {
  static const Streams made;
  return made;
}

class Scan : public testing::Test {
 protected:
  std::vector<std::string> command(std::vector<std::string> adapter, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{SOFTDVB_COMMAND};
    argv.insert(argv.end(), adapter.begin(), adapter.end());
    argv.insert(argv.end(), {"--", KELVO_COMMAND, "scan", "--db", db_});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  }
  static std::vector<std::string> network(const std::string& speed = SPEED) {
    return {"--time", speed,
            "--mux",  "474000000=" + streams().file("474"),
            "--mux",  "498000000=" + streams().file("498"),
            "--mux",  "522000000=" + streams().file("522")};
  }
  static std::vector<std::string> joined(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }
  std::string value(const std::string& sql) const {
    sqlite3* connection = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open_v2(db_.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    const std::string out = text != nullptr ? text : "NULL";
    sqlite3_finalize(statement);
    sqlite3_close(connection);
    return out;
  }

  support::Temp_dir dir_;
  std::string db_ = dir_.file("dvb.db");
};

TEST_F(Scan, finds_the_services_of_a_multiplex) {
  const Command_result result = run_command(command(network(), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/1] 522.000 MHz: locked, 8 services, #.# s\n");
  EXPECT_EQ(masked(result.out),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "522.000 MHz        0         8 #.# s  locked\n"
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
            "1 of 1 frequency with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n");
  EXPECT_EQ(value("SELECT count(*) FROM kanalid WHERE scan_state = 1 AND row_status = 0;"), "8");
}

TEST_F(Scan, a_second_one_changes_nothing) {
  ASSERT_EQ(run_command(command(network(), {"--freq", "474000000"})).exit_code, 0);
  const std::string before = value("SELECT group_concat(channel || serv_name || modified) FROM kanalid;");
  const Command_result result = run_command(command(network(), {"--freq", "474000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.out),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "474.000 MHz        0         8 #.# s  locked\n"
            "\n"
            "1 of 1 frequency with a multiplex, 8 services: 0 new, 0 back, 0 lost.\n");
  EXPECT_EQ(value("SELECT group_concat(channel || serv_name || modified) FROM kanalid;"), before);
}

TEST_F(Scan, says_what_is_back_and_what_is_lost) {
  ASSERT_EQ(run_command(command(network(), {"--freq", "474000000"})).exit_code, 0);
  run_sql(db_, "UPDATE kanalid SET scan_state = 0 WHERE lcn = 2;");
  run_sql(db_,
          "INSERT INTO kanalid (freq, pat_prnr, network_id, orig_network_id, tstream_id, lcn, serv_name, serv_type, "
          "prov_name, scan_state, pcr_pid) SELECT freq, 9999, network_id, orig_network_id, tstream_id, 77, 'Kadunud', "
          "1, 'Keegi', 1, 99 FROM kanalid WHERE lcn = 1;");
  const Command_result result = run_command(command(network(), {"--freq", "474000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.out),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "474.000 MHz        0         8 #.# s  locked\n"
            "\n"
            "CHANGE  LCN  NAME        TYPE  PROVIDER           FREQUENCY\n"
            "back      2  Kuldnokk 2  TV    Kuldnokk Meedia  474.000 MHz\n"
            "lost     77  Kadunud     TV    Keegi            474.000 MHz\n"
            "\n"
            "1 of 1 frequency with a multiplex, 8 services: 0 new, 1 back, 1 lost.\n");
}

TEST_F(Scan, a_frequency_without_signal_costs_three_tries_only) {
  const std::string log = dir_.file("log");
  const Command_result result =
      run_command(command(joined(network("x1"), {"--log", log}), {"--freq", "530000000", "--freq", "538000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/2] 530.000 MHz: no lock, #.# s\n[2/2] 538.000 MHz: no lock, #.# s\n");
  EXPECT_EQ(masked(result.out),
            "  MULTIPLEX  ADAPTER  SERVICES   TIME  RESULT\n"
            "530.000 MHz        0         - #.# s  no lock\n"
            "538.000 MHz        0         - #.# s  no lock\n"
            "\n"
            "0 of 2 frequencies with a multiplex, 0 services: 0 new, 0 back, 0 lost.\n");
  // One for the frequency that the library tunes to at the start, one for each asked for.
  const std::string calls = support::read_file(log);
  size_t tunings = 0;
  for (size_t at = 0; (at = calls.find("FE_SET_FRONTEND", at)) != std::string::npos; ++at) {
    ++tunings;
  }
  EXPECT_EQ(tunings, 3U) << calls;
}

TEST_F(Scan, tells_a_carrier_without_stream_from_none) {
  const Command_result result =
      run_command(command({"--time", SPEED, "--mux", "530000000=" + streams().file("empty")}, {"--freq", "530000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/1] 530.000 MHz: no MPEG stream, #.# s\n");
}

// The library answers again and again while a DVB-H multiplex is tuned; the next frequency must not take that for its
// own answer.
TEST_F(Scan, a_dvbh_multiplex_does_not_answer_for_the_next_one) {
  const Command_result result = run_command(command(joined(network(), {"--signal", "474000000:status=0x9f"}),
                                                    {"--freq", "474000000", "--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err),
            "[1/2] 474.000 MHz: no MPEG stream, #.# s\n[2/2] 522.000 MHz: locked, 8 services, #.# s\n");
}

TEST_F(Scan, says_when_a_table_never_came) {
  const Command_result result =
      run_command(command(joined(network("x40"), {"--section", "17=silence"}), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/1] 522.000 MHz: timed out: not all tables came, 0 services, #.# s\n");
}

TEST_F(Scan, adapters_share_the_list) {
  std::vector<std::string> adapters{"--time", SPEED};
  for (const char* number : {"0", "1", "2", "3"}) {
    adapters = joined(adapters, {"--adapter", number});
    for (const char* freq : {"474", "498", "522"}) {
      adapters = joined(adapters, {"--mux", std::string(freq) + "000000=" + streams().file(freq)});
    }
  }
  const Command_result result = run_command(
      command(adapters, {"--adapter", "0", "--adapter", "1", "--adapter", "2", "--adapter", "3", "--freq", "474000000",
                         "--freq", "498000000", "--freq", "522000000", "--freq", "530000000"}));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("\n3 of 4 frequencies with a multiplex, 24 services: 24 new, 0 back, 0 lost.\n"),
            std::string::npos)
      << result.out;
  EXPECT_EQ(value("SELECT count(*) FROM kanalid WHERE scan_state = 1 AND row_status = 0;"), "24");
  // Every adapter took one.
  for (const char* number : {"0", "1", "2", "3"}) {
    EXPECT_TRUE(std::regex_search(result.out, std::regex("MHz        " + std::string(number) + "  ")));
  }
}

TEST_F(Scan, a_frequency_named_twice_is_scanned_once) {
  const Command_result result = run_command(
      command(network(), {"--freq", "530000000", "--freq", "530000000", "--adapter", "0", "--adapter", "0"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/1] 530.000 MHz: no lock, #.# s\n");
}

TEST_F(Scan, leaves_out_what_the_frontend_cannot_receive) {
  const Command_result result = run_command(command(joined(network(), {"--frequency-range", "470000000-600000000"}),
                                                    {"--freq", "522000000", "--freq", "177500000"}));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(masked(result.err), "[1/2] 522.000 MHz: locked, 8 services, #.# s\n");
  EXPECT_NE(result.out.find("177.500 MHz        -         -      -  out of the frontend's range\n"), std::string::npos)
      << result.out;
}

TEST_F(Scan, is_quiet_unless_asked) {
  Command_result result = run_command(command(network(), {"--freq", "530000000"}));
  EXPECT_EQ(result.err.find("WARNING"), std::string::npos) << result.err;
  result = run_command(command(network(), {"--freq", "530000000", "-vv"}));
  EXPECT_NE(result.err.find("WARNING: Using default fe data for freq 530000000\n"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find("Front end name is"), std::string::npos) << result.err;
  result = run_command(command(network(), {"--freq", "530000000", "-vvvv"}));
  EXPECT_NE(result.err.find("Front end name is"), std::string::npos) << result.err;
}

TEST_F(Scan, shows_a_bar_on_a_terminal_and_takes_it_away) {
  const Command_result result =
      support::run_on_terminal(command(network(), {"--freq", "522000000", "--freq", "530000000"}), {}, 100);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("\r[....................] 0/2  522.000 MHz  signal "), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\r[##########..........] 1/2  530.000 MHz  signal "), std::string::npos) << result.out;
  EXPECT_TRUE(std::regex_search(result.out, std::regex(" %  8 services  left [0-9]+:[0-9]{2}\x1B\\[K")));
  EXPECT_EQ(result.out.find("[1/2] "), std::string::npos) << "plain lines are for files";
  const size_t last = result.out.rfind("\r\x1B[K");
  ASSERT_NE(last, std::string::npos);
  EXPECT_LT(last, result.out.find("MULTIPLEX"));
}

TEST_F(Scan, the_bar_fits_a_narrow_terminal) {
  const Command_result result = support::run_on_terminal(command(network(), {"--freq", "522000000"}), {}, 30);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("\r[....................] 0/1  5\x1B[K"), std::string::npos) << result.out;
}

TEST_F(Scan, an_interrupt_keeps_what_was_found) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove(db_);
    support::Running_command running(
        command(network("x3"), {"--freq", "522000000", "--freq", "474000000", "--freq", "498000000"}));
    ASSERT_TRUE(running.wait_for_err("[1/3]")) << running.err();
    usleep(100'000);  // Into the second multiplex.
    ASSERT_EQ(kill(running.pid(), signal), 0);
    const Command_result result = running.wait();
    EXPECT_EQ(result.exit_code, 130);
    EXPECT_EQ(masked(result.err),
              "[1/3] 522.000 MHz: locked, 8 services, #.# s\n"
              "[2/3] 474.000 MHz: not scanned: interrupted\n"
              "kelvo: interrupted; what was found is kept\n");
    EXPECT_NE(result.out.find("474.000 MHz        0         -      -  not scanned: interrupted\n"
                              "498.000 MHz        -         -      -  not scanned: interrupted\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\n1 of 3 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"),
              std::string::npos);
    EXPECT_EQ(value("SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "8");
    EXPECT_EQ(value("PRAGMA integrity_check;"), "ok");
  }
}

struct Device_case {
  const char* legend;
  std::vector<std::string> adapter;
  std::string err;
};

void PrintTo(const Device_case& c, std::ostream* out) {
  *out << c.legend;
}

class Bad_device : public Scan, public testing::WithParamInterface<Device_case> {};

TEST_P(Bad_device, is_one_line_and_nothing_is_made) {
  const Command_result result = run_command(command(joined(network(), GetParam().adapter), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1) << GetParam().legend;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, GetParam().err + "\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

const Device_case DEVICES[] = {
    {"held by another program",
     {"--fault", "open(frontend0)=EBUSY"},
     "kelvo: /dev/dvb/adapter0/frontend0: in use by another program; stop it first"},
    {"no permission",
     {"--fault", "open(frontend0)=EACCES"},
     "kelvo: /dev/dvb/adapter0/frontend0: permission denied; is the user in group video?"},
    {"no demultiplexer",
     {"--fault", "open(demux0)=ENOENT"},
     "kelvo: /dev/dvb/adapter0/demux0: no such device; is the adapter plugged in?"},
    {"another failure",
     {"--fault", "open(demux0)=EIO"},
     "kelvo: /dev/dvb/adapter0/demux0: cannot be opened: Input/output error"},
    {"does not answer",
     {"--fault", "FE_GET_INFO=EIO"},
     "kelvo: /dev/dvb/adapter0/frontend0: does not answer: Input/output error"},
    {"for satellites",
     {"--type", "qpsk"},
     "kelvo: /dev/dvb/adapter0/frontend0: softdvb DVB-S 0 does not receive DVB-T"},
};

INSTANTIATE_TEST_SUITE_P(devices, Bad_device, testing::ValuesIn(DEVICES));

TEST_F(Scan, a_missing_adapter_is_no_reason_to_start_with_the_other) {
  const Command_result result =
      run_command(command(network(), {"--adapter", "0", "--adapter", "1", "--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: /dev/dvb/adapter1/frontend0: no such device; is the adapter plugged in?\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(Scan, a_database_of_another_kind_is_left_alone) {
  support::write_file(db_, std::string(3000, 'x'));
  Command_result result = run_command(command(network(), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: " + db_ + ": not a database; name another file with --db\n");
  EXPECT_EQ(support::read_file(db_), std::string(3000, 'x'));

  std::filesystem::remove(db_);
  support::write_file(dir_.file("dvb_epg.db"), std::string(3000, 'x'));
  result = run_command(command(network(), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + dir_.file("dvb_epg.db") + ": not a database; name another file with --db\n");
  EXPECT_FALSE(std::filesystem::exists(db_));
}

TEST_F(Scan, a_folder_that_is_not_there_is_not_made) {
  db_ = dir_.file("missing/dvb.db");
  const Command_result result = run_command(command(network(), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err,
            "kelvo: " + db_ + ": cannot be made: " + dir_.file("missing") + ": No such file or directory\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(Scan, a_file_system_without_files_is_an_error) {
  db_ = "/proc/kelvo.db";
  const Command_result result = run_command(command(network(), {"--freq", "522000000"}));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err.substr(0, 21), "kelvo: /proc/kelvo.db") << result.err;
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

TEST_F(Scan, a_full_disk_is_an_error) {
  // A limit on the size of files, inside the adapter's own.
  const std::string kelvo = std::string(KELVO_COMMAND) + " scan --freq 522000000 --db " + db_;
  std::vector<std::string> argv{SOFTDVB_COMMAND};
  argv = joined(argv, network());
  argv = joined(argv, {"--", "sh", "-c", "trap '' XFSZ; ulimit -f 64; exec " + kelvo});
  const Command_result result = run_command(argv);
  EXPECT_EQ(result.exit_code, 1) << result.out;
  EXPECT_EQ(result.err, "kelvo: " + db_ + ": cannot be written: disk I/O error\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path())) << "half a database is left";
}

TEST_F(Scan, the_default_database_is_made_with_its_folders) {
  const std::string data = dir_.file("share/deep");
  std::vector<std::string> argv{SOFTDVB_COMMAND};
  argv = joined(argv, network());
  argv = joined(argv, {"--", KELVO_COMMAND, "scan", "--freq", "530000000"});
  const Command_result result = run_command(argv, {{"XDG_DATA_HOME", data}});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_TRUE(std::filesystem::exists(data + "/kelvo/dvb.db"));
}

TEST_F(Scan, the_guide_of_what_was_found_is_collected) {
  ASSERT_EQ(run_command(command(network(), {"--freq", "474000000"})).exit_code, 0);
  std::vector<std::string> argv{SOFTDVB_COMMAND};
  argv = joined(joined(argv, network()), {"--", KELVO_COMMAND, "epg", "update", "--for", "10m", "--db", db_});
  const Command_result result = run_command(argv);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out,
            "  MULTIPLEX  LCN  NAME          EVENTS  GUIDE\n"
            "474.000 MHz    1  Kuldnokk 1       140  complete\n"
            "474.000 MHz    2  Kuldnokk 2        84  complete\n"
            "474.000 MHz    3  Öökull HD         84  complete\n"
            "474.000 MHz    4  Põnn & Põder      84  complete\n"
            "474.000 MHz    5  Шпак ТВ           60  complete\n"
            "474.000 MHz    6  Синій Їжак        60  complete\n"
            "474.000 MHz    7  Филин ТВ          60  complete\n"
            "\n"
            "7 of 7 services done, 572 events, 572 of them new.\n");
}

}  // namespace
