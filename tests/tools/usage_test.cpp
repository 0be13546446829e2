// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/command_fixture.h"

namespace {

using support::read_file;
using testing::HasSubstr;

// Each is one line and exit code 2, and nothing is made.
void expect_usage(const std::vector<std::pair<Words, std::string>>& cases) {
  for (const auto& [arguments, err] : cases) {
    SCOPED_TRACE(err);
    const support::Temp_dir dir;
    EXPECT_EQ(run_command(joined({{KELVO_COMMAND}, arguments}), {{"XDG_DATA_HOME", dir.path()}}), fails(err, 2));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "something was made";
  }
}

const std::string RANGE = " is out of range, 30 to 1000 MHz; 474M is 474 MHz";
const std::string NO_FREQUENCY = " is no frequency; give Hz, as 474000000, or MHz, as 474M or 474.5M";
const std::string NO_EXTENSION = ": the file name needs an extension, such as dvb.db";

TEST(Usage, wrong_arguments) {
  const std::string help = " (see 'kelvo scan --help')";
  expect_usage({
      {{}, "A subcommand is required (see 'kelvo --help')"},
      {{"frobnicate"}, "no command 'frobnicate' (see 'kelvo --help')"},
      {{"--frobnicate"}, "no option '--frobnicate' (see 'kelvo --help')"},
      {{"\x1B[2Jevil"}, "no command '[2Jevil' (see 'kelvo --help')"},
      {{"scan", "extra"}, "The following argument was not expected: extra" + help},
      {{"scan", "--freq", "506"}, "--freq: 506" + RANGE + help},
      {{"scan", "--freq", "29.9M"}, "--freq: 29.9M" + RANGE + help},
      {{"scan", "--freq", "1000000001"}, "--freq: 1000000001" + RANGE + help},
      {{"scan", "--freq", "99999999999999999999"}, "--freq: 99999999999999999999" + RANGE + help},
      {{"scan", "--freq", "506000000x"}, "--freq: \"506000000x\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", "inf"}, "--freq: \"inf\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", "-506M"}, "--freq: \"-506M\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", "0x1E28E980"}, "--freq: \"0x1E28E980\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", "474,5M"}, "--freq: \"474,5M\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", ""}, "--freq: \"\"" + NO_FREQUENCY + help},
      {{"scan", "--freq", "506000000", "--band", "uhf"}, "--freq excludes --band" + help},
      {{"scan", "--country", "DE", "--band", "uhf"}, "--band excludes --country" + help},
      {{"scan", "--freq", "506000000", "--country", "DE"}, "--freq excludes --country" + help},
      {{"scan", "--table", "de-Berlin", "--country", "DE"}, "--country excludes --table" + help},
      {{"scan", "--table", "de-Berlin", "--freq", "506000000"}, "--freq excludes --table" + help},
      {{"scan", "--band", "c"}, "--band: c not in {uhf,vhf,all}" + help},
      {{"scan", "--adapter", "4"}, "--adapter: Value 4 not in range 0 to 3" + help},
      {{"scan", "--adapter", "-1"}, "--adapter: Value -1 not in range 0 to 3" + help},
      {{"scan", "--charset", "latin"}, "--charset: \"latin\" is no character table; \"iconv --list\" shows all" + help},
      {{"scan", "--charset", "UTF-8//IGNORE"},
       "--charset: \"UTF-8//IGNORE\" is no character table; \"iconv --list\" shows all" + help},
      {{"scan", "--charset", ""}, "--charset: \"\" is no character table; \"iconv --list\" shows all" + help},
      {{"scan", "--charset", "UTF-8", "--profile", "box"},
       "--charset: not with --profile box, which reads such texts as ISO 6937"},
      {{"scan", "--other", "--profile", "box"},
       "--other: not with --profile box, which reads what is sent about its own multiplex"},
      {{"scan", "--db", "noextension"}, "--db noextension" + NO_EXTENSION},
      {{"scan", "--db", "a.b/noextension"}, "--db a.b/noextension" + NO_EXTENSION},
      {{"scan", "--db", "folder.d/"}, "--db folder.d/" + NO_EXTENSION},
      {{"scan", "--db", std::string(4100, 'x') + ".db"}, "--db: the path is too long"},
      {{"check", "--db", "noextension"}, "--db noextension" + NO_EXTENSION},
      {{"check", "extra"}, "The following argument was not expected: extra (see 'kelvo check --help')"},
      {{"channels", "--format", "xml"},
       "--format: xml not in {table,vdr,dvbv5,zap,m3u,xspf,csv,json} (see 'kelvo channels --help')"},
  });
}

