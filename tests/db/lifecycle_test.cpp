// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dirent.h>

#include "db_support.h"

using db_support::conn_of;
using db_support::number;
using db_support::Other_connection;
using db_support::rows;
using db_support::run;
using support::messages_at;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

int open_files() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

std::string failure_of(const std::string& file) {
  try {
    Sdbl sdbl(file.c_str());
  } catch (const no_file_error& error) {
    return error.what();
  }
  return "opened";
}

std::string mapped(const char* path) {
  char out[4096];
  EXPECT_EQ(Sdbl::mapto_epg_filename(out, path), out);
  return out;
}

class Lifecycle : public testing::Test {
 protected:
  ~Lifecycle() override { verbosity_kelvo = 0; }

  std::unique_ptr<Sdbl> open() { return std::make_unique<Sdbl>(file_.c_str()); }

  support::Temp_dir dir_;
  std::string file_ = dir_.file("a.db");
};

}  // namespace

TEST(Epg_file_name, is_the_path_cut_at_its_last_dot) {
  EXPECT_EQ(mapped("/dvbfiles/dvb.db"), "/dvbfiles/dvb_epg.db");
  EXPECT_EQ(mapped("a.b.c"), "a.b_epg.db");
  EXPECT_EQ(mapped("/x/y.z/"), "/x/y_epg.db");
  EXPECT_EQ(mapped("."), "_epg.db");
}

TEST(Epg_file_name, quirk_dot_of_a_directory_is_cut_too) {
  EXPECT_EQ(mapped("/home/a.b/dvb"), "/home/a_epg.db");
}

TEST(Epg_file_name, quirk_path_without_a_dot_is_cut_to_nothing) {
  EXPECT_EQ(mapped("/dvbfiles/dvb"), "_epg.db");
  EXPECT_EQ(mapped(""), "_epg.db");
}

TEST_F(Lifecycle, opening_a_file_in_a_missing_directory_throws) {
  const std::string file = dir_.file("none/a.db");
  const int before = open_files();
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(failure_of(file), "Unable to open file"); }),
            "ERROR: FLUSH: Cannot open database " + file + ", error unable to open database file\n");
  EXPECT_EQ(messages_at(-1, [&] { failure_of(file); }), "");
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, a_guide_file_that_cannot_be_opened_throws_and_leaves_nothing_open) {
  std::filesystem::create_directory(dir_.file("a_epg.db"));
  const int before = open_files();
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(failure_of(file_), "Unable to open epg file %s"); }),
            "ERROR: FLUSH: Cannot open database " + dir_.file("a_epg.db") + ", error unable to open database file\n");
  EXPECT_EQ(messages_at(-1, [&] { failure_of(file_); }), "");
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, quirk_exception_about_the_guide_file_holds_a_percent_s) {
  std::filesystem::create_directory(dir_.file("a_epg.db"));
  verbosity_kelvo = -1;
  EXPECT_EQ(failure_of(file_), "Unable to open epg file %s");
}

TEST_F(Lifecycle, paths_too_long_for_a_path_cannot_be_opened) {
  const int before = open_files();
  EXPECT_EQ(failure_of(dir_.path() + "/" + std::string(4096, 'a') + ".db"), "Unable to open file");
  EXPECT_EQ(failure_of(std::string(4096, '/')), "Unable to open file");
  // 4095 bytes alone would fit, with "_epg" they do not.
  EXPECT_EQ(failure_of("/" + std::string(4091, 'a') + ".db"), "Unable to open file");
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, banner_and_progress_have_their_levels) {
  open();
  EXPECT_EQ(messages_at(1, [&] { open(); }), "");
  EXPECT_EQ(messages_at(2, [&] { open(); }),
            "Setting shared cache mode for database open calls\nSQLITE library in thread-safe mode\n");
  EXPECT_EQ(messages_at(3, [&] { open(); }),
            "Kelvo DVB-T si parser ver. 2.5\nSetting shared cache mode for database open calls\n"
            "SQLITE library in thread-safe mode\n");
  const std::string text = messages_at(4, [&] { open(); });
  EXPECT_THAT(text, testing::StartsWith("Kelvo DVB-T si parser ver. 2.5\nDEBUG issue, SQL_TIMEOUT is 2000 msec\n"
                                        "Opening dvb info database in " +
                                        file_ + ", len " + std::to_string(file_.size()) + ", out " + file_ +
                                        "\nSetting shared cache mode for database open calls\nOpendb opendone\n"
                                        "sql_exec: PRAGMA max_page_count=8000;\n"));
}

