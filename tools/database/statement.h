// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

// How long the command waits for the library's short writes.
inline constexpr int BUSY_WAIT_MS = 2000;

// A statement of the command's own read-only connections. Throws Failure, naming the file, for whatever goes wrong.
class Statement {
 public:
  Statement(sqlite3* connection, const std::string& file, const char* sql) : file_(file), connection_(connection) {
    if (sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr) != SQLITE_OK) {
      fail();
    }
  }
  ~Statement() { (void)sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int index, int value) { (void)sqlite3_bind_int(statement_, index, value); }
  void bind(int index, const char* text) { (void)sqlite3_bind_text(statement_, index, text, -1, SQLITE_STATIC); }

  void bind_big(int index, int64_t value) { (void)sqlite3_bind_int64(statement_, index, value); }
  void reset() { (void)sqlite3_reset(statement_); }

  bool step() {
    const int code = sqlite3_step(statement_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
      fail();
    }
    return code == SQLITE_ROW;
  }

  int number(int column) const { return sqlite3_column_int(statement_, column); }
  std::string raw_text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return text == nullptr ? std::string()
                           : std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
  }
  int64_t big_number(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string text(int column) const { return clean_text(raw_text(column)); }

 private:
  [[noreturn]] void fail() const {
    switch (sqlite3_errcode(connection_)) {
      case SQLITE_BUSY:
      case SQLITE_LOCKED:
        throw Failure(fmt::format("{}: in use by another program; try again later", file_));
      case SQLITE_NOTADB:
        throw Failure(fmt::format("{}: not a database; name another file with --db", file_));
      case SQLITE_CORRUPT:
        throw Failure(fmt::format("{}: the database is damaged; 'kelvo check --repair' mends it", file_));
      case SQLITE_ERROR:
        throw Failure(fmt::format("{}: not a channel database ({}); name another file with --db", file_,
                                  sqlite3_errmsg(connection_)));
      default:
        throw Failure(fmt::format("{}: cannot be read: {}", file_, sqlite3_errmsg(connection_)));
    }
  }

  std::string file_;
  sqlite3* connection_;
  sqlite3_stmt* statement_ = nullptr;
};
