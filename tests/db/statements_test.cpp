// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/statements.h"

#include "db/sdbl_parts.h"
#include "db_support.h"

using sdbl::Rows;
using support::prints_at;
using support::Texts;
using testing::MatchesRegex;

namespace {

constexpr char INSERT[] = "INSERT INTO t VALUES ($a, @b)";

// The fields of what a run says, in their order.
std::string shown(const sdbl::Run& run) {
  return std::to_string(run.result) + " " + std::to_string(run.changes) + " " + std::to_string(run.code) +
         (run.done ? " done" : "");
}

class Statements : public db_support::Database_test {
 protected:
  Statements() { run("CREATE TABLE t (a int UNIQUE, b text)"); }

  sdbl::Run insert(int a, const std::string& b) { return statements_.run("test", 0, INSERT, a, b); }

  const sdbl::Statements& statements_ = sdbl().parts().statements;
};

}  // namespace

TEST_F(Statements, rows_are_read_by_column_and_null_is_an_empty_text) {
  insert(1, "one");
  run("INSERT INTO t VALUES (2, NULL)");
  Rows rows(statements_, "test", 0, "SELECT a, b FROM t WHERE a >= $a ORDER BY a", 1);
  ASSERT_TRUE(rows.next());
  EXPECT_EQ(rows.number(0), 1);
  EXPECT_STREQ(rows.text(1), "one");
  ASSERT_TRUE(rows.next());
  EXPECT_STREQ(rows.text(1), "");
  EXPECT_FALSE(rows.next());
  EXPECT_EQ(rows.code(), SQLITE_DONE);
  EXPECT_EQ(rows.end(), SQLITE_OK);
}

TEST_F(Statements, a_run_says_what_it_did) {
  insert(1, "one");
  insert(2, "two");
  EXPECT_EQ(shown(statements_.run("test", 0, "UPDATE t SET b = @b", "all")), "0 2 101 done");
  EXPECT_EQ(insert(3, "new").rowid, 3);
}

TEST_F(Statements, a_failed_step_has_no_changes_and_prints_the_statement_unless_it_is_silent) {
  insert(1, "one");
  const std::string failed = "0 0 " + std::to_string(SQLITE_CONSTRAINT_UNIQUE);
  EXPECT_THAT(
      [&] { EXPECT_EQ(shown(insert(1, "again")), failed); },
      prints_at(0,
                "ERROR: Sqlite_step failed for INSERT INTO t VALUES ($a, @b) , error UNIQUE constraint failed: t.a\n"));
  EXPECT_THAT([&] { EXPECT_EQ(shown(statements_.run_silently("test", 0, INSERT, 1, "again")), failed); },
              prints_at(0, ""));
  EXPECT_EQ(statements_.run_silently("test", 0, INSERT, 2, "two").code, SQLITE_DONE);
}

TEST_F(Statements, a_missing_statement_is_reported_but_for_the_forms_that_try) {
  const std::string lookup =
      "ERROR: query DELETE FROM none prepare failed: no such table: none"
      "ERROR: sql_cache lookup failed for DELETE FROM none";
  EXPECT_THAT([&] { EXPECT_EQ(shown(statements_.run("test", 0, "DELETE FROM none")), "1 0 1"); },
              prints_at(0, MatchesRegex(lookup + "ERROR: SQLite RUN rc 1 at test, [0-9]+\n")));
  EXPECT_THAT([&] { statements_.try_run("test", 0, "DELETE FROM none"); }, prints_at(0, lookup));
  EXPECT_THAT([&] { statements_.run_silently("test", 0, "DELETE FROM none"); }, prints_at(0, lookup));
}

TEST_F(Statements, the_first_number_is_0_without_a_row) {
  insert(5, "five");
  EXPECT_EQ(statements_.first_number("test", 0, "SELECT a FROM t WHERE b = @b", "five"), 5);
  EXPECT_EQ(statements_.first_number("test", 0, "SELECT a FROM t WHERE b = @b", std::string("six")), 0);
}

