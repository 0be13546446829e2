// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the database asks of SQLite and of the system, call by call, and at which second. Under the launcher, where
// /dvbfiles and /tmp/zoneinfo are folders of the sandbox.
#include "system_calls.h"

#include "base/messages.h"
#include "support/database.h"
#include "support/messages.h"
#include "support/softdvb.h"

using support::messages_at;
using support::Texts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int FREQ = 506000000;
constexpr int DAY = 24 * 60 * 60;
constexpr time_t NOW = 1900000000;
constexpr char TEMPORARY[] = "/dvbfiles/epg_export_tmp.db";

class System_calls : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    std::filesystem::create_directories("/dvbfiles");
    std::filesystem::remove_all(TEMPORARY);
  }
  void TearDown() override {
    system_calls::set_time(0);
    (void)system_calls::recorded();
    unsetenv("TZ");
    tzset();
  }
  static Texts settings_of(const std::string& file) {
    return {"extended_result_codes " + file + " 1", "synchronous_off " + file, "busy_timeout " + file + " 2000"};
  }
  void event(int channel, time_t start, int duration = 60) {
    db_.run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (" + std::to_string(channel) + ", " +
            std::to_string(start) + ", " + std::to_string(duration) + ")");
  }
  int store(const std::string& content, time_t start) {
    SQL_cache service{};
    service.channel = 7;
    std::string text = content, rating = "0@est";
    return db_->eit_for_service(1, 2, FREQ, 10, &service, 0x20100101, 0, 0x003000, static_cast<long>(start), 60, 4, 0,
                                1, &text, &rating, false, false);
  }
  // The guide file may grow by this many pages, as it is seen in the next second.
  void limit(int pages) {
    const int count = db_.number("PRAGMA epg_db.page_count") - db_.number("PRAGMA epg_db.freelist_count") + pages;
    ASSERT_EQ(db_.number("PRAGMA epg_db.max_page_count=" + std::to_string(count)), count);
    system_calls::set_time(time(nullptr) + 1);
  }
  std::string update_zone(int offset_min) {
    return messages_at(1, [&] { db_->update_system_timezone(offset_min, "EST", 0, 1, 3, FREQ); });
  }

  support::Database db_;
};

}  // namespace

// --- Connections -----------------------------------------------------------------------------------------------------

TEST_F(System_calls, both_files_are_set_up_alike_before_anything_else) {
  system_calls::record();
  db_.open();
  Texts expected = settings_of("dvb.db");
  for (const std::string& call : settings_of("dvb_epg.db"))
    expected.push_back(call);
  EXPECT_EQ(system_calls::recorded(), expected);
}

TEST_F(System_calls, a_channel_export_sets_up_its_connection_and_copies_in_one_step) {
  const std::string target = db_.folder().file("copy.db");
  system_calls::record();
  db_->backup_channel_database(target.c_str());
  Texts expected = settings_of("dvb.db_exp");
  expected.push_back("backup_step -1");
  expected.push_back("system mv '" + db_.file() + "_exp' '" + target + "' </dev/null");
  EXPECT_EQ(system_calls::recorded(), expected);
}

TEST_F(System_calls, a_guide_export_sets_up_its_connection_and_copies_in_one_step) {
  support::write_file(TEMPORARY, "left over");
  const std::string target = db_.folder().file("copy");
  support::write_file(target + "_epg.db", "old");
  db_->set_backup_file_name((target + ".db").c_str());
  system_calls::record();
  db_->backup_database(true);
  Texts expected = settings_of("epg_export_tmp.db");
  expected.insert(expected.begin(), "system rm '/dvbfiles/epg_export_tmp.db'* </dev/null");
  expected.push_back("backup_step -1");
  expected.push_back("backup_step 2147483647");  // of SQLite's own: the copy is compacted
  expected.push_back("system rm '" + target + "_epg.db' </dev/null");
  expected.push_back("system mv '/dvbfiles/epg_export_tmp.db' '" + target + "_epg.db' </dev/null");
  EXPECT_EQ(system_calls::recorded(), expected);
}