TEST_F(Lifecycle, every_step_of_opening_is_in_order) {
  open();
  std::string text = messages_at(4, [&] { open(); });
  const Texts statements = db_support::after("sql_exec: ", text);
  const Texts pragmas = {"PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
                         "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;"};
  Texts expected = pragmas;
  for (const char* table : {"kanalid", "kanalid_lang", "estreams", "tuner_table"})
    expected.push_back(std::string("SELECT * FROM ") + table + ";");
  expected.insert(expected.end(), pragmas.begin(), pragmas.end());
  for (const char* table : {"epglist", "epglist_lang"})
    expected.push_back(std::string("SELECT * FROM ") + table + ";");
  expected.push_back("ATTACH DATABASE '" + dir_.file("a_epg.db") + "' as epg_db;");
  expected.push_back("PRAGMA epg_db.journal_mode = OFF;");
  expected.push_back("PRAGMA epg_db.synchronous = OFF;");
  expected.push_back("PRAGMA epg_db.max_page_count=8000;");
  expected.push_back("DETACH DATABASE epg_db;");
  EXPECT_EQ(statements, expected);
}

TEST_F(Lifecycle, both_files_have_neither_journal_nor_sync) {
  auto sdbl = open();
  for (const char* schema : {"main", "epg_db"}) {
    EXPECT_EQ(rows(*sdbl, std::string("PRAGMA ") + schema + ".journal_mode"), (Texts{"off"})) << schema;
    EXPECT_EQ(rows(*sdbl, std::string("PRAGMA ") + schema + ".synchronous"), (Texts{"0"})) << schema;
  }
  EXPECT_EQ(rows(*sdbl, "PRAGMA temp_store"), (Texts{"2"}));
  EXPECT_EQ(rows(*sdbl, "PRAGMA max_page_count"), (Texts{"8000"}));
  EXPECT_EQ(rows(*sdbl, "PRAGMA default_cache_size"), (Texts{"64"}));
  EXPECT_EQ(rows(*sdbl, "PRAGMA busy_timeout"), (Texts{"2000"}));
}

TEST_F(Lifecycle, path_names_are_quoted) {
  const std::string file = dir_.file("it's; odd \"$(x).db");
  Sdbl sdbl(file.c_str());
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(dir_.file("it's; odd \"$(x)_epg.db")));
  EXPECT_EQ(rows(sdbl, "SELECT count(*) FROM epg_db.epglist"), (Texts{"0"}));
}

TEST_F(Lifecycle, closing_twice_prints_an_error_and_does_nothing_else) {
  auto sdbl = open();
  EXPECT_TRUE(sdbl->db_opened());
  EXPECT_EQ(stderr_of([&] { sdbl->close_db(); }), "");
  EXPECT_FALSE(sdbl->db_opened());
  EXPECT_EQ(stderr_of([&] { sdbl->close_db(); }), "ERROR: Closing closed db");
  EXPECT_EQ(messages_at(-1, [&] { sdbl->close_db(); }), "");
  EXPECT_FALSE(sdbl->db_opened());
}

TEST_F(Lifecycle, closing_traces_its_steps_at_level_4) {
  auto sdbl = open();
  auto second = open();
  EXPECT_EQ(messages_at(3, [&] { second->close_db(); }), "");
  EXPECT_EQ(messages_at(4, [&] { sdbl->close_db(); }), "Closing db sql_exec: DETACH DATABASE epg_db;\ncldone\n");
}