TEST_F(Statements, a_bound_text_shorter_than_three_bytes_is_empty_and_a_null_one_too) {
  insert(1, "ab");
  insert(2, "abc");
  const char* none = nullptr;
  statements_.run("test", 0, INSERT, 3, none);
  EXPECT_EQ(rows("SELECT b FROM t ORDER BY a"), (Texts{"", "abc", ""}));
}

TEST_F(Statements, a_statement_left_open_is_reset_by_its_next_use) {
  insert(1, "one");
  insert(2, "two");
  for (int round = 0; round < 2; ++round) {
    Rows rows(statements_, "test", 0, "SELECT a FROM t ORDER BY a");
    ASSERT_TRUE(rows.next());
    EXPECT_EQ(rows.number(0), 1);
    rows.leave();
  }
}

// A scan whose rows are not all there is not merged.
TEST_F(Statements, a_text_for_which_there_is_no_memory_is_remembered_and_its_row_not_stored) {
  constexpr size_t LONG = 8 << 20;
  constexpr int64_t ROOM = 1 << 20;
  const std::string text(LONG, 'a');
  const auto short_of_memory = [&](auto store) {
    sdbl().parts().errors.begin_scan_tables(0);
    insert(9, "else");  // compiled now, not without memory
    run("DELETE FROM t");
    EXPECT_FALSE(sdbl().parts().errors.short_of_memory(0));
    sqlite3_hard_heap_limit64(sqlite3_memory_used() + ROOM);
    (void)support::messages_at(-1, store);
    sqlite3_hard_heap_limit64(0);
    EXPECT_EQ(rows("SELECT a FROM t"), Texts{});
    return sdbl().parts().errors.short_of_memory(0);
  };
  EXPECT_TRUE(short_of_memory([&] { Rows(statements_, "test", 0, "SELECT a FROM t WHERE b = @b", text); }));
  EXPECT_TRUE(short_of_memory([&] {
    sdbl::Insert row(statements_, "test", 0, INSERT, 1, "one");
    row.set("@b", text);
    row.run();
  }));
  EXPECT_TRUE(short_of_memory([&] {
    sdbl::Insert row(statements_, "test", 0, INSERT, 1, "one");
    row.set("@b", text);
    EXPECT_EQ(row.run_silently(), SQLITE_NOMEM);
  }));
}

TEST_F(Statements, an_insert_keeps_the_values_that_are_not_set_again) {
  run("CREATE TABLE u (a int, b text, c int)");
  sdbl::Insert insert(statements_, "test", 0, "INSERT INTO u VALUES ($a, @b, $c)", 1, "one", 7);
  insert.run();
  insert.set("$a", 2);
  insert.set("@b", "tv");
  insert.run();
  EXPECT_EQ(rows("SELECT * FROM u"), (Texts{"1|one|7", "2|tv|7"}));
}

TEST_F(Statements, a_parameter_that_is_not_there_is_an_error_that_names_the_source_without_its_folder) {
  sdbl::Insert insert(statements_, "test", 0, INSERT, 1, "one");
  EXPECT_THAT([&] { insert.set("$none", 1); },
              prints_at(0, MatchesRegex("ERROR: Cannot bind integer none in statements\\.cpp [0-9]+\n")));
  EXPECT_THAT([&] { insert.set("@none", "x"); },
              prints_at(0, MatchesRegex("ERROR: Cannot bind text none in statements\\.cpp [0-9]+\n")));
  insert.run();
  EXPECT_EQ(rows("SELECT * FROM t"), (Texts{"1|one"}));
}

TEST_F(Statements, a_statement_of_another_instance_is_compiled_for_its_own_table) {
  run("CREATE TABLE t_0 (a int)");
  run("CREATE TABLE t_2 (a int)");
  statements_.run("test", 2, "INSERT INTO t_DVBNR VALUES ($a)", 5);
  EXPECT_EQ(rows("SELECT a FROM t_0"), Texts{});
  EXPECT_EQ(rows("SELECT a FROM t_2"), (Texts{"5"}));
}
