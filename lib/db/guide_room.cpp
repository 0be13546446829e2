// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_room.h"

#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/log.h"
#include "db/transaction.h"

namespace sdbl {

namespace {

// How many pages are taken on trust before the file is looked at again; other programs may write to the same disk.
constexpr int64_t MOST_ROOM = 1024;
// In a transaction nothing is written yet, and no room at the end undoes all of it: the file's own bound is enough.
constexpr int64_t MOST_PROMISED = 8000;

// Events of a purge that go in one transaction; its pages stand in memory until it ends.
constexpr size_t PURGED_AT_ONCE = 500;
constexpr char PURGE[] = "remove_old_entries";

// Pages that the connection has written so far, wrapping around. The guide cannot have grown by more.
unsigned pages_written(sqlite3* conn) {
  int pages = 0;
  int highest = 0;
  (void)sqlite3_db_status(conn, SQLITE_DBSTATUS_CACHE_WRITE, &pages, &highest, 0);  // an existing connection answers
  return static_cast<unsigned>(pages);
}

}  // namespace

bool Guide_room::in_transaction() const {
  return connection_.get() != nullptr && sqlite3_get_autocommit(connection_.get()) == 0;
}

bool Guide_room::was_left(int64_t needed) const {
  const int64_t grown = pages_written(connection_.get()) - written_ + promised_;
  return time(nullptr) == looked_at_ && std::min(left_, in_transaction() ? MOST_PROMISED : MOST_ROOM) - grown >= needed;
}

void Guide_room::look(int64_t needed) {
  looked_at_ = time(nullptr);
  int64_t left = room_.pages_left(EPG_SCHEMA);
  if (left >= 0 && left < needed && remove(epg_max_age(), false) > 0)
    left = room_.pages_left(EPG_SCHEMA);
  left_ = left < 0 ? MOST_ROOM : left;
  written_ = pages_written(connection_.get());
  promised_ = 0;
}

bool Guide_room::has(int needed) {
  return has_for_all(needed, needed);
}

bool Guide_room::has_for_all(int needed, int all) {
  Db_lock lock(connection_);
  if (!was_left(all)) {
    look(needed);
    if (left_ < all)
      return false;
  }
  promised_ += in_transaction() ? all : 0;
  return true;
}

int Guide_room::remove_old_entries(int age_sec, bool vacuum) {
  const int removed = remove(age_sec, true);
  if (vacuum) {
    // Which may be the whole file.
    Db_lock lock(connection_);
    (void)sqlite3_exec(connection_.get(), "PRAGMA cache_spill = ON", nullptr, nullptr, nullptr);
    statements_.try_run(__func__, 0, "VACUUM");  // a failure is printed there
    (void)sqlite3_exec(connection_.get(), "PRAGMA cache_spill = OFF", nullptr, nullptr, nullptr);
  }
  return removed;
}

int Guide_room::remove(int age_sec, bool waits) {
  const int oldest = saturated(clock_now() - age_sec);
  std::vector<int> entries;
  Rows rows(statements_, PURGE, 0, "SELECT entry from epglist where start_epoch < $start_epoch", oldest);
  while (rows.next())
    entries.push_back(rows.number(0));
  rows.end();

  int removed = 0;
  for (size_t first = 0; first < entries.size(); first += PURGED_AT_ONCE) {
    Transaction transaction(connection_, Db_file::GUIDE, {.waits = waits});
    int rc = transaction.busy() || transaction.moved() ? transaction.code() : SQLITE_OK;
    int gone = 0;
    for (size_t i = first; rc == SQLITE_OK && i < std::min(first + PURGED_AT_ONCE, entries.size()); ++i) {
      gone += statements_.try_run(PURGE, 0, "DELETE from epglist where entry = $entry", entries[i]).changes;
      gone += statements_.try_run(PURGE, 0, "DELETE from epglist_lang where source_oid = $entry", entries[i]).changes;
      rc = transaction.is_lost() ? SQLITE_FULL : SQLITE_OK;
    }
    if (rc == SQLITE_OK && transaction.is_open())
      rc = transaction.commit();
    if (rc != SQLITE_OK) {
      errors_.remember(rc, PURGE);
      KLOG(VERB_ERROR, "ERROR: Old events stay in the guide: %s\n", sqlite3_errstr(rc));
      break;
    }
    removed += gone;
  }
  return removed;
}

}  // namespace sdbl
