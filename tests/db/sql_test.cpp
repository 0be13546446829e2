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
using testing::StartsWith;

namespace {

constexpr char SET_PCR[] = "UPDATE kanalid_scan_DVBNR SET pcr_pid = $pcr_pid WHERE channel = $channel;";
constexpr char INSERT[] = "INSERT INTO t VALUES ($a, @b)";

class Sql : public db_support::Database_test {
 protected:
  Sql() { run("CREATE TABLE t (a int, b text)"); }

  // What a look-up returns, the value that it leaves and what it prints.
  template <typename Value>
  std::string got(int level, Value value, const char* sql, int column = 0) {
    int rc = -1;
    const std::string printed = messages_at(level, [&] {
      if constexpr (std::is_same_v<Value, int>)
        rc = sdbl().sql_get_int(&value, column, "%s", sql);
      else
        rc = sdbl().sql_get_txt(&value, column, "%s", sql);
    });
    std::ostringstream all;
    all << rc << " " << value << " " << printed;
    return all.str();
  }
  // The result of each statement for the column of this number, at every level at which failures look alike.
  template <typename Value>
  void expect_failures(const Value& before, const std::vector<std::tuple<const char*, int, const char*>>& cases) {
    for (const auto& [sql, column, result] : cases)
      for (const int level : {-1, 0, 2})
        EXPECT_EQ(got(level, before, sql, column), result) << sql << " at " << level;
  }
  int exec(const char* sql) { return sdbl().sql_exec(conn(), "%s", sql); }
  sqlite3_stmt* insert(int a, const char* b) { return sdbl().sql_cache(true, 0, INSERT, a, b); }
};

using Sql_exec = Sql;
using Sql_get_int = Sql;
using Sql_get_txt = Sql;
using Sql_row_exists = Sql;
using Sql_cache = Sql;

}  // namespace

TEST_F(Sql_exec, missing_table_empty_table_and_rows_have_codes_1_101_and_100) {
  run("DROP TABLE kanalid");
  EXPECT_EQ(exec("SELECT * FROM kanalid;"), 1);
  EXPECT_EQ(exec("SELECT * FROM estreams;"), 101);
  run("INSERT INTO estreams (channel) VALUES (1)");
  EXPECT_EQ(exec("SELECT * FROM estreams;"), 100);
  EXPECT_EQ(exec(""), SQLITE_MISUSE) << "no statement";
}

TEST_F(Sql_exec, a_compile_error_and_a_failed_step_are_warnings_the_second_with_the_extended_code) {
  run("CREATE UNIQUE INDEX u ON t (a)");
  run("INSERT INTO t VALUES (1, '')");
  EXPECT_THAT(
      [&] { EXPECT_EQ(sdbl().sql_exec(conn(), "SELECT %d FROM nowhere", 5), SQLITE_ERROR); },
      prints_only_from(1, "WARNING: SQL_execute/compile error RC=1, SELECT 5 FROM nowhere, no such table: nowhere\n"));
  EXPECT_THAT(
      [&] { EXPECT_EQ(sdbl().sql_exec(conn(), "INSERT INTO t VALUES (1, %Q)", "x"), SQLITE_CONSTRAINT_UNIQUE); },
      prints_only_from(
          1, "WARNING: SQL_execute failed RC=2067 INSERT INTO t VALUES (1, 'x'), UNIQUE constraint failed: t.a\n"));
}

TEST_F(Sql_exec, quotes_hostile_text_and_runs_only_the_first_statement_of_a_text) {
  const char* hostile = "a'b''c%d%s\"; DROP TABLE t; --\xff\xfe";
  EXPECT_EQ(sdbl().sql_exec(conn(), "INSERT INTO t VALUES (1, %Q)", hostile), 101);
  EXPECT_EQ(exec("INSERT INTO t VALUES (2, ''); INSERT INTO t VALUES (3, '')"), 101);
  EXPECT_EQ(rows("SELECT * FROM t"), (Texts{std::string("1|") + hostile, "2|"}));
}