TEST_F(Lifecycle, destroying_ends_the_statements_of_the_cache_before_closing) {
  auto sdbl = open();
  for (int n = 0; n < 3; ++n)
    sqlite3_step(sdbl->sql_cache(false, n, "SELECT 'DVBNR'"));
  EXPECT_EQ(messages_at(4, [&] { sdbl.reset(); }), "Closing db sql_exec: DETACH DATABASE epg_db;\ncldone\n");
}

TEST_F(Lifecycle, closing_ends_open_statements_with_a_warning_for_each) {
  auto sdbl = open();
  sqlite3_step(sdbl->sql_cache(false, 0, "SELECT 1"));
  (void)sdbl->sql_cache(false, 1, "SELECT 2");
  EXPECT_EQ(messages_at(1, [&] { sdbl->close_db(); }),
            "WARNING: Open statement in close db\nWARNING: Open statement in close db\n");
  auto second = open();
  (void)second->sql_cache(false, 0, "SELECT 1");
  EXPECT_EQ(messages_at(0, [&] { second->close_db(); }), "");
}

TEST_F(Lifecycle, a_connection_in_use_is_tried_five_times_and_left) {
  auto sdbl = open();
  sqlite3* conn = conn_of(*sdbl);
  Other_connection copy(dir_.file("copy.db"));
  sqlite3_backup* backup = sqlite3_backup_init(copy.get(), "main", conn, "main");
  ASSERT_NE(backup, nullptr);
  const std::string line = "ERROR: FLUSH: Cannot close database " + file_ +
                           ", error unable to close due to unfinalized statements or unfinished backups\n";
  const auto from = std::chrono::steady_clock::now();
  EXPECT_EQ(stderr_of([&] { sdbl->close_db(); }), line + line + line + line + line);
  EXPECT_GE(std::chrono::steady_clock::now() - from, std::chrono::milliseconds(40)) << "10 ms between two attempts";
  EXPECT_FALSE(sdbl->db_opened());
  sqlite3_backup_finish(backup);
  EXPECT_EQ(sqlite3_close(conn), SQLITE_OK);
}

TEST_F(Lifecycle, reopening_brings_the_channels_back_without_the_guide) {
  auto sdbl = open();
  run(*sdbl, "INSERT INTO kanalid (freq) VALUES (5)");
  sdbl->create_temp_tables(0);
  sdbl->close_db();
  verbosity_kelvo = -1;
  EXPECT_EQ(sdbl->open_db(), 1);
  EXPECT_TRUE(sdbl->db_opened());
  EXPECT_EQ(sdbl->get_freq(1), 5);
  EXPECT_EQ(rows(*sdbl, "SELECT * FROM epglist"), (Texts{"error: no such table: epglist"}));
  EXPECT_EQ(rows(*sdbl, "SELECT * FROM kanalid_scan_0"), (Texts{"error: no such table: kanalid_scan_0"}));
  EXPECT_EQ(rows(*sdbl, "PRAGMA journal_mode"), (Texts{"off"}));
  EXPECT_THAT(messages_at(0, [&] { sdbl->close_db(); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ close_db line [0-9]+\n"
                           "ERROR: Failed to detach epg info database, rc = 1\n"));
}

TEST_F(Lifecycle, quirk_opening_an_open_database_complains_and_opens_again) {
  auto sdbl = open();
  sdbl->create_temp_tables(0);
  run(*sdbl, "INSERT INTO kanalid (freq) VALUES (5)");
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl->open_db(), 1); }), "ERROR: sdbl: opening already opened database\n");
  EXPECT_EQ(sdbl->get_freq(1), 5);
  EXPECT_EQ(rows(*sdbl, "SELECT * FROM kanalid_scan_0"), (Texts{"error: no such table: kanalid_scan_0"}));
}

