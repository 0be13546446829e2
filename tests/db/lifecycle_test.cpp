// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using support::messages_at;
using support::prints_only_from;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr char CLOSING[] = "Closing db sql_exec: DETACH DATABASE epg_db;\ncldone\n";

long open_files() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
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

class Lifecycle : public db_support::Database_test {
 protected:
  // In place of a file that was made: this folder or these bytes.
  void replace_by_folder(const std::string& path) {
    close();
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
  }
  void replace(const std::string& path, const std::string& bytes) {
    close();
    support::write_file(path, bytes);
  }
  // What opening `file` throws and prints; it leaves nothing open and is silent below level 0.
  void expect_failure(const std::string& file, const std::string& what, const std::string& printed) {
    const long before = open_files();
    EXPECT_THAT([&] { EXPECT_EQ(failure_of(file), what); }, prints_only_from(0, printed));
    EXPECT_EQ(open_files(), before);
  }
  // A row in each scan table of an instance, and how many each has.
  void fill_scan_tables(const std::string& n) {
    run("INSERT INTO kanalid_scan_" + n + " (freq) VALUES (1)");
    run("INSERT INTO kanalid_lang_scan_" + n + " (lang) VALUES ('eng')");
    run("INSERT INTO estreams_scan_" + n + " (es_pid) VALUES (1)");
  }
  std::string in_scan_tables(const std::string& n) {
    return text("SELECT (SELECT count(*) FROM kanalid_scan_" + n + "), (SELECT count(*) FROM kanalid_lang_scan_" + n +
                "), (SELECT count(*) FROM estreams_scan_" + n + ")");
  }
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

TEST_F(Lifecycle, a_file_that_cannot_be_opened_throws_and_leaves_nothing_open) {
  const std::string none = folder().file("none/a.db");
  expect_failure(none, "Unable to open file",
                 "ERROR: FLUSH: Cannot open database " + none + ", error unable to open database file\n");
  replace_by_folder(guide_file());
  expect_failure(file(), "Unable to open epg file %s",
                 "ERROR: FLUSH: Cannot open database " + guide_file() + ", error unable to open database file\n");
}

TEST_F(Lifecycle, quirk_exception_about_the_guide_file_holds_a_percent_s) {
  replace_by_folder(guide_file());
  const support::Verbosity quiet(-1);
  EXPECT_EQ(failure_of(file()), "Unable to open epg file %s");
}

TEST_F(Lifecycle, paths_too_long_for_a_path_cannot_be_opened) {
  const long before = open_files();
  EXPECT_EQ(failure_of(folder().path() + "/" + std::string(4096, 'a') + ".db"), "Unable to open file");
  EXPECT_EQ(failure_of(std::string(4096, '/')), "Unable to open file");
  // 4095 bytes alone would fit, with "_epg" they do not.
  EXPECT_EQ(failure_of("/" + std::string(4091, 'a') + ".db"), "Unable to open file");
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, banner_and_progress_have_their_levels) {
  close();
  std::unique_ptr<Sdbl> opened;
  const auto open_other = [&](int level) {
    const std::string text = messages_at(level, [&] { opened = std::make_unique<Sdbl>(file().c_str()); });
    opened.reset();
    return text;
  };
  const std::string banner = "Kelvo DVB-T si parser ver. 2.5\n";
  const std::string progress =
      "Setting shared cache mode for database open calls\nSQLITE library in thread-safe mode\n";
  EXPECT_EQ(open_other(1), "");
  EXPECT_EQ(open_other(2), progress);
  EXPECT_EQ(open_other(3), banner + progress);
  EXPECT_THAT(open_other(4),
              testing::StartsWith(banner + "DEBUG issue, SQL_TIMEOUT is 2000 msec\nOpening dvb info database in " +
                                  file() + ", len " + std::to_string(file().size()) + ", out " + file() +
                                  "\nSetting shared cache mode for database open calls\nOpendb opendone\n"
                                  "sql_exec: PRAGMA max_page_count=8000;\n"));
}

TEST_F(Lifecycle, every_step_of_opening_and_closing_is_in_order) {
  close();
  const std::string trace = messages_at(4, [&] {
    open();
    close();
  });
  EXPECT_THAT(
      db_support::after("sql_exec: ", trace),
      testing::ElementsAre("PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
                           "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;", "SELECT * FROM kanalid;",
                           "SELECT * FROM kanalid_lang;", "SELECT * FROM estreams;", "SELECT * FROM tuner_table;",
                           "PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
                           "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;", "SELECT * FROM epglist;",
                           "SELECT * FROM epglist_lang;", "ATTACH DATABASE '" + guide_file() + "' as epg_db;",
                           "PRAGMA epg_db.journal_mode = OFF;", "PRAGMA epg_db.synchronous = OFF;",
                           "PRAGMA epg_db.max_page_count=8000;", "DETACH DATABASE epg_db;"));
}

TEST_F(Lifecycle, both_files_have_neither_journal_nor_sync) {
  const std::pair<const char*, const char*> settings[] = {{"main.journal_mode", "off"}, {"epg_db.journal_mode", "off"},
                                                          {"main.synchronous", "0"},    {"epg_db.synchronous", "0"},
                                                          {"temp_store", "2"},          {"max_page_count", "8000"},
                                                          {"default_cache_size", "64"}, {"busy_timeout", "2000"}};
  for (const auto& [name, value] : settings)
    EXPECT_EQ(rows(std::string("PRAGMA ") + name), Texts{value}) << name;
}

TEST_F(Lifecycle, path_names_are_quoted) {
  const std::string odd = folder().file("it's; odd \"$(x)");
  Sdbl sdbl((odd + ".db").c_str());
  EXPECT_TRUE(std::filesystem::exists(odd + ".db"));
  EXPECT_TRUE(std::filesystem::exists(odd + "_epg.db"));
  EXPECT_EQ(support::rows(support::conn_of(sdbl), "SELECT count(*) FROM epg_db.epglist"), (Texts{"0"}));
}

TEST_F(Lifecycle, closing_twice_prints_an_error_and_does_nothing_else) {
  EXPECT_TRUE(sdbl().db_opened());
  EXPECT_EQ(messages_at(4, [&] { sdbl().close_db(); }), CLOSING);
  EXPECT_FALSE(sdbl().db_opened());
  EXPECT_THAT([&] { sdbl().close_db(); }, prints_only_from(0, "ERROR: Closing closed db"));
  EXPECT_FALSE(sdbl().db_opened());
}

TEST_F(Lifecycle, destroying_ends_the_statements_of_the_cache_before_closing) {
  for (const auto& [level, printed] : std::map<int, const char*>{{3, ""}, {4, CLOSING}}) {
    open();
    for (int n = 0; n < 3; ++n)
      sqlite3_step(sdbl().sql_cache(false, n, "SELECT 'DVBNR'"));
    EXPECT_EQ(messages_at(level, [&] { close(); }), printed) << level;
  }
}

TEST_F(Lifecycle, closing_ends_open_statements_with_a_warning_for_each) {
  for (const auto& [level, printed] : std::map<int, std::string>{
           {0, ""}, {1, "WARNING: Open statement in close db\nWARNING: Open statement in close db\n"}}) {
    open();
    sqlite3_step(sdbl().sql_cache(false, 0, "SELECT 1"));
    (void)sdbl().sql_cache(false, 1, "SELECT 2");
    EXPECT_EQ(messages_at(level, [&] { sdbl().close_db(); }), printed) << level;
  }
}

TEST_F(Lifecycle, a_connection_in_use_is_tried_five_times_and_left) {
  sqlite3* conn = this->conn();
  Other_connection copy(folder().file("copy.db"));
  sqlite3_backup* backup = sqlite3_backup_init(copy.get(), "main", conn, "main");
  ASSERT_NE(backup, nullptr);
  const std::string line = "ERROR: FLUSH: Cannot close database " + file() +
                           ", error unable to close due to unfinalized statements or unfinished backups\n";
  const auto from = std::chrono::steady_clock::now();
  EXPECT_EQ(messages_at(0, [&] { sdbl().close_db(); }), line + line + line + line + line);
  EXPECT_GE(std::chrono::steady_clock::now() - from, std::chrono::milliseconds(40)) << "10 ms between two attempts";
  EXPECT_FALSE(sdbl().db_opened());
  sqlite3_backup_finish(backup);
  EXPECT_EQ(sqlite3_close(conn), SQLITE_OK);
}

TEST_F(Lifecycle, reopening_brings_the_channels_back_without_the_guide) {
  run("INSERT INTO kanalid (freq) VALUES (5)");
  sdbl().create_temp_tables(0);
  sdbl().close_db();
  EXPECT_EQ(sdbl().open_db(), 1);
  EXPECT_TRUE(sdbl().db_opened());
  EXPECT_EQ(sdbl().get_freq(1), 5);
  EXPECT_EQ(rows("SELECT * FROM epglist"), (Texts{"error: no such table: epglist"}));
  EXPECT_EQ(rows("SELECT * FROM kanalid_scan_0"), (Texts{"error: no such table: kanalid_scan_0"}));
  EXPECT_EQ(rows("PRAGMA journal_mode"), (Texts{"off"}));
  EXPECT_THAT(messages_at(0, [&] { sdbl().close_db(); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ close_db line [0-9]+\n"
                           "ERROR: Failed to detach epg info database, rc = 1\n"));
}

TEST_F(Lifecycle, quirk_opening_an_open_database_complains_and_opens_again) {
  sdbl().create_temp_tables(0);
  run("INSERT INTO kanalid (freq) VALUES (5)");
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().open_db(), 1); }), "ERROR: sdbl: opening already opened database\n");
  EXPECT_EQ(sdbl().get_freq(1), 5);
  EXPECT_EQ(rows("SELECT * FROM kanalid_scan_0"), (Texts{"error: no such table: kanalid_scan_0"}));
}

