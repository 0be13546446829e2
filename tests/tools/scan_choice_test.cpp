// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/command_fixture.h"

// Which frequencies `kelvo scan` asks for, for how long, and what it makes of a multiplex that several of them bring.

namespace {

using testing::_;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string masked(const std::string& text) {
  return std::regex_replace(text, std::regex(" *[0-9]+\\.[0-9] s"), " #.# s");
}

// A stream of the sample network, made once: 474, 498 or 522.
std::string stream(const std::string& mhz) {
  static const support::Temp_dir dir;
  const std::string file = dir.file(mhz + ".ts");
  if (!std::filesystem::exists(file)) {
    const Command_result run = run_command(
        {SOFTDVB_MUX_COMMAND, KELVO_SAMPLES "/kuldnokk-" + mhz + ".json", "-o", file, "--now", "2026-03-01T18:00:00Z"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
  }
  return file;
}

class Scan_choice : public Command_fixture {
 protected:
  Scan_choice() { device_ = "box"; }  // whose readings and quick answers the texts are made for

  // Its times are masked.
  Command_result scan(const Words& options, const Words& arguments, const support::Environment& env = {}) const {
    const Command_result result = run_command(kelvo(options, joined({{"scan"}, arguments})), env);
    return {result.exit_code, masked(result.out), masked(result.err)};
  }
  std::string stored(const std::string& sql) const { return value(db_, sql); }
  std::string file(const std::string& text) const {
    support::write_file(dir_.file("table"), text);
    return dir_.file("table");
  }
  const Words quick_{"--time", "x20"};
};

const support::Environment GERMANY{{"LC_ALL", "de_DE.UTF-8"}};
const support::Environment NOWHERE{{"LC_ALL", "C"}};

TEST_F(Scan_choice, the_country_of_the_locale) {
  const Command_result result = scan(quick_, {}, GERMANY);
  EXPECT_THAT(result, ends(1, HasSubstr("\n0 of 28 frequencies with a multiplex, 0 services: 0 new, 0 back, 0 lost.\n"),
                           StartsWith("kelvo: 28 frequencies of DE (from the locale); --country names another country\n"
                                      "kelvo: DE sends DVB-T2, which the adapter does not receive; DVB-T is looked "
                                      "for\n[1/28] 474.000 MHz: ")));
  EXPECT_THAT(result.err, HasSubstr("[28/28] 690.000 MHz: "));
}

TEST_F(Scan_choice, a_country_that_is_named) {
  const struct {
    const char* country;
    support::Environment env;
    std::string says;
    const char* last;
  } cases[] = {
      {"NZ", GERMANY, "kelvo: 28 frequencies of NZ\n[1/28] 474.000 MHz: ", "[28/28] 690.000 MHz: "},
      {"au", GERMANY, "kelvo: 32 frequencies of AU\n[1/32] 177.500 MHz: ", "[32/32] 690.500 MHz: "},
      {"UK", NOWHERE, "kelvo: 28 frequencies of GB\n[1/28] 474.000 MHz: ", "[28/28] 690.000 MHz: "},
      {"US", GERMANY, "kelvo: 57 frequencies, as in most of Europe: nothing is known of US\n[1/57] 177.500 MHz: ",
       "[57/57] 858.000 MHz: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.country);
    EXPECT_THAT(scan(quick_, {"--country", c.country}, c.env),
                ends(1, _, AllOf(StartsWith(c.says), HasSubstr(c.last))));
  }
}

TEST_F(Scan_choice, a_country_with_one_system_is_asked_for_that_only) {
  const std::string log = dir_.file("log");
  const Words network{"--time", "x20", "--device", "si2168", "--mux", "474000000,system=dvbt2=" + stream("474"),
                      "--log",  log};
  EXPECT_THAT(scan(network, {"--country", "DE"}),
              ends(0, HasSubstr("\n1 of 28 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"),
                   AllOf(StartsWith("kelvo: 28 frequencies of DE\n[1/28] 474.000 MHz: locked, 8 services, "),
                         HasSubstr("[28/28] 690.000 MHz: "))));
  // Property 17 is the delivery system: 3 DVB-T, 16 DVB-T2.
  EXPECT_THAT(support::read_file(log), AllOf(HasSubstr(" 17=16 "), Not(HasSubstr(" 17=3 "))));
}

TEST_F(Scan_choice, a_system_that_no_adapter_has_is_said) {
  const std::string table = file("T2 522000000 8MHz\nT 474000000 8MHz\n");
  EXPECT_THAT(scan({"--time", "x10", "--mux", "474000000=" + stream("474")}, {"--table", table}),
              ends(0, AllOf(HasSubstr("  a system that the frontend does not receive\n"),
                            HasSubstr("\n1 of 2 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"))));
}

// What the adapter for DVB-T alone finds empty is left to the other one.
TEST_F(Scan_choice, adapters_of_different_kind_find_everything_together) {
  Words network{"--time", "x10"};
  for (const std::string device : {"rtl2832", "si2168"})
    network = joined({network,
                      {"--adapter", device == "si2168" ? "1" : "0", "--device", device, "--mux",
                       "474000000,system=dvbt2=" + stream("474"), "--mux", "498000000=" + stream("498"), "--mux",
                       "522000000,system=dvbt2=" + stream("522")}});
  const Command_result result = scan(network, {"--adapter", "0", "--adapter", "1", "--freq", "474000000", "--freq",
                                               "498000000", "--freq", "522000000", "--freq", "530000000"});
  EXPECT_THAT(result.out,
              AllOf(ContainsRegex("474.000 MHz        1  DVB-T2 "), ContainsRegex("522.000 MHz        1  DVB-T2 "),
                    HasSubstr("\n3 of 4 frequencies with a multiplex, 24 services: 24 new, ")));
  EXPECT_THAT(result.err, HasSubstr("[4/4] "));
  EXPECT_EQ(result.exit_code, 0);
}

TEST_F(Scan_choice, no_country_at_all) {
  EXPECT_THAT(scan(quick_, {}, NOWHERE),
              ends(1, _,
                   AllOf(StartsWith("kelvo: 57 frequencies, as in most of Europe; --country names a country\n[1/57] "),
                         HasSubstr("[57/57] 858.000 MHz: "))));
  EXPECT_THAT(scan(quick_, {}, {{"LC_ALL", "en_US.UTF-8"}}),
              ends(1, _,
                   StartsWith("kelvo: 57 frequencies, as in most of Europe: nothing is known of US (from the locale); "
                              "--country names another country\n[1/57] ")));
}

TEST_F(Scan_choice, a_table_of_multiplexes) {
  const std::string table = file(
      "[A]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 522000000\nBANDWIDTH_HZ = 8000000\n"
      "[B]\nDELIVERY_SYSTEM = DVBC/ANNEX_A\nFREQUENCY = 113000000\n"
      "[C]\nDELIVERY_SYSTEM = DVBT\nFREQUENCY = 5060000\n");
  EXPECT_THAT(scan({"--time", "x10", "--mux", "522000000=" + stream("522")}, {"--table", table}),
              ends(0, HasSubstr("\n1 of 1 frequency with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"),
                   "kelvo: " + table + ":10: 5060000 Hz is passed over; DVB-T is between 30000000 and 1000000000\n" +
                       "kelvo: 1 multiplex of " + table + "; 1 entry passed over, of other systems\n" +
                       "[1/1] 522.000 MHz: locked, 8 services, #.# s\n"));
}

TEST_F(Scan_choice, a_table_of_a_place) {
  if (!std::filesystem::exists("/usr/share/dvb/dvb-t/de-Berlin"))
    GTEST_SKIP() << "dtv-scan-tables is not installed";
  EXPECT_THAT(scan(quick_, {"--table", "de-Berlin"}),
              ends(1, _,
                   AllOf(StartsWith("kelvo: 9 multiplexes of /usr/share/dvb/dvb-t/de-Berlin\n[1/9] 506.000 MHz: "),
                         HasSubstr("[9/9] 778.000 MHz: "))));
}

TEST_F(Scan_choice, what_cannot_be_scanned_is_one_line_and_nothing_is_made) {
  const support::Temp_dir folder;
  support::write_file(folder.file("broken"), std::string("T 506000000 8MHz\nT 514000000 9MHz\n"));
  const struct {
    Words arguments;
    std::string line;
    int code;
  } cases[] = {
      {{"--country", "Germany"}, "--country Germany: not a country; give its two letters, such as DE", 2},
      {{"--country", ""}, "--country : not a country; give its two letters, such as DE", 2},
      {{"--country", "D\x1B"}, "--country D: not a country; give its two letters, such as DE", 2},
      {{"--table", folder.file("broken")},
       folder.file("broken") + ":2: '9MHz' is not a bandwidth; give 1.712MHz, 5MHz, 6MHz, 7MHz, 8MHz, 10MHz or AUTO",
       1},
      {{"--table", folder.file("none")}, folder.file("none") + ": cannot be read: No such file or directory", 1},
      {{"--table", folder.path()}, folder.path() + ": a folder; an initial scan file is wanted", 1},
      {{"--for", "10"}, "--for 10: not a time; give for example 90s, 10m or 1h", 2},
      {{"--for", "0s"}, "--for 0s: not a time; give for example 90s, 10m or 1h", 2},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(scan(quick_, c.arguments), fails(c.line, c.code));
    EXPECT_TRUE(folder_is_empty()) << c.line;
  }
}

// Ten carriers without a stream take three seconds each.
TEST_F(Scan_choice, the_time_for_all_ends_it_and_keeps_what_was_found) {
  std::string nothing;
  for (int i = 0; i < 20000; ++i)
    nothing += "\x47\x1F\xFF\x10" + std::string(184, '\xFF');
  const support::Temp_dir folder;
  support::write_file(folder.file("empty.ts"), nothing);
  Words network{"--time", "x8", "--mux", "474000000=" + stream("474")};
  // Each frequency has its line, however many of them are left.
  Words arguments{"--wide", "--for", "20s", "--freq", "474000000"};
  for (int freq = 482; freq < 562; freq += 8) {
    network = joined({network, {"--mux", std::to_string(freq) + "000000=" + folder.file("empty.ts")}});
    arguments = joined({arguments, {"--freq", std::to_string(freq) + "000000"}});
  }
  const Command_result result = scan(network, arguments);
  EXPECT_THAT(
      result.out,
      AllOf(HasSubstr("474.000 MHz        0  DVB-T       78 %  98 %         8 #.# s  locked\n"),
            HasSubstr("554.000 MHz        -  -              -     -         -      -  not scanned: the time was up\n"),
            HasSubstr("\n1 of 11 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.")));
  EXPECT_THAT(result.err, ContainsRegex("\nkelvo: the time was up before [0-9]+ of 11 frequencies were scanned; what "
                                        "was found is kept\n$"));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "8");
}

TEST_F(Scan_choice, when_the_time_is_up_before_anything_was_found_it_failed) {
  EXPECT_THAT(
      scan({}, {"--for", "1s", "--band", "all"}),
      ends(1, ContainsRegex("not scanned: the time was up: [0-9]+ frequencies from [0-9.]+ MHz to 858.000 MHz\n"),
           ContainsRegex("\nkelvo: the time was up before [0-9]+ of 57 frequencies were scanned; nothing was "
                         "found\n$")));
}

// The sample network's NIT names all three of its multiplexes.
TEST_F(Scan_choice, announced_frequencies_are_followed) {
  Words network{"--time", "x10"};
  for (const std::string mhz : {"474", "498", "522"})
    network = joined({network, {"--mux", mhz + "000000=" + stream(mhz)}});
  const Command_result alone = scan(network, {"--freq", "498000000"});
  EXPECT_THAT(alone, ends(0, HasSubstr("\n1 of 1 frequency with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n")));

  const Command_result all = scan(network, {"--freq", "498000000", "--freq", "530000000", "--follow"});
  EXPECT_THAT(all.out,
              AllOf(ContainsRegex("474.000 MHz .*  locked; announced by 498.000 MHz\n"),
                    ContainsRegex("498.000 MHz .*  locked\n"),
                    ContainsRegex("522.000 MHz .*  locked; announced by 498.000 MHz\n"),
                    HasSubstr("\n3 of 4 frequencies with a multiplex, 24 services: 16 new, 0 back, 0 lost.\n")));
  EXPECT_THAT(all.err, AllOf(HasSubstr("[1/4] 498.000 MHz: "), HasSubstr("[2/4] 530.000 MHz: "),
                             HasSubstr("[3/4] 474.000 MHz: "), HasSubstr("[4/4] 522.000 MHz: ")));
  EXPECT_EQ(all.exit_code, 0);
}

// The second adapter has nothing to do until the first one has read a NIT.
// Pipes 0 and 1 of one frequency; the device takes pipe 0 when it is asked for none.
TEST_F(Scan_choice, pipes_that_were_found_once_are_scanned_again) {
  device_ = "mn88472";
  const Words air{
      "--time", "x8", "--mux", "498000000,plp=0=" + stream("498"), "--mux", "498000000,plp=1=" + stream("522")};
  const std::string found = "SELECT count(*) FROM kanalid WHERE row_status = 0 AND freq = 498000001";
  const std::string table = file("[one]\nDELIVERY_SYSTEM = DVBT2\nFREQUENCY = 498000000\nSTREAM_ID = 1\n");
  EXPECT_THAT(scan(air, {"--table", table}), ends(0, _, HasSubstr("[1/1] 498.000 MHz: locked, 8 services")));
  run_sql(db_, "UPDATE kanalid SET row_status = 2;");
  ASSERT_EQ(stored(found), "0");
  const Command_result again = scan(air, {"--freq", "498000000"});
  EXPECT_THAT(again, ends(0, HasSubstr("2 of 2 frequencies with a multiplex"),
                          AllOf(HasSubstr("[1/2] 498.000 MHz: locked, 8 services"),
                                HasSubstr("[2/2] 498.000 MHz: locked, 8 services"))));
  EXPECT_EQ(stored(found), "8");
  // One that the table names itself is scanned once.
  EXPECT_THAT(scan(air, {"--table", table}), ends(0, HasSubstr("1 of 1 frequenc"), _));
  // Where nothing is on air, nobody waits for pipes.
  EXPECT_THAT(scan({"--time", "x20"}, {"--freq", "498000000"}), ends(1, _, Not(HasSubstr("/2]"))));
}

TEST_F(Scan_choice, adapters_share_what_is_announced) {
  Words network{"--time", "x10"};
  for (const char* number : {"0", "1"}) {
    network = joined({network, {"--adapter", number}});
    for (const std::string mhz : {"474", "498", "522"})
      network = joined({network, {"--mux", mhz + "000000=" + stream(mhz)}});
  }
  const Command_result result = scan(network, {"--adapter", "0", "--adapter", "1", "--freq", "498000000", "--follow"});
  EXPECT_THAT(result, ends(0, AllOf(HasSubstr("MHz        0  "), HasSubstr("MHz        1  "),
                                    HasSubstr("\n3 of 3 frequencies with a multiplex, 24 services: 24 new, "))));
}

TEST_F(Scan_choice, the_better_of_two_receptions_is_kept) {
  const Words network{"--time",   "x10",
                      "--mux",    "474000000=" + stream("474"),
                      "--mux",    "522000000=" + stream("474"),
                      "--signal", "474000000:strength=0x6464"};
  const Words both{"--freq", "474000000", "--freq", "522000000"};
  EXPECT_THAT(
      scan(network, both),
      ends(
          0,
          AllOf(
              HasSubstr(
                  "474.000 MHz        0  DVB-T       39 %  98 %         8 #.# s  locked; same multiplex as 522.000 MHz, weaker\n"
                  "522.000 MHz        0  DVB-T       78 %  98 %         8 #.# s  locked\n"),
              HasSubstr("\n2 of 2 frequencies with a multiplex, 8 services: 8 new, 0 back, 0 lost.\n"),
              Not(HasSubstr("474.000 MHz\n")))));
  EXPECT_EQ(stored("SELECT group_concat(DISTINCT freq) FROM kanalid WHERE scan_state = 1;"), "522000000");
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "8");
  const std::string numbers = stored("SELECT group_concat(channel) FROM kanalid WHERE scan_state = 1;");

  // Each is there once for those who name it, and its guide is collected once.
  EXPECT_THAT(run(network, {"epg", "update", "--for", "20s"}),
              ends(0, AllOf(HasSubstr("522.000 MHz"), Not(HasSubstr("474.000 MHz")))));
  EXPECT_THAT(run(network, {"epg", "--channel", "Kuldnokk 1"}), ends(0, _)) << "not two of them";

  // Once more: nothing changes, and nothing is new.
  EXPECT_THAT(scan(network, both),
              ends(0, HasSubstr("\n2 of 2 frequencies with a multiplex, 8 services: 0 new, 0 back, 0 lost.\n")));
  EXPECT_EQ(stored("SELECT group_concat(channel) FROM kanalid WHERE scan_state = 1;"), numbers);

  // The better one is gone: the other one is there again.
  const Words rest{"--time", "x10", "--mux", "474000000=" + stream("474")};
  EXPECT_THAT(
      scan(rest, both),
      ends(0,
           AllOf(HasSubstr(
                     "522.000 MHz        0  -              -     -         - #.# s  no signal; moved to 474.000 MHz\n"),
                 HasSubstr(": 0 new, 8 back, 8 lost.\n"))));
  EXPECT_EQ(stored("SELECT group_concat(DISTINCT freq) FROM kanalid WHERE scan_state = 1;"), "474000000");
}

TEST_F(Scan_choice, a_multiplex_that_has_gone_is_told_and_kept) {
  ASSERT_EQ(scan({"--time", "x10", "--mux", "522000000=" + stream("522")}, {"--freq", "522000000"}).exit_code, 0);
  EXPECT_THAT(
      scan({"--time", "x10"}, {"--freq", "522000000"}),
      ends(1, HasSubstr("522.000 MHz        0  -              -    -         - #.# s  no signal; had 8 services\n")));
  EXPECT_EQ(stored("SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "8");
}

}  // namespace
