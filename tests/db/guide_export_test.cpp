// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"
#include "support/softdvb.h"

using db_support::Other_connection;
using db_support::rows;
using db_support::run;
using support::messages_at;
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
    for (const long start : {now - 86400 - 100, now - 86400 + 600, now + 1000}) {
      run(*sdbl_, "INSERT INTO epglist (channel, start_epoch) VALUES (1, " + std::to_string(start) + ")");
      run(*sdbl_, "INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (last_insert_rowid(), 'eng', 'it''s')");
    }
  }
  void TearDown() override {
    support::softdvb_control("clear faults");
    verbosity_kelvo = 0;
  }

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

TEST_F(Guide_export_done, goes_across_file_systems) {
  struct stat here, there;
  ASSERT_EQ(stat("/dvbfiles", &here), 0);
  if (stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
    GTEST_SKIP() << "no second file system";
  std::string folder = "/dev/shm/kelvo-test-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  sdbl_->set_backup_file_name((folder + "/copy.db").c_str());
  for (int round = 0; round < 2; ++round) {  // the second time onto the first
    EXPECT_EQ(stderr_of([&] { sdbl_->backup_database(true); }), "");
    expect_guide_in(folder + "/copy_epg.db");
  }
  std::filesystem::remove_all(folder);
}

// Whatever the adapters are at, each copy is whole.
TEST_F(Guide_export_done, while_two_adapters_store_each_copy_is_whole) {
  constexpr int EVENTS = 400;
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  std::atomic<int> storing{2};
  std::atomic<int> refused{0};
  const auto adapter = [&](int channel) {
    SQL_cache service{};
    service.channel = channel;
    std::string content = "0.0.0.0", rating = "0@est";
    const std::string text(500, 'x');
    for (int i = 0; i < EVENTS; ++i) {
      const int oid = sdbl_->eit_for_service(1, 2, 506000000, 10, &service, 0x20330518, 0x033320, 0x000100,
                                             2000000000 + 60 * i, 60, 0, 0, i, &content, &rating, false, false);
      refused += oid > 0 ? 0 : 1;
      sdbl_->insert_epglist_lang(oid, "eng", "Name", text.c_str(), "", "");
    }
    --storing;
  };
  int exports = 0;
  const std::string text = stderr_of([&] {
    std::thread first(adapter, 11), second(adapter, 12);
    for (bool last = false; !last; ++exports) {
      last = storing == 0;
      sdbl_->backup_database(true);
      Other_connection copy(dir_.file("copy_epg.db"));
      EXPECT_EQ(rows(copy.get(), "PRAGMA integrity_check"), (Texts{"ok"}));
      EXPECT_EQ(
          rows(copy.get(), "SELECT count(*) FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"),
          (Texts{"0"}));
      // Of each adapter the events up to one, of which the text may still have been missing.
      EXPECT_EQ(rows(copy.get(),
                     "SELECT 1 FROM epglist WHERE channel IN (11, 12) GROUP BY channel HAVING "
                     "max(ev_id) != count(*) - 1"),
                Texts{});
      EXPECT_EQ(rows(copy.get(),
                     "SELECT 1 FROM epglist WHERE channel IN (11, 12) AND entry NOT IN (SELECT source_oid "
                     "FROM epglist_lang) GROUP BY channel HAVING count(*) > 1"),
                Texts{});
    }
    first.join();
    second.join();
  });
  EXPECT_EQ(text, "");
  EXPECT_EQ(refused, 0);
  EXPECT_GE(exports, 2);
  Other_connection copy(dir_.file("copy_epg.db"));
  EXPECT_EQ(rows(copy.get(),
                 "SELECT channel, count(*) FROM epglist JOIN epglist_lang ON entry = source_oid WHERE "
                 "length(ev_desc) = 500 GROUP BY channel"),
            (Texts{"11|400", "12|400"}));
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
  EXPECT_THAT(messages_at(1, [&] { sdbl_->backup_database(true); }),
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
  EXPECT_THAT(messages_at(-1, [&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
}

TEST_F(Guide_export_done, without_the_guide_prints_that_there_is_nothing_to_copy) {
  sdbl_->close_db();
  sdbl_->open_db();  // does not attach the guide
  sdbl_->set_backup_file_name(dir_.file("copy.db").c_str());
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              HasSubstr("ERROR: Backup structure creating failed unknown database epg_db\n"));
  EXPECT_THAT(messages_at(-1, [&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
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
  const std::string line =
      "ERROR: rc 13: Cannot run export into /dvbfiles/epg_export_tmp.db, database or disk is full\n";
  // For the step, for the end of the copy; and then the copy cannot be compacted.
  EXPECT_THAT(stderr_of([&] { sdbl_->backup_database(true); }),
              MatchesRegex(line + line + "ERROR: SQL_exec: 13 @ backup_database line [0-9]+\n"));
  EXPECT_EQ(rows(*sdbl_, "SELECT entry FROM epglist"), (Texts{"2", "3"}));
  EXPECT_EQ(rows(*sdbl_, "PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
  EXPECT_THAT(messages_at(-1, [&] { sdbl_->backup_database(true); }), Not(HasSubstr("ERROR")));
  support::softdvb_control("clear faults");
  EXPECT_EQ(messages_at(-1, [&] { sdbl_->backup_database(true); }), "");
  expect_guide_in(dir_.file("copy_epg.db"));
}
