// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"

using support::run_program;
using support::Softdvb_run;

static Softdvb_run softdvb(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), support::softdvb_launcher());
  return run_program(arguments);
}

struct Wrong {
  std::vector<std::string> arguments;
  const char* message;
};

void PrintTo(const Wrong& wrong, std::ostream* out) {
  *out << wrong.message;
}

class Usage : public testing::TestWithParam<Wrong> {};

TEST_P(Usage, is_told_in_one_line_and_nothing_runs) {
  std::vector<std::string> arguments = GetParam().arguments;
  arguments.insert(arguments.end(), {"--", "echo", "ran"});
  const Softdvb_run run = softdvb(arguments);
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, std::string("softdvb: ") + GetParam().message + "\n");
}

static const Wrong WRONG[] = {
    {{"--nonsense"}, "The following argument was not expected: --nonsense"},
    {{"--mux", "506000000"}, "mux: '506000000' is not of the form FREQ=FILE"},
    {{"--mux", "506000000="}, "mux: '506000000=' is not of the form FREQ=FILE"},
    {{"--mux", "UHF=a.ts"}, "mux: frequency: 'UHF' is not a number from 0 to 4294967295"},
    {{"--mux", "0=a.ts"}, "mux: the frequency cannot be 0"},
    {{"--adapter", "-1"}, "adapter: '-1' is not a number from 0 to 99"},
    {{"--adapter", "100"}, "adapter: '100' is not a number from 0 to 99"},
    {{"--pace", "quick", "--mux", "1=" SOFTDVB_STREAMS "/counting.188.ts"},
     "pace: 'quick' is none of pcr, xFACTOR, fast, manual and no bit rate"},
    {{"--pace", "x0", "--mux", "1=" SOFTDVB_STREAMS "/counting.188.ts"}, "pace: '0' is not a positive number"},
    {{"--start", "soon"}, "start: 'soon' is none of tune, air, filter"},
    {{"--offset", "-1"}, "offset: '-1' is not a positive number"},
    {{"--offset", "5", "--mux", "1=" SOFTDVB_STREAMS "/counting.188.ts"},
     "offset: " SOFTDVB_STREAMS "/counting.188.ts lasts only 2000 ms"},
    {{"--type", "dvb"}, "type: 'dvb' is none of ofdm, qpsk, qam, atsc"},
    {{"--frequency-range", "5"}, "frequency-range: '5' is not of the form MIN-MAX"},
    {{"--frequency-range", "6-5"}, "frequency-range: the lower limit is above the upper one"},
    {{"--delivery", "dvbx"}, "delivery: 'dvbx' is neither dvbt nor dvbt2"},
    {{"--without", "status"}, "without: 'status' is none of strength, snr, ber, ucblocks"},
    {{"--signal", "506000000:strength"},
     "signal: '506000000:strength' is not of the form FREQ:READING=VALUE[@SECONDS]"},
    {{"--signal", "506000000:level=5"}, "signal: 'level' is none of status, strength, snr, ber, ucblocks"},
    {{"--signal", "*:strength=65536"}, "strength: '65536' is not a number from 0 to 65535"},
    {{"--section", "18"}, "section: '18' is not of the form PID[/TABLE]=KIND[@FIRST][*COUNT][+SECONDS]"},
    {{"--section", "8192=drop"}, "section: PID: '8192' is not a number from 0 to 8191"},
    {{"--section", "18/256=drop"}, "section: table: '256' is not a number from 0 to 255"},
    {{"--section", "18=lose"}, "section: 'lose' is none of drop, cut:BYTES, double, crc, silence"},
    {{"--section", "18=cut:0"}, "section: cut:0 leaves nothing; use drop"},
    {{"--fault", "open"}, "fault: 'open' is not of the form CALL[(GLOB)]=ERRNO[@FIRST][*COUNT]"},
    {{"--fault", "opne=EIO"}, "fault: 'opne' is no call that can be made to fail"},
    {{"--fault", "open=EWHAT"}, "fault: 'EWHAT' is no name of an error, such as EIO"},
    {{"--fault", "open=EIO*0"}, "fault: '*0' means no call at all"},
    {{"--time", "x0"}, "time: '0' is not a positive number"},
    {{"--time", "x99999"}, "time: the factor must be from 0.001 to 10000"},
    {{"--look-interval", "0"}, "look-interval: 0 ms is no interval"},
};

INSTANTIATE_TEST_SUITE_P(Wrong, Usage, testing::ValuesIn(WRONG));

TEST(Launcher, wants_a_command) {
  const Softdvb_run run = softdvb({});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "softdvb: no command given; write it after '--', see softdvb --help\n");
}

