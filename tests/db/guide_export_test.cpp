#include <time.h>

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "db_support.h"
#include "support/softdvb.h"
#include "support/support.h"

using db_support::Other_connection;
using db_support::rows;
using db_support::run;
using support::stderr_of;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

using Texts = std::vector<std::string>;

constexpr char TEMPORARY[] = "/dvbfiles/epg_export_tmp.db";

// Under the launcher, where /dvbfiles is a folder of the sandbox.
class Guide_export_done : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    std::filesystem::remove_all(TEMPORARY);
    std::filesystem::create_directories("/dvbfiles");
    sdbl_ = std::make_unique<Sdbl>(dir_.file("a.db").c_str());
    const long now = time(nullptr);
    for (const long start : {now - 100000, now - 1000, now + 1000}) {
      run(*sdbl_, "INSERT INTO epglist (channel, start_epoch) VALUES (1, " + std::to_string(start) + ")");
      run(*sdbl_, "INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (last_insert_rowid(), 'eng', 'it''s')");
    }
  }
  void TearDown() override { verbosity_kelvo = 0; }

  void expect_guide_in(const std::string& file) {
    ASSERT_TRUE(std::filesystem::exists(file)) << file;
    Other_connection copy(file);
    EXPECT_EQ(rows(copy.get(), "SELECT entry, channel FROM epglist"), (Texts{"2|1", "3|1"}));
    EXPECT_EQ(rows(copy.get(), "SELECT source_oid, ev_name FROM epglist_lang"), (Texts{"2|it's", "3|it's"}));
    EXPECT_EQ(rows(copy.get(), "SELECT count(*) FROM sqlite_master WHERE type = 'index'"), (Texts{"6"}));
    EXPECT_EQ(rows(copy.get(), "SELECT count(*) FROM sqlite_master WHERE name LIKE 'kanalid%'"), (Texts{"0"}));
    EXPECT_FALSE(std::filesystem::exists(TEMPORARY));
  }

  support::Temp_dir dir_;
  std::unique_ptr<Sdbl> sdbl_;
};

}  // namespace

TEST_F(Guide_export_done, goes_to_the_guide_file_of_the_name_without_old_events) {
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_EQ(stderr_of([&] { sdbl_->backup_database(true); }), "");
  expect_guide_in(dir_.file("copy_epg.db"));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("copy.db")));
  EXPECT_EQ(rows(*sdbl_, "SELECT entry FROM epglist"), (Texts{"2", "3"}));
  EXPECT_EQ(rows(*sdbl_, "SELECT source_oid FROM epglist_lang"), (Texts{"2", "3"}));
}

TEST_F(Guide_export_done, flag_is_not_looked_at) {
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  sdbl_->backup_database(false);
  expect_guide_in(dir_.file("copy_epg.db"));
}

TEST_F(Guide_export_done, replaces_an_existing_file_and_the_leftovers_of_the_last_export) {
  for (const char* name : {"", "-journal", "-wal", "-shm"})
    support::write_file(std::string(TEMPORARY) + name, std::string(50000, 'x'));
  support::write_file(dir_.file("copy_epg.db"), std::string(50000, 'x'));
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_EQ(stderr_of([&] { sdbl_->backup_database(true); }), "");
  expect_guide_in(dir_.file("copy_epg.db"));
  for (const char* name : {"-journal", "-wal", "-shm"})
    EXPECT_FALSE(std::filesystem::exists(std::string(TEMPORARY) + name)) << name;
}

TEST_F(Guide_export_done, odd_file_names_reach_no_shell) {
  for (const char* name : {"it's", "a b", "$(touch pwned)", "`touch pwned`", "a;touch pwned;", "*", "a\"b"}) {
    sdbl_->set_backup_file_name(dir_.file(std::string(name) + ".db").c_str());
    sdbl_->backup_database(true);
    expect_guide_in(dir_.file(std::string(name) + "_epg.db"));
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST_F(Guide_export_done, unwritable_target_is_reported_by_mv) {
  sdbl_->set_backup_file_name(dir_.file("none/copy.db").c_str());
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }), HasSubstr("none/copy_epg.db"));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("none/copy_epg.db")));
  EXPECT_EQ(rows(*sdbl_, "SELECT entry FROM epglist"), (Texts{"2", "3"}));
}

TEST_F(Guide_export_done, announces_itself_at_level_1) {
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  verbosity_kelvo = 1;
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              MatchesRegex("WARNING: Exporting attached epg database epg_db to .*/copy.db "
                           "WARNING: Remove_old_entries done in [0-9]+ msec, removed 2 entries. "
                           "WARNING: Export completed in [0-9]+ msec\n"));
}

TEST_F(Guide_export_done, an_unusable_temporary_file_ends_it) {
  std::filesystem::create_directories(std::string(TEMPORARY) + "/inside");
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_THAT(
      stderr_of([&] { sdbl_->backup_database(true); }),
      HasSubstr("ERROR: Cannot open export file in /dvbfiles/epg_export_tmp.db, unable to open database file\n"));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("copy_epg.db")));
  verbosity_kelvo = -1;
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
}

TEST_F(Guide_export_done, without_the_guide_prints_that_there_is_nothing_to_copy) {
  sdbl_->close_db();
  sdbl_->open_db();  // does not attach the guide
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              HasSubstr("ERROR: Backup structure creating failed unknown database epg_db\n"));
  verbosity_kelvo = -1;
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
}

TEST_F(Guide_export_done, of_a_closed_database_prints_that_there_is_nothing_to_copy) {
  sdbl_->close_db();
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              HasSubstr("ERROR: Backup structure creating failed not an error\n"));
  EXPECT_EQ(std::filesystem::file_size(dir_.file("copy_epg.db")), 0u);
  verbosity_kelvo = -1;
}

TEST_F(Guide_export_done, a_disk_without_room_is_printed) {
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  support::softdvb_control("fault write(epg_export_tmp.db)=ENOSPC");
  // For the step, for the end of the copy; and then the copy cannot be compacted.
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              MatchesRegex("ERROR: rc 13: Cannot run export into /dvbfiles/epg_export_tmp.db, not an error\n"
                           "ERROR: rc 13: Cannot run export into /dvbfiles/epg_export_tmp.db, database or disk is "
                           "full\nERROR: SQL_exec: 13 @ backup_database line [0-9]+\n"));
  EXPECT_EQ(rows(*sdbl_, "SELECT entry FROM epglist"), (Texts{"2", "3"}));
  verbosity_kelvo = -1;
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
  support::softdvb_control("clear faults");
  EXPECT_EQ(stderr_of([&] { sdbl_->backup_database(true); }), "");
  expect_guide_in(dir_.file("copy_epg.db"));
}
