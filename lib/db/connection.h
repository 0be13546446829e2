// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sqlite3.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "db/durability.h"

namespace sdbl {

inline constexpr double REVISION = 2.5;
inline constexpr int SQL_TIMEOUT_MS = 2000;
inline constexpr const char* EPG_SCHEMA = "epg_db";
inline constexpr int OPEN_FLAGS = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;

// What every connection gets as soon as it is open: extended result codes, no waiting for the disk (Durability::NONE),
// and the busy time-out.
void set_up(sqlite3* conn, Durability durability = Durability::NONE);

// The two files of a connection.
enum class Db_file { CHANNELS, GUIDE };

// The main connection of one database. Opening and closing belong to the host's thread (see Opening); the handle is
// any-thread.
class Connection {
 public:
  Connection(std::string db_name, Durability durability) : db_name_(std::move(db_name)), durability_(durability) {}
  // Closes the connections that were replaced, and ends their statements. The current one is Opening's to close.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3* get() const { return conn_; }  // null while closed
  const std::string& db_name() const { return db_name_; }
  Durability durability() const { return durability_; }

  // Takes `conn` as the connection, or none.
  void set(sqlite3* conn);
  // Keeps the present connection until the end, because another thread may still use it, although a new one is opened.
  void keep_replaced() { replaced_.push_back(conn_); }

  // Executes a statement without parameters, which is compiled once: `sql` is a literal, known by its address. Prints
  // nothing. The code of the step; `*text` becomes the first column of the row, if there is one. REQUIRES: the
  // connection's mutex.
  int run_literal(const char* sql, std::string* text = nullptr);
  // Ends those statements, as a connection that is closed wants it.
  void end_literals();

  // Whether the guide has got a journal in memory, which it then keeps (see Transaction). Guarded by the connection's
  // mutex.
  bool guide_has_journal() const { return guide_has_journal_; }
  void note_guide_journal() { guide_has_journal_ = true; }

  Mutex open_lock{Lock_rank::OPENING, "opening"};  // held while the connection is opened or closed
  // Held by the writers that insert several rows or ask for the row's number.
  Mutex second_lock{Lock_rank::WRITING, "writers"};

 private:
  std::string db_name_;
  Durability durability_;
  sqlite3* conn_ = nullptr;
  bool guide_has_journal_ = false;  // of conn_
  std::vector<sqlite3*> replaced_;
  std::vector<std::pair<const char*, sqlite3_stmt*>> literals_;  // of conn_
};

// Holds a connection's own mutex, which is recursive. Keeps the binding, stepping and resetting of a statement of
// instance 0 together, and a run with the figures that the connection keeps about it. Every SELECT is read to its end
// under it: a table cannot be dropped while another thread stands between two rows.
class Db_lock {
 public:
  explicit Db_lock(sqlite3* conn) : mutex_(conn != nullptr ? sqlite3_db_mutex(conn) : nullptr) {
    if (mutex_ == nullptr)
      return;
    lock_order::take(Lock_rank::CONNECTION, mutex_, "connection");
    sqlite3_mutex_enter(mutex_);
  }
  explicit Db_lock(const Connection& connection) : Db_lock(connection.get()) {}
  ~Db_lock() { release(); }
  Db_lock(const Db_lock&) = delete;
  Db_lock& operator=(const Db_lock&) = delete;

  void release() {
    if (mutex_ == nullptr)
      return;
    sqlite3_mutex_leave(mutex_);
    lock_order::give(std::exchange(mutex_, nullptr));
  }

 private:
  sqlite3_mutex* mutex_;  // null is allowed, and nothing is locked
};

// Times are stored in 32 bits: one beyond them counts as the last that fits.
inline int saturated(int64_t value) {
  return static_cast<int>(std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// What a clock shows. Of 32 bits, one below 0 is after January 2038: it has wrapped, or is the -1 of a C library that
// has no such time. As it stands no row could hold it.
template <typename Time>
constexpr int64_t clock_shows(Time read) {
  return sizeof read == 4 && read < 0 ? std::numeric_limits<int32_t>::max() : int64_t{read};
}

inline int64_t clock_now() {
  return clock_shows(time(nullptr));
}

}  // namespace sdbl