TEST_F(System_calls, a_connection_in_use_is_left_after_five_pauses_of_10_ms) {
  sqlite3* conn = db_.conn();
  const support::Other_connection copy(db_.folder().file("copy.db"));
  sqlite3_backup* backup = sqlite3_backup_init(copy.get(), "main", conn, "main");
  ASSERT_NE(backup, nullptr);
  system_calls::record();
  messages_at(-1, [&] { db_->close_db(); });
  EXPECT_THAT(system_calls::recorded(), ElementsAre("sleep 10", "sleep 10", "sleep 10", "sleep 10", "sleep 10"));
  sqlite3_backup_finish(backup);
  EXPECT_EQ(sqlite3_close(conn), SQLITE_OK);
  messages_at(-1, [&] { db_.close(); });
}

TEST_F(System_calls, failures_of_the_guide_s_connection_are_the_constructor_s) {
  db_.close();
  support::write_file(db_.guide_file(), std::string(20000, 'x'));
  const std::string text = messages_at(0, [&] { db_.open(); });
  EXPECT_THAT(text, HasSubstr("ERROR: SQL_exec: 26 @ Sdbl line "));
  EXPECT_THAT(text, Not(HasSubstr("open_db")));
}

// --- Leftovers -------------------------------------------------------------------------------------------------------

// A leftover that is not removed would be written through.
TEST_F(System_calls, leftovers_of_exports_are_replaced_and_not_written_to) {
  const std::string precious = db_.folder().file("precious");
  support::write_file(precious, "keep me");
  std::filesystem::create_symlink(precious, db_.file() + "_exp");
  db_->backup_channel_database(db_.folder().file("copy.db").c_str());
  EXPECT_EQ(support::read_file(precious), "keep me");

  std::filesystem::create_symlink(precious, TEMPORARY);
  db_->set_backup_file_name(db_.folder().file("copy.db").c_str());
  db_->backup_database(true);
  EXPECT_EQ(support::read_file(precious), "keep me");
}

// --- Sizes -----------------------------------------------------------------------------------------------------------

TEST_F(System_calls, the_copy_of_a_guide_is_smaller_by_the_pages_that_are_not_in_use) {
  db_.run("INSERT INTO epglist_lang (source_oid, ext_desc) VALUES (1, zeroblob(1000000))");
  db_.run("DELETE FROM epglist_lang");
  db_->set_backup_file_name(db_.folder().file("copy.db").c_str());
  db_->backup_database(true);
  EXPECT_GT(std::filesystem::file_size(db_.guide_file()), 1000000u);
  EXPECT_LT(std::filesystem::file_size(db_.folder().file("copy_epg.db")), 100000u);
}

TEST_F(System_calls, vacuum_compacts_the_channel_file_and_leaves_the_guide_as_it_is) {
  for (const char* schema : {"main", "epg_db"}) {
    db_.run(std::string("CREATE TABLE ") + schema + ".big (b blob)");
    db_.run(std::string("INSERT INTO ") + schema + ".big VALUES (zeroblob(1000000))");
    db_.run(std::string("DELETE FROM ") + schema + ".big");
  }
  db_->remove_old_entries(0, true);
  EXPECT_LT(std::filesystem::file_size(db_.file()), 100000u);
  EXPECT_GT(std::filesystem::file_size(db_.guide_file()), 1000000u);
}

// --- Times -----------------------------------------------------------------------------------------------------------

TEST_F(System_calls, the_age_of_an_event_is_counted_from_its_start) {
  system_calls::set_time(NOW);
  event(1, NOW - 1001, 2000);  // is still running
  event(2, NOW - 1000, 1);     // is long over
  EXPECT_EQ(db_->remove_old_entries(1000, false), 1);
  EXPECT_EQ(db_.rows("SELECT channel FROM epglist"), (Texts{"2"}));
}

TEST_F(System_calls, an_export_removes_what_started_more_than_a_day_ago_to_the_second) {
  system_calls::set_time(NOW);
  event(1, NOW - DAY - 1);
  event(2, NOW - DAY);
  event(3, NOW - DAY + 1);
  db_->set_backup_file_name(db_.folder().file("copy.db").c_str());
  db_->backup_database(true);
  EXPECT_EQ(db_.rows("SELECT channel FROM epglist"), (Texts{"2", "3"}));
}