TEST_F(Lifecycle, reopening_a_file_that_is_gone_throws_and_stays_closed) {
  auto sdbl = open();
  sdbl->close_db();
  std::filesystem::remove(file_);
  std::filesystem::create_directory(file_);
  verbosity_kelvo = -1;
  EXPECT_THROW(sdbl->open_db(), no_file_error);
  EXPECT_FALSE(sdbl->db_opened());
}

TEST_F(Lifecycle, destroying_closes_all_files) {
  const int before = open_files();
  {
    auto sdbl = open();
    EXPECT_GT(open_files(), before);
    verbosity_kelvo = -1;
    sdbl->open_db();
  }
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, flushing_announces_itself) {
  auto sdbl = open();
  EXPECT_EQ(messages_at(2, [&] { sdbl->flush(); }), "");
  EXPECT_EQ(messages_at(3, [&] { sdbl->flush(); }), "Flushing\n");
  EXPECT_EQ(messages_at(4, [&] { sdbl->flush(); }), "Flushing\nFldone\n");
  sdbl->close_db();
  EXPECT_EQ(stderr_of([&] { sdbl->flush(); }), "ERROR: Flushing closed handle\n");
  EXPECT_EQ(messages_at(-1, [&] { sdbl->flush(); }), "");
}

TEST_F(Lifecycle, scan_tables_are_made_again_empty) {
  auto sdbl = open();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(stderr_of([&] { sdbl->create_temp_tables(2); }), "");
    EXPECT_EQ(number(*sdbl, "SELECT count(*) FROM kanalid_scan_2"), 0);
    EXPECT_EQ(number(*sdbl, "SELECT count(*) FROM kanalid_lang_scan_2"), 0);
    EXPECT_EQ(number(*sdbl, "SELECT count(*) FROM estreams_scan_2"), 0);
    run(*sdbl, "INSERT INTO kanalid_scan_2 (freq) VALUES (1)");
    run(*sdbl, "INSERT INTO kanalid_lang_scan_2 (lang) VALUES ('eng')");
    run(*sdbl, "INSERT INTO estreams_scan_2 (es_pid) VALUES (1)");
  }
}

TEST_F(Lifecycle, clearing_empties_the_scan_tables_of_one_instance) {
  auto sdbl = open();
  for (const char* n : {"0", "1"}) {
    sdbl->create_temp_tables(n[0] - '0');
    run(*sdbl, std::string("INSERT INTO kanalid_scan_") + n + " (freq) VALUES (1)");
    run(*sdbl, std::string("INSERT INTO kanalid_lang_scan_") + n + " (lang) VALUES ('eng')");
    run(*sdbl, std::string("INSERT INTO estreams_scan_") + n + " (es_pid) VALUES (1)");
  }
  sdbl->clear_temp_tables(1);
  for (const char* table : {"kanalid_scan_", "kanalid_lang_scan_", "estreams_scan_"}) {
    EXPECT_EQ(number(*sdbl, std::string("SELECT count(*) FROM ") + table + "0"), 1);
    EXPECT_EQ(number(*sdbl, std::string("SELECT count(*) FROM ") + table + "1"), 0);
  }
}

TEST_F(Lifecycle, scan_tables_are_dropped_built_and_cleared_in_order) {
  auto sdbl = open();
  const std::string text = messages_at(4, [&] { sdbl->create_temp_tables(3); });
  Texts statements;
  for (size_t at = 0; (at = text.find("sql_exec: ", at)) != std::string::npos; ++at)
    if (text.compare(at + 10, 5, "ALTER") != 0)
      statements.push_back(text.substr(at + 10, text.find('\n', at) - at - 10));
  EXPECT_EQ(statements, (Texts{"DROP TABLE IF EXISTS kanalid_scan_3;", "DROP TABLE IF EXISTS kanalid_lang_scan_3;",
                               "DROP TABLE IF EXISTS estreams_scan_3",
                               "CREATE TEMP TABLE 'kanalid_scan_3' (channel integer primary key autoincrement);",
                               "CREATE TEMP TABLE 'kanalid_lang_scan_3' (source_oid int);",
                               "CREATE TEMP TABLE 'estreams_scan_3' (channel int);"}));
  EXPECT_EQ(messages_at(4, [&] { sdbl->clear_temp_tables(3); }),
            "sql_exec: DELETE FROM estreams_scan_3;\nsql_exec: DELETE FROM kanalid_scan_3;\n"
            "sql_exec: DELETE FROM kanalid_lang_scan_3;\n");
}

