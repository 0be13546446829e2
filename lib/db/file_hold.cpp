// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/file_hold.h"

#include <unistd.h>

#include <string>

namespace sdbl {

namespace {

constexpr int PAUSE_MS = 20;

int silently(sqlite3* conn, const std::string& sql) {
  return sqlite3_exec(conn, sql.c_str(), nullptr, nullptr, nullptr);
}

int first_number(sqlite3* conn, const char* sql, int* number) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(conn, sql, -1, &stmt, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_step(stmt);
    *number = sqlite3_column_int(stmt, 0);
  }
  (void)sqlite3_finalize(stmt);  // repeats the step's code
  return rc;
}

// The smallest write there is: a number of the first page, which becomes what it is.
int write_nothing(sqlite3* conn) {
  int version = 0;
  const int rc = first_number(conn, "PRAGMA main.user_version", &version);
  return rc == SQLITE_ROW ? silently(conn, "PRAGMA main.user_version = " + std::to_string(version)) : rc;
}

bool is_reading(sqlite3* conn) {
  for (sqlite3_stmt* stmt = sqlite3_next_stmt(conn, nullptr); stmt != nullptr; stmt = sqlite3_next_stmt(conn, stmt))
    if (sqlite3_stmt_busy(stmt) != 0)
      return true;
  return false;
}

}  // namespace

File_hold::File_hold(const Connection& connection) : connection_(connection) {
  for (int waited = 0;; waited += PAUSE_MS) {
    lock_.emplace(connection_);
    const int rc = connection_.get() != nullptr ? take() : SQLITE_MISUSE;
    busy_ = (rc & 0xFF) == SQLITE_BUSY;
    if (!busy_ || waited >= SQL_TIMEOUT_MS)
      return;
    lock_.reset();
    (void)usleep(PAUSE_MS * 1000);  // a shorter pause is as good
  }
}

File_hold::~File_hold() {
  if (held_)
    let_go();
}

// In exclusive mode the lock of the first write stays until the mode ends. BEGIN EXCLUSIVE would lock the guide, too.
int File_hold::take() {
  sqlite3* const conn = connection_.get();
  (void)sqlite3_busy_timeout(conn, 0);
  (void)silently(conn, "PRAGMA main.locking_mode = EXCLUSIVE");
  const int rc = write_nothing(conn);
  held_ = rc == SQLITE_OK;
  if (!held_)
    let_go();
  (void)sqlite3_busy_timeout(conn, SQL_TIMEOUT_MS);
  return rc;
}

void File_hold::let_go() {
  sqlite3* const conn = connection_.get();
  (void)silently(conn, "PRAGMA main.locking_mode = NORMAL");
  // The next access unlocks the file; with a statement of a host in the middle of its rows only a write does.
  int version = 0;
  (void)first_number(conn, "PRAGMA main.user_version", &version);
  if (is_reading(conn))
    (void)write_nothing(conn);
}

}  // namespace sdbl
