// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Sections, merges and purges while another program has a file locked or the disk is full: nothing of them is stored,
// at the price of one wait, nobody else waits, and the next time all of it is. Under the launcher.
#include <future>

#include "si/si_support.h"
#include "support/softdvb.h"
#include "system_calls.h"

using namespace si_support;
using support::Other_connection;

namespace {

constexpr int NOW = table::EIT_PRESENT_FOLLOWING;
constexpr long ONE_WAIT_US = 2000000;

class Section_failures : public Parser_test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    insert(1, 256, 257, "First");
    begin();
  }
  void TearDown() override {
    support::softdvb_control("clear faults");
    system_calls::on_wait(nullptr);
  }

  void begin() {
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.start_eit_scan(FREQ, SCAN_EIT);
  }
  // Five events behind each other, of which none has come before; the last section never comes.
  static Bytes section(int number) {
    std::vector<Programme_event> events;
    for (unsigned i = 0; i < 5; ++i)
      events.push_back({number * 5 + static_cast<int>(i) + 1, static_cast<unsigned>(number) << 16 | i << 8, 0x000100,
                        short_event("eng", "A title", "What it is about")});
    return eit(1, NOW, events, 0, 1);
  }
  std::string arrive(const Bytes& section) { return scan_at(0, section, pid::EIT, SCAN_EIT); }
  std::string events_and_texts() {
    return rows("SELECT (SELECT count(*) FROM epglist) || ' ' || (SELECT count(*) FROM epglist_lang)").front();
  }
  void scan_a_service(int program) {
    db.clear_temp_tables(0);
    db.pat_for_network(0, TYPE, CONN, FREQ, program, 5, 100 + program);
    db.pmt_channel_number(0, TYPE, CONN, FREQ, program, 300, SCAN_PAT);
  }
  int merge() { return db.update_master_scan_data(0, TYPE, CONN, FREQ, SCAN_PAT); }
};

// Another program in the middle of something, for as long as it lives.
class Other_program : public Other_connection {
 public:
  Other_program(const std::string& file, const char* begin, const char* then) : Other_connection(file) {
    EXPECT_EQ(run(begin), SQLITE_DONE);
    (void)rows(then);
  }
};

const char REFUSED_BUSY[] = "ERROR: eit_for_service: rc is 5\n";
const char REFUSED_FULL[] = "ERROR: eit_for_service: rc is 13\n";

}  // namespace

// A writer, one that has not written yet, and a reader in the middle of its rows.
TEST_F(Section_failures, a_locked_guide_costs_one_wait_a_lock_and_its_sections_are_stored_when_they_come_again) {
  const std::pair<const char*, const char*> cases[] = {
      {"BEGIN EXCLUSIVE", "SELECT 1"}, {"BEGIN IMMEDIATE", "SELECT 1"}, {"BEGIN", "SELECT * FROM epglist"}};
  int number = 0;
  for (const auto& [begin, then] : cases) {
    SCOPED_TRACE(begin);
    const std::string before = events_and_texts();
    const int stored = parser.get_eit_stored();
    int counted = stored;  // at most, while it was waited
    system_calls::on_wait([&] { counted = std::max(counted, parser.get_eit_stored()); });
    {
      const Other_program other(guide_file(), begin, then);
      system_calls::record();
      EXPECT_EQ(arrive(section(number)), REFUSED_BUSY) << "once for five events";
      EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US);
      EXPECT_EQ(arrive(section(number + 1)), REFUSED_BUSY);
      EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US) << "who still holds it is not waited for again";
      EXPECT_EQ(counted, stored);
      EXPECT_EQ(parser.get_eit_stored(), stored);
      Database_error error;
      EXPECT_TRUE(db.first_error(&error));
      EXPECT_EQ(error.code, SQLITE_BUSY);
      EXPECT_STREQ(error.operation, "eit_for_service");
      db.forget_errors();
    }
    EXPECT_EQ(events_and_texts(), before);
    EXPECT_EQ(arrive(section(number)) + arrive(section(number + 1)), "");
    EXPECT_EQ(parser.get_eit_stored(), stored + 10);
    number += 2;
  }
  EXPECT_EQ(events_and_texts(), "30 30");
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), Texts{"ok"});
}

TEST_F(Section_failures, the_channels_lock_does_not_stop_the_guide) {
  EXPECT_EQ(arrive(section(0)), "");
  const Other_program other(file(), "BEGIN EXCLUSIVE", "SELECT 1");
  system_calls::record();
  EXPECT_EQ(arrive(section(1)), "");
  EXPECT_EQ(system_calls::waited_us(), 0);
  EXPECT_EQ(events_and_texts(), "10 10");
}

TEST_F(Section_failures, with_a_wal_a_reader_stops_nobody) {
  EXPECT_EQ(rows("PRAGMA epg_db.journal_mode = WAL"), Texts{"wal"});
  const Other_program other(guide_file(), "BEGIN", "SELECT * FROM epglist");
  system_calls::record();
  EXPECT_EQ(arrive(section(0)), "");
  EXPECT_EQ(system_calls::waited_us(), 0);
  EXPECT_EQ(events_and_texts(), "5 5");
}

