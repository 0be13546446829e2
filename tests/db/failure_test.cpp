// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"
#include "support/softdvb.h"
#include "system_calls.h"

using db_support::Other_connection;
using support::messages_at;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

// Under the launcher, which lets calls of libc fail and runs the clock faster.
class Failures : public db_support::Database_test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    sdbl().create_temp_tables(0);
    sdbl().pat_for_network(0, 1, 1, FREQ, 10, 5, 110);
    sdbl().pmt_channel_number(0, 1, 1, FREQ, 10, 300, SCAN_PAT);
  }
  void TearDown() override { support::softdvb_control("clear faults"); }

  int merge() { return sdbl().update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT); }
  int set_lcn() { return sdbl().modify_table_oid(1, "kanalid", "lcn", 7); }
  // The first failure since the last look: "code operation", and whether the guide is full.
  std::string remembered() {
    Database_error error{7, "before", true};
    const bool any = sdbl().first_error(&error);
    EXPECT_EQ(any, error.code != 0);
    return std::to_string(error.code) + " " + error.operation + (error.guide_full ? ", guide full" : "");
  }
  std::string remembered_of(const std::function<void()>& action) {
    sdbl().forget_errors();
    (void)messages_at(0, action);
    return remembered();
  }
};

// Another program that has locked a file.
class Lock : public Other_connection {
 public:
  explicit Lock(const std::string& file) : Other_connection(file) { EXPECT_EQ(run("BEGIN EXCLUSIVE"), SQLITE_DONE); }
  void release() const { EXPECT_EQ(run("COMMIT"), SQLITE_DONE); }
};

}  // namespace

TEST_F(Failures, a_full_disk_is_printed_and_a_later_scan_succeeds) {
  support::softdvb_control("fault write(*.db)=ENOSPC");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(merge(), 0); }),
              testing::AllOf(HasSubstr("ERROR: Sqlite_step failed for INSERT INTO kanalid "),
                             HasSubstr(", error database or disk is full\n")));
  support::softdvb_control("clear faults");
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(), 2); }), "");
  EXPECT_EQ(rows("SELECT pat_prnr FROM kanalid"), (Texts{"10"}));
}

// A program that starts on a busy disk must not wait for it before it tunes.
TEST_F(Failures, nothing_waits_for_the_disk_when_the_files_are_made_or_opened) {
  support::softdvb_control("fault fsync=EIO");
  support::softdvb_control("fault fdatasync=EIO");
  const std::string other = folder().file("b.db");
  EXPECT_EQ(messages_at(0, [&] { Sdbl made(other.c_str()); }), "");
  EXPECT_EQ(messages_at(1, [&] { Sdbl opened(other.c_str()); }), "");
}

TEST_F(Failures, files_that_may_not_be_opened_throw) {
  const std::string other = folder().file("b.db");
  support::softdvb_control("fault open(b_epg.db)=EACCES");
  EXPECT_EQ(
      messages_at(0,
                  [&] {
                    try {
                      Sdbl second(other.c_str());
                      ADD_FAILURE() << "opened";
                    } catch (const no_file_error& error) {
                      EXPECT_STREQ(error.what(), "Unable to open epg file %s");
                    }
                  }),
      "ERROR: FLUSH: Cannot open database " + folder().file("b_epg.db") + ", error unable to open database file\n");
  support::softdvb_control("fault open(b.db)=EMFILE");
  EXPECT_THROW((void)messages_at(0, [&] { Sdbl third(other.c_str()); }), no_file_error);
}

// SQLite's waiting is counted, and takes no time.
TEST_F(Failures, a_file_that_another_program_keeps_locked_is_given_up_after_two_seconds) {
  const Lock other(file());
  system_calls::record();
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(set_lcn(), SQLITE_BUSY); }),
              MatchesRegex("ERROR: SQL_exec: 5 @ modify_table_oid line [0-9]+\n"));
  EXPECT_EQ(system_calls::waited_us(), 2000000);
  other.release();
  EXPECT_EQ(set_lcn(), 101);
}

// A merge is a score of statements, each of which would wait on its own.
TEST_F(Failures, a_merge_waits_once_for_another_program_s_cursor_and_writes_nothing_then) {
  EXPECT_EQ(merge(), 2);
  sdbl().clear_temp_tables(0);
  sdbl().pat_for_network(0, 1, 1, FREQ, 11, 5, 111);
  const Texts before = table("kanalid");
  {
    const Other_connection other(file());
    sqlite3_stmt* cursor = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(other.get(), "SELECT * FROM kanalid", -1, &cursor, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(cursor), SQLITE_ROW);
    system_calls::record();
    EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(), 0); }),
              "ERROR: Another program keeps the channels locked: those of 506000000 Hz are not stored, rc = 5\n");
    EXPECT_EQ(system_calls::waited_us(), 2000000);
    EXPECT_EQ(table("kanalid"), before);
    EXPECT_EQ(Other_connection(file()).rows("SELECT count(*) FROM kanalid"), (Texts{"1"})) << "others may read";
    sqlite3_finalize(cursor);
  }
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(), 2 | 1); }), "");
  const Other_connection other(file());
  EXPECT_EQ(other.rows("SELECT pat_prnr FROM kanalid"), (Texts{"10", "11"}));
  EXPECT_EQ(other.run("DELETE FROM kanalid"), SQLITE_DONE) << "the file is free again";
  EXPECT_EQ(rows("PRAGMA main.locking_mode"), (Texts{"normal"}));
  EXPECT_EQ(number("PRAGMA busy_timeout"), 2000);
}

