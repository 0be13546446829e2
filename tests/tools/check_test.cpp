// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"

namespace {

using support::read_file;
using support::write_file;
using testing::HasSubstr;
using testing::MatchesRegex;

const std::string MENDS = "kelvo: the database is damaged; 'kelvo check --repair' mends it\n";

// `kelvo check` on files that have gone bad in all the ways that they can.
class Check : public testing::Test {
 protected:
  Check() {
    make_prepared_db(db_);
    run_sql(db_,
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT INTO kanalid "
            "(freq, pat_prnr, serv_name) SELECT 700000000, i, 'Service' FROM n");
    run_sql(guide_,
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT INTO "
            "epglist (channel, start_epoch) SELECT i, 2059041600 FROM n");
    channels_ = value(db_, "SELECT count(*) FROM kanalid");
  }
  Command_result check(const Words& more = {}) const {
    return run_command(joined({{KELVO_COMMAND, "check", "--db", db_}, more}));
  }
  static std::string page(const std::string& file, const std::string& table) {
    return value(file, "SELECT max(pageno) FROM dbstat WHERE name = '" + table + "' AND pagetype = 'leaf'");
  }
  static void damage(const std::string& file, const std::string& table) {
    const size_t at = static_cast<size_t>(std::stoi(page(file, table)) - 1) * 4096;
    std::string bytes = read_file(file);
    bytes.replace(at, 4096, std::string(4096, '\xA5'));
    write_file(file, bytes);
  }
  // The damaged file that was set aside, and nothing but it.
  std::string aside(const std::string& file) const {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      const std::string name = entry.path();
      EXPECT_EQ(name.find(".kelvo-repair"), std::string::npos) << "left behind";
      if (name.starts_with(file + ".damaged-")) {
        EXPECT_EQ(found, "");
        found = name;
      }
    }
    return found;
  }

  support::Temp_dir dir_;
  const std::string db_ = dir_.file("dvb.db"), guide_ = dir_.file("dvb_epg.db"), copy_ = dir_.file("dvb.db.good");
  std::string channels_;
};

TEST_F(Check, sound_files_are_said_to_be_so_and_stay) {
  const std::string before = read_file(db_);
  const Command_result sound = prints(db_ + ": sound, " + channels_ + " channels\n" + guide_ + ": sound, 500 events\n");
  EXPECT_EQ(check(), sound);
  EXPECT_EQ(check({"--repair"}), sound);
  EXPECT_TRUE(read_file(db_) == before);
  EXPECT_EQ(aside(db_), "");
  std::filesystem::remove(guide_);
  EXPECT_EQ(check(), prints(db_ + ": sound, " + channels_ + " channels\n" + guide_ + ": not there yet\n"));
}

TEST_F(Check, damage_is_named_and_nothing_changed) {
  damage(db_, "kanalid_otsi_idx");
  const std::string before = read_file(db_);
  EXPECT_THAT(check(),
              ends(1, MatchesRegex("(" + db_ + ": damaged: [^\n]+\n)+" + guide_ + ": sound, 500 events\n"), MENDS));
  EXPECT_TRUE(read_file(db_) == before);
  EXPECT_EQ(run_command({KELVO_COMMAND, "scan", "--db", db_, "--freq", "506000000"}).exit_code, 1);
}

TEST_F(Check, a_damaged_channel_list_is_replaced_by_the_copy_and_kept) {
  std::filesystem::copy_file(db_, copy_);
  damage(db_, "kanalid");
  const std::string before = read_file(db_);
  EXPECT_THAT(check({"--repair"}), ends(0,
                                        HasSubstr(db_ + ": replaced by " + copy_ + ", " + channels_ + " channels\n" +
                                                  db_ + ": the damaged file is kept as " + db_ + ".damaged-"),
                                        ""));
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid"), channels_);
  EXPECT_TRUE(read_file(aside(db_)) == before);
  EXPECT_EQ(check().exit_code, 0);
}

// From both sides of the page that is gone.
TEST_F(Check, without_a_copy_the_rows_that_can_be_read_are_kept_under_their_numbers) {
  const std::string middle = value(db_,
                                   "SELECT pageno FROM dbstat WHERE name = 'kanalid' AND pagetype = 'leaf' ORDER "
                                   "BY path LIMIT 1 OFFSET 2");
  std::string bytes = read_file(db_);
  bytes.replace(static_cast<size_t>(std::stoi(middle) - 1) * 4096, 4096, std::string(4096, '\0'));
  write_file(db_, bytes);
  write_file(copy_, "no database");  // which does not count
  EXPECT_THAT(check({"--repair"}), ends(0, HasSubstr(db_ + ": made anew with what could be read, "), ""));
  EXPECT_GT(std::stoi(value(db_, "SELECT count(*) FROM kanalid")), std::stoi(channels_) / 2);
  EXPECT_LT(std::stoi(value(db_, "SELECT count(*) FROM kanalid")), std::stoi(channels_));
  EXPECT_EQ(value(db_, "SELECT pat_prnr FROM kanalid WHERE channel = (SELECT max(channel) FROM kanalid)"), "500");
  EXPECT_EQ(value(db_, "SELECT min(channel) FROM kanalid"), "1");
  EXPECT_EQ(check().exit_code, 0);
}

