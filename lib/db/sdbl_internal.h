#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "base/log.h"
#include "db/sdbl_parts.h"

// For the sources of Sdbl; not installed.

// Where a failure is reported from: the operation's plain name and the line.
#define SDBL_HERE __func__, __LINE__

namespace sdbl {

inline constexpr double REVISION = 2.5;
inline constexpr int SQL_TIMEOUT_MS = 2000;
inline constexpr const char* EPG_SCHEMA = "epg_db";

// Times are stored in 32 bits: one beyond them counts as the last that fits.
inline int saturated(int64_t value) {
  return static_cast<int>(std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// Holds a connection's own mutex, which is recursive. Keeps the binding, stepping and resetting of a statement of
// instance 0 together, and a run with the figures that the connection keeps about it. Every SELECT is read to its end
// under it: a table cannot be dropped while another thread stands between two rows.
class Db_lock {
 public:
  explicit Db_lock(sqlite3* conn) : mutex_(conn != nullptr ? sqlite3_db_mutex(conn) : nullptr) {
    sqlite3_mutex_enter(mutex_);
  }
  ~Db_lock() { sqlite3_mutex_leave(mutex_); }
  Db_lock(const Db_lock&) = delete;
  Db_lock& operator=(const Db_lock&) = delete;

 private:
  sqlite3_mutex* mutex_;
};

// A column's text, "" for NULL. Valid until the statement's next step or reset.
inline const char* column_text(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace sdbl