TEST_F(Sql_exec, quirk_error_text_is_the_main_connections) {
  Other_connection other(folder().file("b.db"));
  EXPECT_THAT([&] { sdbl().sql_exec(other.get(), "SELECT * FROM t"); },
              prints_only_from(1, "WARNING: SQL_execute/compile error RC=1, SELECT * FROM t, not an error\n"));
}

TEST_F(Sql, every_form_traces_its_text) {
  run("INSERT INTO t VALUES (1, '')");
  int value = 0;
  std::string text;
  EXPECT_THAT([&] { exec("SELECT a FROM t"); },
              prints_only_from(4, "sql_exec: SELECT a FROM t\nSQL_execute returns data, none used\n"));
  EXPECT_THAT([&] { sdbl().sql_get_int(&value, 0, "SELECT %d", 3); }, prints_only_from(4, "sql_get_int: SELECT 3\n"));
  EXPECT_THAT([&] { sdbl().sql_get_txt(&text, 0, "SELECT %Q", "a"); },
              prints_only_from(4, "sql_get_txt: SELECT 'a'\n"));
  EXPECT_THAT([&] { sdbl().sql_row_exists("SELECT 1"); }, prints_only_from(4, "sql_row_exists: SELECT 1\n"));
}

TEST_F(Sql_get_int, stores_the_column_of_the_first_row) {
  run("INSERT INTO t VALUES (7, 'x'), (8, 'y')");
  int value = -5;
  EXPECT_EQ(sdbl().sql_get_int(&value, 1, "SELECT b, a FROM t WHERE a >= %d ORDER BY a", 8), 0);
  EXPECT_EQ(value, 8);
  EXPECT_EQ(got(0, -5, "SELECT a FROM t ORDER BY a"), "0 7 ");
}

TEST_F(Sql_get_int, failures_return_their_code_leave_the_value_and_print_at_every_level) {
  run("INSERT INTO t VALUES (7, 'x')");
  const std::vector<std::tuple<const char*, int, const char*>> cases = {
      {"SELECT a FROM t WHERE a = 1", 0, "101 -5 "},
      {"SELECT b FROM t", 0, "1 -5 SQL_get_int/execute col nr 0 named b is not integer "},
      {"SELECT a, b FROM t", 3, "1 -5 SQL_get_int/execute col count 2 less than required 3 "},
      {"SELECT a FROM nowhere", 0, "1 -5 SQL_get_int/compile error 1: no such table: nowhere "},
      {"SELECT abs(-9223372036854775808)", 0, "1 -5 SQL_get_int/execute failed to capture row 1: integer overflow "}};
  expect_failures(-5, cases);
  EXPECT_EQ(got(3, -5, "SELECT a FROM nowhere"),
            "1 -5 SQL_get_int/compile error 1: no such table: nowhere SELECT a FROM nowhere\n");
}

TEST_F(Sql_get_int, quirk_column_equal_to_the_count_fails_as_a_wrong_type) {
  run("INSERT INTO t VALUES (7, 'x')");
  int value = -5;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().sql_get_int(&value, 2, "SELECT a, b FROM t"), 1); }),
            "SQL_get_int/execute col nr 2 named (null) is not integer ");
}

TEST_F(Sql_get_txt, assigns_the_text_of_the_first_row_and_failures_leave_it_and_print_at_every_level) {
  run("INSERT INTO t VALUES (7, 'x')");
  const std::string text = "before";
  EXPECT_EQ(got(0, text, "SELECT a, b FROM t", 1), "0 x ");
  const std::vector<std::tuple<const char*, int, const char*>> cases = {
      {"SELECT b FROM t WHERE a = 1", 0, "101 before "},
      {"SELECT a FROM t", 0, "1 before SQL_get_txt/execute col nr 0 named a is not text "},
      {"SELECT NULL AS n", 0, "1 before SQL_get_txt/execute col nr 0 named n is not text "},
      {"SELECT b FROM t", 1, "1 before SQL_get_txt/execute col nr 1 named (null) is not text "},
      {"SELECT b FROM t", 5, "1 before SQL_get_txt/execute col count 1 less than required 5 "},
      {"SELECT b FROM nowhere", 0, "1 before SQL_get_txt/compile error 1: no such table: nowhere "},
      {"SELECT abs(-9223372036854775808)", 0, "1 before SQL_get_txt/execute error 1: integer overflow "}};
  expect_failures(text, cases);
  EXPECT_EQ(got(3, text, "SELECT b FROM nowhere"),
            "1 before SQL_get_txt/compile error 1: no such table: nowhere SELECT b FROM nowhere\n");
}

