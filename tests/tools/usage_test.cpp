// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"
#include "tools/prepared_db.h"

namespace {

using support::Command_result;
using support::run_command;

struct Usage_case {
  std::vector<std::string> arguments;
  std::string err;
};

void PrintTo(const Usage_case& c, std::ostream* out) {
  *out << c.err;
}

class Usage : public testing::TestWithParam<Usage_case> {};

TEST_P(Usage, wrong_arguments_are_one_line_and_exit_2) {
  std::vector<std::string> argv{KELVO_COMMAND};
  argv.insert(argv.end(), GetParam().arguments.begin(), GetParam().arguments.end());
  const support::Temp_dir dir;
  const Command_result result = run_command(argv, {{"XDG_DATA_HOME", dir.path()}});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, GetParam().err + "\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "something was made";
}

const Usage_case CASES[] = {
    {{}, "kelvo: A subcommand is required (see 'kelvo --help')"},
    {{"frobnicate"}, "kelvo: no command 'frobnicate' (see 'kelvo --help')"},
    {{"--frobnicate"}, "kelvo: no option '--frobnicate' (see 'kelvo --help')"},
    {{"\x1B[2Jevil"}, "kelvo: no command '[2Jevil' (see 'kelvo --help')"},
    {{"scan", "extra"}, "kelvo: The following argument was not expected: extra (see 'kelvo scan --help')"},
    {{"scan", "--freq", "506"},
     "kelvo: --freq: Value 506 not in range 30000000 to 1000000000 (see 'kelvo scan --help')"},
    {{"scan", "--freq", "506000000x"},
     "kelvo: --freq: Value 506000000x not in range 30000000 to 1000000000 (see 'kelvo scan --help')"},
    {{"scan", "--freq", "99999999999999999999"},
     "kelvo: --freq: Value 99999999999999999999 not in range 30000000 to 1000000000 (see 'kelvo scan --help')"},
    {{"scan", "--freq", "506000000", "--band", "uhf"}, "kelvo: --freq excludes --band (see 'kelvo scan --help')"},
    {{"scan", "--band", "c"}, "kelvo: --band: c not in {uhf,vhf,all} (see 'kelvo scan --help')"},
    {{"scan", "--adapter", "4"}, "kelvo: --adapter: Value 4 not in range 0 to 3 (see 'kelvo scan --help')"},
    {{"scan", "--adapter", "-1"}, "kelvo: --adapter: Value -1 not in range 0 to 3 (see 'kelvo scan --help')"},
    {{"scan", "--db", "noextension"}, "kelvo: --db noextension: the file name needs an extension, such as dvb.db"},
    {{"scan", "--db", "a.b/noextension"},
     "kelvo: --db a.b/noextension: the file name needs an extension, such as dvb.db"},
    {{"scan", "--db", "folder.d/"}, "kelvo: --db folder.d/: the file name needs an extension, such as dvb.db"},
    {{"scan", "--db", std::string(4100, 'x') + ".db"}, "kelvo: --db: the path is too long"},
    {{"channels", "--format", "xml"}, "kelvo: --format: xml not in {table,json} (see 'kelvo channels --help')"},
};

INSTANTIATE_TEST_SUITE_P(arguments, Usage, testing::ValuesIn(CASES));

std::vector<Usage_case> epg_update_cases() {
  std::vector<Usage_case> out;
  for (const char* time : {"0s", "0h0m", "-1s", "10", "1x", "", "s", "m1", " 5s", "5 s", "5S", "1.5h", "1h30", "169h",
                           "604801s", "99999999999999999999s", "18446744073709551617s", "4294967297s"}) {
    out.push_back({{"epg", "update", "--for", time},
                   "kelvo: --for " + std::string(time) + ": not a time; give for example 90s, 10m or 1h"});
  }
  const std::string help = " (see 'kelvo epg update --help')";
  out.push_back(
      {{"epg", "update", "--freq", "506"}, "kelvo: --freq: Value 506 not in range 30000000 to 1000000000" + help});
  out.push_back({{"epg", "update", "--freq", "506000000", "--all"}, "kelvo: --freq excludes --all" + help});
  out.push_back({{"epg", "update", "--adapter", "4"}, "kelvo: --adapter: Value 4 not in range 0 to 3" + help});
  out.push_back({{"epg", "update", "extra"}, "kelvo: The following argument was not expected: extra" + help});
  out.push_back({{"epg", "update", "--db", "noextension"},
                 "kelvo: --db noextension: the file name needs an extension, such as dvb.db"});
  return out;
}

INSTANTIATE_TEST_SUITE_P(epg_update, Usage, testing::ValuesIn(epg_update_cases()));

TEST(Help, names_every_command_and_shows_examples) {
  Command_result result = run_command({KELVO_COMMAND, "--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("  scan "), std::string::npos);
  EXPECT_NE(result.out.find("  channels "), std::string::npos);
  for (const char* command : {"scan", "channels"}) {
    result = run_command({KELVO_COMMAND, command, "--help"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find(std::string("Examples:\n  kelvo ") + command), std::string::npos) << result.out;
  }
}

TEST(Version, is_one_line) {
  const Command_result result = run_command({KELVO_COMMAND, "--version"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "kelvo 2.5.0\n");
  EXPECT_EQ(result.err, "");
}

TEST(Device, a_missing_one_is_an_error_and_nothing_is_made) {
  if (std::filesystem::exists("/dev/dvb/adapter3")) {
    GTEST_SKIP() << "this machine has four DVB adapters";
  }
  const support::Temp_dir dir;
  const Command_result result = run_command({KELVO_COMMAND, "scan", "--adapter", "3"}, {{"XDG_DATA_HOME", dir.path()}});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: /dev/dvb/adapter3/frontend0: no such device; is the adapter plugged in?\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// What `kelvo channels` says about files that are no channel database. Nothing may change.
struct Database_case {
  const char* legend;
  std::string contents;
  std::string err;
};

void PrintTo(const Database_case& c, std::ostream* out) {
  *out << c.legend;
}

class Bad_database : public testing::TestWithParam<Database_case> {};

TEST_P(Bad_database, is_refused_and_left_alone) {
  const support::Temp_dir dir;
  const std::string db = dir.file("dvb.db");
  support::write_file(db, GetParam().contents);
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db});
  EXPECT_EQ(result.exit_code, 1) << GetParam().legend;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: " + db + GetParam().err + "\n");
  EXPECT_EQ(support::read_file(db), GetParam().contents);
}

std::string damaged_database() {
  const support::Temp_dir dir;
  make_prepared_db(dir.file("dvb.db"));
  std::string contents = support::read_file(dir.file("dvb.db"));
  contents.resize(contents.size() / 2);
  return contents;
}

std::string foreign_database() {
  const support::Temp_dir dir;
  run_sql(dir.file("other.db"), "CREATE TABLE recipes (name text);");
  return support::read_file(dir.file("other.db"));
}

std::string other_layout() {
  const support::Temp_dir dir;
  run_sql(dir.file("other.db"), "CREATE TABLE kanalid (channel integer primary key, name text);");
  return support::read_file(dir.file("other.db"));
}

const Database_case DATABASES[] = {
    {"a text file", std::string(2000, 'x'), ": not a database; name another file with --db"},
    {"a file cut off in the middle", damaged_database(),
     ": the database is damaged; restore a copy, or move it away and scan again"},
    {"another program's database", foreign_database(), ": not a channel database; name another file with --db"},
    {"another layout", other_layout(), ": not a channel database (no such column: lcn); name another file with --db"},
};

INSTANTIATE_TEST_SUITE_P(files, Bad_database, testing::ValuesIn(DATABASES));

TEST(Database, a_folder_is_refused) {
  const support::Temp_dir dir;
  std::filesystem::create_directory(dir.file("dvb.db"));
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", dir.file("dvb.db")});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: " + dir.file("dvb.db") + ": not a file; name another one with --db\n");
}

}  // namespace
