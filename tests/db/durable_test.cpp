// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using support::messages_at;
using support::Texts;

namespace {

// Files that promise to survive kills and power cuts. What they survive is tried by ending_test.cpp.
class Durable : public testing::Test {
 protected:
  void open(Durability durability = Durability::FULL) {
    sdbl_.reset();
    sdbl_ = std::make_unique<Sdbl>(file_.c_str(), durability);
  }
  Texts rows(const std::string& sql) { return support::rows(support::conn_of(*sdbl_), sql); }
  // The files of the folder, by name.
  Texts files() const {
    Texts names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The files as a process leaves them that is killed now, in another folder.
  std::string killed() {
    std::filesystem::copy(folder_.path(), folder_.path() + "-killed");
    return folder_.path() + "-killed/dvb.db";
  }
  void TearDown() override { std::filesystem::remove_all(folder_.path() + "-killed"); }

  support::Temp_dir folder_;
  const std::string file_ = folder_.file("dvb.db");
  const std::string guide_ = folder_.file("dvb_epg.db");
  std::unique_ptr<Sdbl> sdbl_;
};

const Texts BOTH_FILES = {"dvb.db", "dvb_epg.db"};

}  // namespace

TEST_F(Durable, files_have_a_log_and_only_the_channels_wait_for_the_disk) {
  EXPECT_EQ(messages_at(0, [&] { open(); }), "");
  const std::pair<const char*, const char*> settings[] = {{"main.journal_mode", "wal"},
                                                          {"epg_db.journal_mode", "wal"},
                                                          {"main.synchronous", "2"},
                                                          {"epg_db.synchronous", "1"},
                                                          {"temp_store", "2"},
                                                          {"max_page_count", "8000"},
                                                          {"epg_db.max_page_count", "8000"}};
  for (const auto& [name, value] : settings)
    EXPECT_EQ(rows(std::string("PRAGMA ") + name), Texts{value}) << name;
  EXPECT_EQ(messages_at(0,
                        [&] {
                          sdbl_->close_db();
                          sdbl_->open_db();
                        }),
            "");
  EXPECT_EQ(rows("PRAGMA journal_mode"), Texts{"wal"}) << "opened again";
  (void)messages_at(-1, [&] { sdbl_.reset(); });
}

TEST_F(Durable, a_closed_database_is_two_files_that_can_be_read_where_nothing_can_be_written) {
  open();
  EXPECT_EQ(rows("INSERT INTO kanalid (freq) VALUES (5)"), Texts{});
  EXPECT_EQ(rows("INSERT INTO epglist (channel) VALUES (1)"), Texts{});
  EXPECT_EQ(messages_at(0, [&] { sdbl_.reset(); }), "");
  EXPECT_EQ(files(), BOTH_FILES);
  for (const std::string& file : {file_, guide_})
    EXPECT_EQ(support::read_file(file).substr(18, 2), "\x01\x01") << "no log is announced";
}

TEST_F(Durable, others_read_what_is_committed_while_the_files_are_open_and_may_keep_the_log) {
  open();
  rows("INSERT INTO kanalid (freq) VALUES (5)");
  {
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open_v2(file_.c_str(), &reader, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    EXPECT_EQ(support::rows(reader, "SELECT freq FROM kanalid"), Texts{"5"});
    rows("BEGIN");
    rows("INSERT INTO kanalid (freq, pat_prnr) VALUES (6, 1)");
    EXPECT_EQ(support::rows(reader, "SELECT freq FROM kanalid"), Texts{"5"});
    rows("COMMIT");
    EXPECT_EQ(support::rows(reader, "SELECT freq FROM kanalid"), (Texts{"5", "6"}));
    EXPECT_EQ(messages_at(0, [&] { sdbl_.reset(); }), "") << "closed while somebody reads";
    EXPECT_EQ(support::rows(reader, "SELECT freq FROM kanalid"), (Texts{"5", "6"}));
    sqlite3_close(reader);
  }
  open();
  EXPECT_EQ(rows("SELECT freq FROM kanalid"), (Texts{"5", "6"}));
  sdbl_.reset();
  EXPECT_EQ(files(), BOTH_FILES);
}

// A box does not know the mode, and must not lose what only stands in the log.
TEST_F(Durable, what_a_killed_process_has_left_is_taken_over_in_either_mode) {
  open();
  rows("INSERT INTO kanalid (freq) VALUES (5)");
  rows("INSERT INTO epglist (channel) VALUES (7)");
  for (const Durability mode : {Durability::NONE, Durability::FULL}) {
    const std::string left = killed();
    ASSERT_TRUE(std::filesystem::file_size(left + "-wal") > 0);
    {
      std::unique_ptr<Sdbl> next;
      EXPECT_EQ(messages_at(0, [&] { next = std::make_unique<Sdbl>(left.c_str(), mode); }), "");
      EXPECT_EQ(support::rows(support::conn_of(*next), "SELECT freq FROM kanalid"), Texts{"5"});
      EXPECT_EQ(support::rows(support::conn_of(*next), "SELECT channel FROM epglist"), Texts{"7"});
      EXPECT_EQ(support::rows(support::conn_of(*next), "PRAGMA journal_mode"),
                Texts{mode == Durability::NONE ? "off" : "wal"});
    }
    EXPECT_FALSE(std::filesystem::exists(left + "-wal"));
    std::filesystem::remove_all(folder_.path() + "-killed");
  }
}

TEST_F(Durable, a_rollback_journal_of_a_killed_process_is_undone_in_either_mode) {
  open();
  rows("INSERT INTO kanalid (freq, serv_name) VALUES (5, 'kept')");
  sdbl_.reset();
  Other_connection other(file_);
  other.run("PRAGMA cache_size = 1");
  other.run("PRAGMA cache_spill = 1");
  other.run("BEGIN");
  other.run(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT INTO kanalid (freq, "
      "serv_name) SELECT 9 + i, hex(zeroblob(500)) FROM n");
  other.run("UPDATE kanalid SET serv_name = 'lost'");
  for (const Durability mode : {Durability::NONE, Durability::FULL}) {
    const std::string left = killed();
    ASSERT_TRUE(std::filesystem::exists(left + "-journal"));
    Sdbl next(left.c_str(), mode);
    EXPECT_EQ(support::rows(support::conn_of(next), "SELECT freq, serv_name FROM kanalid"), Texts{"5|kept"});
    std::filesystem::remove_all(folder_.path() + "-killed");
  }
  other.run("ROLLBACK");
}

TEST_F(Durable, copies_are_single_files_without_a_log) {
  open();
  rows("INSERT INTO kanalid (freq) VALUES (5)");
  sdbl_->backup_channel_database(folder_.file("copy.db").c_str());
  EXPECT_EQ(support::read_file(folder_.file("copy.db")).substr(18, 2), "\x01\x01");
  EXPECT_EQ(Other_connection(folder_.file("copy.db")).rows("SELECT freq FROM kanalid"), Texts{"5"});
  sdbl_.reset();
  EXPECT_EQ(files(), (Texts{"copy.db", "dvb.db", "dvb_epg.db"}));
}

TEST_F(Durable, two_processes_may_promise_the_same_of_one_database) {
  open();
  Sdbl second(file_.c_str(), Durability::FULL);
  rows("INSERT INTO kanalid (freq) VALUES (5)");
  EXPECT_EQ(messages_at(0, [&] { sdbl_.reset(); }), "");
  EXPECT_EQ(support::rows(support::conn_of(second), "SELECT freq FROM kanalid"), Texts{"5"});
  EXPECT_EQ(support::rows(support::conn_of(second), "PRAGMA journal_mode"), Texts{"wal"});
}
