// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

#define COUNTING SOFTDVB_STREAMS "/counting.188.ts"

using support::run_program;
using support::Softdvb_run;
using support::Texts;

static Softdvb_run softdvb(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), support::softdvb_launcher());
  return run_program(arguments);
}

// Exit code and message of a launcher that does not run its command.
static std::string failure(std::vector<std::string> options) {
  options.insert(options.end(), {"--", "echo", "ran"});
  const Softdvb_run run = softdvb(options);
  EXPECT_EQ(run.out, "");
  return std::to_string(run.exit_code) + ": " + run.err;
}

struct Wrong {
  std::vector<std::string> arguments;
  std::string message;
};

static const Wrong WRONG[] = {
    {{"--nonsense"}, "The following argument was not expected: --nonsense"},
    {{"--mux", "506000000"}, "mux: '506000000' is not of the form FREQ[,system=dvbt2][,plp=N]=FILE"},
    {{"--mux", "506000000="}, "mux: '506000000=' is not of the form FREQ[,system=dvbt2][,plp=N]=FILE"},
    {{"--mux", "UHF=a.ts"}, "mux: frequency: 'UHF' is not a number from 0 to 4294967295"},
    {{"--mux", "0=a.ts"}, "mux: the frequency cannot be 0"},
    {{"--mux", "1,plp"}, "mux: '1,plp' is not of the form FREQ[,system=dvbt2][,plp=N]=FILE"},
    {{"--mux", "1,colour=red=a.ts"}, "mux: 'colour' is neither system nor plp"},
    {{"--mux", "1,system=dvbx=" COUNTING}, "mux: system: 'dvbx' is neither dvbt nor dvbt2"},
    {{"--mux", "1,plp=256=a.ts"}, "mux: plp: '256' is not a number from 0 to 255"},
    {{"--mux", "1,system=dvbt,plp=1=a.ts"}, "mux: plp: only dvbt2 has pipes"},
    {{"--device", "stick"}, "device: there is no 'stick'; softdvb --list-devices shows all"},
    {{"--device", "rtl2832+"}, "device: there is no ''; softdvb --list-devices shows all"},
    {{"--device", "box+box+box"}, "device: an adapter has 2 frontends at most"},
    {{"--device", "rtl2832", "--type", "qam"}, "type: device rtl2832 is ofdm; only box can be another type"},
    {{"--device", "rtl2832", "--firmware", "missing"}, "firmware: device rtl2832 needs none"},
    {{"--firmware", "old"}, "firmware: 'old' is neither present nor missing"},
    {{"--filters", "0"}, "filters: an adapter has one at least"},
    {{"--filters", "257"}, "filters: '257' is not a number from 0 to 256"},
    {{"--frequency-offset", "-11000000"}, "frequency-offset: '11000000' is not a number from 0 to 10000000"},
    {{"--signal", "*:level=loud"}, "level: 'loud' is not a positive number"},
    {{"--signal", "*:cnr=1001"}, "cnr: '1001' is no number of decibels"},
    {{"--burst", "187"}, "burst: less than a packet of 188 bytes"},
    {{"--replug", "5"}, "replug: comes after an unplug"},
    {{"--unplug", "5", "--replug", "4"}, "replug: comes after an unplug"},
    {{"--lock-delay", "UHF=5"}, "lock-delay: frequency: 'UHF' is not a number from 0 to 4294967295"},
    {{"--weak", "UHF"}, "weak: frequency: 'UHF' is not a number from 0 to 4294967295"},
    {{"--adapter", "-1"}, "adapter: '-1' is not a number from 0 to 99"},
    {{"--adapter", "100"}, "adapter: '100' is not a number from 0 to 99"},
    {{"--pace", "quick", "--mux", "1=" COUNTING},
     "pace: 'quick' is none of pcr, xFACTOR, fast, manual and no bit rate"},
    {{"--pace", "x0", "--mux", "1=" COUNTING}, "pace: '0' is not a positive number"},
    {{"--start", "soon"}, "start: 'soon' is none of tune, air, filter"},
    {{"--offset", "-1"}, "offset: '-1' is not a positive number"},
    {{"--offset", "5", "--mux", "1=" COUNTING}, "offset: " SOFTDVB_STREAMS "/counting.188.ts lasts only 2000 ms"},
    {{"--type", "dvb"}, "type: 'dvb' is none of ofdm, qpsk, qam, atsc"},
    {{"--then", "506000000=5"}, "then: '506000000=5' is not of the form FREQ=SECONDS:FILE"},
    {{"--then", "506000000=5:a.ts"}, "then: no mux on 506000000 stands before it"},
    {{"--frequency-range", "5"}, "frequency-range: '5' is not of the form MIN-MAX"},
    {{"--frequency-range", "6-5"}, "frequency-range: the lower limit is above the upper one"},
    {{"--delivery", "dvbx"}, "delivery: 'dvbx' is neither dvbt nor dvbt2"},
    {{"--without", "status"}, "without: 'status' is none of strength, snr, ber, ucblocks"},
    {{"--signal", "506000000:strength"},
     "signal: '506000000:strength' is not of the form FREQ:READING=VALUE[@SECONDS]"},
    {{"--signal", "506000000:colour=5"},
     "signal: 'colour' is none of status, strength, snr, ber, ucblocks, level, cnr"},
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

TEST(Usage, is_told_in_one_line_and_nothing_runs) {
  for (const Wrong& c : WRONG)
    EXPECT_EQ(failure(c.arguments), "2: softdvb: " + c.message + "\n");
}

TEST(Launcher, wants_a_command) {
  const Softdvb_run run = softdvb({});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "softdvb: no command given; write it after '--', see softdvb --help\n");
}