TEST_F(Lifecycle, reopening_a_file_that_is_gone_throws_and_stays_closed) {
  sdbl().close_db();
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  (void)messages_at(-1, [&] { EXPECT_THROW(sdbl().open_db(), no_file_error); });
  EXPECT_FALSE(sdbl().db_opened());
}

TEST_F(Lifecycle, destroying_closes_all_files) {
  close();
  const long before = open_files();
  (void)messages_at(-1, [&] {
    open();
    EXPECT_GT(open_files(), before);
    sdbl().open_db();
    close();
  });
  EXPECT_EQ(open_files(), before);
}

TEST_F(Lifecycle, flushing_announces_itself) {
  const auto flush = [&] { sdbl().flush(); };
  EXPECT_THAT(flush, prints_only_from(3, "Flushing\n"));
  EXPECT_EQ(messages_at(4, flush), "Flushing\nFldone\n");
  sdbl().close_db();
  EXPECT_THAT(flush, prints_only_from(0, "ERROR: Flushing closed handle\n"));
}

TEST_F(Lifecycle, scan_tables_are_made_again_empty_and_cleared_for_one_instance) {
  for (int round = 0; round < 2; ++round)
    for (const std::string n : {"0", "1"}) {
      EXPECT_EQ(messages_at(0, [&] { sdbl().create_temp_tables(std::stoi(n)); }), "");
      EXPECT_EQ(in_scan_tables(n), "0|0|0");
      fill_scan_tables(n);
    }
  sdbl().clear_temp_tables(1);
  EXPECT_EQ(in_scan_tables("0"), "1|1|1");
  EXPECT_EQ(in_scan_tables("1"), "0|0|0");
}

