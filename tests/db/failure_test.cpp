// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"
#include "support/softdvb.h"
#include "system_calls.h"

using db_support::number;
using db_support::Other_connection;
using db_support::rows;
using db_support::run;
using support::messages_at;
using support::stderr_of;
using testing::HasSubstr;

namespace {

using Texts = std::vector<std::string>;

constexpr int FREQ = 506000000;

std::string shown(const Database_error& error) {
  return std::to_string(error.code) + " " + error.operation + " " + (error.guide_full ? "guide full" : "");
}

// Under the launcher, which lets calls of libc fail and runs the clock faster.
class Failures : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    sdbl_ = std::make_unique<Sdbl>(dir_.file("a.db").c_str());
    sdbl_->create_temp_tables(0);
    sdbl_->pat_for_network(0, 1, 1, FREQ, 10, 5, 110);
    sdbl_->pmt_channel_number(0, 1, 1, FREQ, 10, 300, SCAN_PAT);
  }
  void TearDown() override {
    support::softdvb_control("clear faults");
    verbosity_kelvo = 0;
  }

  support::Temp_dir dir_;
  std::unique_ptr<Sdbl> sdbl_;
};

}  // namespace

TEST_F(Failures, a_full_disk_is_printed_and_a_later_scan_succeeds) {
  support::softdvb_control("fault write(*.db)=ENOSPC");
  int result = -1;
  const std::string text = stderr_of([&] { result = sdbl_->update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT); });
  EXPECT_EQ(result, 0);
  EXPECT_THAT(text, HasSubstr("ERROR: Sqlite_step failed for INSERT INTO kanalid "));
  EXPECT_THAT(text, HasSubstr(", error database or disk is full\n"));
  support::softdvb_control("clear faults");
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl_->update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT), 2); }), "");
  EXPECT_EQ(rows(*sdbl_, "SELECT pat_prnr FROM kanalid"), (Texts{"10"}));
}

// A program that starts on a busy disk must not wait for it before it tunes.
TEST_F(Failures, nothing_waits_for_the_disk_when_the_files_are_made_or_opened) {
  support::softdvb_control("fault fsync=EIO");
  support::softdvb_control("fault fdatasync=EIO");
  const std::string file = dir_.file("b.db");
  EXPECT_EQ(stderr_of([&] { Sdbl made(file.c_str()); }), "");
  EXPECT_EQ(messages_at(1, [&] { Sdbl opened(file.c_str()); }), "");
}

TEST_F(Failures, files_that_may_not_be_opened_throw) {
  const std::string file = dir_.file("b.db");
  support::softdvb_control("fault open(b_epg.db)=EACCES");
  std::string what;
  const std::string text = stderr_of([&] {
    try {
      Sdbl second(file.c_str());
    } catch (const no_file_error& error) {
      what = error.what();
    }
  });
  EXPECT_EQ(what, "Unable to open epg file %s");
  EXPECT_EQ(text,
            "ERROR: FLUSH: Cannot open database " + dir_.file("b_epg.db") + ", error unable to open database file\n");
  support::softdvb_control("fault open(b.db)=EMFILE");
  EXPECT_THROW((void)stderr_of([&] { Sdbl third(file.c_str()); }), no_file_error);
}

// SQLite's waiting is counted, and takes no time.
TEST_F(Failures, a_file_that_another_program_keeps_locked_is_given_up_after_two_seconds) {
  Other_connection other(dir_.file("a.db"));
  ASSERT_EQ(run(other.get(), "BEGIN EXCLUSIVE"), SQLITE_DONE);
  system_calls::record();
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(sdbl_->modify_table_oid(1, "kanalid", "lcn", 7), SQLITE_BUSY); }),
              testing::MatchesRegex("ERROR: SQL_exec: 5 @ modify_table_oid line [0-9]+\n"));
  EXPECT_EQ(system_calls::waited_us(), 2000000);
  run(other.get(), "COMMIT");
  EXPECT_EQ(sdbl_->modify_table_oid(1, "kanalid", "lcn", 7), 101);
}

// --- The first failure -----------------------------------------------------------------------------------------------

TEST_F(Failures, a_locked_file_is_remembered_until_it_is_forgotten) {
  Database_error error{7, "before", true};
  EXPECT_FALSE(sdbl_->first_error(&error));
  EXPECT_EQ(shown(error), "0  ");
  Other_connection other(dir_.file("a.db"));
  ASSERT_EQ(run(other.get(), "BEGIN EXCLUSIVE"), SQLITE_DONE);
  (void)stderr_of([&] {
    sdbl_->modify_table_oid(1, "kanalid", "lcn", 7);
    sdbl_->set_master_scan_timeout(1, 1, FREQ);
  });
  EXPECT_TRUE(sdbl_->first_error(&error));
  EXPECT_EQ(shown(error), "5 modify_table_oid ");
  run(other.get(), "COMMIT");
  sdbl_->modify_table_oid(1, "kanalid", "lcn", 7);
  EXPECT_TRUE(sdbl_->first_error(&error)) << "a later success changes nothing";
  sdbl_->forget_errors();
  EXPECT_FALSE(sdbl_->first_error(&error));
}

