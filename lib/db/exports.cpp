// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/exports.h"

#include <time.h>
#include <unistd.h>

#include "base/log.h"
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

// Null when there is nothing to copy from; SQLite itself would not survive a null connection.
sqlite3_backup* begin_copy(sqlite3* to, sqlite3* from, const char* schema) {
  return from != nullptr ? sqlite3_backup_init(to, "main", from, schema) : nullptr;
}

}  // namespace

void Exports::set_guide_target(const char* file) {
  std::lock_guard<std::mutex> lock(lock_);
  guide_target_ = file != nullptr ? file : "";
}

// Copies the guide in one step, so that no writer comes between two, and then without the pages that are not in use.
void Exports::copy_guide(sqlite3* to) {
  sqlite3_backup* backup = begin_copy(to, connection_.get(), EPG_SCHEMA);
  if (backup == nullptr) {
    KLOG(VERB_ERROR, "ERROR: Backup structure creating failed %s\n", sqlite3_errmsg(to));
    return;
  }
  int rc = sqlite3_backup_step(backup, -1);
  if (rc != SQLITE_DONE)  // which the connection learns at the end of the backup only
    KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errstr(rc));
  rc = sqlite3_backup_finish(backup);
  if (rc != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: rc %d: Cannot run export into %s, %s\n", rc, EXPORT_FILE.c_str(), sqlite3_errmsg(to));
  sql_.remember(rc, "backup_database");
  sql_.exec_on("backup_database", to, "VACUUM");
}

void Exports::export_guide() {
  std::lock_guard<std::mutex> exporting(exporting_);
  std::string backup_file_name;
  {
    std::lock_guard<std::mutex> lock(lock_);
    backup_file_name = guide_target_;
  }
  if (backup_file_name.empty()) {
    KLOG(VERB_ERROR, "ERROR: Backup file name not set!");
    return;
  }
  KLOG(VERB_WARNING, "WARNING: Exporting attached epg database %s to %s ", EPG_SCHEMA, backup_file_name.c_str());
  const timespec start = now();
  const int removed = room_.remove_old_entries();
  sync();
  KLOG(VERB_WARNING, "WARNING: Remove_old_entries done in %d msec, removed %d entries. ", usec_to_now(&start) / 1000,
       removed);

  if (file_exists(EXPORT_FILE))
    remove_file_and_companions(EXPORT_FILE);
  sqlite3* conn = nullptr;
  const int rc = sqlite3_open(EXPORT_FILE.c_str(), &conn);
  if (rc != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: Cannot open export file in %s, %s\n", EXPORT_FILE.c_str(), sqlite3_errmsg(conn));
    sql_.remember(rc, "backup_database");
    (void)sqlite3_close(conn);  // a handle that failed to open
    return;
  }
  set_up(conn);
  copy_guide(conn);
  (void)sqlite3_close(conn);  // has no statement left

  const std::string epg_file = epg_file_of(backup_file_name);
  if (file_exists(epg_file))
    remove_file(epg_file);
  move_file(EXPORT_FILE, epg_file);
  sync();
  KLOG(VERB_WARNING, "WARNING: Export completed in %d msec\n", usec_to_now(&start) / 1000);
}

void Exports::export_channels(const char* file) {
  std::lock_guard<std::mutex> exporting(exporting_);
  KLOG(VERB_WARNING, "WARNING: Exporting channel data to to %s ", file);
  const timespec start = now();
  // Deliberate: the temporary file is named after the original, not after `file`.
  char* formatted = sqlite3_mprintf("%s_exp", connection_.db_name().c_str());
  const std::string temporary = formatted != nullptr ? formatted : "";
  sqlite3_free(formatted);
  if (file_exists(temporary))
    remove_file(temporary);

  sqlite3* conn = nullptr;
  if (sqlite3_open_v2(temporary.c_str(), &conn, OPEN_FLAGS, nullptr) != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot open database %s, error %s\n", temporary.c_str(), sqlite3_errmsg(conn));
    (void)sqlite3_close(conn);  // a handle that failed to open
    throw no_file_error("Unable to open epg file %s");
  }
  set_up(conn);
  if (sqlite3_backup* backup = begin_copy(conn, connection_.get(), "main")) {
    const int rc = sqlite3_backup_step(backup, -1);
    if (rc != SQLITE_DONE)
      KLOG(VERB_WARNING, "WARNING: Backup step rc is %d\n", rc);
    sql_.remember(rc, "backup_channel_database");
    (void)sqlite3_backup_finish(backup);  // repeats the step's code
  }
  if (sqlite3_close(conn) != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: FLUSH: Cannot close epg database, error %s\n", sqlite3_errmsg(conn));

  move_file(temporary, file);
  KLOG(VERB_WARNING, "WARNING: Completed in %d msec\n", usec_to_now(&start) / 1000);
  sync();
}

}  // namespace sdbl