TEST_F(Lifecycle, scan_tables_are_dropped_built_and_cleared_in_order) {
  Texts statements = db_support::after("sql_exec: ", messages_at(4, [&] { sdbl().create_temp_tables(3); }));
  std::erase_if(statements, [](const std::string& statement) { return statement.starts_with("ALTER"); });
  EXPECT_EQ(statements, (Texts{"DROP TABLE IF EXISTS kanalid_scan_3;", "DROP TABLE IF EXISTS kanalid_lang_scan_3;",
                               "DROP TABLE IF EXISTS estreams_scan_3",
                               "CREATE TEMP TABLE 'kanalid_scan_3' (channel integer primary key autoincrement);",
                               "CREATE TEMP TABLE 'kanalid_lang_scan_3' (source_oid int);",
                               "CREATE TEMP TABLE 'estreams_scan_3' (channel int);"}));
  EXPECT_EQ(messages_at(4, [&] { sdbl().clear_temp_tables(3); }),
            "sql_exec: DELETE FROM estreams_scan_3;\nsql_exec: DELETE FROM kanalid_scan_3;\n"
            "sql_exec: DELETE FROM kanalid_lang_scan_3;\n");
}

TEST_F(Lifecycle, clearing_prints_an_error_for_every_table_that_is_not_there_and_goes_on) {
  EXPECT_THAT([&] { sdbl().clear_temp_tables(1); },
              prints_only_from(0, MatchesRegex("(ERROR: SQL_exec: 1 @ clear_temp_tables line [0-9]+\n){3}")));
  sdbl().create_temp_tables(1);
  fill_scan_tables("1");
  run("DROP TABLE estreams_scan_1");
  EXPECT_THAT(messages_at(0, [&] { sdbl().clear_temp_tables(1); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ clear_temp_tables line [0-9]+\n"));
  run("CREATE TEMP TABLE estreams_scan_1 (es_pid int)");
  EXPECT_EQ(in_scan_tables("1"), "0|0|0");
}

TEST_F(Lifecycle, scan_tables_of_a_closed_database_print_an_error_for_every_statement) {
  sdbl().close_db();
  EXPECT_THAT([&] { sdbl().create_temp_tables(1); },
              prints_only_from(0, MatchesRegex("(ERROR: SQL_exec: 21 @ create_temp_tables line [0-9]+\n){3}"
                                               "(ERROR: SQL_exec: 21 @ create_table_kanalid line [0-9]+\n){21}"
                                               "(ERROR: SQL_exec: 21 @ create_table_kanalid_lang line [0-9]+\n){5}"
                                               "(ERROR: SQL_exec: 21 @ create_table_estreams line [0-9]+\n){13}")));
}

TEST_F(Lifecycle, old_events_go_with_their_texts_and_both_are_counted) {
  const std::string now = std::to_string(time(nullptr));
  run("INSERT INTO epglist (channel, start_epoch) VALUES (1, " + now + " - 86500), (1, " + now + " - 86450), (1, " +
      now + " - 86300), (1, " + now + " + 1000)");
  run("INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (1, 'l0', 'x'), (1, 'l1', 'x'), (3, 'l0', 'x'), "
      "(4, 'l0', 'x')");
  EXPECT_EQ(sdbl().remove_old_entries(86400, false), 4);
  EXPECT_EQ(rows("SELECT entry FROM epglist"), (Texts{"3", "4"}));
  EXPECT_EQ(rows("SELECT source_oid FROM epglist_lang"), (Texts{"3", "4"}));
  EXPECT_EQ(sdbl().remove_old_entries(86400, false), 0);
}

TEST_F(Lifecycle, an_event_of_exactly_the_age_stays) {
  bool same_second = false;
  for (int attempt = 0; attempt < 20 && !same_second; ++attempt) {
    run("DELETE FROM epglist");
    const time_t now = time(nullptr);
    for (const int age : {999, 1000, 1001})
      run("INSERT INTO epglist (channel, start_epoch) VALUES (" + std::to_string(age) + ", " +
          std::to_string(now - age) + ")");
    const int removed = sdbl().remove_old_entries(1000, false);
    same_second = time(nullptr) == now;
    if (same_second) {
      EXPECT_EQ(removed, 1);
      EXPECT_EQ(rows("SELECT channel FROM epglist ORDER BY channel"), (Texts{"999", "1000"}));
    }
  }
  EXPECT_TRUE(same_second) << "a second passed in the middle of every attempt";
}

TEST_F(Lifecycle, removing_with_vacuum_compacts_the_channel_file) {
  run("CREATE TABLE big (b blob)");
  run("INSERT INTO big VALUES (zeroblob(1000000))");
  run("DELETE FROM big");
  const auto before = std::filesystem::file_size(file());
  EXPECT_EQ(sdbl().remove_old_entries(0, false), 0);
  EXPECT_EQ(std::filesystem::file_size(file()), before);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(sdbl().remove_old_entries(0, true), 0); }), "");
  EXPECT_LT(std::filesystem::file_size(file()), before / 2);
}