TEST_F(Lifecycle, clearing_goes_on_after_a_table_that_is_not_there) {
  auto sdbl = open();
  sdbl->create_temp_tables(1);
  run(*sdbl, "INSERT INTO kanalid_scan_1 (freq) VALUES (1)");
  run(*sdbl, "INSERT INTO kanalid_lang_scan_1 (lang) VALUES ('eng')");
  run(*sdbl, "DROP TABLE estreams_scan_1");
  EXPECT_THAT(stderr_of([&] { sdbl->clear_temp_tables(1); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ clear_temp_tables line [0-9]+\n"));
  EXPECT_EQ(number(*sdbl, "SELECT count(*) FROM kanalid_scan_1"), 0);
  EXPECT_EQ(number(*sdbl, "SELECT count(*) FROM kanalid_lang_scan_1"), 0);
}

TEST_F(Lifecycle, scan_tables_of_a_closed_database_print_an_error_for_every_statement) {
  auto sdbl = open();
  sdbl->close_db();
  EXPECT_THAT(stderr_of([&] { sdbl->create_temp_tables(1); }),
              MatchesRegex("(ERROR: SQL_exec: 21 @ create_temp_tables line [0-9]+\n){3}"
                           "(ERROR: SQL_exec: 21 @ create_table_kanalid line [0-9]+\n){21}"
                           "(ERROR: SQL_exec: 21 @ create_table_kanalid_lang line [0-9]+\n){5}"
                           "(ERROR: SQL_exec: 21 @ create_table_estreams line [0-9]+\n){13}"));
  EXPECT_EQ(messages_at(-1, [&] { sdbl->create_temp_tables(1); }), "");
}

TEST_F(Lifecycle, clearing_tables_that_are_not_there_prints_three_errors) {
  auto sdbl = open();
  EXPECT_THAT(stderr_of([&] { sdbl->clear_temp_tables(1); }),
              MatchesRegex("(ERROR: SQL_exec: 1 @ clear_temp_tables line [0-9]+\n){3}"));
  EXPECT_EQ(messages_at(-1, [&] { sdbl->clear_temp_tables(1); }), "");
}

TEST_F(Lifecycle, old_events_go_with_their_texts_and_both_are_counted) {
  auto sdbl = open();
  const long now = time(nullptr);
  const auto event = [&](int entry, long start, int texts) {
    run(*sdbl, "INSERT INTO epglist (entry, channel, start_epoch) VALUES (" + std::to_string(entry) + ", 1, " +
                   std::to_string(start) + ")");
    for (int i = 0; i < texts; ++i)
      run(*sdbl, "INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (" + std::to_string(entry) + ", 'l" +
                     std::to_string(i) + "', 'x')");
  };
  event(1, now - 86400 - 100, 2);
  event(2, now - 86400 - 50, 0);
  event(3, now - 86400 + 100, 1);
  event(4, now + 1000, 1);
  EXPECT_EQ(sdbl->remove_old_entries(86400, false), 4);
  EXPECT_EQ(rows(*sdbl, "SELECT entry FROM epglist"), (Texts{"3", "4"}));
  EXPECT_EQ(rows(*sdbl, "SELECT source_oid FROM epglist_lang"), (Texts{"3", "4"}));
  EXPECT_EQ(sdbl->remove_old_entries(86400, false), 0);
}

TEST_F(Lifecycle, an_event_of_exactly_the_age_stays) {
  auto sdbl = open();
  bool same_second = false;
  for (int attempt = 0; attempt < 20 && !same_second; ++attempt) {
    run(*sdbl, "DELETE FROM epglist");
    const time_t now = time(nullptr);
    for (const int age : {999, 1000, 1001})
      run(*sdbl, "INSERT INTO epglist (channel, start_epoch) VALUES (" + std::to_string(age) + ", " +
                     std::to_string(now - age) + ")");
    const int removed = sdbl->remove_old_entries(1000, false);
    same_second = time(nullptr) == now;
    if (same_second) {
      EXPECT_EQ(removed, 1);
      EXPECT_EQ(rows(*sdbl, "SELECT channel FROM epglist ORDER BY channel"), (Texts{"999", "1000"}));
    }
  }
  EXPECT_TRUE(same_second) << "a second passed in the middle of every attempt";
}

TEST_F(Lifecycle, removing_with_vacuum_compacts_the_channel_file) {
  auto sdbl = open();
  run(*sdbl, "CREATE TABLE big (b blob)");
  run(*sdbl, "INSERT INTO big VALUES (zeroblob(1000000))");
  run(*sdbl, "DELETE FROM big");
  const auto before = std::filesystem::file_size(file_);
  EXPECT_EQ(sdbl->remove_old_entries(0, false), 0);
  EXPECT_EQ(std::filesystem::file_size(file_), before);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl->remove_old_entries(0, true), 0); }), "");
  EXPECT_LT(std::filesystem::file_size(file_), before / 2);
}

