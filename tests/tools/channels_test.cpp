// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <kelvo/kelvo.h>

#include "tools/command_fixture.h"

namespace {

using std::filesystem::exists;
using testing::HasSubstr;
using testing::Not;

class Channels : public Command_fixture {
 protected:
  Channels() { make_prepared_db(db_); }

  Command_result channels(const Words& arguments = {}, const support::Environment& env = {}) const {
    return run_command(joined({{KELVO_COMMAND, "channels", "--db", db_}, arguments}), env);
  }
  Command_result on_terminal(int columns) const {
    return support::run_on_terminal({KELVO_COMMAND, "channels", "--db", db_}, {}, columns);
  }
};

TEST_F(Channels, table_is_sorted_by_number_then_row) {
  EXPECT_EQ(
      channels(),
      prints(
          "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA             STATE       PIDS\n"
          "  3  Žluťoučký  HD TV  -         -        506.000 MHz  0x0B00 0x0100  lost        video 400, audio 401 ces, "
          "data 402\n"
          " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -              found       video 257, audio 258 est "
          "eng, audio 259 est, teletext 260 est, subtitles 261 est rus\n"
          " 12  a[2J b     HD TV  \xEF\xBF\xBD"
          "A        Võrk     650.166 MHz  yes            timed out   -\n"
          "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -              found       audio 300\n"
          "  -  -          data   Meedia    Võrk     650.166 MHz  -              no streams  -\n"));
}

TEST_F(Channels, json_tells_everything) {
  run_sql(db_, "DELETE FROM kanalid WHERE channel IN (2, 4);");
  EXPECT_EQ(channels({"--format", "json"}), prints(support::read_file(KELVO_TEST_DATA "/channels.json")));
}

TEST_F(Channels, is_the_same_in_every_locale) {
  EXPECT_THAT(channels({}, {{"LC_ALL", "C"}}), ends(0, channels().out));
}

TEST_F(Channels, hostile_names_do_not_reach_a_terminal) {
  EXPECT_THAT(on_terminal(400), ends(0, AllOf(HasSubstr("a[2J b"), Not(HasSubstr("\x1B")))));
}

TEST_F(Channels, long_lists_of_pids_are_wrapped_on_a_terminal) {
  const Command_result result = on_terminal(120);
  EXPECT_EQ(result.exit_code, 0);
  for (const std::string& line : support::lines_of(result.out))
    EXPECT_LE(line.size(), 125U + 1) << line;  // Some letters take two bytes, and a carriage return is among them.
}

TEST_F(Channels, leaves_the_database_as_it_is) {
  const std::string before = support::read_file(db_);
  EXPECT_EQ(channels().exit_code, 0);
  EXPECT_EQ(support::read_file(db_), before);
}

TEST_F(Channels, an_empty_database_is_no_error) {
  db_ = dir_.file("empty.db");
  (void)support::stderr_of([this] { const Sdbl made(db_.c_str()); });
  EXPECT_EQ(channels(), prints("", "No channels in " + db_ + " yet; 'kelvo scan' finds them.\n"));
  EXPECT_EQ(channels({"--format", "json"}), prints("[]\n"));
}

TEST_F(Channels, a_named_database_must_exist) {
  db_ = dir_.file("missing.db");
  EXPECT_EQ(channels(), fails(db_ + MISSING));
  EXPECT_FALSE(exists(db_));
}

TEST_F(Channels, the_default_database_is_made_when_missing) {
  const std::string data = dir_.file("data");
  EXPECT_THAT(run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}}),
              ends(0, testing::_, "No channels in " + data + "/kelvo/dvb.db yet; 'kelvo scan' finds them.\n"));
  EXPECT_TRUE(exists(data + "/kelvo/dvb.db"));
  EXPECT_TRUE(exists(data + "/kelvo/dvb_epg.db"));
}

TEST_F(Channels, the_default_database_is_below_home_without_a_usable_data_folder) {
  for (const std::string data : {"", "relative"}) {
    const std::string home = dir_.file("home" + data);
    EXPECT_EQ(run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}, {"HOME", home}}).exit_code, 0);
    EXPECT_TRUE(exists(home + "/.local/share/kelvo/dvb.db"));
  }
}

TEST_F(Channels, a_full_output_is_an_error) {
  EXPECT_EQ(run_command({"sh", "-c", KELVO_COMMAND " channels --db " + db_ + " > /dev/full"}),
            fails("cannot write the list: No space left on device"));
}

}  // namespace
