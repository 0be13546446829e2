// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/opening.h"

#include <span>

#include "base/log.h"
#include "db/export_file.h"
#include "db/file_check.h"
#include "db/no_file_error.h"
#include "db/shell_files.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

constexpr size_t PATH_SIZE = 4096;
constexpr int CLOSE_ATTEMPTS = 5;
constexpr int CLOSE_PAUSE_MS = 10;

// Of the channel file's connection and of the one that makes the guide.
const char* const PRAGMAS[] = {
    "PRAGMA max_page_count=8000;",   "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
    "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;",
};

// The fixed settings of the attached file; the ones above reach the main file only.
const char* const ATTACHED_PRAGMAS[] = {
    "PRAGMA epg_db.journal_mode = OFF;",
    "PRAGMA epg_db.synchronous = OFF;",
    "PRAGMA epg_db.max_page_count=8000;",
};

// With FULL each commit to the channel file waits for the disk; with NORMAL, of the guide, only what moves the log into
// the file does.
const char* const DURABLE_PRAGMAS[] = {
    "PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA synchronous = FULL;",
    "PRAGMA journal_mode = WAL;",  "PRAGMA cache_size=64;",
};
const char* const DURABLE_ATTACHED_PRAGMAS[] = {
    "PRAGMA epg_db.journal_mode = WAL;",
    "PRAGMA epg_db.synchronous = NORMAL;",
    "PRAGMA epg_db.max_page_count=8000;",
};

struct Settings {
  std::span<const char* const> pragmas;
  std::span<const char* const> attached;
};

Settings settings_of(Durability durability) {
  if (durability == Durability::FULL)
    return {DURABLE_PRAGMAS, DURABLE_ATTACHED_PRAGMAS};
  return {PRAGMAS, ATTACHED_PRAGMAS};
}

// SQLite would keep a database without a name in a file that it deletes, and read other names as URIs, of which the
// copies beside the file know nothing.
bool names_a_file(const std::string& file) {
  return !file.empty() && !file.starts_with("file:");
}

// How changes of a file are undone, in SQLite's words.
std::string journal_of(sqlite3* conn, const char* schema) {
  std::string mode;
  const auto take = [](void* to, int, char** values, char**) {
    *static_cast<std::string*>(to) = values[0] != nullptr ? values[0] : "";
    return 0;
  };
  (void)sqlite3_exec(conn, (std::string("PRAGMA ") + schema + ".journal_mode").c_str(), take, &mode, nullptr);
  return mode;
}

}  // namespace

void Opening::open_files() {
  const std::string& file = connection_.db_name();
  const std::string epg_file = epg_file_of(file);
  if (!names_a_file(file)) {
    KLOG(VERB_ERROR, "ERROR: \"%s\" does not name a database file: give a path\n", file.c_str());
    throw no_file_error("Unable to open file");
  }
  if (file.size() >= PATH_SIZE || epg_file.size() >= PATH_SIZE)
    throw no_file_error("Unable to open file");

  KLOG(VERB_PROGRESS, "Kelvo DVB-T si parser ver. %3.1f\n", REVISION);
  KLOG(VERB_TRACE, "DEBUG issue, SQL_TIMEOUT is %d msec\n", SQL_TIMEOUT_MS);
  KLOG(VERB_TRACE, "Opening dvb info database in %s, len %d, out %s\n", file.c_str(), static_cast<int>(file.size()),
       file.c_str());
  KLOG(VERB_INFO, "Setting shared cache mode for database open calls\n");
  open();
  if (sqlite3_threadsafe() != 0)
    KLOG(VERB_INFO, "SQLITE library in thread-safe mode\n");
  else
    KLOG(VERB_ERROR, "ERROR: SQLITE database compiled in single-threaded mode\n");

  try {
    if (!read_only_)
      schema_.create_channel_tables();
    if (!is_damaged(epg_file, "the guide is not used until the file is out of the way", "Sdbl")) {
      create_epg_file(epg_file);
      attach_epg_file(epg_file);
    }
    if (connection_.durability() == Durability::FULL)
      sync_folder(file);  // new files are in it; the guide's is the same one
  } catch (...) {
    connection_.end_literals();
    (void)sqlite3_close(connection_.get());  // no statement is open yet
    connection_.set(nullptr);
    throw;
  }
}

// What is no database at all is nothing that could be written to: its statements say so.
bool Opening::is_damaged(const std::string& file, const char* consequence, const char* operation) {
  const Damage damage = damage_of(file);
  if (damage.code == 0)
    return false;
  KLOG(VERB_ERROR, "ERROR: %s is damaged: %s (%s)\n", file.c_str(), consequence, damage.text.c_str());
  sql_.remember(damage.code, operation);
  return damage.code != SQLITE_NOTADB;
}

void Opening::apply_pragmas(sqlite3* conn, const char* operation) {
  for (const char* pragma : settings_of(connection_.durability()).pragmas)
    sql_.exec_on(operation, conn, pragma);
  use_journal_without_log(conn, "main");
}