TEST_F(Sql_row_exists, is_true_only_for_a_row_and_errors_are_printed_at_level_0) {
  EXPECT_FALSE(sdbl().sql_row_exists("SELECT a FROM t WHERE a = %d", 7));
  run("INSERT INTO t VALUES (7, 'x')");
  EXPECT_TRUE(sdbl().sql_row_exists("SELECT a FROM t WHERE a = %d", 7));
  EXPECT_THAT([&] { EXPECT_FALSE(sdbl().sql_row_exists("SELECT a FROM nowhere")); },
              prints_only_from(0, "ERROR: SQL_row_exists/compile error 1: no such table: nowhere "));
  EXPECT_THAT([&] { EXPECT_FALSE(sdbl().sql_row_exists("SELECT abs(-9223372036854775808)")); },
              prints_only_from(0, "ERROR: SQL_row_exists/execute failed 1: integer overflow"));
}

TEST_F(Sql_cache, word_DVBNR_becomes_the_instance_and_one_entry_serves_all) {
  for (int n = 0; n < 4; ++n) {
    sdbl().create_temp_tables(n);
    run("INSERT INTO kanalid_scan_" + std::to_string(n) + " (channel, freq) VALUES (5, 1)");
  }
  const auto pcr_pids = [&] {
    return rows(
        "SELECT a.pcr_pid, b.pcr_pid, c.pcr_pid, d.pcr_pid FROM kanalid_scan_0 a, kanalid_scan_1 b, "
        "kanalid_scan_2 c, kanalid_scan_3 d");
  };
  EXPECT_NE(sdbl().sql_cache(true, 2, SET_PCR, 256, 5), nullptr);
  EXPECT_EQ(pcr_pids(), (Texts{"0|0|256|0"}));
  EXPECT_NE(sdbl().sql_cache(true, 0, SET_PCR, 255, 5), nullptr);
  EXPECT_EQ(pcr_pids(), (Texts{"255|0|256|0"}));
  EXPECT_NE(sdbl().sql_cache(true, 1, SET_PCR, 254, 5), nullptr);
  EXPECT_NE(sdbl().sql_cache(true, 3, SET_PCR, 253, 5), nullptr);
  EXPECT_EQ(pcr_pids(), (Texts{"255|254|256|253"}));

  const SQL_query* entry = sdbl().lookup_insert_sql_query(SET_PCR, 0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry, sdbl().lookup_insert_sql_query(SET_PCR, 2));
  EXPECT_EQ(entry->sql, SET_PCR);
  EXPECT_EQ(entry->param_kinds, (std::vector<int32_t>{1, 1}));
  EXPECT_STREQ(sqlite3_sql(entry->stmt[2]), "UPDATE kanalid_scan_2 SET pcr_pid = $pcr_pid WHERE channel = $channel;");
  EXPECT_STREQ(sqlite3_sql(entry->stmt[0]), "UPDATE kanalid_scan_0 SET pcr_pid = $pcr_pid WHERE channel = $channel;");
  EXPECT_STREQ(sqlite3_sql(sdbl().sql_cache(false, 3, "SELECT 'DVBNR' || 'xDVBNRDVBNR'")), "SELECT '3' || 'x33'");
}