TEST_F(Lifecycle, damaged_channel_file_prints_errors_and_is_left_alone) {
  const std::string rubbish(20000, 'x');
  replace(file(), rubbish);
  EXPECT_THAT(messages_at(0, [&] { open(); }), testing::AllOf(HasSubstr("ERROR: SQL_exec: 26 @ open_db line "),
                                                              testing::Not(HasSubstr("create_table"))));
  (void)messages_at(-1, [&] {
    EXPECT_EQ(sdbl().get_freq(1), -1);
    EXPECT_EQ(sdbl().get_pat_prnr(1, 1), -1);
    EXPECT_EQ(sdbl().set_master_scan_timeout(1, 1, 1), 1);
    sdbl().create_temp_tables(0);
    EXPECT_EQ(sdbl().update_master_scan_data(0, 1, 1, 1, SCAN_PAT), 0);
    close();
  });
  EXPECT_EQ(support::read_file(file()), rubbish);
}

TEST_F(Lifecycle, damaged_guide_file_leaves_the_channels_usable) {
  const std::string rubbish(20000, 'x');
  replace(guide_file(), rubbish);
  EXPECT_THAT([&] { open(); },
              prints_only_from(0, HasSubstr("ERROR: Failed to attach epg database " + guide_file() + ", rc = 26\n")));
  EXPECT_EQ(run("INSERT INTO kanalid (freq) VALUES (5)"), SQLITE_DONE);
  EXPECT_EQ(sdbl().get_freq(1), 5);
  (void)messages_at(-1, [&] {
    EXPECT_EQ(sdbl().remove_old_entries(0, false), 0);
    close();
  });
  EXPECT_EQ(support::read_file(guide_file()), rubbish);
}

TEST_F(Lifecycle, another_connection_reads_while_ours_is_open) {
  run("INSERT INTO kanalid (freq) VALUES (5)");
  EXPECT_EQ(Other_connection(file()).rows("SELECT freq FROM kanalid"), (Texts{"5"}));
}
