// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the database asks of SQLite and of the system, call by call, and at which second. Under the launcher, where
// /dvbfiles and /tmp/zoneinfo are folders of the sandbox.
#include "system_calls.h"

#include <fcntl.h>
#include <sys/file.h>

#include "db_support.h"
#include "support/softdvb.h"

using support::messages_at;
using support::Texts;
using testing::HasSubstr;

namespace {

constexpr int DAY = 24 * 60 * 60;
constexpr time_t NOW = 1900000000;
constexpr char TEMPORARY[] = "/dvbfiles/epg_export_tmp.db";

class System_calls : public db_support::Database_test {
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
  static std::string settings_of(const std::string& file) {
    return "extended_result_codes " + file + " 1\nsynchronous_off " + file + "\nbusy_timeout " + file + " 2000\n";
  }
  void event(int channel, time_t start, int duration = 60) {
    run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (" + std::to_string(channel) + ", " +
        std::to_string(start) + ", " + std::to_string(duration) + ")");
  }
  // The guide file may grow by this many pages, as it is seen in the next second.
  void limit(int pages) {
    const int count = number("PRAGMA epg_db.page_count") - number("PRAGMA epg_db.freelist_count") + pages;
    ASSERT_EQ(number("PRAGMA epg_db.max_page_count=" + std::to_string(count)), count);
    system_calls::set_time(time(nullptr) + 1);
  }
  void export_guide() {
    sdbl().set_backup_file_name(folder().file("copy.db").c_str());
    sdbl().backup_database(true);
  }
  std::string update_zone(int offset_min) {
    return messages_at(1, [&] { sdbl().update_system_timezone(offset_min, "EST", 0, 1, 3, FREQ); });
  }
};

}  // namespace

// --- Connections -----------------------------------------------------------------------------------------------------

TEST_F(System_calls, both_files_are_set_up_alike_before_anything_else) {
  system_calls::record();
  open();
  EXPECT_EQ(system_calls::recorded(), settings_of("dvb.db") + settings_of("dvb_epg.db"));
}

TEST_F(System_calls, a_channel_export_sets_up_its_connection_and_copies_in_one_step) {
  const std::string target = folder().file("copy.db");
  system_calls::record();
  sdbl().backup_channel_database(target.c_str());
  EXPECT_EQ(system_calls::recorded(),
            settings_of("dvb.db_exp") + "backup_step -1\nfsync\nrename dvb.db_exp copy.db\nfsync\n");
}

TEST_F(System_calls, a_guide_export_sets_up_its_connection_and_copies_in_one_step) {
  support::write_file(TEMPORARY, "left over");
  const std::string target = folder().file("copy_epg.db");
  support::write_file(target, "old");
  system_calls::record();
  export_guide();
  EXPECT_EQ(system_calls::recorded(),
            settings_of("epg_export_tmp.db") +
                "backup_step -1\nbackup_step 2147483647\n"  // the second of SQLite's own: the copy is compacted
                "fsync\nrename epg_export_tmp.db copy_epg.db\nfsync\n");
}

TEST_F(System_calls, a_connection_in_use_is_left_after_five_pauses_of_10_ms) {
  sqlite3* conn = this->conn();
  const support::Other_connection copy(folder().file("copy.db"));
  sqlite3_backup* backup = sqlite3_backup_init(copy.get(), "main", conn, "main");
  ASSERT_NE(backup, nullptr);
  system_calls::record();
  messages_at(-1, [&] { sdbl().close_db(); });
  EXPECT_EQ(system_calls::recorded(), "sleep 10\nsleep 10\nsleep 10\nsleep 10\nsleep 10\n");
  sqlite3_backup_finish(backup);
  EXPECT_EQ(sqlite3_close(conn), SQLITE_OK);
  messages_at(-1, [&] { close(); });
}

TEST_F(System_calls, failures_of_the_guide_s_connection_are_the_constructor_s) {
  close();
  support::write_file(guide_file(), std::string(20000, 'x'));
  EXPECT_THAT(messages_at(0, [&] { open(); }),
              testing::AllOf(HasSubstr("ERROR: SQL_exec: 26 @ Sdbl line "), testing::Not(HasSubstr("open_db"))));
}

// --- Leftovers -------------------------------------------------------------------------------------------------------

// A leftover that is not removed would be written through.
TEST_F(System_calls, leftovers_of_exports_are_replaced_and_not_written_to) {
  const std::string precious = folder().file("precious");
  support::write_file(precious, "keep me");
  std::filesystem::create_symlink(precious, file() + "_exp");
  sdbl().backup_channel_database(folder().file("copy.db").c_str());
  EXPECT_EQ(support::read_file(precious), "keep me");

  std::filesystem::create_symlink(precious, TEMPORARY);
  export_guide();
  EXPECT_EQ(support::read_file(precious), "keep me");
}