TEST_F(Sql_cache, a_statement_is_compiled_once_and_its_arguments_may_be_extreme_or_null) {
  sqlite3_stmt* first = insert(-2147483647 - 1, "'\"%s;\xff\xfe");
  EXPECT_EQ(sdbl().sql_cache(true, 0, std::string(INSERT).c_str(), 2, "def"), first);
  sdbl().sql_cache(true, 0, "INSERT INTO t (b, a) VALUES (@b, $a)", "Käna", 2147483647);
  insert(1, nullptr);
  EXPECT_EQ(rows("SELECT *, typeof(b) FROM t"),
            (Texts{"-2147483648|'\"%s;\xff\xfe|text", "2|def|text", "2147483647|Käna|text", "1||text"}));
}

TEST_F(Sql_cache, quirk_short_text_is_bound_empty) {
  for (const char* text : {"", "a", "ab", "abc", "\xc3\xa4", "\xc3\xa4x"})
    sdbl().sql_cache(true, 0, "INSERT INTO t VALUES ($a, @b)", 1, text);
  EXPECT_EQ(rows("SELECT b, typeof(b) FROM t"),
            (Texts{"|text", "|text", "|text", "abc|text", "|text", "\xc3\xa4x|text"}));
}

TEST_F(Sql_cache, without_run_the_caller_steps_and_the_next_use_resets) {
  run("INSERT INTO t VALUES (1, ''), (2, ''), (3, '')");
  const char* behind = "SELECT a FROM t WHERE a > $a ORDER BY a";
  sqlite3_stmt* stmt = sdbl().sql_cache(false, 0, behind, 1);
  ASSERT_NE(stmt, nullptr);
  EXPECT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int(stmt, 0), 2);
  EXPECT_EQ(sdbl().sql_cache(false, 0, behind, 2), stmt);
  EXPECT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int(stmt, 0), 3);
  EXPECT_EQ(sqlite3_step(stmt), SQLITE_DONE);
}

TEST_F(Sql_cache, an_empty_statement_and_instances_outside_0_to_3_are_refused) {
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(sdbl().sql_cache(true, 0, ""), nullptr); }),
            "ERROR: sql_cache lookup failed for ");
  for (const int instance : {-1, 4, 100}) {
    EXPECT_THAT([&] { EXPECT_EQ(sdbl().sql_cache(true, instance, SET_PCR, 1, 1), nullptr); },
                prints_only_from(0, std::string("ERROR: sql_cache lookup failed for ") + SET_PCR));
    EXPECT_EQ(sdbl().lookup_insert_sql_query(SET_PCR, instance), nullptr);
  }
}

TEST_F(Sql_cache, failed_prepare_is_printed_and_tried_again) {
  EXPECT_THAT(
      [&] { EXPECT_EQ(sdbl().sql_cache(true, 1, SET_PCR, 1, 1), nullptr); },
      prints_only_from(
          0, std::string("ERROR: query UPDATE kanalid_scan_1 SET pcr_pid = $pcr_pid WHERE channel = $channel; prepare "
                         "failed: no such table: kanalid_scan_1ERROR: sql_cache lookup failed for ") +
                 SET_PCR));
  sdbl().create_temp_tables(1);
  // The entry has stayed, without its statement.
  EXPECT_THAT(messages_at(4, [&] { EXPECT_NE(sdbl().sql_cache(true, 1, SET_PCR, 1, 1), nullptr); }),
              MatchesRegex("sql prepared cache hit 0x[0-9a-f]+"
                           "sql: UPDATE kanalid_scan_1 SET pcr_pid = \\$pcr_pid WHERE channel = \\$channel;\n"
                           "cache run for command UPDATE kanalid_scan_DVBNR SET pcr_pid = \\$pcr_pid WHERE channel = "
                           "\\$channel;\nint0: 1 int1: 1 \nSQL run status is 101\n"));
}