TEST_F(System_calls, a_guide_without_room_removes_what_started_more_than_a_day_ago_to_the_second) {
  system_calls::set_time(NOW);
  limit(10);
  event(1, NOW - DAY);  // one second older once there is no room
  event(2, NOW - DAY + 1);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(store("0.0.0.0", NOW), -1); }), "ERROR: eit_for_service: rc is 13\n");
  EXPECT_EQ(db_.rows("SELECT channel FROM epglist"), (Texts{"2"}));
}

TEST_F(System_calls, the_zone_is_compared_at_a_fixed_instant_in_january) {
  db_.run("INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 3, 1, 'levira')");
  const struct {
    const char* zone;
    int january;
    int july;
  } cases[] = {{"EET-2EEST,M3.5.0/3,M10.5.0/4", 120, 180}, {"AEST-10AEDT,M10.1.0,M4.1.0/3", 660, 600}};
  for (const auto& c : cases) {
    setenv("TZ", c.zone, 1);
    for (const time_t now : {NOW, NOW + 182 * DAY}) {
      system_calls::set_time(now);
      EXPECT_THAT(update_zone(c.january), testing::EndsWith("WARNING: Timezone OK\n")) << c.zone;
      EXPECT_THAT(update_zone(c.july), HasSubstr("WARNING: Setting timezone to")) << c.zone;
    }
  }
}

TEST_F(System_calls, a_zone_is_compiled_and_copied_over_what_stands_there) {
  db_.run("INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 3, 1, 'levira')");
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  setenv("TZ", "EET-2", 1);
  system_calls::record();
  update_zone(180);
  EXPECT_THAT(system_calls::recorded(), ElementsAre("system /usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt",
                                                    "system cp -f '/tmp/zoneinfo/EST_0' /dvbfiles/localtime"));
}

// --- Room ------------------------------------------------------------------------------------------------------------

// An event is stored when it and its texts fit for certain: 40 pages for its row, 64 for its texts, and a page for each
// 500 bytes of what it holds itself.
TEST_F(System_calls, an_event_needs_104_pages_and_one_more_for_each_500_bytes) {
  const struct {
    size_t bytes;
    int pages;
  } cases[] = {{3, 104}, {494, 104}, {495, 105}, {994, 105}, {995, 106}};
  for (const auto& c : cases) {
    const std::string content(c.bytes, 'x');  // and five bytes of the rating
    system_calls::set_time(NOW);
    limit(c.pages - 1);
    EXPECT_EQ(messages_at(-1, [&] { return store(content, NOW); }), "");
    EXPECT_EQ(db_.number("SELECT count(*) FROM epglist"), 0) << c.bytes;
    limit(c.pages);
    EXPECT_GT(store(content, NOW), 0) << c.bytes;
    db_.run("DELETE FROM epglist");
  }
}

TEST_F(System_calls, a_text_needs_24_pages_and_one_more_for_each_500_bytes) {
  const struct {
    size_t bytes;
    int pages;
  } cases[] = {{0, 24}, {492, 24}, {493, 25}, {1492, 26}, {1493, 27}};
  for (const auto& c : cases) {
    const std::string text(c.bytes, 'x');  // and seven bytes of language and name
    const auto insert = [&] { db_->insert_epglist_lang(5, "est", "Name", "", text.c_str(), ""); };
    system_calls::set_time(NOW);
    limit(c.pages - 1);
    EXPECT_THAT(insert, support::prints_at(1, "WARNING: epglist_lang rc = 13\n")) << c.bytes;
    limit(c.pages);
    EXPECT_THAT(insert, support::prints_at(1, "")) << c.bytes;
    db_.run("DELETE FROM epglist_lang");
  }
}

// --- Exports at once -------------------------------------------------------------------------------------------------

TEST_F(System_calls, exports_asked_for_at_once_are_all_written) {
  const auto exported = [&] {
    for (int round = 0; round < 10; ++round)
      db_->backup_database(true);
  };
  db_->set_backup_file_name(db_.folder().file("copy.db").c_str());
  EXPECT_EQ(messages_at(0,
                        [&] {
                          std::thread first(exported), second(exported);
                          first.join();
                          second.join();
                        }),
            "");
  EXPECT_EQ(support::Other_connection(db_.folder().file("copy_epg.db")).rows("SELECT count(*) FROM epglist"),
            (Texts{"0"}));
}