TEST(Launcher, files_and_commands_that_cannot_be_used) {
  support::Temp_dir folder;
  const std::string empty = folder.file("empty.ts");
  const std::string text = folder.file("text.ts");
  const std::string missing = folder.file("missing.ts");
  const std::string log = folder.file("no/log");
  support::write_file(empty, "");
  support::write_file(text, std::string(5000, 'x'));
  const Wrong CASES[] = {
      {{"--mux", "1=" + missing}, missing + ": cannot be opened: No such file or directory"},
      {{"--mux", "1=" + empty}, empty + ": the file is empty"},
      {{"--mux", "1=" + text}, text + ": no transport stream packets in it"},
      {{"--config", missing}, missing + ": cannot be opened: No such file or directory"},
      {{"--log", log}, log + ": cannot be written"},
      {{"--", "/nonexistent/command"}, "/nonexistent/command: cannot be run: No such file or directory"}};
  for (const Wrong& c : CASES)
    EXPECT_EQ(failure(c.arguments), "1: softdvb: " + c.message + "\n");
}

TEST(Launcher, passes_on_exit_codes_and_signals) {
  const std::pair<const char*, int> CODES[] = {{"true", 0}, {"exit 7", 7}, {"kill -SEGV $$", 128 + SIGSEGV}};
  for (const auto& [script, code] : CODES)
    EXPECT_EQ(softdvb({"--", "sh", "-c", script}).exit_code, code) << script;
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
  const std::string stream = "506000000=" COUNTING;
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
  EXPECT_EQ(
      names,
      "--adapter --burst --busy --config --control --dead-reopen --delivery --device --fault --filters --firmware "
      "--frequency-offset --frequency-range --grace --help --keep --list-devices --lock-delay --log "
      "--look-interval --loop --mux --now --offset --once --pace --replug --root --section --signal --start --stop-after "
      "--then --time --tuned --type --unplug --version --weak --without ");
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

TEST(Launcher, takes_the_usual_device_from_the_environment) {
  const auto systems = [](const char* device, const Texts& options) {
    Texts command{"env", std::string("SOFTDVB_DEVICE=") + device, support::softdvb_launcher()};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {"--", SOFTDVB_PLAY, "reader: systems"});
    const Softdvb_run run = run_program(command);
    return run.out + run.err;
  };
  EXPECT_EQ(systems("unkind", {}), "reader: systems = T T2\n");
  EXPECT_EQ(systems("unkind", {"--device", "drxk"}), "reader: systems = C C/C T\n");
  EXPECT_EQ(systems("", {}), "reader: systems = T\n");
  EXPECT_EQ(systems("stick", {}), "softdvb: SOFTDVB_DEVICE: there is no 'stick'; softdvb --list-devices shows all\n");
}