TEST_F(Failures, each_kind_of_statement_remembers_a_locked_file_under_its_operation) {
  Other_connection other(dir_.file("a.db"));
  sdbl_->get_freq(1);
  ASSERT_EQ(run(other.get(), "BEGIN EXCLUSIVE"), SQLITE_DONE);
  std::vector<CA_pid*> pids;
  const auto remembered = [&](const auto& action) {
    sdbl_->forget_errors();
    (void)stderr_of(action);
    Database_error error;
    (void)sdbl_->first_error(&error);
    return shown(error);
  };
  EXPECT_EQ(remembered([&] { sdbl_->get_freq(1); }), "5 get_freq ");
  EXPECT_EQ(remembered([&] { delete sdbl_->get_serv_name(1, 1, FREQ, 10); }), "5 get_serv_name ");
  EXPECT_EQ(remembered([&] { sdbl_->fill_pids_for_channel(1, &pids); }), "5 fill_pids_for_channel ");
  EXPECT_EQ(remembered([&] { sdbl_->set_master_scan_timeout(1, 1, FREQ); }), "5 set_master_scan_timeout ");
  EXPECT_EQ(remembered([&] { sdbl_->update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT); }), "5 update_master_scan_data ");
  EXPECT_EQ(remembered([&] { sdbl_->sql_row_exists("SELECT 1 FROM kanalid"); }), "5 sql_row_exists ");
  EXPECT_EQ(remembered([&] { sdbl_->sql_cache(true, 0, "DELETE FROM kanalid"); }), "5 sql_cache ");
  EXPECT_EQ(remembered([&] {
              sdbl_->get_freq(2);
              sdbl_->sql_cache(true, 0, "nonsense");
            }),
            "5 get_freq ");
  EXPECT_EQ(remembered([&] { sdbl_->sql_cache(true, 0, "nonsense"); }), "0  ") << "no failure of a file";
  run(other.get(), "COMMIT");
}

TEST_F(Failures, a_full_disk_is_remembered_and_says_that_the_guide_is_full) {
  support::softdvb_control("fault write(*.db)=ENOSPC");
  Database_error error;
  (void)stderr_of([&] { sdbl_->update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT); });
  EXPECT_TRUE(sdbl_->first_error(&error));
  EXPECT_EQ(shown(error), "13 update_master_scan_data ");
  sdbl_->forget_errors();
  SQL_cache service{};
  std::string content = "0.0.0.0", rating = "0@est";
  (void)stderr_of([&] {
    sdbl_->eit_for_service(1, 1, FREQ, 10, &service, 0, 0, 0, 1900000000, 60, 0, 0, 1, &content, &rating, false, false);
  });
  EXPECT_TRUE(sdbl_->first_error(&error));
  EXPECT_EQ(shown(error), "13 eit_for_service guide full");
}

TEST_F(Failures, tables_of_a_file_that_another_program_keeps_locked_count_as_there) {
  Other_connection other(dir_.file("busy.db"));
  ASSERT_EQ(run(other.get(), "BEGIN EXCLUSIVE"), SQLITE_DONE);
  verbosity_kelvo = 1;
  std::unique_ptr<Sdbl> busy;
  const std::string text = stderr_of([&] { busy = std::make_unique<Sdbl>(dir_.file("busy.db").c_str()); });
  verbosity_kelvo = 0;
  for (const char* table : {"kanalid", "kanalid_lang", "estreams", "tuner_table"})
    EXPECT_THAT(text, HasSubstr(std::string("WARNING: SQL_execute/compile error RC=5, SELECT * FROM ") + table +
                                ";, database is locked\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("@ create_table")));
  EXPECT_THAT(text, HasSubstr("ERROR: Failed to attach epg database " + dir_.file("busy_epg.db") + ", rc = 5\n"));
  EXPECT_EQ(run(other.get(), "COMMIT"), SQLITE_DONE);
  EXPECT_EQ(rows(other.get(), "SELECT count(*) FROM sqlite_master"), (Texts{"0"}));
  Other_connection guide(dir_.file("busy_epg.db"));
  EXPECT_EQ(rows(guide.get(), "SELECT count(*) FROM epglist"), (Texts{"0"})) << "the guide's file is not locked";
  verbosity_kelvo = -1;
}

TEST_F(Failures, a_channel_export_without_room_warns_with_the_step_s_code) {
  const std::string copy = dir_.file("copy.db");
  support::softdvb_control("fault write(a.db_exp)=ENOSPC");
  EXPECT_EQ(stderr_of([&] { sdbl_->backup_channel_database(copy.c_str()); }), "");
  EXPECT_THAT(messages_at(1, [&] { sdbl_->backup_channel_database(copy.c_str()); }),
              testing::MatchesRegex("WARNING: Exporting channel data to to .*/copy.db WARNING: Backup step rc is 13\n"
                                    "WARNING: Completed in [0-9]+ msec\n"));
}

TEST_F(Failures, a_list_without_timers_still_holds_its_services) {
  run(*sdbl_, "INSERT INTO kanalid (freq, hf_conn, dvb_type, serv_type) VALUES (506000000, 1, 1, 1)");
  support::softdvb_control("fault timer_create=EAGAIN");
  std::list<SQL_cache*> list;
  EXPECT_THAT(stderr_of([&] { sdbl_->get_eit_scan_list(0, 1, 1, FREQ, &list, SCAN_EIT); }),
              testing::StartsWith("ERROR: timer_create: "));
  ASSERT_EQ(list.size(), 1u);
  itimerspec value{};
  EXPECT_EQ(timer_gettime(list.front()->timer, &value), -1);
  sdbl_->reset_eit_scan_list(&list);
  sdbl_->clear_eit_scan_list(&list);
  EXPECT_TRUE(list.empty());
}
