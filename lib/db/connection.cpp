// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/connection.h"

#include <algorithm>

namespace sdbl {

void set_up(sqlite3* conn, Durability durability) {
  (void)sqlite3_extended_result_codes(conn, 1);
  // The pragma "default_cache_size" writes to the file, which without this waits for the disk, up to seconds on a busy
  // one. What cannot be set now (the file is locked or damaged) shows itself at the pragmas.
  if (durability == Durability::NONE)
    (void)sqlite3_exec(conn, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
  (void)sqlite3_busy_timeout(conn, SQL_TIMEOUT_MS);
}

void Connection::set(sqlite3* conn) {
  if (conn != conn_) {
    literals_.clear();  // of a connection that is closed or left behind
    guide_has_journal_ = false;
  }
  conn_ = conn;
}

int Connection::run_literal(const char* sql, std::string* text) {
  auto known = std::find_if(literals_.begin(), literals_.end(), [=](const auto& entry) { return entry.first == sql; });
  if (known == literals_.end()) {
    sqlite3_stmt* stmt = nullptr;
    const int rc = conn_ != nullptr ? sqlite3_prepare_v2(conn_, sql, -1, &stmt, nullptr) : SQLITE_MISUSE;
    if (rc != SQLITE_OK)
      return rc;
    known = literals_.insert(literals_.end(), {sql, stmt});
  }
  sqlite3_stmt* const stmt = known->second;
  const int rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW && text != nullptr) {
    const unsigned char* column = sqlite3_column_text(stmt, 0);
    *text = column != nullptr ? reinterpret_cast<const char*>(column) : "";
  }
  (void)sqlite3_reset(stmt);  // repeats the step's code
  return rc;
}

void Connection::end_literals() {
  for (const auto& [sql, stmt] : literals_)
    (void)sqlite3_finalize(stmt);
  literals_.clear();
}

Connection::~Connection() {
  for (sqlite3* conn : replaced_) {
    while (sqlite3_stmt* stmt = sqlite3_next_stmt(conn, nullptr))
      (void)sqlite3_finalize(stmt);  // repeats the code of the last step
    (void)sqlite3_close(conn);       // nobody is left to be told
  }
}

}  // namespace sdbl