TEST_F(Lifecycle, damaged_channel_file_prints_errors_and_is_left_alone) {
  const std::string rubbish(20000, 'x');
  support::write_file(file_, rubbish);
  std::unique_ptr<Sdbl> sdbl;
  const std::string text = stderr_of([&] { sdbl = open(); });
  EXPECT_THAT(text, HasSubstr("ERROR: SQL_exec: 26 @ open_db line "));
  EXPECT_THAT(text, testing::Not(HasSubstr("create_table")));
  (void)messages_at(-1, [&] {
    EXPECT_EQ(sdbl->get_freq(1), -1);
    EXPECT_EQ(sdbl->get_pat_prnr(1, 1), -1);
    EXPECT_EQ(sdbl->set_master_scan_timeout(1, 1, 1), 1);
    sdbl->create_temp_tables(0);
    EXPECT_EQ(sdbl->update_master_scan_data(0, 1, 1, 1, SCAN_PAT), 0);
    sdbl.reset();
  });
  EXPECT_EQ(support::read_file(file_), rubbish);
}

TEST_F(Lifecycle, damaged_guide_file_leaves_the_channels_usable) {
  const std::string rubbish(20000, 'x');
  support::write_file(dir_.file("a_epg.db"), rubbish);
  std::unique_ptr<Sdbl> sdbl;
  const std::string text = stderr_of([&] { sdbl = open(); });
  EXPECT_THAT(text, HasSubstr("ERROR: Failed to attach epg database " + dir_.file("a_epg.db") + ", rc = 26\n"));
  sdbl.reset();
  EXPECT_EQ(messages_at(-1, [&] { sdbl = open(); }), "");
  EXPECT_EQ(run(*sdbl, "INSERT INTO kanalid (freq) VALUES (5)"), SQLITE_DONE);
  EXPECT_EQ(sdbl->get_freq(1), 5);
  verbosity_kelvo = -1;
  EXPECT_EQ(sdbl->remove_old_entries(0, false), 0);
  sdbl.reset();
  EXPECT_EQ(support::read_file(dir_.file("a_epg.db")), rubbish);
}

TEST_F(Lifecycle, another_connection_reads_while_ours_is_open) {
  auto sdbl = open();
  run(*sdbl, "INSERT INTO kanalid (freq) VALUES (5)");
  Other_connection host(file_);
  EXPECT_EQ(rows(host.get(), "SELECT freq FROM kanalid"), (Texts{"5"}));
}