// Of a process that is gone, and of one that is at it.
TEST_F(System_calls, an_export_removes_what_others_have_left_but_not_what_they_are_writing) {
  const std::string left = file() + "_exp.1234567-1";
  const std::string written = file() + "_exp.1234568";
  const std::string other = file() + "_exp.mine";
  for (const std::string& name : {left, written, other})
    support::write_file(name, "x");
  const int handle = ::open(written.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(handle, LOCK_EX), 0);
  sdbl().backup_channel_database(folder().file("copy.db").c_str());
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_TRUE(std::filesystem::exists(written));
  EXPECT_TRUE(std::filesystem::exists(other));
  ::close(handle);
}

// --- Sizes -----------------------------------------------------------------------------------------------------------

TEST_F(System_calls, the_copy_of_a_guide_is_smaller_by_the_pages_that_are_not_in_use) {
  run("INSERT INTO epglist_lang (source_oid, ext_desc) VALUES (1, zeroblob(1000000))");
  run("DELETE FROM epglist_lang");
  export_guide();
  EXPECT_GT(std::filesystem::file_size(guide_file()), 1000000u);
  EXPECT_LT(std::filesystem::file_size(folder().file("copy_epg.db")), 100000u);
}

TEST_F(System_calls, vacuum_compacts_the_channel_file_and_leaves_the_guide_as_it_is) {
  for (const char* schema : {"main", "epg_db"}) {
    run(std::string("CREATE TABLE ") + schema + ".big (b blob)");
    run(std::string("INSERT INTO ") + schema + ".big VALUES (zeroblob(1000000))");
    run(std::string("DELETE FROM ") + schema + ".big");
  }
  sdbl().remove_old_entries(0, true);
  EXPECT_LT(std::filesystem::file_size(file()), 100000u);
  EXPECT_GT(std::filesystem::file_size(guide_file()), 1000000u);
}

// --- Times -----------------------------------------------------------------------------------------------------------

TEST_F(System_calls, the_age_of_an_event_is_counted_from_its_start) {
  system_calls::set_time(NOW);
  event(1, NOW - 1001, 2000);  // is still running
  event(2, NOW - 1000, 1);     // is long over
  EXPECT_EQ(sdbl().remove_old_entries(1000, false), 1);
  EXPECT_EQ(rows("SELECT channel FROM epglist"), (Texts{"2"}));
}

TEST_F(System_calls, an_export_removes_what_started_more_than_a_day_ago_to_the_second) {
  system_calls::set_time(NOW);
  event(1, NOW - DAY - 1);
  event(2, NOW - DAY);
  event(3, NOW - DAY + 1);
  export_guide();
  EXPECT_EQ(rows("SELECT channel FROM epglist"), (Texts{"2", "3"}));
}

TEST_F(System_calls, a_guide_without_room_removes_what_started_more_than_a_day_ago_to_the_second) {
  system_calls::set_time(NOW);
  limit(10);
  event(1, NOW - DAY);  // one second older once there is no room
  event(2, NOW - DAY + 1);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(db_support::store_event(sdbl(), 7, NOW), -1); }),
            "ERROR: eit_for_service: rc is 13\n");
  EXPECT_EQ(rows("SELECT channel FROM epglist"), (Texts{"2"}));
}

TEST_F(System_calls, the_zone_is_compared_at_a_fixed_instant_in_january) {
  run("INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 3, 1, 'levira')");
  // A zone, and its minutes in January and in July.
  const std::tuple<const char*, int, int> cases[] = {{"EET-2EEST,M3.5.0/3,M10.5.0/4", 120, 180},
                                                     {"AEST-10AEDT,M10.1.0,M4.1.0/3", 660, 600}};
  for (const auto& [zone, january, july] : cases) {
    setenv("TZ", zone, 1);
    for (const time_t now : {NOW, NOW + 182 * DAY}) {
      system_calls::set_time(now);
      EXPECT_THAT(update_zone(january), testing::EndsWith("WARNING: Timezone OK\n")) << zone;
      EXPECT_THAT(update_zone(july), HasSubstr("WARNING: Setting timezone to")) << zone;
    }
  }
}

TEST_F(System_calls, a_zone_is_compiled_and_copied_over_what_stands_there) {
  run("INSERT INTO kanalid (freq, hf_conn, dvb_type, network_name) VALUES (506000000, 3, 1, 'levira')");
  if (!std::filesystem::exists("/usr/sbin/zic"))
    GTEST_SKIP() << "no zone compiler";
  setenv("TZ", "EET-2", 1);
  system_calls::record();
  update_zone(180);
  EXPECT_EQ(system_calls::recorded(),
            "system /usr/sbin/zic -d /tmp/zoneinfo /tmp/zoneinfo/timezone.txt\n"
            "system cp -f '/tmp/zoneinfo/EST_0' /dvbfiles/localtime\n");
}

