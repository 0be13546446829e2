// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/sdbl_parts.h"
#include "db_support.h"
#include "support/softdvb.h"

using db_support::Other_connection;
using support::messages_at;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

constexpr char TEMPORARY[] = "/dvbfiles/epg_export_tmp.db";

// Under the launcher, where /dvbfiles is a folder of the sandbox.
class Guide_export_done : public db_support::Database_test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    std::filesystem::remove_all(TEMPORARY);
    std::filesystem::create_directories("/dvbfiles");
    for (const int64_t age : {86400 + 100, 86400 - 600, -1000}) {
      run("INSERT INTO epglist (channel, start_epoch) VALUES (1, " + std::to_string(time(nullptr) - age) + ")");
      run("INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (last_insert_rowid(), 'eng', 'it''s')");
    }
  }
  void TearDown() override { support::softdvb_control("clear faults"); }

  // What an export prints; its name is that of the channel file.
  std::string exported(int level, const std::string& name = "copy.db", bool flag = true) {
    sdbl().set_backup_file_name((std::filesystem::path(folder().path()) / name).c_str());
    return messages_at(level, [&] { sdbl().backup_database(flag); });
  }
  void expect_guide_in(const std::string& file) {
    ASSERT_TRUE(std::filesystem::exists(file)) << file;
    const Other_connection copy(file);
    EXPECT_EQ(copy.rows("SELECT entry, channel FROM epglist"), (Texts{"2|1", "3|1"}));
    EXPECT_EQ(copy.rows("SELECT source_oid, ev_name FROM epglist_lang"), (Texts{"2|it's", "3|it's"}));
    EXPECT_EQ(copy.rows("SELECT count(*) FROM sqlite_master WHERE type = 'index'"), (Texts{"6"}));
    EXPECT_EQ(copy.rows("SELECT count(*) FROM sqlite_master WHERE name LIKE 'kanalid%'"), (Texts{"0"}));
    EXPECT_FALSE(std::filesystem::exists(TEMPORARY));
  }

  const std::string copy_ = folder().file("copy_epg.db");
};

}  // namespace

TEST_F(Guide_export_done, goes_to_the_guide_file_of_the_name_without_old_events) {
  EXPECT_EQ(exported(0), "");
  expect_guide_in(copy_);
  EXPECT_FALSE(std::filesystem::exists(folder().file("copy.db")));
  EXPECT_EQ(rows("SELECT entry FROM epglist"), (Texts{"2", "3"}));
  EXPECT_EQ(rows("SELECT source_oid FROM epglist_lang"), (Texts{"2", "3"}));
  std::filesystem::remove(copy_);
  exported(0, "copy.db", false);  // the flag is not looked at
  expect_guide_in(copy_);
}

TEST_F(Guide_export_done, replaces_an_existing_file_and_the_leftovers_of_the_last_export) {
  const std::string leftovers[] = {TEMPORARY, std::string(TEMPORARY) + "-journal", std::string(TEMPORARY) + "-wal",
                                   std::string(TEMPORARY) + "-shm"};
  for (const std::string& name : leftovers)
    support::write_file(name, std::string(50000, 'x'));
  support::write_file(copy_, std::string(50000, 'x'));
  EXPECT_EQ(exported(0), "");
  expect_guide_in(copy_);
  for (const std::string& name : leftovers)
    EXPECT_FALSE(std::filesystem::exists(name)) << name;
}

TEST_F(Guide_export_done, goes_across_file_systems) {
  const std::string elsewhere = db_support::folder_elsewhere("/dvbfiles");
  if (elsewhere.empty())
    GTEST_SKIP() << "no second file system";
  for (int round = 0; round < 2; ++round) {  // the second time onto the first
    EXPECT_EQ(exported(0, elsewhere + "/copy.db"), "");
    expect_guide_in(elsewhere + "/copy_epg.db");
  }
  std::filesystem::remove_all(elsewhere);
}

TEST_F(Guide_export_done, takes_what_the_added_tables_have_along) {
  std::vector<sdbl::Guide_write> writes(1);
  sdbl::Guide_write& write = writes.front();
  write.channel = 1;
  write.ev_id = 7;
  write.start = static_cast<int>(time(nullptr)) + 3600;
  write.duration = 1800;
  write.running_since = 12;
  write.texts = {{"eng", "Film", "", "", "", {{"Director", "Ann"}, {"Cast", "Bo: as himself"}}}};
  write.details.table_id = 0x50;
  write.details.version = 3;
  write.details.series_crid = "crid://a.b/S";
  write.details.programme_crid = "crid://a.b/P";
  write.details.components = {{1, 5, 0, 11, "eng", "16:9"}};
  write.details.ratings = {{"FIN", 9}};
  write.details.genres = {{1, 4, 0}};
  ASSERT_EQ(sdbl().parts().guide_events.apply({}, &writes), sdbl::Guide_events::Applied::DONE);
  EXPECT_EQ(exported(0), "");
  const Other_connection copy(copy_);
  const std::map<std::string, std::string> tables = {{"event_detail", "1"},
                                                     {"event_item", "2"},
                                                     {"event_component", "1"},
                                                     {"event_rating", "1"},
                                                     {"event_genre", "1"}};
  for (const auto& [table, count] : tables) {
    EXPECT_EQ(copy.rows("SELECT count(*) FROM " + table), Texts{count}) << table;
    EXPECT_EQ(copy.rows("SELECT * FROM " + table), rows("SELECT * FROM " + table)) << table;
  }
}

