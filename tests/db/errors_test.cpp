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

TEST(Errors, each_report_has_its_text_and_returns_the_code) {
  sdbl::Errors errors;
  int rc = 0;
  EXPECT_THAT(
      [&] {
        rc = errors.report_exec(1, {"name", 7});
      },
      prints_only_from(0, "ERROR: SQL_exec: 1 @ name line 7\n"));
  EXPECT_EQ(rc, 1);
  EXPECT_THAT(
      [&] {
        rc = errors.report_run(2, {"name", 7});
      },
      prints_only_from(0, "ERROR: SQLite RUN rc 2 at name, 7\n"));
  EXPECT_EQ(rc, 2);
  EXPECT_THAT(
      [&] {
        rc = errors.report_reset(3, {"name", 7});
      },
      prints_only_from(0, "ERROR: SQLite reset rc 3 at name, 7\n"));
  EXPECT_EQ(rc, 3);
  EXPECT_THAT(
      [&] {
        rc = errors.report_get_int(4, {"name", 7});
      },
      prints_only_from(0, "ERROR: SQL_get_int: 4 @ name line 7\n"));
  EXPECT_EQ(rc, 4);
  EXPECT_THAT(
      [&] {
        rc = errors.report_get_txt(5, {"name", 7});
      },
      prints_only_from(0, "ERROR: SQL_get_txt: 5 @ name, 7\n"));
  EXPECT_EQ(rc, 5);
}

TEST(Errors, success_is_silent_and_a_row_is_none_for_a_reset) {
  sdbl::Errors errors;
  for (const int rc : {0, 100, 101}) {
    EXPECT_THAT([&] { errors.report_exec(rc, "name"); }, prints_at(4, ""));
    EXPECT_THAT([&] { errors.report_run(rc, "name"); }, prints_at(4, ""));
    EXPECT_THAT([&] { errors.report_get_int(rc, "name"); }, prints_at(4, ""));
    EXPECT_THAT([&] { errors.report_get_txt(rc, "name"); }, prints_at(4, ""));
  }
  EXPECT_THAT([&] { errors.report_reset(0, "name"); }, prints_at(4, ""));
  EXPECT_THAT([&] { errors.report_reset(101, {"name", 7}); }, prints_at(0, "ERROR: SQLite reset rc 101 at name, 7\n"));
}

TEST(Errors, a_bare_name_takes_the_line_that_it_stands_on) {
  EXPECT_EQ(sdbl::Operation("name").line, __LINE__);
}

TEST(Errors, the_first_failure_stays_and_each_adapter_forgets_for_itself) {
  sdbl::Errors errors;
  Database_error error;
  EXPECT_FALSE(errors.first_since_watch(3, &error));
  errors.remember(SQLITE_FULL, "first");
  errors.remember(SQLITE_BUSY, "second");
  errors.watch(1);
  errors.remember(SQLITE_IOERR_WRITE, "third");
  errors.forget();
  errors.remember(SQLITE_CORRUPT, "fourth");
  ASSERT_TRUE(errors.first(&error));
  EXPECT_STREQ(error.operation, "fourth");
  ASSERT_TRUE(errors.first_since_watch(0, &error));
  EXPECT_STREQ(error.operation, "first");
  ASSERT_TRUE(errors.first_since_watch(1, &error));
  EXPECT_STREQ(error.operation, "third");
  EXPECT_EQ(error.code, SQLITE_IOERR_WRITE);
  EXPECT_FALSE(errors.first_since_watch(4, &error));
  EXPECT_FALSE(errors.first_since_watch(-1, &error));
}

TEST(Errors, a_full_guide_is_told_of_the_operation_that_failed_first) {
  sdbl::Errors errors;
  Database_error error;
  errors.remember(SQLITE_FULL, "export");
  errors.remember_full_guide("event");
  ASSERT_TRUE(errors.first(&error));
  EXPECT_FALSE(error.guide_full);
  errors.forget();
  errors.remember(SQLITE_FULL, "event");
  errors.remember_full_guide("event");
  ASSERT_TRUE(errors.first(&error));
  EXPECT_TRUE(error.guide_full);
  EXPECT_EQ(error.code, SQLITE_FULL);
}