// --- Room ------------------------------------------------------------------------------------------------------------

// An event is stored when it and its texts fit for certain: 40 pages for its row, 64 for its texts, and a page for each
// 500 bytes of what it holds itself.
TEST_F(System_calls, an_event_needs_104_pages_and_one_more_for_each_500_bytes) {
  for (const auto& [bytes, pages] : std::map<size_t, int>{{3, 104}, {494, 104}, {495, 105}, {994, 105}, {995, 106}}) {
    const std::string content(bytes, 'x');  // and five bytes of the rating
    system_calls::set_time(NOW);
    limit(pages - 1);
    EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(db_support::store_event(sdbl(), 7, NOW, 1, content), -1); }), "");
    limit(pages);
    EXPECT_GT(db_support::store_event(sdbl(), 7, NOW, 1, content), 0) << bytes;
    run("DELETE FROM epglist");
  }
}

TEST_F(System_calls, a_text_needs_24_pages_and_one_more_for_each_500_bytes) {
  for (const auto& [bytes, pages] : std::map<size_t, int>{{0, 24}, {492, 24}, {493, 25}, {1492, 26}, {1493, 27}}) {
    const std::string text(bytes, 'x');  // and seven bytes of language and name
    const auto insert = [&] { sdbl().insert_epglist_lang(5, "est", "Name", "", text.c_str(), ""); };
    system_calls::set_time(NOW);
    limit(pages - 1);
    EXPECT_THAT(insert, support::prints_at(1, "WARNING: epglist_lang rc = 13\n")) << bytes;
    limit(pages);
    EXPECT_THAT(insert, support::prints_at(1, "")) << bytes;
    run("DELETE FROM epglist_lang");
  }
}

// --- Exports at once -------------------------------------------------------------------------------------------------

TEST_F(System_calls, exports_asked_for_at_once_are_all_written) {
  sdbl().set_backup_file_name(folder().file("copy.db").c_str());
  const auto exported = [&] {
    for (int round = 0; round < 10; ++round)
      sdbl().backup_database(true);
  };
  EXPECT_EQ(messages_at(0,
                        [&] {
                          std::thread first(exported), second(exported);
                          first.join();
                          second.join();
                        }),
            "");
  EXPECT_EQ(support::Other_connection(folder().file("copy_epg.db")).rows("SELECT count(*) FROM epglist"), (Texts{"0"}));
}

// Also of several databases, which share the guide's temporary name. The copy of before is there until the new one is.
TEST_F(System_calls, exports_of_several_databases_at_once_leave_whole_copies_at_every_moment) {
  const std::string channels = folder().file("copy.db");
  const std::string guide = folder().file("copy_epg.db");
  run("INSERT INTO kanalid (freq) VALUES (1)");
  run("INSERT INTO epglist_lang (source_oid, ext_desc) VALUES (1, zeroblob(200000))");
  Sdbl second(file().c_str());
  std::atomic<int> running{2};
  const auto exported = [&](Sdbl& database) {
    database.set_backup_file_name(channels.c_str());
    for (int round = 0; round < 15; ++round) {
      database.backup_channel_database(channels.c_str());
      database.backup_database(true);
    }
    --running;
  };
  exported(second);
  running = 2;
  EXPECT_EQ(
      messages_at(0,
                  [&] {
                    std::thread one([&] { exported(sdbl()); }), two([&] { exported(second); });
                    while (running != 0) {
                      EXPECT_EQ(support::Other_connection(channels).rows("SELECT freq FROM kanalid"), (Texts{"1"}));
                      EXPECT_EQ(support::Other_connection(guide).rows("SELECT length(ext_desc) FROM epglist_lang"),
                                (Texts{"200000"}));
                    }
                    one.join();
                    two.join();
                  }),
      "");
  for (const auto& entry : std::filesystem::directory_iterator(folder().path()))
    EXPECT_EQ(entry.path().filename().string().find("_exp"), std::string::npos) << entry.path();
}

// A guide of 5 MB: what is handed to the system is the copy, and once more what is compacted.
TEST_F(System_calls, a_guide_export_writes_no_journal) {
  run("INSERT INTO epglist_lang (source_oid, ext_desc) VALUES (1, zeroblob(5000000))");
  const auto written = [] {
    std::ifstream io("/proc/self/io");
    std::string name;
    long long bytes = 0;
    while (io >> name >> bytes && name != "wchar:")
      continue;
    return bytes;
  };
  const long long before = written();
  export_guide();
  EXPECT_LT(written() - before, 11000000);
  EXPECT_GT(std::filesystem::file_size(folder().file("copy_epg.db")), 5000000u);
}