// Creates the guide file and its tables through a connection of its own, which is closed again.
void Opening::create_epg_file(const std::string& epg_file) {
  sqlite3* conn = nullptr;
  if (sqlite3_open_v2(epg_file.c_str(), &conn, OPEN_FLAGS, nullptr) != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", epg_file.c_str(), sqlite3_errmsg(conn));
    (void)sqlite3_close(conn);  // a handle that failed to open
    // Deliberate: the %s stays in the exception's text.
    throw no_file_error("Unable to open epg file %s");
  }
  set_up(conn, connection_.durability());
  apply_pragmas(conn, "Sdbl");
  schema_.create_epg_tables(conn);
  if (sqlite3_close(conn) != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close epg database, error %s\n", sqlite3_errmsg(conn));
}

void Opening::attach_epg_file(const std::string& epg_file) {
  sqlite3* const conn = connection_.get();
  const int rc = sql_.try_exec_on("Sdbl", conn, "ATTACH DATABASE %Q as %s;", epg_file, EPG_SCHEMA);
  if (!sql_ok(rc)) {
    KLOG(VERB_ERROR, "ERROR: Failed to attach epg database %s, rc = %d\n", epg_file.c_str(), rc);
    return;
  }
  for (const char* pragma : settings_of(connection_.durability()).attached)
    sql_.exec_on("Sdbl", conn, pragma);
  use_journal_without_log(conn, EPG_SCHEMA);
}

// Where there is no shared memory for a log.
void Opening::use_journal_without_log(sqlite3* conn, const char* schema) {
  if (connection_.durability() == Durability::NONE || journal_of(conn, schema) == "wal")
    return;
  const std::string pragma = std::string("PRAGMA ") + schema;
  (void)sqlite3_exec(conn, (pragma + ".journal_mode = TRUNCATE").c_str(), nullptr, nullptr, nullptr);
  (void)sqlite3_exec(conn, (pragma + ".synchronous = FULL").c_str(), nullptr, nullptr, nullptr);
}

// So that the file is all there is of the database: it can be copied, read where nothing can be written, and opened by
// programs that want no log. While others use it too it stays, and theirs.
void Opening::end_logs() {
  if (connection_.durability() == Durability::NONE)
    return;
  sqlite3* const conn = connection_.get();
  (void)sqlite3_busy_timeout(conn, 0);
  for (const char* schema : {"main", EPG_SCHEMA})
    (void)sqlite3_exec(conn, (std::string("PRAGMA ") + schema + ".journal_mode = DELETE").c_str(), nullptr, nullptr,
                       nullptr);
  (void)sqlite3_busy_timeout(conn, SQL_TIMEOUT_MS);
}

void Opening::open() {
  if (connection_.get() != nullptr) {
    KLOG(VERB_ERROR, "ERROR: sdbl: opening already opened database\n");
    cache_.forget();
    connection_.keep_replaced();
  }
  KLOG(VERB_TRACE, "Opendb ");
  {
    std::lock_guard<Mutex> opening(connection_.open_lock);
    const char* file = connection_.db_name().c_str();
    read_only_ = is_damaged(file, "nothing is stored until a copy is in its place", "open_db");
    sqlite3* conn = nullptr;
    if (sqlite3_open_v2(file, &conn, read_only_ ? SQLITE_OPEN_READONLY : OPEN_FLAGS, nullptr) != SQLITE_OK) {
      KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", file, sqlite3_errmsg(conn));
      (void)sqlite3_close(conn);  // a handle that failed to open
      connection_.set(nullptr);
      throw no_file_error("Unable to open file");
    }
    set_up(conn, connection_.durability());
    connection_.set(conn);
  }
  KLOG(VERB_TRACE, "opendone\n");
  if (!read_only_)
    apply_pragmas(connection_.get(), "open_db");
  // A transaction stands in memory until it ends: what is in the file already is not seen by others before.
  (void)sqlite3_exec(connection_.get(), "PRAGMA cache_spill = OFF", nullptr, nullptr, nullptr);
}

void Opening::close() {
  sqlite3* const conn = connection_.get();
  if (conn == nullptr) {
    KLOG(VERB_ERROR, "ERROR: Closing closed db");
    return;
  }
  KLOG(VERB_TRACE, "Closing db ");
  {
    std::lock_guard<Mutex> closing(connection_.open_lock);
    connection_.end_literals();
    while (sqlite3_stmt* stmt = sqlite3_next_stmt(conn, nullptr)) {
      KLOG(VERB_WARNING, "WARNING: Open statement in close db\n");
      (void)sqlite3_finalize(stmt);  // repeats the code of the last step
    }
    cache_.forget();
    end_logs();

    const int rc = sql_.exec("close_db", "DETACH DATABASE %s;", EPG_SCHEMA);
    // Deliberate: codes 0 and 100 are complained about, too.
    if (rc != SQLITE_DONE)
      KLOG(VERB_ERROR, "ERROR: Failed to detach epg info database, rc = %d\n", rc);

    for (int attempt = 1; attempt <= CLOSE_ATTEMPTS && sqlite3_close(conn) != SQLITE_OK; ++attempt) {
      KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close database %s, error %s\n", connection_.db_name().c_str(),
           sqlite3_errmsg(conn));
      (void)sqlite3_sleep(CLOSE_PAUSE_MS);
    }
  }
  KLOG(VERB_TRACE, "cldone\n");
  connection_.set(nullptr);
}

void Opening::flush() const {
  KLOG(VERB_PROGRESS, "Flushing\n");
  if (connection_.get() == nullptr)
    KLOG(VERB_ERROR, "ERROR: Flushing closed handle\n");
  else
    KLOG(VERB_TRACE, "Fldone\n");
}

}  // namespace sdbl
