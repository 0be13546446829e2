// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/sample_streams.h"

// `kelvo scan` on imitations of the receivers that people own. On the air: DVB-T on 474 MHz; DVB-T2 on 498 MHz; DVB-T
// with a late lock on 522 MHz; a signal too weak for a lock on 530 MHz; nothing on 602 MHz. The programs that people
// scan with otherwise run beside it where they are installed.

namespace {

using support::Command_result;
using testing::_;
using testing::HasSubstr;

struct Receiver {
  const char* name;
  bool t2;
  const char* reports = "";  // behind "locked", of 474 MHz
};

constexpr Receiver RECEIVERS[] = {
    {"box", false},      {"rtl2832", false}, {"si2168", true},
    {"mn88472", true},   {"cxd2820r", true}, {"cxd2841er", true, ", reports 474.001 MHz"},
    {"dib7000p", false}, {"af9033", false},  {"drxk", false},
    {"zl10353", false},  {"stv0367", false}, {"unkind", true, ", reports 474.166 MHz"},
};

class On_air : public Command_fixture {
 protected:
  static Words on_air() {
    const Words& files = sample_streams();
    return {"--time",       "x8",
            "--mux",        "474000000=" + files[0],
            "--mux",        "498000000,system=dvbt2=" + files[1],
            "--mux",        "522000000=" + files[2],
            "--lock-delay", "522000000=790",
            "--mux",        "530000000=" + files[0],
            "--weak",       "530000000"};
  }
  static Words freqs(const Words& mhz) {
    Words out{"scan"};
    for (const std::string& one : mhz)
      out = joined({out, {"--freq", one + "000000"}});
    return out;
  }
  std::string count(const std::string& freq) const {
    return value(db_, "SELECT count(*) FROM kanalid WHERE row_status = 0 AND freq = " + freq);
  }
};

class Receivers : public On_air, public testing::WithParamInterface<Receiver> {
 protected:
  Receivers() { device_ = GetParam().name; }
};

TEST_P(Receivers, find_say_and_store_what_is_on_air) {
  const Command_result result = run_command(kelvo(on_air(), freqs({"474", "498", "522", "530", "602"})));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr(std::string("474.000 MHz: locked") + GetParam().reports + ", 8 services"));
  EXPECT_THAT(result.err, HasSubstr(GetParam().t2 ? "498.000 MHz: locked" : "498.000 MHz: no signal"));
  EXPECT_THAT(result.err, HasSubstr("522.000 MHz: locked"));
  EXPECT_THAT(result.err, HasSubstr("530.000 MHz: signal, no lock"));
  EXPECT_THAT(result.err, HasSubstr("602.000 MHz: no signal"));
  EXPECT_EQ(count("474000000"), "8");
  EXPECT_EQ(count("498000000"), GetParam().t2 ? "8" : "0");
  EXPECT_EQ(count("522000000"), "8");
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid WHERE freq NOT IN (474000000, 498000000, 522000000)"), "0");
  EXPECT_EQ(value(db_,
                  "SELECT group_concat(freq || ' ' || system || ' ' || pipe) FROM (SELECT * FROM tuned_multiplex "
                  "ORDER BY freq)"),
            GetParam().t2 ? "474000000 3 -1,498000000 16 -1,522000000 3 -1" : "474000000 3 -1,522000000 3 -1");
}

TEST_P(Receivers, say_that_another_program_has_them) {
  EXPECT_THAT(run_command(kelvo(joined({{"--busy"}, on_air()}), freqs({"474"}))),
              ends(1, "", HasSubstr("in use by another program")));
  EXPECT_TRUE(folder_is_empty());
}

TEST_P(Receivers, say_that_they_are_gone) {
  Words mhz{"474"};
  for (int silent = 602; silent <= 858; silent += 8)
    mhz.push_back(std::to_string(silent));
  const Command_result result = run_command(kelvo(joined({on_air(), {"--unplug", "40"}}), freqs(mhz)));
  EXPECT_EQ(result.exit_code, 1) << result.err;
  EXPECT_THAT(result.err, HasSubstr("adapter 0 is gone"));
  EXPECT_EQ(count("474000000"), "8") << "what was found is kept";
}

// The other programs, on the frequencies that they can know of.
size_t names_in(const std::string& text, const char* pattern) {
  const std::regex expression(pattern, std::regex::multiline);
  return static_cast<size_t>(std::distance(std::sregex_iterator(text.begin(), text.end(), expression), {}));
}

