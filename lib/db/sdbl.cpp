#include "db/sdbl.h"

#include <sqlite3.h>
#include <time.h>

#include <cstring>

#include "base/log.h"
#include "db/sdbl_files.h"
#include "db/sdbl_internal.h"

using kelvo_log::sql_ok;
using sdbl::Db_lock;

namespace {

constexpr size_t PATH_SIZE = 4096;
constexpr int DAY_S = 24 * 60 * 60;
constexpr int CLOSE_ATTEMPTS = 5;
constexpr int CLOSE_PAUSE_MS = 10;
constexpr int OPEN_FLAGS = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;

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

// The pragma before "synchronous" writes to the file, which without this waits for the disk, up to seconds on a busy
// one. What cannot be set now (the file is locked or damaged) shows itself at the pragmas.
void never_wait_for_disk(sqlite3* conn) {
  (void)sqlite3_exec(conn, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
}

}  // namespace

Sdbl::Sdbl(const char* db_file)
    : parts_(std::make_unique<Parts>(*this)),
      db_name(db_file != nullptr ? db_file : ""),
      db(nullptr),
      epg_cache_hits_(0),
      epg_cache_misses_(0),
      epg_max_age(DAY_S) {
  const std::string epg_file = sdbl::epg_file_of(db_name);
  if (db_name.size() >= PATH_SIZE || epg_file.size() >= PATH_SIZE)
    throw no_file_error("Unable to open file");

  KLOG(VERB_PROGRESS, "Kelvo DVB-T si parser ver. %3.1f\n", sdbl::REVISION);
  KLOG(VERB_TRACE, "DEBUG issue, SQL_TIMEOUT is %d msec\n", sdbl::SQL_TIMEOUT_MS);
  KLOG(VERB_TRACE, "Opening dvb info database in %s, len %d, out %s\n", db_name.c_str(),
       static_cast<int>(db_name.size()), db_name.c_str());
  KLOG(VERB_INFO, "Setting shared cache mode for database open calls\n");
  open_db();
  if (sqlite3_threadsafe() != 0)
    KLOG(VERB_INFO, "SQLITE library in thread-safe mode\n");
  else
    KLOG(VERB_ERROR, "ERROR: SQLITE database compiled in single-threaded mode\n");

  try {
    create_channel_tables();
    create_epg_file(epg_file);
    attach_epg_file(epg_file);
  } catch (...) {
    (void)sqlite3_close(db);  // no statement is open yet
    throw;
  }
  preferred_provider = "levira";
  set_eit_service_types(nullptr, 0);
}

Sdbl::~Sdbl() {
  free_prepared_queries();
  close_db();
  for (sqlite3* conn : replaced_) {
    while (sqlite3_stmt* stmt = sqlite3_next_stmt(conn, nullptr))
      (void)sqlite3_finalize(stmt);  // repeats the code of the last step
    (void)sqlite3_close(conn);       // nobody is left to be told
  }
}

void Sdbl::apply_pragmas(sqlite3* conn) {
  for (const char* pragma : PRAGMAS)
    parts_->errors.report_exec(sql_exec(conn, pragma), "open_db", __LINE__);
}

// Creates the guide file and its tables through a connection of its own, which is closed again.
void Sdbl::create_epg_file(const std::string& epg_file) {
  sqlite3* conn = nullptr;
  if (sqlite3_open_v2(epg_file.c_str(), &conn, OPEN_FLAGS, nullptr) != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", epg_file.c_str(), sqlite3_errmsg(conn));
    (void)sqlite3_close(conn);  // a handle that failed to open
    // Deliberate: the %s stays in the exception's text.
    throw no_file_error("Unable to open epg file %s");
  }
  (void)sqlite3_extended_result_codes(conn, 1);
  never_wait_for_disk(conn);
  (void)sqlite3_busy_timeout(conn, sdbl::SQL_TIMEOUT_MS);
  apply_pragmas(conn);
  create_epg_tables(conn);
  if (sqlite3_close(conn) != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close epg database, error %s\n", sqlite3_errmsg(conn));
}

void Sdbl::attach_epg_file(const std::string& epg_file) {
  const int rc = sql_exec(db, "ATTACH DATABASE %Q as %s;", epg_file.c_str(), sdbl::EPG_SCHEMA);
  if (!sql_ok(rc)) {
    KLOG(VERB_ERROR, "ERROR: Failed to attach epg database %s, rc = %d\n", epg_file.c_str(), rc);
    return;
  }
  for (const char* pragma : ATTACHED_PRAGMAS)
    parts_->errors.report_exec(sql_exec(db, pragma), "Sdbl", __LINE__);
}

int Sdbl::open_db() {
  if (db != nullptr) {
    KLOG(VERB_ERROR, "ERROR: sdbl: opening already opened database\n");
    forget_statements();
    replaced_.push_back(db);
  }
  KLOG(VERB_TRACE, "Opendb ");
  {
    std::lock_guard<std::mutex> opening(open_lock);
    sqlite3* conn = nullptr;
    if (sqlite3_open_v2(db_name.c_str(), &conn, OPEN_FLAGS, nullptr) != SQLITE_OK) {
      KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", db_name.c_str(), sqlite3_errmsg(conn));
      (void)sqlite3_close(conn);  // a handle that failed to open
      db = nullptr;
      throw no_file_error("Unable to open file");
    }
    (void)sqlite3_extended_result_codes(conn, 1);
    never_wait_for_disk(conn);
    db = conn;
  }
  (void)sqlite3_busy_timeout(db, sdbl::SQL_TIMEOUT_MS);
  KLOG(VERB_TRACE, "opendone\n");
  apply_pragmas(db);
  return 1;
}

// Empties the slots of the statement cache: its statements are ended, or belong to a connection that is left behind.
void Sdbl::forget_statements() {
  std::lock_guard<std::mutex> cache(cache_lock_);
  for (SQL_query* query : queries_)
    for (sqlite3_stmt*& stmt : query->stmt)
      stmt = nullptr;
}

void Sdbl::close_db() {
  if (db == nullptr) {
    KLOG(VERB_ERROR, "ERROR: Closing closed db");
    return;
  }
  KLOG(VERB_TRACE, "Closing db ");
  {
    std::lock_guard<std::mutex> closing(open_lock);
    while (sqlite3_stmt* stmt = sqlite3_next_stmt(db, nullptr)) {
      KLOG(VERB_WARNING, "WARNING: Open statement in close db\n");
      (void)sqlite3_finalize(stmt);  // repeats the code of the last step
    }
    forget_statements();

    const int rc = parts_->errors.report_exec(sql_exec(db, "DETACH DATABASE %s;", sdbl::EPG_SCHEMA), SDBL_HERE);
    // Deliberate: codes 0 and 100 are complained about, too.
    if (rc != SQLITE_DONE)
      KLOG(VERB_ERROR, "ERROR: Failed to detach epg info database, rc = %d\n", rc);

    for (int attempt = 1; attempt <= CLOSE_ATTEMPTS && sqlite3_close(db) != SQLITE_OK; ++attempt) {
      KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close database %s, error %s\n", db_name.c_str(), sqlite3_errmsg(db));
      (void)sqlite3_sleep(CLOSE_PAUSE_MS);
    }
  }
  KLOG(VERB_TRACE, "cldone\n");
  db = nullptr;
}

bool Sdbl::first_error(Database_error* error) const {
  return parts_->errors.first(error);
}

void Sdbl::forget_errors() {
  parts_->errors.forget();
}

bool Sdbl::db_opened() const {
  return db != nullptr;
}

void Sdbl::flush() {
  KLOG(VERB_PROGRESS, "Flushing\n");
  if (db == nullptr)
    KLOG(VERB_ERROR, "ERROR: Flushing closed handle\n");
  else
    KLOG(VERB_TRACE, "Fldone\n");
}

void Sdbl::create_temp_tables(int n) {
  parts_->errors.report_exec(sql_exec(db, "DROP TABLE IF EXISTS kanalid_scan_%d;", n), SDBL_HERE);
  parts_->errors.report_exec(sql_exec(db, "DROP TABLE IF EXISTS kanalid_lang_scan_%d;", n), SDBL_HERE);
  parts_->errors.report_exec(sql_exec(db, "DROP TABLE IF EXISTS estreams_scan_%d", n), SDBL_HERE);

  char name[32];
  (void)snprintf(name, sizeof name, "kanalid_scan_%d", n);
  create_table_kanalid(name, true);
  (void)snprintf(name, sizeof name, "kanalid_lang_scan_%d", n);
  create_table_kanalid_lang(name, true);
  (void)snprintf(name, sizeof name, "estreams_scan_%d", n);
  create_table_estreams(name, true);
}

void Sdbl::clear_temp_tables(int n) {
  parts_->errors.report_exec(sql_exec(db, "DELETE FROM estreams_scan_%d;", n), SDBL_HERE);
  parts_->errors.report_exec(sql_exec(db, "DELETE FROM kanalid_scan_%d;", n), SDBL_HERE);
  parts_->errors.report_exec(sql_exec(db, "DELETE FROM kanalid_lang_scan_%d;", n), SDBL_HERE);
}

int Sdbl::remove_old_entries(int age_sec, bool vacuum) {
  const int oldest = sdbl::saturated(int64_t{time(nullptr)} - age_sec);
  std::vector<int> entries;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(false, 0, "SELECT entry from epglist where start_epoch < $start_epoch", oldest);
    if (stmt != nullptr) {
      while (sqlite3_step(stmt) == SQLITE_ROW)
        entries.push_back(sqlite3_column_int(stmt, 0));
      parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
    }
  }
  int removed = 0;
  for (const int entry : entries) {
    removed += run_cached(0, "DELETE from epglist where entry = $entry", entry).changes;
    removed += run_cached(0, "DELETE from epglist_lang where source_oid = $entry", entry).changes;
  }
  if (vacuum)
    (void)run_cached(0, "VACUUM");  // a failure is printed there
  return removed;
}

void Sdbl::set_backup_file_name(const char* file) {
  std::lock_guard<std::mutex> settings(settings_lock_);
  backup_file_name = file != nullptr ? file : "";
}

void Sdbl::set_preferred_provider(const char* name) {
  std::lock_guard<std::mutex> settings(settings_lock_);
  preferred_provider = name != nullptr ? name : "";
}

char* Sdbl::mapto_epg_filename(char* out, const char* path) {
  const std::string file = sdbl::epg_file_of(path);
  std::memcpy(out, file.c_str(), file.size() + 1);
  return out;
}
