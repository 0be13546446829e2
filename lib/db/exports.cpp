// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/exports.h"

#include <time.h>
#include <unistd.h>

#include "base/log.h"
#include "base/mutex.h"
#include "db/export_file.h"
#include "db/no_file_error.h"
#include "db/shell_files.h"
#include "db/times.h"

namespace sdbl {

namespace {

const std::string EXPORT_FILE = "/dvbfiles/epg_export_tmp.db";

timespec now() {
  timespec t{};
  (void)clock_gettime(CLOCK_REALTIME, &t);  // cannot fail for this clock
  return t;
}

// Held for the time of an export. One for all databases of the process, whose exports may share their names; the
// connection's mutex is taken while it is held.
Mutex exporting{Lock_rank::EXPORTING, "exports"};

// What is damaged by a crash is made anew.
void set_up_copy(sqlite3* conn) {
  set_up(conn);
  (void)sqlite3_exec(conn, "PRAGMA journal_mode = OFF; PRAGMA temp_store = MEMORY", nullptr, nullptr, nullptr);
}

// The copy of a file with a write-ahead log says that it has one, too, which it shall not need.
void end_log(sqlite3* conn) {
  (void)sqlite3_exec(conn, "PRAGMA journal_mode = DELETE; PRAGMA journal_mode = OFF", nullptr, nullptr, nullptr);
}

// A copy that failed takes the place of nothing but a file that is not there.
void put(Export_file& copy, const std::string& target, bool whole) {
  if (whole || !file_exists(target))
    copy.put(target);
}

// Null when there is nothing to copy from; SQLite itself would not survive a null connection.
sqlite3_backup* begin_copy(sqlite3* to, sqlite3* from, const char* schema) {
  return from != nullptr ? sqlite3_backup_init(to, "main", from, schema) : nullptr;
}

}  // namespace

// What is durable is on the disk already.
void Exports::sync_all() const {
  if (connection_.durability() == Durability::NONE)
    sync();
}

void Exports::set_guide_target(const char* file) {
  std::lock_guard<Mutex> lock(lock_);
  guide_target_ = file != nullptr ? file : "";
}

// Copies the guide in one step, so that no writer comes between two, and then without the pages that are not in use.
// False, printed, when the copy is none.
bool Exports::copy_guide(sqlite3* to) {
  sqlite3_backup* backup = begin_copy(to, connection_.get(), EPG_SCHEMA);
  if (backup == nullptr) {
    KLOG(VERB_ERROR, "ERROR: Backup structure creating failed %s\n", sqlite3_errmsg(to));
    return false;
  }
  int rc = sqlite3_backup_step(backup, -1);
  if (rc != SQLITE_DONE)  // which the connection learns at the end of the backup only
    KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errstr(rc));
  rc = sqlite3_backup_finish(backup);
  if (rc != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errmsg(to));
  sql_.remember(rc, "backup_database");
  end_log(to);
  // Without a journal a copy that cannot be compacted is none any more.
  const bool compacted = kelvo_log::sql_ok(sql_.exec_on("backup_database", to, "VACUUM"));
  return rc == SQLITE_OK && compacted;
}

void Exports::export_guide() {
  std::lock_guard<Mutex> one(exporting);
  std::string backup_file_name;
  {
    std::lock_guard<Mutex> lock(lock_);
    backup_file_name = guide_target_;
  }
  if (backup_file_name.empty()) {
    KLOG(VERB_ERROR, "ERROR: Backup file name not set!");
    return;
  }
  KLOG(VERB_WARNING, "WARNING: Exporting attached epg database %s to %s ", EPG_SCHEMA, backup_file_name.c_str());
  const timespec start = now();
  const int removed = room_.remove_old_entries();
  sync_all();
  KLOG(VERB_WARNING, "WARNING: Remove_old_entries done in %d msec, removed %d entries. ", usec_to_now(&start) / 1000,
       removed);

  Export_file copy(EXPORT_FILE);
  sqlite3* conn = nullptr;
  const int rc = copy.made() ? sqlite3_open(copy.path().c_str(), &conn) : SQLITE_CANTOPEN;
  if (rc != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: Cannot open export file in %s, %s\n", EXPORT_FILE.c_str(), sqlite3_errstr(rc));
    sql_.remember(rc, "backup_database");
    (void)sqlite3_close(conn);  // a handle that failed to open, or none
    return;
  }
  set_up_copy(conn);
  const bool whole = copy_guide(conn);
  (void)sqlite3_close(conn);  // has no statement left

  put(copy, epg_file_of(backup_file_name), whole);
  sync_all();
  KLOG(VERB_WARNING, "WARNING: Export completed in %d msec\n", usec_to_now(&start) / 1000);
}

void Exports::export_channels(const char* file) {
  std::lock_guard<Mutex> one(exporting);
  KLOG(VERB_WARNING, "WARNING: Exporting channel data to to %s ", file);
  const timespec start = now();
  // Deliberate: the temporary file is named after the original, not after `file`.
  char* formatted = sqlite3_mprintf("%s_exp", connection_.db_name().c_str());
  const std::string temporary = formatted != nullptr ? formatted : "";
  sqlite3_free(formatted);
  Export_file copy(temporary);
  sqlite3* conn = nullptr;
  const int opened = copy.made() ? sqlite3_open_v2(copy.path().c_str(), &conn, OPEN_FLAGS, nullptr) : SQLITE_CANTOPEN;
  if (opened != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", temporary.c_str(), sqlite3_errstr(opened));
    (void)sqlite3_close(conn);  // a handle that failed to open, or none
    throw no_file_error("Unable to open epg file %s");
  }
  set_up_copy(conn);
  bool whole = false;
  if (sqlite3_backup* backup = begin_copy(conn, connection_.get(), "main")) {
    const int rc = sqlite3_backup_step(backup, -1);
    if (rc != SQLITE_DONE)
      KLOG(VERB_WARNING, "WARNING: Backup step rc is %d\n", rc);
    sql_.remember(rc, "backup_channel_database");
    whole = sqlite3_backup_finish(backup) == SQLITE_OK;  // the step's code, too
    end_log(conn);
  }
  if (sqlite3_close(conn) != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close epg database, error %s\n", sqlite3_errmsg(conn));

  put(copy, file, whole);
  KLOG(VERB_WARNING, "WARNING: Completed in %d msec\n", usec_to_now(&start) / 1000);
  sync_all();
}

}  // namespace sdbl