TEST_P(Receivers, find_at_least_what_other_programs_find) {
  if (run_command({"which", "dvbv5-scan", "scan"}).exit_code != 0)
    GTEST_SKIP() << "dvbv5-scan or scan is not installed";
  std::string v5;
  std::string v3;
  for (const std::string& one : Words{"DVBT 474", "DVBT2 498", "DVBT 522"}) {
    const size_t blank = one.find(' ');
    const std::string freq = one.substr(blank + 1) + "000000";
    v5 += "[C]\n DELIVERY_SYSTEM = " + one.substr(0, blank) + "\n FREQUENCY = " + freq + "\n BANDWIDTH_HZ = 8000000\n";
    v3 += "T " + freq + " 8MHz AUTO NONE AUTO AUTO AUTO NONE\n";
  }
  support::write_file(dir_.file("v5"), v5);
  support::write_file(dir_.file("v3"), v3);
  Words adapter{SOFTDVB_COMMAND, "--device", GetParam().name};
  adapter = joined({adapter, on_air(), {"--"}});
  const Command_result by_v5 =
      run_command(joined({adapter, {"dvbv5-scan", "-N", "-o", dir_.file("found"), dir_.file("v5")}}));
  EXPECT_EQ(by_v5.exit_code, 0) << by_v5.err;
  const size_t of_v5 = names_in(support::read_file(dir_.file("found")), "^\\[(.*)\\]$");
  const size_t of_scan = names_in(run_command(joined({adapter, {"scan", "-q", dir_.file("v3")}})).out, "^[^:\n]+:.*$");

  EXPECT_EQ(run_command(kelvo(on_air(), freqs({"474", "498", "522"}))).exit_code, 0);
  const size_t of_kelvo = std::stoul(value(db_, "SELECT count(*) FROM kanalid WHERE row_status = 0"));
  EXPECT_EQ(of_kelvo, GetParam().t2 ? 24U : 16U);
  EXPECT_GE(of_kelvo, of_v5);
  EXPECT_GE(of_kelvo, of_scan);
}

INSTANTIATE_TEST_SUITE_P(Devices, Receivers, testing::ValuesIn(RECEIVERS),
                         [](const auto& receiver) { return std::string(receiver.param.name); });

// Opened right behind a closing, Linux's core may be without its thread: nothing is tuned then, whatever is asked.
TEST_F(On_air, is_found_though_an_opening_had_no_core_behind_it) {
  device_ = "rtl2832";
  for (const char* opening : {"1", "2"}) {
    const Command_result result = run_command(kelvo(joined({{"--dead-reopen", opening}, on_air()}), freqs({"474"})));
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(count("474000000"), "8") << opening << result.err;
  }
}

// One that is sold: frontend0 for DVB-T, frontend1 for DVB-T2 as well, one demultiplexer.
class Two_frontends : public On_air {
 protected:
  Two_frontends() { device_ = "rtl2832+mn88472"; }
};

TEST_F(Two_frontends, are_used_for_what_the_second_one_can) {
  const Command_result result = run_command(kelvo(on_air(), freqs({"474", "498"})));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("498.000 MHz: locked, 8 services"));
  EXPECT_EQ(count("474000000"), "8");
  EXPECT_EQ(count("498000000"), "8");
}

TEST_F(Two_frontends, are_busy_when_another_program_has_the_first) {
  EXPECT_THAT(run_command(kelvo(joined({{"--busy"}, on_air()}), freqs({"474"}))),
              ends(1, "", HasSubstr("/dev/dvb/adapter0/frontend0: in use by another program")));
  EXPECT_TRUE(folder_is_empty());
}

TEST_F(Two_frontends, serve_another_program_as_well) {
  if (run_command({"which", "dvbv5-scan"}).exit_code != 0)
    GTEST_SKIP() << "dvbv5-scan is not installed";
  support::write_file(dir_.file("v5"),
                      "[T2]\n DELIVERY_SYSTEM = DVBT2\n FREQUENCY = 498000000\n BANDWIDTH_HZ = 8000000\n");
  const auto found = [this](const std::string& frontend) -> size_t {
    const std::string file = dir_.file("found" + frontend);
    (void)run_command(joined({{SOFTDVB_COMMAND, "--device", device_},
                              on_air(),
                              {"--", "dvbv5-scan", "-N", "-a", "0", "-f", frontend, "-o", file, dir_.file("v5")}}));
    return std::filesystem::exists(file) ? names_in(support::read_file(file), "^\\[(.*)\\]$") : 0;
  };
  EXPECT_EQ(found("0"), 0U);
  EXPECT_EQ(found("1"), 8U);
}

}  // namespace
