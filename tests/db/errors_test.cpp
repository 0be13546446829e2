// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/errors.h"

#include <sqlite3.h>

#include "support/messages.h"

using support::prints_at;
using support::prints_only_from;

TEST(Errors, failures_of_a_file_are_those_that_lose_or_hide_what_is_stored) {
  for (const int rc : {SQLITE_BUSY, SQLITE_READONLY, SQLITE_IOERR, SQLITE_CORRUPT, SQLITE_FULL, SQLITE_CANTOPEN,
                       SQLITE_NOTADB, SQLITE_IOERR_WRITE, SQLITE_READONLY_DBMOVED, SQLITE_BUSY_SNAPSHOT})
    EXPECT_TRUE(sdbl::is_file_failure(rc)) << rc;
  for (const int rc : {SQLITE_OK, SQLITE_ROW, SQLITE_DONE, SQLITE_ERROR, SQLITE_CONSTRAINT, SQLITE_CONSTRAINT_UNIQUE,
                       SQLITE_MISUSE, SQLITE_LOCKED, SQLITE_NOMEM})
    EXPECT_FALSE(sdbl::is_file_failure(rc)) << rc;
}

TEST(Errors, each_report_returns_its_code_and_prints_its_text_unless_that_is_a_success) {
  using sdbl::Errors;
  const struct {
    int (Errors::*report)(int, sdbl::Operation);
    const char* text;
    std::vector<int> silent;
  } cases[] = {
      {&Errors::report_exec, "ERROR: SQL_exec: 7 @ name line 3\n", {0, 100, 101}},
      {&Errors::report_run, "ERROR: SQLite RUN rc 7 at name, 3\n", {0, 100, 101}},
      {&Errors::report_reset, "ERROR: SQLite reset rc 7 at name, 3\n", {0}},
      {&Errors::report_get_int, "ERROR: SQL_get_int: 7 @ name line 3\n", {0, 100, 101}},
      {&Errors::report_get_txt, "ERROR: SQL_get_txt: 7 @ name, 3\n", {0, 100, 101}},
  };
  Errors errors;
  const sdbl::Operation operation("name", 3);
  for (const auto& c : cases) {
    EXPECT_THAT([&] { EXPECT_EQ((errors.*c.report)(7, operation), 7); }, prints_only_from(0, c.text));
    for (const int rc : c.silent)
      EXPECT_THAT([&] { EXPECT_EQ((errors.*c.report)(rc, operation), rc); }, prints_at(4, "")) << c.text;
  }
  EXPECT_THAT([&] { errors.report_reset(101, operation); }, prints_at(0, "ERROR: SQLite reset rc 101 at name, 3\n"));
}

TEST(Errors, a_bare_name_takes_the_line_that_it_stands_on) {
  EXPECT_EQ(sdbl::Operation("name").line, __LINE__);
}

TEST(Errors, the_first_failure_stays_and_each_adapter_forgets_for_itself) {
  sdbl::Errors errors;
  Database_error error;
  const auto since_watch = [&](int adapter) {
    const bool any = errors.first_since_watch(adapter, &error);
    return any ? std::to_string(error.code) + " " + error.operation : "none";
  };
  EXPECT_EQ(since_watch(3), "none");
  errors.remember(SQLITE_FULL, "first");
  errors.remember(SQLITE_BUSY, "second");
  errors.watch(1);
  errors.remember(SQLITE_IOERR_WRITE, "third");
  errors.forget();
  errors.remember(SQLITE_CORRUPT, "fourth");
  ASSERT_TRUE(errors.first(&error));
  EXPECT_STREQ(error.operation, "fourth");
  EXPECT_EQ(since_watch(0), std::to_string(SQLITE_FULL) + " first");
  EXPECT_EQ(since_watch(1), std::to_string(SQLITE_IOERR_WRITE) + " third");
  EXPECT_EQ(since_watch(4), "none");
  EXPECT_EQ(since_watch(-1), "none");
}

TEST(Errors, a_full_guide_is_told_of_the_operation_that_failed_first) {
  for (const std::string failed : {"export", "event"}) {
    sdbl::Errors errors;
    Database_error error;
    errors.remember(SQLITE_FULL, failed.c_str());
    errors.remember_full_guide("event");
    ASSERT_TRUE(errors.first(&error));
    EXPECT_EQ(error.guide_full, failed == "event");
    EXPECT_EQ(error.code, SQLITE_FULL);
  }
}
