#pragma once

#include <sqlite3.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "db/sdbl.h"

namespace db_support {

// Every row as its columns' texts joined by '|', NULL as "NULL".
inline std::vector<std::string> rows(sqlite3* conn, const std::string& sql) {
  std::vector<std::string> all;
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

// The code of one statement on a connection with extended codes; 101 for done.
inline int run(sqlite3* conn, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(conn, sql.c_str(), -1, &stmt, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_step(stmt);
  sqlite3_finalize(stmt);
  return rc;
}

// The connection of an open database, with the guide attached and its scan tables.
inline sqlite3* conn_of(Sdbl& sdbl) {
  sqlite3_stmt* stmt = sdbl.sql_cache(false, 0, "SELECT 1");
  return stmt != nullptr ? sqlite3_db_handle(stmt) : nullptr;
}

inline std::vector<std::string> rows(Sdbl& sdbl, const std::string& sql) {
  return rows(conn_of(sdbl), sql);
}

inline int run(Sdbl& sdbl, const std::string& sql) {
  return run(conn_of(sdbl), sql);
}

// The first column of the first row as a number; -9999 without one.
inline int number(Sdbl& sdbl, const std::string& sql) {
  const std::vector<std::string> all = rows(sdbl, sql);
  return all.empty() ? -9999 : std::stoi(all[0]);
}

// The cached statements in a trace of verbosity 4, in order, each followed by its numbers: "SELECT ... <- 1 506000000".
inline std::vector<std::string> statements(const std::string& trace) {
  const std::string mark = "cache run for command ";
  std::vector<std::string> all;
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

// A connection of the test's own, as another program would have one.
class Other_connection {
 public:
  explicit Other_connection(const std::string& file) {
    sqlite3_open(file.c_str(), &conn_);
    sqlite3_extended_result_codes(conn_, 1);
  }
  ~Other_connection() { sqlite3_close(conn_); }
  Other_connection(const Other_connection&) = delete;
  Other_connection& operator=(const Other_connection&) = delete;
  sqlite3* get() const { return conn_; }

 private:
  sqlite3* conn_ = nullptr;
};

}  // namespace db_support