TEST_F(Check, a_damaged_guide_is_made_anew_whatever_it_was) {
  damage(guide_, "epg_ch_idx");
  EXPECT_THAT(check({"--repair"}),
              ends(0, HasSubstr(guide_ + ": made anew with what could be read, 500 events\n"), ""));
  std::filesystem::remove(aside(guide_));
  write_file(guide_, std::string(20000, 'x'));
  EXPECT_THAT(check({"--repair"}), ends(0, HasSubstr(guide_ + ": made anew with what could be read, 0 events\n"), ""));
  EXPECT_TRUE(read_file(aside(guide_)) == std::string(20000, 'x'));
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist_lang"), "0");
}

TEST_F(Check, a_channel_list_that_is_gone_comes_back_from_the_copy) {
  std::filesystem::rename(db_, copy_);
  EXPECT_EQ(check(), fails(db_ + MISSING));
  EXPECT_THAT(check({"--repair"}), ends(0, HasSubstr(db_ + ": replaced by " + copy_), ""));
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid"), channels_);
  std::filesystem::remove(db_);
  std::filesystem::remove(copy_);
  EXPECT_EQ(check({"--repair"}), fails(db_ + MISSING));
}

TEST_F(Check, json_tells_both_files) {
  std::filesystem::copy_file(db_, copy_);
  damage(db_, "kanalid");
  const auto before = nlohmann::json::parse(check({"--json"}).out);
  EXPECT_EQ(before[0]["state"], "damaged");
  EXPECT_FALSE(before[0]["problems"].empty());
  EXPECT_EQ(before[1]["kind"], "guide");
  EXPECT_EQ(before[1]["events"], 500);
  const auto after = nlohmann::json::parse(check({"--json", "--repair"}).out);
  EXPECT_EQ(after[0]["repaired"], true);
  EXPECT_EQ(after[0]["repaired_from"], copy_);
  EXPECT_EQ(after[0]["set_aside"], aside(db_));
  EXPECT_EQ(after[1]["repaired_from"], nullptr);
}

TEST_F(Check, files_in_use_and_what_is_no_file_are_left_alone) {
  sqlite3* other = nullptr;
  damage(db_, "kanalid");
  const std::string before = read_file(db_);  // not later: closing the file gives up this process's locks
  ASSERT_EQ(sqlite3_open(db_.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(check({"--repair"}), fails(db_ + ": in use by another program; try again later"));
  sqlite3_close(other);
  EXPECT_TRUE(read_file(db_) == before);
  std::filesystem::remove(guide_);
  std::filesystem::create_directory(guide_);
  EXPECT_EQ(check(), fails(guide_ + ": not a file; name another one with --db"));
}

// A folder that cannot be written, seen by one program.
class Read_only : public Check {
 protected:
  void SetUp() override {
    if (run_command({"unshare", "-rm", "true"}).exit_code != 0)
      GTEST_SKIP() << "no file system can be mounted here";
  }
  Command_result run(const Words& command) const {
    const std::string script = "mount --bind " + dir_.path() + " " + dir_.path() + " && mount -o remount,ro,bind " +
                               dir_.path() + " && exec \"$@\"";
    return run_command(joined({{"unshare", "-rm", "sh", "-c", script, "sh", KELVO_COMMAND}, command, {"--db", db_}}));
  }
};

// Each is what a copy, a card or a network drive may hold.
TEST_F(Read_only, databases_are_read_or_it_is_said_what_is_missing) {
  const auto copy_open = [this](const Words& endings) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(db_.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "PRAGMA journal_mode = WAL; UPDATE kanalid SET lcn = 5", nullptr, nullptr, nullptr),
              SQLITE_OK);
    for (const std::string& ending : endings)
      std::filesystem::copy_file(db_ + ending, copy_ + ending);
    sqlite3_close(other);
    for (const std::string& ending : endings)
      std::filesystem::rename(copy_ + ending, db_ + ending);
  };
  const struct {
    const char* name;
    std::function<void()> make;
    bool is_read;
  } rows[] = {
      {"closed", [] {}, true},
      {"of another program, which said that it has a log",
       [this] {
         run_sql(db_, "PRAGMA journal_mode = WAL; UPDATE kanalid SET lcn = 5");
         run_sql(guide_, "PRAGMA journal_mode = WAL; DELETE FROM epglist WHERE entry > 7");
       },
       true},
      {"copied while open, without its log", [&] { copy_open({""}); }, true},
      {"copied while open, whole",
       [&] {
         copy_open({"", "-wal", "-shm"});
       },
       true},
      {"copied while open, without the shared memory",
       [&] {
         copy_open({"", "-wal"});
       },
       false},
  };
  const std::string channels = read_file(db_), guide = read_file(guide_);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(db_ + "-wal");
    std::filesystem::remove(db_ + "-shm");
    write_file(db_, channels);
    write_file(guide_, guide);
    row.make();
    for (const Words& command : {Words{"channels"}, Words{"epg", "--day", "2035-04-01"}, Words{"check"}}) {
      SCOPED_TRACE(command.front());
      if (row.is_read) {
        EXPECT_THAT(run(command), ends(0, testing::Not(""), ""));
      } else {
        EXPECT_EQ(run(command), fails(db_ + ": needs " + db_ +
                                      "-wal, which cannot be used here; copy both to a folder that can be written"));
      }
    }
    const Command_result there = run({"channels"});
    EXPECT_EQ(there == run_command({KELVO_COMMAND, "channels", "--db", db_}), row.is_read) << "with what is in the log";
  }
}