TEST(Launcher, files_that_cannot_be_used) {
  support::Temp_dir folder;
  support::write_file(folder.file("empty.ts"), "");
  support::write_file(folder.file("text.ts"), std::string(5000, 'x'));
  const std::string missing = folder.file("missing.ts");
  Softdvb_run run = softdvb({"--mux", "1=" + missing, "--", "echo", "ran"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "softdvb: " + missing + ": cannot be opened: No such file or directory\n");
  run = softdvb({"--mux", "1=" + folder.file("empty.ts"), "--", "true"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: " + folder.file("empty.ts") + ": the file is empty\n");
  run = softdvb({"--mux", "1=" + folder.file("text.ts"), "--", "true"});
  EXPECT_EQ(run.err, "softdvb: " + folder.file("text.ts") + ": no transport stream packets in it\n");
  run = softdvb({"--config", missing, "--", "true"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: " + missing + ": cannot be opened: No such file or directory\n");
  run = softdvb({"--log", folder.file("no/log"), "--", "true"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: " + folder.file("no/log") + ": cannot be written\n");
}

TEST(Launcher, a_command_that_cannot_be_run) {
  const Softdvb_run run = softdvb({"--", "/nonexistent/command"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: /nonexistent/command: cannot be run: No such file or directory\n");
}

TEST(Launcher, passes_on_exit_codes_and_signals) {
  EXPECT_EQ(softdvb({"--", "true"}).exit_code, 0);
  EXPECT_EQ(softdvb({"--", "sh", "-c", "exit 7"}).exit_code, 7);
  EXPECT_EQ(softdvb({"--", "sh", "-c", "kill -SEGV $$"}).exit_code, 128 + SIGSEGV);
}

TEST(Launcher, passes_on_a_signal_sent_to_it) {
  const Softdvb_run run = run_program(
      {"sh", "-c",
       support::softdvb_launcher() +
           " -- sh -c 'trap \"echo got; exit 3\" TERM; echo ready >$1; while :; do "
           "sleep 0.01; done' x \"$1\" & while [ ! -s \"$1\" ]; do sleep 0.01; done; kill $!; wait $!; echo $?",
       "x", support::Temp_dir().path() + ".ready"});
  EXPECT_EQ(run.out, "got\n3\n") << run.err;
}

TEST(Launcher, leaves_nothing_behind) {
  support::Temp_dir folder;
  const Softdvb_run run = run_program({"env", "TMPDIR=" + folder.path(), support::softdvb_launcher(), "--", "sh", "-c",
                                       "echo x >/tmp/testsig; ls $TMPDIR | wc -l"});
  EXPECT_EQ(run.out, "1\n");
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  run_program({"env", "TMPDIR=" + folder.path(), support::softdvb_launcher(), "--keep", "--", "true"});
  EXPECT_FALSE(std::filesystem::is_empty(folder.path()));
}

TEST(Launcher, keeps_the_root_it_was_given) {
  support::Temp_dir folder;
  const std::string root = folder.file("box");
  EXPECT_EQ(softdvb({"--root", root, "--", "sh", "-c", "echo text >/dvbfiles/a"}).exit_code, 0);
  EXPECT_EQ(support::read_file(root + "/dvbfiles/a"), "text\n");
  EXPECT_EQ(softdvb({"--root", root, "--", "cat", "/dvbfiles/a"}).out, "text\n");
}

TEST(Launcher, works_inside_itself) {
  const std::string stream = "506000000=" SOFTDVB_STREAMS "/counting.188.ts";
  const Softdvb_run run = softdvb({"--adapter", "1", "--", support::softdvb_launcher(), "--mux", stream, "--once",
                                   "--pace", "fast", "--", SOFTDVB_LISTEN, "tune=506000000", "count=2"});
  EXPECT_EQ(run.out, "0 1 ") << run.err;
}

// What a text says of options: name with dashes and form of the value, "" where there is none.
using Options = std::map<std::string, std::string>;

static Options matches(const std::string& text, const std::string& pattern) {
  Options options;
  const std::regex expression(pattern, std::regex::multiline);
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
    options[at->str(1)] = at->str(2);
  return options;
}

static Options options_of_help() {
  Options options = matches(softdvb({"--help"}).out, "^  (?:-h,)?(--[a-z-]+)(?: ([^ \n]+))?");
  options["--help"] = options["--version"] = "";  // the first line of their help stands beside them
  return options;
}

static Options options_of_manual() {
  std::string text = support::read_file(DOCUMENTS "/man/softdvb.1");
  text.erase(std::remove(text.begin(), text.end(), '\\'), text.end());
  return matches(text, "^\\.TP\n\\.BR? (--[a-z-]+)(?: \" \" fI(.*)fR)?$");
}

TEST(Launcher, help_lists_every_option) {
  std::string names;
  for (const auto& [name, form] : options_of_help())
    names += name + " ";
  EXPECT_EQ(names,
            "--adapter --config --control --dead-reopen --delivery --fault --frequency-range --grace --help --keep "
            "--lock-delay --log --look-interval --loop --mux --now --offset --once --pace --root --section --signal "
            "--start --stop-after --time --tuned --type --version --without ");
}

TEST(Launcher, the_manual_describes_every_option_with_the_form_of_its_value) {
  const Options help = options_of_help();
  Options manual = options_of_manual();
  for (auto& [name, form] : manual) {  // the manual also shows what may follow
    if (const auto at = help.find(name); at != help.end() && form.rfind(at->second + "[", 0) == 0)
      form = at->second;
  }
  EXPECT_EQ(manual, help);
}

TEST(Launcher, the_page_describes_every_option) {
  const std::string page = support::read_file(DOCUMENTS "/softdvb.md");
  Options options = options_of_help();
  options.erase("--help");
  options.erase("--version");
  for (const auto& [name, form] : options)
    EXPECT_NE(page.find("`" + name + (form.empty() ? "`" : " ")), std::string::npos) << name;
}

class Config_file : public testing::Test {
 protected:
  support::Temp_dir folder;

  Softdvb_run with(const std::string& text, std::vector<std::string> command) {
    support::write_file(folder.file("softdvb.conf"), text);
    command.insert(command.begin(), {"--config", folder.file("softdvb.conf"), "--"});
    return softdvb(command);
  }
};

TEST_F(Config_file, says_the_same_as_options) {
  std::filesystem::create_symlink(SOFTDVB_STREAMS "/counting.188.ts", folder.file("relative.ts"));
  const Softdvb_run run = with(
      "# A comment\n\n time = x20\n[adapter 0]\nmux = 506000000=relative.ts\nonce\npace=fast\n"
      "section = 0x100=drop@2\n[adapter 3]\ntype = qam\n",
      {SOFTDVB_LISTEN, "tune=506000000", "wait=3000"});
  EXPECT_EQ(run.out, "0 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 ") << run.err;
}

TEST_F(Config_file, errors_name_the_line) {
  const std::string name = folder.file("softdvb.conf");
  const auto error_of = [&](const std::string& text) {
    const Softdvb_run run = with(text, {"echo", "ran"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    return run.err;
  };
  EXPECT_EQ(error_of("once\ncolour = red\n"), "softdvb: " + name + ", line 2: there is no key 'colour'\n");
  EXPECT_EQ(error_of("mux\n"), "softdvb: " + name + ", line 1: mux: a value is missing\n");
  EXPECT_EQ(error_of("once = 5\n"), "softdvb: " + name + ", line 1: once: takes no value\n");
  EXPECT_EQ(error_of("[tuner 1]\n"), "softdvb: " + name + ", line 1: '[tuner 1]' is not of the form [adapter N]\n");
  EXPECT_EQ(error_of("\n\ntime = fast\n"), "softdvb: " + name + ", line 3: time: 'fast' is not a positive number\n");
}

TEST(Control, outside_of_a_command_is_an_error) {
  const Softdvb_run run = softdvb({"--control", "adapter 0 strength = 5"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: --control: no adapters are running here; use it in a command that softdvb started\n");
}

TEST(Control, changes_a_running_adapter_from_the_shell) {
  const std::string launcher = support::softdvb_launcher();
  const Softdvb_run run =
      softdvb({"--tuned", "506000000", "--mux", "506000000=" SOFTDVB_STREAMS "/counting.188.ts", "--", "sh", "-c",
               launcher + " --control 'adapter 0 strength 506000000 = 0x77' && " + SOFTDVB_READINGS "; " + launcher +
                   " --control 'adapter 0 colour = 5'; " + launcher + " --control 'adapter 9 ber = 5'"});
  EXPECT_EQ(run.out, "strength 77\n");
  EXPECT_EQ(run.err,
            "softdvb: control: 'adapter 0 colour = 5' is not understood\nsoftdvb: control: there is no adapter 9\n");
}

TEST(Control, lines_written_to_the_control_file_count_soon) {
  const Softdvb_run run =
      softdvb({"--tuned", "506000000", "--mux", "506000000=" SOFTDVB_STREAMS "/counting.188.ts", "--", "sh", "-c",
               "echo 'adapter 0 strength = 0x66' >$SOFTDVB_CONTROL; for i in 1 2 3 4 5 6 7 8 "
               "9 10; do r=$(" SOFTDVB_READINGS "); [ \"$r\" = 'strength 66' ] && break; sleep 0.1; "
               "done; echo $r"});
  EXPECT_EQ(run.out, "strength 66\n") << run.err;
}
