// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <kelvo/kelvo.h>

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"
#include "tools/prepared_db.h"

namespace {

using support::Command_result;
using support::run_command;

class Channels : public testing::Test {
 protected:
  Channels() { make_prepared_db(db_); }

  support::Temp_dir dir_;
  std::string db_ = dir_.file("dvb.db");
};

TEST_F(Channels, table_is_sorted_by_number_then_row) {
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db_});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(
      result.out,
      "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA             STATE       PIDS\n"
      "  3  Žluťoučký  HD TV  -         -        506.000 MHz  0x0B00 0x0100  lost        video 400, audio 401 ces, "
      "data 402\n"
      " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -              found       video 257, audio 258 est eng, "
      "audio 259 est, teletext 260 est, subtitles 261 est rus\n"
      " 12  a[2J b     HD TV  \xEF\xBF\xBD"
      "A        Võrk     650.166 MHz  yes            timed out   -\n"
      "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -              found       audio 300\n"
      "  -  -          data   Meedia    Võrk     650.166 MHz  -              no streams  -\n");
}

TEST_F(Channels, json_tells_everything) {
  run_sql(db_, "DELETE FROM kanalid WHERE channel IN (2, 4);");
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db_, "--format", "json"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, support::read_file(KELVO_TEST_DATA "/channels.json"));
}

TEST_F(Channels, is_the_same_in_every_locale) {
  const Command_result expected = run_command({KELVO_COMMAND, "channels", "--db", db_});
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db_}, {{"LC_ALL", "C"}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, expected.out);
}

TEST_F(Channels, hostile_names_do_not_reach_a_terminal) {
  const Command_result result = support::run_on_terminal({KELVO_COMMAND, "channels", "--db", db_}, {}, 400);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("a[2J b"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find('\x1B'), std::string::npos) << result.out;
}

TEST_F(Channels, long_lists_of_pids_are_wrapped_on_a_terminal) {
  const Command_result result = support::run_on_terminal({KELVO_COMMAND, "channels", "--db", db_}, {}, 120);
  EXPECT_EQ(result.exit_code, 0);
  size_t begin = 0;
  for (size_t end = 0; (end = result.out.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
    EXPECT_LE(end - begin, 125U) << result.out.substr(begin, end - begin);  // Some letters take two bytes.
  }
}

TEST_F(Channels, leaves_the_database_as_it_is) {
  const std::string before = support::read_file(db_);
  EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db_}).exit_code, 0);
  EXPECT_EQ(support::read_file(db_), before);
}

TEST_F(Channels, an_empty_database_is_no_error) {
  const std::string db = dir_.file("empty.db");
  (void)support::stderr_of([&db] { const Sdbl made(db.c_str()); });
  Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "No channels in " + db + " yet; 'kelvo scan' finds them.\n");

  result = run_command({KELVO_COMMAND, "channels", "--db", db, "--format", "json"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "[]\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Channels, a_named_database_must_exist) {
  const std::string db = dir_.file("missing.db");
  const Command_result result = run_command({KELVO_COMMAND, "channels", "--db", db});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "kelvo: " + db + ": No such file or directory; make it with 'kelvo scan'\n");
  EXPECT_FALSE(std::filesystem::exists(db));
}

TEST_F(Channels, the_default_database_is_made_when_missing) {
  const std::string data = dir_.file("data");
  const Command_result result = run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "No channels in " + data + "/kelvo/dvb.db yet; 'kelvo scan' finds them.\n");
  EXPECT_TRUE(std::filesystem::exists(data + "/kelvo/dvb.db"));
  EXPECT_TRUE(std::filesystem::exists(data + "/kelvo/dvb_epg.db"));
}

TEST_F(Channels, the_default_database_is_below_home_without_a_usable_data_folder) {
  for (const char* data : {"", "relative"}) {
    const std::string home = dir_.file(std::string("home") + data);
    const Command_result result = run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}, {"HOME", home}});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_TRUE(std::filesystem::exists(home + "/.local/share/kelvo/dvb.db"));
  }
}

TEST_F(Channels, a_full_output_is_an_error) {
  const Command_result result =
      run_command({"sh", "-c", std::string(KELVO_COMMAND) + " channels --db " + db_ + " > /dev/full"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.err, "kelvo: cannot write the list: No space left on device\n");
}

}  // namespace