// Whatever the adapters are at, each copy is whole.
TEST_F(Guide_export_done, while_two_adapters_store_each_copy_is_whole) {
  constexpr int EVENTS = 400;
  std::atomic<int> storing{2};
  std::atomic<int> refused{0};
  const auto adapter = [&](int channel) {
    const std::string text(500, 'x');
    for (int i = 0; i < EVENTS; ++i) {
      const int oid = db_support::store_event(sdbl(), channel, 2000000000 + 60 * i, i);
      refused += oid > 0 ? 0 : 1;
      sdbl().insert_epglist_lang(oid, "eng", "Name", text.c_str(), "", "");
    }
    --storing;
  };
  sdbl().set_backup_file_name(folder().file("copy.db").c_str());
  int exports = 0;
  const std::string text = messages_at(0, [&] {
    std::thread first(adapter, 11), second(adapter, 12);
    for (bool last = false; !last; ++exports) {
      last = storing == 0;
      sdbl().backup_database(true);
      const Other_connection copy(copy_);
      EXPECT_EQ(copy.rows("PRAGMA integrity_check"), (Texts{"ok"}));
      EXPECT_EQ(copy.rows("SELECT count(*) FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"),
                (Texts{"0"}));
      // Of each adapter the events up to one, of which the text may still have been missing.
      EXPECT_EQ(copy.rows("SELECT 1 FROM epglist WHERE channel IN (11, 12) GROUP BY channel HAVING max(ev_id) != "
                          "count(*) - 1"),
                Texts{});
      EXPECT_EQ(copy.rows("SELECT 1 FROM epglist WHERE channel IN (11, 12) AND entry NOT IN (SELECT source_oid FROM "
                          "epglist_lang) GROUP BY channel HAVING count(*) > 1"),
                Texts{});
    }
    first.join();
    second.join();
  });
  EXPECT_EQ(text, "");
  EXPECT_EQ(refused, 0);
  EXPECT_GE(exports, 2);
  EXPECT_EQ(Other_connection(copy_).rows("SELECT channel, count(*) FROM epglist JOIN epglist_lang ON entry = "
                                         "source_oid WHERE length(ev_desc) = 500 GROUP BY channel"),
            (Texts{"11|400", "12|400"}));
}

TEST_F(Guide_export_done, odd_file_names_reach_no_shell) {
  for (const std::string name : {"it's", "a b", "$(touch pwned)", "`touch pwned`", "a;touch pwned;", "*", "a\"b"}) {
    exported(0, name + ".db");
    expect_guide_in(folder().file(name + "_epg.db"));
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST_F(Guide_export_done, unwritable_target_is_reported_by_mv) {
  EXPECT_THAT(exported(0, "none/copy.db"), HasSubstr("none/copy_epg.db"));
  EXPECT_FALSE(std::filesystem::exists(folder().file("none/copy_epg.db")));
  EXPECT_EQ(rows("SELECT entry FROM epglist"), (Texts{"2", "3"}));
}

TEST_F(Guide_export_done, announces_itself_at_level_1) {
  EXPECT_THAT(exported(1), MatchesRegex("WARNING: Exporting attached epg database epg_db to .*/copy.db "
                                        "WARNING: Remove_old_entries done in [0-9]+ msec, removed 2 entries. "
                                        "WARNING: Export completed in [0-9]+ msec\n"));
}

TEST_F(Guide_export_done, an_unusable_temporary_file_ends_it) {
  std::filesystem::create_directories(std::string(TEMPORARY) + "/inside");
  EXPECT_THAT(exported(0), HasSubstr("ERROR: Cannot open export file in /dvbfiles/epg_export_tmp.db, unable to open "
                                     "database file\n"));
  EXPECT_FALSE(std::filesystem::exists(copy_));
  EXPECT_THAT(exported(-1), Not(HasSubstr("ERROR")));
}

TEST_F(Guide_export_done, without_the_guide_or_the_database_prints_that_there_is_nothing_to_copy) {
  sdbl().close_db();
  EXPECT_THAT(exported(0), HasSubstr("ERROR: Backup structure creating failed not an error\n"));
  EXPECT_EQ(std::filesystem::file_size(copy_), 0u);
  sdbl().open_db();  // does not attach the guide
  EXPECT_THAT(exported(0), HasSubstr("ERROR: Backup structure creating failed unknown database epg_db\n"));
  EXPECT_THAT(exported(-1), Not(HasSubstr("ERROR")));
}

TEST_F(Guide_export_done, a_disk_without_room_is_printed) {
  support::softdvb_control("fault write(epg_export_tmp.db*)=ENOSPC");
  const std::string line =
      "ERROR: rc 13: Cannot run export into /dvbfiles/epg_export_tmp.db, database or disk is full\n";
  // For the step, for the end of the copy; and then the copy cannot be compacted.
  EXPECT_THAT(exported(0), MatchesRegex(line + line + "ERROR: SQL_exec: 13 @ backup_database line [0-9]+\n"));
  EXPECT_EQ(rows("SELECT entry FROM epglist"), (Texts{"2", "3"}));
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), (Texts{"ok"}));
  EXPECT_THAT(exported(-1), Not(HasSubstr("ERROR")));
  support::softdvb_control("clear faults");
  EXPECT_EQ(exported(-1), "");
  expect_guide_in(copy_);
  support::softdvb_control("fault write(epg_export_tmp.db*)=ENOSPC");
  (void)exported(-1);
  support::softdvb_control("clear faults");
  expect_guide_in(copy_);  // still that of before
}
