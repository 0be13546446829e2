// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/transaction.h"

#include <unistd.h>

#include <string>

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

constexpr int PAUSE_MS = 20;

// BEGIN locks nothing; BEGIN IMMEDIATE would lock both files.
constexpr char BEGIN[] = "BEGIN";
constexpr char COMMIT[] = "COMMIT";
constexpr char ROLLBACK[] = "ROLLBACK";

bool is_busy(int code) {
  return (code & 0xFF) == SQLITE_BUSY;
}

}  // namespace

// The statements for one file.
struct Transaction::Sql {
  Db_file file;
  const char* schema;
  const char* journal;
  const char* journal_in_memory;
  const char* no_journal;
  const char* take_turn;  // writes no row, and keeps other writers away
  const char* version;
};

const Transaction::Sql& Transaction::sql_of(Db_file file) {
  static constexpr Sql CHANNELS = {Db_file::CHANNELS,
                                   "main",
                                   "PRAGMA main.journal_mode",
                                   "PRAGMA main.journal_mode = MEMORY",
                                   "PRAGMA main.journal_mode = OFF",
                                   "UPDATE main.kanalid SET channel = channel WHERE 0",
                                   "PRAGMA main.user_version"};
  static constexpr Sql GUIDE = {Db_file::GUIDE,
                                EPG_SCHEMA,
                                "PRAGMA epg_db.journal_mode",
                                "PRAGMA epg_db.journal_mode = MEMORY",
                                "PRAGMA epg_db.journal_mode = OFF",
                                "UPDATE epg_db.epglist SET channel = channel WHERE 0",
                                "PRAGMA epg_db.user_version"};
  return file == Db_file::CHANNELS ? CHANNELS : GUIDE;
}

Transaction::Transaction(Connection& connection, Db_file file, Options options)
    : connection_(connection), sql_(sql_of(file)) {
  for (int waited = 0;; waited += PAUSE_MS) {
    lock_.emplace(connection_);
    code_ = begin(options.tries_disk);
    if (!is_busy(code_) || !options.waits || waited >= SQL_TIMEOUT_MS)
      break;
    lock_.reset();
    (void)usleep(PAUSE_MS * 1000);  // a shorter pause is as good
  }
  if (state_ == State::NONE)
    lock_.reset();
}

int Transaction::begin(bool tries_disk) {
  sqlite3* const conn = connection_.get();
  if (conn == nullptr)
    return SQLITE_MISUSE;
  if (sqlite3_get_autocommit(conn) == 0) {
    state_ = State::INNER;
    return SQLITE_OK;
  }
  // What is promised to last must not go where no name leads to.
  int moved = 0;
  if (connection_.durability() == Durability::FULL &&
      sqlite3_file_control(conn, sql_.schema, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0)
    return SQLITE_READONLY_DBMOVED;
  (void)sqlite3_busy_timeout(conn, 0);
  std::string journal = "memory";
  if (sql_.file != Db_file::GUIDE || !connection_.guide_has_journal())
    (void)connection_.run_literal(sql_.journal, &journal);
  int rc = SQLITE_OK;
  std::string version;
  if (tries_disk && journal == "off") {
    // The smallest write there is: a number of the first page, which becomes what it is.
    rc = connection_.run_literal(sql_.version, &version);
    if (rc == SQLITE_ROW)
      rc = sqlite3_exec(conn, (std::string(sql_.version) + " = " + version).c_str(), nullptr, nullptr, nullptr);
  }
  if (sql_ok(rc)) {
    has_journal_ = make_journal(journal);
    rc = connection_.run_literal(BEGIN);
  }
  if (sql_ok(rc)) {
    state_ = State::OPEN;
    rc = connection_.run_literal(sql_.take_turn);
    if (sql_ok(rc) && journal != "wal")  // with a WAL, readers disturb nobody
      rc = lock_file();
    if (!sql_ok(rc))
      undo();
  }
  if (state_ != State::OPEN)
    forget_journal();
  (void)sqlite3_busy_timeout(conn, SQL_TIMEOUT_MS);
  return sql_ok(rc) ? SQLITE_OK : rc;
}

// The lock that COMMIT needs for the file, now and not at the end: SQLite takes it only when it writes, and has then no
// way back but to undo everything. It gives it back with its own.
int Transaction::lock_file() {
  sqlite3_file* file = nullptr;
  const int rc = sqlite3_file_control(connection_.get(), sql_.schema, SQLITE_FCNTL_FILE_POINTER, &file);
  if (rc != SQLITE_OK || file == nullptr || file->pMethods == nullptr)
    return SQLITE_OK;
  return file->pMethods->xLock(file, SQLITE_LOCK_EXCLUSIVE);
}

bool Transaction::is_lost() const {
  return state_ == State::OPEN && sqlite3_get_autocommit(connection_.get()) != 0;
}

int Transaction::commit() {
  if (state_ == State::INNER)
    return SQLITE_OK;
  if (state_ != State::OPEN)
    return SQLITE_MISUSE;
  const int rc = is_lost() ? SQLITE_FULL : connection_.run_literal(COMMIT);
  if (sql_ok(rc))
    forget_journal();
  else
    undo();
  state_ = State::ENDED;
  lock_.reset();
  return sql_ok(rc) ? SQLITE_OK : rc;
}

Transaction::~Transaction() {
  if (state_ == State::OPEN)
    undo();
}

void Transaction::undo() {
  if (!is_lost())
    (void)connection_.run_literal(ROLLBACK);
  state_ = State::NONE;
  forget_journal();
}

// False where there was no memory for it: what is stored then stands in the file, or not, statement by statement.
bool Transaction::make_journal(const std::string& present) {
  if (present != "off")
    return true;
  std::string made;
  (void)connection_.run_literal(sql_.journal_in_memory, &made);
  if (sql_.file != Db_file::GUIDE)
    made_journal_ = true;
  else if (made == "memory")
    connection_.note_guide_journal();
  return made == "memory";
}

void Transaction::forget_journal() {
  if (made_journal_)
    (void)connection_.run_literal(sql_.no_journal);
  made_journal_ = false;
}

}  // namespace sdbl
