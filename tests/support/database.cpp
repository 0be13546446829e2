// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/database.h"

#include <sstream>

#include "support/verbosity.h"

namespace support {

Texts rows(sqlite3* conn, const std::string& sql) {
  Texts all;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(conn, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
    return {std::string("error: ") + sqlite3_errmsg(conn)};
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    std::string row;
    for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
      row += (i > 0 ? "|" : "") + std::string(text != nullptr ? text : "NULL");
    }
    all.push_back(row);
  }
  if (rc != SQLITE_DONE)
    all.push_back(std::string("error: ") + sqlite3_errmsg(conn));
  sqlite3_finalize(stmt);
  return all;
}

int run(sqlite3* conn, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(conn, sql.c_str(), -1, &stmt, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_step(stmt);
  sqlite3_finalize(stmt);
  return rc;
}

sqlite3* conn_of(Sdbl& sdbl) {
  const Verbosity quiet(-1);  // the look-up is the test's, not the library's
  sqlite3_stmt* stmt = sdbl.sql_cache(false, 0, "SELECT 1");
  return stmt != nullptr ? sqlite3_db_handle(stmt) : nullptr;
}

Other_connection::Other_connection(const std::string& file) {
  sqlite3_open(file.c_str(), &conn_);
  sqlite3_extended_result_codes(conn_, 1);
}

Other_connection::~Other_connection() {
  sqlite3_close(conn_);
}

void Database::open() {
  sdbl_.reset();
  sdbl_ = std::make_unique<Sdbl>(file().c_str());
}

std::string Database::text(const std::string& sql) {
  const Texts all = rows(sql);
  return all.empty() ? "no row" : all[0];
}

int Database::number(const std::string& sql) {
  const Texts all = rows(sql);
  return all.empty() ? -9999 : std::stoi(all[0]);
}

Texts statements_in(const std::string& trace) {
  const std::string mark = "cache run for command ";
  Texts all;
  for (size_t at = trace.find(mark); at != std::string::npos; at = trace.find(mark, at + 1)) {
    const size_t end = trace.find('\n', at);
    std::istringstream arguments(trace.substr(end + 1, trace.find('\n', end + 1) - end - 1));
    std::string statement = trace.substr(at + mark.size(), end - at - mark.size()) + " <-";
    for (std::string name, value; arguments >> name >> value;)
      statement += " " + value;
    all.push_back(statement);
  }
  return all;
}

}  // namespace support