TEST_F(Sql_cache, entries_are_numbered_in_order_of_first_use) {
  sdbl().free_prepared_queries();
  const auto used = [&](int instance, const char* sql) {
    return messages_at(4, [&] { sdbl().sql_cache(false, instance, sql); });
  };
  EXPECT_THAT(used(0, "SELECT 10"), StartsWith("SQL cache entry 0\n"));
  EXPECT_THAT(used(0, "SELECT 11"), StartsWith("SQL cache entry 1\n"));
  EXPECT_THAT(used(1, "SELECT 10"), StartsWith("sql prepared cache hit 0x"));
  EXPECT_THAT(used(0, "SELECT 12"), StartsWith("SQL cache entry 2\n"));
}

TEST_F(Sql_cache, a_run_that_yields_a_row_is_done_with_status_100) {
  run("INSERT INTO t VALUES (7, '')");
  sqlite3_stmt* stmt = nullptr;
  EXPECT_THAT(messages_at(4, [&] { stmt = sdbl().sql_cache(true, 0, "SELECT a FROM t"); }),
              HasSubstr("cache run for command SELECT a FROM t\n\nSQL run status is 100\n"));
  EXPECT_EQ(sqlite3_stmt_busy(stmt), 0) << "and reset";
}

TEST_F(Sql_cache, a_reset_that_repeats_a_failed_step_of_the_caller_is_a_warning) {
  const char* failing = "SELECT abs($a - 9223372036854775807 - 1)";
  for (const auto& [level, printed] : std::map<int, const char*>{
           {0, ""}, {1, "WARNING: Sqlite_reset for SELECT abs($a - 9223372036854775807 - 1) rc is 1\n"}}) {
    EXPECT_EQ(sqlite3_step(sdbl().sql_cache(false, 0, failing, 0)), SQLITE_ERROR);
    EXPECT_EQ(messages_at(level, [&] { sdbl().sql_cache(false, 0, failing, 0); }), printed);
  }
}

TEST_F(Sql_cache, failed_step_prints_an_error_and_a_warning_and_keeps_the_statement) {
  run("CREATE UNIQUE INDEX u ON t (a)");
  insert(1, "abc");
  const std::string error =
      "ERROR: Sqlite_step failed for INSERT INTO t VALUES ($a, @b) , error UNIQUE constraint failed: t.a\n";
  const auto fail = [&] { EXPECT_NE(insert(1, "xyz"), nullptr); };
  EXPECT_THAT(fail, prints_only_from(0, error));
  EXPECT_EQ(messages_at(1, fail), error + "WARNING: Sqlite_reset for INSERT INTO t VALUES ($a, @b) rc is 2067\n");
}

TEST_F(Sql_cache, a_sign_inside_a_literal_counts_as_a_parameter) {
  EXPECT_THAT(
      [&] { EXPECT_EQ(sdbl().sql_cache(true, 0, "INSERT INTO t VALUES (1, '$')", 1), nullptr); },
      prints_only_from(
          0,
          "ERROR: Cannot bind arg nr 1 type 1 to INSERT INTO t VALUES (1, '$'), sql errmsg column index out of range\n"));
  EXPECT_THAT(
      [&] { EXPECT_EQ(sdbl().sql_cache(true, 0, "INSERT INTO t VALUES ($a, '@')", 1, "abc"), nullptr); },
      prints_only_from(
          0,
          "ERROR: Cannot bind arg nr 2 type 2 to INSERT INTO t VALUES ($a, '@'), sql errmsg column index out of range\n"));
  EXPECT_EQ(rows("SELECT * FROM t"), Texts{});
}

TEST_F(Sql_cache, traces_every_step) {
  EXPECT_THAT(messages_at(4, [&] { insert(7, "abc"); }),
              MatchesRegex("SQL cache entry [0-9]+\n"
                           "sql: INSERT INTO t VALUES \\(\\$a, @b\\)\n"
                           "cache run for command INSERT INTO t VALUES \\(\\$a, @b\\)\n"
                           "int0: 7 \n"
                           "SQL run status is 101\n"));
  EXPECT_THAT(
      [&] { insert(7, "ab"); },
      prints_only_from(
          4, MatchesRegex("sql prepared cache hit 0x[0-9a-f]+"
                          "cache run for command INSERT INTO t VALUES \\(\\$a, @b\\)\n"
                          "int0: 7 "
                          "Input string length <3 \\(2\\) for arg index 2  name @b\\. Replacing with epty string ab \n"
                          "INSERT INTO t VALUES \\(\\$a, @b\\)\n\n"
                          "SQL run status is 101\n")));
}

