// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

// Runs of the command as a whole: EXPECT_EQ(run_command(...), fails("--lang ,: not a list of languages")).

using support::Command_result;
using support::run_command;
using Words = support::Texts;

Words joined(std::initializer_list<Words> parts);

// What a run gives that ends well, and one that comes to nothing: it prints one line, "kelvo: " before it.
Command_result prints(const std::string& out, const std::string& err = "");
Command_result fails(const std::string& line, int exit_code = 1);
// What becomes of a command whose output nobody reads from the start: its exit code is what is printed.
Command_result run_for_nobody(const Words& command);
// Any end: EXPECT_THAT(run_command(...), ends(130, HasSubstr("..."), "kelvo: interrupted\n")).
testing::Matcher<const Command_result&> ends(int exit_code, const testing::Matcher<std::string>& out,
                                             const testing::Matcher<std::string>& err = testing::_);

// The lines of what `kelvo watch` prints, at least one, without the time of day that each begins with.
inline const std::string TIME_OF_DAY = "[0-2][0-9]:[0-5][0-9]:[0-5][0-9] ";
Words timed_lines_of(const std::string& text);

// Runs SQL on a database file; fails the test when it cannot.
void run_sql(const std::string& file, const std::string& sql);
// The first column of the first row.
std::string value(const std::string& file, const std::string& sql);
// A channel database made by the library, then filled by hand with what lists must cope with: channels with and without
// number, of every state, scrambled ones, streams of every kind, and names that mean harm.
void make_prepared_db(const std::string& file);
// The further tables that a guide has that was collected whole; and, in them, on the first channel, a film with all
// that a guide can say of one, and a programme with a title in the style of a formula.
void add_event_tables(const std::string& guide);
void add_rich_events(const std::string& guide);
// A database that has no room left but for a few of the pages that the library allows a file.
void fill_up(const std::string& file);

// What is said of a device, behind its name.
inline const std::string NO_DEVICE = ": no such device; is the adapter plugged in?";
inline const std::string BUSY_DEVICE = ": in use by another program; stop it first";
inline const std::string DENIED_DEVICE = ": permission denied; is the user in group video?";
// And of a database.
inline const std::string NO_DATABASE = ": not a database; name another file with --db";
inline const std::string DAMAGED = ": the database is damaged; 'kelvo check --repair' mends it";
inline const std::string MISSING = ": No such file or directory; make it with 'kelvo scan'";

// The output of `kelvo epg update` without its lines about the carousel of each multiplex, whose times differ each
// time.
inline Command_result without_carousels(Command_result result) {
  static const std::regex lines(
      "\n([0-9.]+ MHz: ((what is )?complete (was )?after [0-9.]+ m?s; )?the slowest table came every [0-9.]+ m?s\n)+");
  result.out = std::regex_replace(result.out, lines, "", std::regex_constants::format_first_only);
  return result;
}

// A folder of its own for channels and guide, and runs under the software adapter.
class Command_fixture : public testing::Test {
 protected:
  // `kelvo COMMAND... --db DB` under softdvb with these options; with a script, from a shell whose "$@" it is. Adapters
  // without --device are of device_.
  Words kelvo(const Words& options, const Words& command, const std::string& script = "") const;
  Command_result run(const Words& options, const Words& command, const std::string& script = "") const;
  static Command_result ended_by(int signal, support::Running_command& running);
  // Stores a channel, number 77, beside number 1 that is not sent any more.
  void add_lost_service(int pmt_pid = 0) const;
  // "ok" when both files are sound.
  std::string integrity() const;
  // Nothing was made, or nothing was left.
  bool folder_is_empty() const { return std::filesystem::is_empty(dir_.path()); }

  std::string device_ = "unkind";  // what the command works with there, it does with most
  support::Temp_dir dir_;
  std::string db_ = dir_.file("dvb.db");
  std::string guide_ = dir_.file("dvb_epg.db");
};