TEST_F(Read_only, a_repair_is_refused_in_one_line) {
  damage(db_, "kanalid");
  const std::string before = read_file(db_);
  EXPECT_THAT(run({"check", "--repair"}),
              ends(1, "", MatchesRegex("kelvo: " + dir_.path() + "/[^\n]*: cannot be made: Read-only file system\n")));
  EXPECT_TRUE(read_file(db_) == before);
}

// Readers, on every way that a file can be bad: one line, and no more than an exit code.
TEST_F(Check, readers_of_bad_files_say_one_line) {
  const std::string channels = read_file(db_), guide = read_file(guide_);
  struct Bad {
    const char* name;
    std::function<void(const std::string& file)> make;
  };
  const Bad ways[] = {
      {"cut", [](const std::string& file) { write_file(file, read_file(file).substr(0, 9000)); }},
      {"cut in the header", [](const std::string& file) { write_file(file, read_file(file).substr(0, 50)); }},
      {"rubbish", [](const std::string& file) { write_file(file, std::string(9000, 'x')); }},
      {"a folder",
       [](const std::string& file) {
         std::filesystem::remove(file);
         std::filesystem::create_directory(file);
       }},
      {"a link to nothing",
       [](const std::string& file) {
         std::filesystem::remove(file);
         std::filesystem::create_symlink("nowhere", file);
       }},
      {"an older layout",
       [](const std::string& file) { run_sql(file, "DROP TABLE IF EXISTS kanalid; DROP TABLE IF EXISTS epglist"); }},
  };
  for (const std::string& file : {db_, guide_})
    for (const Bad& way : ways)
      for (const Words& command : {Words{"channels"}, Words{"epg"}, Words{"check"}}) {
        SCOPED_TRACE(command.front() + ", " + file + ": " + way.name);
        for (const std::string& path : {db_, guide_})
          std::filesystem::remove_all(path);
        write_file(db_, channels);
        write_file(guide_, guide);
        way.make(file);
        const Command_result result = run_command(joined({{KELVO_COMMAND}, command, {"--db", db_}}));
        EXPECT_LE(result.exit_code, 1);
        EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.exit_code == 0 || !result.err.empty(), true);
      }
}

// One page in three, in turn of every table and index.
TEST_F(Check, readers_of_damaged_pages_say_one_line) {
  const std::string channels = read_file(db_), guide = read_file(guide_);
  for (const bool in_guide : {false, true})
    for (size_t at = 0; at < (in_guide ? guide : channels).size(); at += 3 * 4096) {
      write_file(db_, channels);
      write_file(guide_, guide);
      std::string bytes = in_guide ? guide : channels;
      const size_t from = at == 0 ? 100 : at;
      bytes.replace(from, at + 4096 - from, std::string(at + 4096 - from, '\xA5'));
      write_file(in_guide ? guide_ : db_, bytes);
      const Command_result result = run_command({KELVO_COMMAND, in_guide ? "epg" : "channels", "--db", db_});
      EXPECT_LE(result.exit_code, 1) << at;
      EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

}  // namespace