// The wait is held up until another thread has merged, written a channel and read it.
TEST_F(Section_failures, other_adapters_go_on_while_one_waits) {
  scan_a_service(2);
  db.create_temp_tables(1);
  const Other_program other(guide_file(), "BEGIN EXCLUSIVE", "SELECT 1");
  std::future<bool> work;
  std::atomic<bool> begun{false};
  bool done_meanwhile = false;
  system_calls::on_wait([&] {
    if (begun.exchange(true))
      return;
    work = std::async(std::launch::async, [&] {
      return merge() != 0 && db.set_master_scan_timeout(TYPE, CONN, FREQ) == 0 && db.get_freq(1) == FREQ &&
             db.pat_for_network(1, TYPE, CONN, FREQ, 1, 5, 100) == 1;
    });
    done_meanwhile = work.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  });
  (void)messages_at(-1, [&] { arrive(section(0)); });
  EXPECT_TRUE(done_meanwhile);
  ASSERT_TRUE(work.valid());
  EXPECT_TRUE(work.get());
  EXPECT_EQ(number("SELECT count(*) FROM kanalid"), 2);
}

// At the last page that is written, and at every one before; also where the file has grown.
TEST_F(Section_failures, a_disk_that_is_full_at_the_end_of_a_section_keeps_nothing_of_it) {
  EXPECT_EQ(arrive(section(0)), "");
  const auto before = table("epglist");
  int write = 1;
  for (;; ++write) {
    support::softdvb_control("fault write(dvb_epg.db)=ENOSPC@" + std::to_string(write) + "*1");
    const std::string text = arrive(section(1));
    support::softdvb_control("clear faults");
    if (text.empty())
      break;
    ASSERT_EQ(text, REFUSED_FULL) << write;
    ASSERT_EQ(table("epglist"), before) << write;
    ASSERT_EQ(events_and_texts(), "5 5") << write;
    ASSERT_EQ(parser.get_eit_stored(), 5) << write;
    ASSERT_EQ(Other_connection(guide_file()).rows("PRAGMA integrity_check"), Texts{"ok"}) << write;
    Database_error error;
    EXPECT_TRUE(db.first_error(&error));
    EXPECT_EQ(error.code, SQLITE_FULL);
    EXPECT_TRUE(error.guide_full);
    db.forget_errors();
    ASSERT_LT(write, 100);
  }
  EXPECT_GT(write, 5) << "some of the pages of two tables and six indexes";
  EXPECT_EQ(events_and_texts(), "10 10");
}

// As where there is no memory for the guide's journal. What went together with a refused event could then be taken back
// only by luck, so all go one by one.
TEST_F(Section_failures, without_a_journal_a_refused_event_leaves_the_others_once) {
  run("CREATE TRIGGER epg_db.refuse BEFORE INSERT ON epglist WHEN new.ev_id % 5 = 3 BEGIN SELECT RAISE(FAIL, 'no'); END");
  sqlite3_set_authorizer(
      conn(),
      [](void*, int action, const char* pragma, const char* value, const char*, const char*) {
        return action == SQLITE_PRAGMA && value != nullptr && std::string(pragma) == "journal_mode" ? SQLITE_DENY
                                                                                                    : SQLITE_OK;
      },
      nullptr);
  const std::string refused = arrive(section(0));
  EXPECT_NE(refused, "");
  EXPECT_EQ(rows("PRAGMA epg_db.journal_mode"), Texts{"off"});
  EXPECT_EQ(rows("SELECT entry || ' ' || ev_id FROM epglist"), (Texts{"1 1", "2 2", "3 4", "4 5"}));
  EXPECT_EQ(events_and_texts(), "4 4");

  sqlite3_set_authorizer(conn(), nullptr, nullptr);
  EXPECT_EQ(arrive(section(1)), refused);
  EXPECT_EQ(rows("PRAGMA epg_db.journal_mode"), Texts{"memory"});
  EXPECT_EQ(rows("SELECT ev_id FROM epglist"), (Texts{"1", "2", "4", "5", "6", "7", "9", "10"}));
  EXPECT_EQ(events_and_texts(), "8 8");
  EXPECT_EQ(parser.get_eit_stored(), 10) << "a refused one counts";
}

TEST_F(Section_failures, a_disk_that_is_full_at_the_end_of_a_merge_keeps_nothing_of_it) {
  scan_a_service(7);
  EXPECT_EQ(merge(), 2);
  const Texts before = table("kanalid");
  // The first write is the one that asks the disk; without it every statement says for itself what is wrong.
  int write = 2;
  int result = 0;
  for (; result == 0; ++write) {
    scan_a_service(8);
    support::softdvb_control("fault write(dvb.db)=ENOSPC@" + std::to_string(write) + "*1");
    const std::string text = messages_at(0, [&] { result = merge(); });
    support::softdvb_control("clear faults");
    if (result != 0)
      break;
    ASSERT_EQ(text, "ERROR: The channels of 506000000 Hz are not stored, rc = 13\n") << write;
    ASSERT_EQ(table("kanalid"), before) << write;
    ASSERT_EQ(Other_connection(file()).rows("PRAGMA integrity_check"), Texts{"ok"}) << write;
    ASSERT_LT(write, 100);
  }
  EXPECT_GT(write, 3);
  EXPECT_EQ(result, 2 | 1);
}

