#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_files.h"
#include "db/sdbl_internal.h"

namespace {

const std::string EXPORT_FILE = "/dvbfiles/epg_export_tmp.db";

timespec now() {
  timespec t{};
  (void)clock_gettime(CLOCK_REALTIME, &t);  // cannot fail for this clock
  return t;
}

// Null when there is nothing to copy from; SQLite itself would not survive a null connection.
sqlite3_backup* begin_copy(sqlite3* to, sqlite3* from, const char* schema) {
  return from != nullptr ? sqlite3_backup_init(to, "main", from, schema) : nullptr;
}

}  // namespace

void Sdbl::backup_database(bool) {
  std::string target;
  {
    std::lock_guard<std::mutex> settings(settings_lock_);
    target = backup_file_name;
  }
  if (target.empty()) {
    KLOG(VERB_ERROR, "ERROR: Backup file name not set!");
    return;
  }
  KLOG(VERB_WARNING, "WARNING: Exporting attached epg database %s to %s ", sdbl::EPG_SCHEMA, target.c_str());
  const timespec start = now();
  const int removed = remove_old_entries(epg_max_age, false);
  sync();
  KLOG(VERB_WARNING, "WARNING: Remove_old_entries done in %d msec, removed %d entries. ", usec_to_now(&start) / 1000,
       removed);

  if (sdbl::file_exists(EXPORT_FILE))
    sdbl::remove_file_and_companions(EXPORT_FILE);
  sqlite3* conn = nullptr;
  if (sqlite3_open(EXPORT_FILE.c_str(), &conn) != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: Cannot open export file in %s, %s\n", EXPORT_FILE.c_str(), sqlite3_errmsg(conn));
    (void)sqlite3_close(conn);  // a handle that failed to open
    return;
  }
  sqlite3_backup* backup = begin_copy(conn, db, sdbl::EPG_SCHEMA);
  if (backup == nullptr) {
    KLOG(VERB_ERROR, "ERROR: Backup structure creating failed %s\n", sqlite3_errmsg(conn));
  } else {
    int rc = sqlite3_backup_step(backup, -1);
    if (rc != SQLITE_DONE)  // which the connection learns at the end of the backup only
      KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errstr(rc));
    rc = sqlite3_backup_finish(backup);
    if (rc != SQLITE_OK)
      KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errmsg(conn));
    parts_->errors.report_exec(sql_exec(conn, "VACUUM"), SDBL_HERE);
  }
  (void)sqlite3_close(conn);  // has no statement left

  const std::string epg_file = sdbl::epg_file_of(target);
  if (sdbl::file_exists(epg_file))
    sdbl::remove_file(epg_file);
  sdbl::move_file(EXPORT_FILE, epg_file);
  sync();
  KLOG(VERB_WARNING, "WARNING: Export completed in %d msec\n", usec_to_now(&start) / 1000);
}

void Sdbl::backup_channel_database(const char* file) {
  KLOG(VERB_WARNING, "WARNING: Exporting channel data to to %s ", file);
  const timespec start = now();
  // Deliberate: the temporary file is named after the original, not after `file`.
  char* formatted = sqlite3_mprintf("%s_exp", db_name.c_str());
  const std::string temporary = formatted != nullptr ? formatted : "";
  sqlite3_free(formatted);
  if (sdbl::file_exists(temporary))
    sdbl::remove_file(temporary);

  sqlite3* conn = nullptr;
  if (sqlite3_open_v2(temporary.c_str(), &conn, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", temporary.c_str(), sqlite3_errmsg(conn));
    (void)sqlite3_close(conn);  // a handle that failed to open
    throw no_file_error("Unable to open epg file %s");
  }
  if (sqlite3_backup* backup = begin_copy(conn, db, "main")) {
    const int rc = sqlite3_backup_step(backup, -1);
    if (rc != SQLITE_DONE)
      KLOG(VERB_WARNING, "WARNING: Backup step rc is %d\n", rc);
    (void)sqlite3_backup_finish(backup);  // repeats the step's code
  }
  if (sqlite3_close(conn) != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close epg database, error %s\n", sqlite3_errmsg(conn));

  sdbl::move_file(temporary, file);
  KLOG(VERB_WARNING, "WARNING: Completed in %d msec\n", usec_to_now(&start) / 1000);
  sync();
}