// Which holds a lock of its own on the same connection.
TEST_F(Failures, a_merge_frees_the_file_also_while_a_host_is_in_the_middle_of_its_rows) {
  EXPECT_EQ(merge(), 2);
  sqlite3_stmt* stmt = sdbl().sql_cache(false, 0, "SELECT 1 FROM kanalid UNION ALL SELECT 2");
  ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(Other_connection(file()).rows("SELECT count(*) FROM kanalid"), (Texts{"1"}));
  EXPECT_EQ(sqlite3_step(stmt), SQLITE_ROW);
}

// Its cursor stands in the guide, which a merge does not touch.
TEST_F(Failures, a_merge_does_not_wait_for_the_guide) {
  const Lock other(guide_file());
  system_calls::record();
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(), 2); }), "");
  EXPECT_EQ(system_calls::waited_us(), 0);
  other.release();
}

// --- The first failure -----------------------------------------------------------------------------------------------

TEST_F(Failures, a_locked_file_is_remembered_until_it_is_forgotten) {
  EXPECT_EQ(remembered(), "0 ");
  const Lock other(file());
  (void)messages_at(0, [&] {
    set_lcn();
    sdbl().set_master_scan_timeout(1, 1, FREQ);
  });
  EXPECT_EQ(remembered(), "5 modify_table_oid");
  other.release();
  set_lcn();
  EXPECT_EQ(remembered(), "5 modify_table_oid") << "a later success changes nothing";
  sdbl().forget_errors();
  EXPECT_EQ(remembered(), "0 ");
}

TEST_F(Failures, each_kind_of_statement_remembers_a_locked_file_under_its_operation) {
  sdbl().get_freq(1);
  const Lock other(file());
  std::vector<CA_pid*> pids;
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"5 get_freq", [&] { sdbl().get_freq(1); }},
      {"5 get_serv_name", [&] { delete sdbl().get_serv_name(1, 1, FREQ, 10); }},
      {"5 fill_pids_for_channel", [&] { sdbl().fill_pids_for_channel(1, &pids); }},
      {"5 set_master_scan_timeout", [&] { sdbl().set_master_scan_timeout(1, 1, FREQ); }},
      {"5 update_master_scan_data", [&] { merge(); }},
      {"5 sql_row_exists", [&] { sdbl().sql_row_exists("SELECT 1 FROM kanalid"); }},
      {"5 sql_cache", [&] { sdbl().sql_cache(true, 0, "DELETE FROM kanalid"); }},
      {"0 ", [&] { sdbl().sql_cache(true, 0, "nonsense"); }},  // no failure of a file
  };
  for (const auto& [expected, action] : cases)
    EXPECT_EQ(remembered_of(action), expected);
  EXPECT_EQ(remembered_of([&] {
              sdbl().get_freq(2);
              sdbl().sql_cache(true, 0, "nonsense");
            }),
            "5 get_freq");
  other.release();
}

TEST_F(Failures, a_full_disk_is_remembered_and_says_that_the_guide_is_full) {
  support::softdvb_control("fault write(*.db)=ENOSPC");
  EXPECT_EQ(remembered_of([&] { merge(); }), "13 update_master_scan_data");
  EXPECT_EQ(remembered_of([&] { db_support::store_event(sdbl(), 0, 1900000000); }), "13 eit_for_service, guide full");
}

TEST_F(Failures, tables_of_a_file_that_another_program_keeps_locked_count_as_there) {
  const std::string busy = folder().file("busy");
  const Lock other(busy + ".db");
  std::unique_ptr<Sdbl> opened;
  const std::string text = messages_at(1, [&] { opened = std::make_unique<Sdbl>((busy + ".db").c_str()); });
  for (const char* table : {"kanalid", "kanalid_lang", "estreams", "tuner_table"})
    EXPECT_THAT(text, HasSubstr(std::string("WARNING: SQL_execute/compile error RC=5, SELECT * FROM ") + table +
                                ";, database is locked\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("@ create_table")));
  EXPECT_THAT(text, HasSubstr("ERROR: Failed to attach epg database " + busy + "_epg.db, rc = 5\n"));
  other.release();
  EXPECT_EQ(other.rows("SELECT count(*) FROM sqlite_master"), (Texts{"0"}));
  EXPECT_EQ(Other_connection(busy + "_epg.db").rows("SELECT count(*) FROM epglist"), (Texts{"0"}))
      << "the guide's file is not locked";
  (void)messages_at(-1, [&] { opened.reset(); });
}

TEST_F(Failures, a_channel_export_without_room_warns_with_the_step_s_code) {
  support::softdvb_control("fault write(dvb.db_exp*)=ENOSPC");
  EXPECT_THAT([&] { sdbl().backup_channel_database(folder().file("copy.db").c_str()); },
              support::prints_only_from(
                  1, MatchesRegex("WARNING: Exporting channel data to to .*/copy.db WARNING: Backup step rc is 13\n"
                                  "WARNING: Completed in [0-9]+ msec\n")));
}

TEST_F(Failures, a_list_without_timers_still_holds_its_services) {
  run("INSERT INTO kanalid (freq, hf_conn, dvb_type, serv_type) VALUES (506000000, 1, 1, 1)");
  support::softdvb_control("fault timer_create=EAGAIN");
  std::list<SQL_cache*> list;
  EXPECT_THAT(messages_at(0, [&] { sdbl().get_eit_scan_list(0, 1, 1, FREQ, &list, SCAN_EIT); }),
              testing::StartsWith("ERROR: timer_create: "));
  ASSERT_EQ(list.size(), 1u);
  itimerspec value{};
  EXPECT_EQ(timer_gettime(list.front()->timer, &value), -1);
  sdbl().reset_eit_scan_list(&list);
  sdbl().clear_eit_scan_list(&list);
  EXPECT_TRUE(list.empty());
}