TEST(Usage, wrong_arguments_of_epg_update) {
  std::vector<std::pair<Words, std::string>> times;
  for (const std::string time : {"0s", "0h0m", "-1s", "10", "1x", "", "s", "m1", " 5s", "5 s", "5S", "1.5h", "1h30",
                                 "169h", "604801s", "99999999999999999999s", "18446744073709551617s", "4294967297s"})
    times.push_back(
        {{"epg", "update", "--for", time}, "--for " + time + ": not a time; give for example 90s, 10m or 1h"});
  expect_usage(times);
  const std::string help = " (see 'kelvo epg update --help')";
  expect_usage({{{"epg", "update", "--freq", "506"}, "--freq: 506" + RANGE + help},
                {{"epg", "update", "--freq", "506000000", "--all"}, "--freq excludes --all" + help},
                {{"epg", "update", "--adapter", "4"}, "--adapter: Value 4 not in range 0 to 3" + help},
                {{"epg", "update", "extra"}, "The following argument was not expected: extra" + help},
                {{"epg", "update", "--db", "noextension"}, "--db noextension" + NO_EXTENSION}});
}

TEST(Help, names_every_command_and_shows_examples) {
  EXPECT_THAT(run_command({KELVO_COMMAND, "--help"}),
              ends(0, AllOf(HasSubstr("  scan "), HasSubstr("  channels ")), ""));
  for (const std::string command : {"scan", "channels", "check"})
    EXPECT_THAT(run_command({KELVO_COMMAND, command, "--help"}), ends(0, HasSubstr("Examples:\n  kelvo " + command)));
}

TEST(Version, is_one_line) {
  EXPECT_EQ(run_command({KELVO_COMMAND, "--version"}), prints("kelvo 2.5.0\n"));
}

TEST(Device, a_missing_one_is_an_error_and_nothing_is_made) {
  if (std::filesystem::exists("/dev/dvb/adapter3"))
    GTEST_SKIP() << "this machine has four DVB adapters";
  const support::Temp_dir dir;
  EXPECT_EQ(run_command({KELVO_COMMAND, "scan", "--adapter", "3"}, {{"XDG_DATA_HOME", dir.path()}}),
            fails("/dev/dvb/adapter3/frontend0" + NO_DEVICE));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// What `kelvo channels` says about files that are no channel database. Nothing may change.
TEST(Database, a_bad_one_is_refused_and_left_alone) {
  const support::Temp_dir dir;
  make_prepared_db(dir.file("damaged.db"));
  run_sql(dir.file("other.db"), "CREATE TABLE recipes (name text);");
  run_sql(dir.file("layout.db"), "CREATE TABLE kanalid (channel integer primary key, name text);");
  const std::string whole = read_file(dir.file("damaged.db"));
  const struct {
    const char* legend;
    std::string contents;
    std::string err;
  } cases[] = {
      {"a text file", std::string(2000, 'x'), NO_DATABASE},
      {"a file cut off in the middle", whole.substr(0, whole.size() / 2), DAMAGED},
      {"another program's database", read_file(dir.file("other.db")),
       ": not a channel database; name another file with --db"},
      {"another layout", read_file(dir.file("layout.db")),
       ": not a channel database (no such column: lcn); name another file with --db"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    const std::string db = dir.file("dvb.db");
    support::write_file(db, c.contents);
    EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db}), fails(db + c.err));
    EXPECT_EQ(read_file(db), c.contents);
  }
}

TEST(Database, a_folder_is_refused) {
  const support::Temp_dir dir;
  const std::string db = dir.file("dvb.db");
  std::filesystem::create_directory(db);
  EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db}),
            fails(db + ": not a file; name another one with --db"));
}

}  // namespace