TEST_F(Sql_cache, checking_resets_statements_that_are_under_way) {
  run("INSERT INTO t VALUES (1, ''), (2, '')");
  sqlite3_stmt* stmts[3];
  for (int n = 0; n < 3; ++n) {
    stmts[n] = sdbl().sql_cache(false, n, "SELECT a FROM t");
    sqlite3_step(stmts[n]);
    EXPECT_EQ(sqlite3_stmt_busy(stmts[n]), 1);
  }
  sdbl().check_cached_queries();
  for (sqlite3_stmt* stmt : stmts)
    EXPECT_EQ(sqlite3_stmt_busy(stmt), 0);
}

TEST_F(Sql_cache, quirk_instance_3_is_not_reset) {
  run("INSERT INTO t VALUES (1, '')");
  sqlite3_stmt* stmt = sdbl().sql_cache(false, 3, "SELECT a FROM t");
  sqlite3_step(stmt);
  sdbl().check_cached_queries();
  EXPECT_EQ(sqlite3_stmt_busy(stmt), 1);
  sqlite3_reset(stmt);
}

TEST_F(Sql_cache, quirk_instance_3_is_not_finalized_and_close_warns_about_it) {
  sqlite3* db = conn();  // asking for it uses the cache
  sdbl().sql_cache(false, 0, "SELECT a FROM t");
  sdbl().sql_cache(false, 3, "SELECT a FROM t");
  sdbl().free_prepared_queries();
  EXPECT_NE(sqlite3_next_stmt(db, nullptr), nullptr);
  EXPECT_EQ(messages_at(1, [&] { sdbl().close_db(); }), "WARNING: Open statement in close db\n");
  sdbl().open_db();
}

TEST_F(Sql_cache, statements_that_were_freed_or_of_a_closed_database_are_compiled_anew) {
  insert(1, "abc");
  sdbl().free_prepared_queries();
  EXPECT_THAT(messages_at(4, [&] { insert(2, "abc"); }),
              StartsWith("SQL cache entry 0\nsql: INSERT INTO t VALUES ($a, @b)\n"));
  const SQL_query* entry = sdbl().lookup_insert_sql_query(INSERT, 0);
  sdbl().close_db();
  EXPECT_THAT(entry->stmt, testing::Each(nullptr));
  sdbl().open_db();
  EXPECT_NE(insert(3, "abc"), nullptr);
  EXPECT_EQ(rows("SELECT a FROM t"), (Texts{"1", "2", "3"}));
}

TEST_F(Sql, closed_database_fails_without_crashing) {
  sdbl().close_db();
  const support::Verbosity quiet(-1);
  EXPECT_EQ(sdbl().sql_exec(nullptr, "SELECT 1"), SQLITE_MISUSE);
  EXPECT_THAT(got(-1, -5, "SELECT 1"),
              StartsWith(std::to_string(SQLITE_MISUSE) + " -5 SQL_get_int/compile error 21: "));
  EXPECT_THAT(got(-1, std::string("before"), "SELECT 'a'"), StartsWith("1 before "));
  EXPECT_FALSE(sdbl().sql_row_exists("SELECT 1"));
  EXPECT_EQ(sdbl().sql_cache(true, 0, "SELECT 1"), nullptr);
  EXPECT_EQ(sdbl().pat_for_network(0, 1, 1, 1, 1, 1, 1), 0);
  EXPECT_EQ(sdbl().update_master_scan_data(0, 1, 1, 1, SCAN_PAT), 0);
  EXPECT_EQ(sdbl().remove_old_entries(0, false), 0);
  sdbl().open_db();
}