class Config_file : public testing::Test {
 protected:
  support::Temp_dir folder;
  const std::string file = folder.file("softdvb.conf");
};

TEST_F(Config_file, says_the_same_as_options) {
  std::filesystem::create_symlink(COUNTING, folder.file("relative.ts"));
  support::write_file(file,
                      "# A comment\n\n time = x20\n[adapter 0]\nmux = 506000000=relative.ts\nonce\npace=fast\n"
                      "section = 0x100=drop@2\n[adapter 3]\ntype = qam\n");
  const Softdvb_run run = softdvb({"--config", file, "--", SOFTDVB_LISTEN, "tune=506000000", "wait=3000"});
  EXPECT_EQ(run.out, "0 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 ") << run.err;
}

TEST_F(Config_file, of_the_samples_is_right) {
  for (const char* stream : {"474.ts", "498.ts", "522.ts"})
    std::filesystem::create_symlink(COUNTING, folder.file(stream));
  std::filesystem::copy(SAMPLES "/receivers.conf", file);
  const Softdvb_run run = softdvb({"--config", file, "--", SOFTDVB_PLAY,
                                   "reader: systems, seek T 498000000, wait 1500, status, seek T2 498000000 = EINVAL"});
  EXPECT_EQ(run.out + run.err,
            "reader: systems = T, seek T 498000000, wait 1500, status = 1f, seek T2 498000000 = EINVAL\n");
}

TEST_F(Config_file, errors_name_the_line) {
  const Wrong CASES[] = {{{"once\ncolour = red\n"}, "2: there is no key 'colour'"},
                         {{"mux\n"}, "1: mux: a value is missing"},
                         {{"once = 5\n"}, "1: once: takes no value"},
                         {{"[tuner 1]\n"}, "1: '[tuner 1]' is not of the form [adapter N]"},
                         {{"\n\ntime = fast\n"}, "3: time: 'fast' is not a positive number"}};
  for (const Wrong& c : CASES) {
    support::write_file(file, c.arguments[0]);
    EXPECT_EQ(failure({"--config", file}), "2: softdvb: " + file + ", line " + c.message + "\n");
  }
}

// A shell's script beside a tuned adapter.
static Softdvb_run tuned(const std::string& script) {
  return softdvb({"--tuned", "506000000", "--mux", "506000000=" COUNTING, "--", "sh", "-c", script});
}

TEST(Control, outside_of_a_command_is_an_error) {
  const Softdvb_run run = softdvb({"--control", "adapter 0 strength = 5"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "softdvb: --control: no adapters are running here; use it in a command that softdvb started\n");
}

TEST(Control, changes_a_running_adapter_from_the_shell) {
  const std::string control = support::softdvb_launcher() + " --control ";
  const Softdvb_run run = tuned(control + "'adapter 0 strength 506000000 = 0x77' && " SOFTDVB_READINGS "; " + control +
                                "'adapter 0 colour = 5'; " + control + "'adapter 9 ber = 5'");
  EXPECT_EQ(run.out, "strength 77\n");
  EXPECT_EQ(run.err,
            "softdvb: control: 'adapter 0 colour = 5' is not understood\nsoftdvb: control: there is no adapter 9\n");
}

TEST(Control, lines_written_to_the_control_file_count_soon) {
  const Softdvb_run run = tuned(
      "echo 'adapter 0 strength = 0x66' >$SOFTDVB_CONTROL; for i in 1 2 3 4 5 6 7 8 9 10; do r=$(" SOFTDVB_READINGS
      "); [ \"$r\" = 'strength 66' ] && break; sleep 0.1; done; echo $r");
  EXPECT_EQ(run.out, "strength 66\n") << run.err;
}