TEST_F(Section_failures, a_purge_that_is_stopped_leaves_every_event_with_its_texts) {
  const std::string old = std::to_string(time(nullptr) - 100000);
  const auto fill = [&] {
    run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1200) INSERT INTO epglist (channel, "
        "start_epoch) SELECT 1, " +
        old + " - i FROM n");
    run("INSERT INTO epglist_lang (source_oid, lang) SELECT entry, 'eng' FROM epglist");
  };
  fill();
  const auto purge = [&](int expected) {
    return messages_at(0, [&] { EXPECT_EQ(db.remove_old_entries(86400, false), expected); });
  };
  {
    const Other_program other(guide_file(), "BEGIN", "SELECT * FROM epglist");
    system_calls::record();
    EXPECT_EQ(purge(0), "ERROR: Old events stay in the guide: database is locked\n");
    EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US);
  }
  EXPECT_EQ(events_and_texts(), "1200 1200");
  int stops = 0;
  for (int write = 1;; write += 7) {
    const int had = number("SELECT count(*) FROM epglist");
    support::softdvb_control("fault write(dvb_epg.db)=ENOSPC@" + std::to_string(write) + "*1");
    int removed = 0;
    const std::string text = messages_at(0, [&] { removed = db.remove_old_entries(86400, false); });
    support::softdvb_control("clear faults");
    const std::string left = std::to_string(had - removed / 2);
    ASSERT_EQ(events_and_texts(), left + " " + left) << write;
    ASSERT_EQ(rows("PRAGMA epg_db.integrity_check"), Texts{"ok"}) << write;
    if (text.empty())
      break;
    ASSERT_EQ(text, "ERROR: Old events stay in the guide: database or disk is full\n") << write;
    ASSERT_EQ(removed % 1000, 0) << "500 events and their texts at once";
    ++stops;
  }
  EXPECT_GT(stops, 3);
  EXPECT_EQ(events_and_texts(), "0 0");
}

// A reader, too: a line that is not there yet has to be written.
TEST_F(Section_failures, a_locked_channel_file_costs_a_nit_s_lines_one_wait_and_they_are_stored_later) {
  const std::pair<const char*, const char*> cases[] = {
      {"BEGIN EXCLUSIVE", "SELECT 1"}, {"BEGIN IMMEDIATE", "SELECT 1"}, {"BEGIN", "SELECT * FROM kanalid"}};
  int freq = FREQ;
  size_t stored = 0;
  for (const auto& [begin, then] : cases) {
    SCOPED_TRACE(begin);
    const auto line = [&] { return db.terrestrial_tuner_info(TYPE, CONN, freq++, 0, 2, 0, 2, 2, 0, 1); };
    {
      const Other_program other(file(), begin, then);
      system_calls::record();
      EXPECT_NE(messages_at(1, line), "") << "it is said";
      EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US);
      (void)messages_at(-1, line);
      (void)messages_at(-1, line);
      EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US) << "who still holds it is not waited for again";
      Database_error error;
      EXPECT_TRUE(db.first_error(&error));
      EXPECT_EQ(error.code, SQLITE_BUSY);
      EXPECT_STREQ(error.operation, "terrestrial_tuner_info");
      db.forget_errors();
    }
    EXPECT_EQ(rows("SELECT * FROM tuner_table").size(), stored);
    (void)messages_at(-1, line);
    stored += 4;
    EXPECT_EQ(rows("SELECT DISTINCT tuner_params FROM tuner_table").size(), stored)
        << "the one that came, and those before";
    EXPECT_EQ(system_calls::waited_us(), ONE_WAIT_US);
  }
  EXPECT_EQ(rows("PRAGMA main.integrity_check"), Texts{"ok"});
}

TEST_F(Section_failures, a_nit_s_line_is_stored_as_soon_as_the_lock_goes_and_others_go_on_until_then) {
  std::optional<Other_program> other;
  other.emplace(file(), "BEGIN EXCLUSIVE", "SELECT 1");
  std::atomic<bool> begun{false};
  bool done_meanwhile = false;
  system_calls::on_wait([&] {
    if (begun.exchange(true))
      return;
    auto work = std::async(std::launch::async, [&] { return rows("SELECT count(*) FROM epg_db.epglist"); });
    done_meanwhile = work.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    other.reset();
  });
  EXPECT_EQ(messages_at(0, [&] { db.terrestrial_tuner_info(TYPE, CONN, FREQ, 0, 2, 0, 2, 2, 0, 1); }), "");
  EXPECT_TRUE(done_meanwhile);
  EXPECT_EQ(number("SELECT count(*) FROM tuner_table"), 1);
  Database_error error;
  EXPECT_FALSE(db.first_error(&error));
}
