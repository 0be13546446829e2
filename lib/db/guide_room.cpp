// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_room.h"

#include <time.h>

#include <algorithm>
#include <vector>

namespace sdbl {

namespace {

// How many pages are taken on trust before the file is looked at again; other programs may write to the same disk.
constexpr int64_t MOST_ROOM = 1024;

// Pages that the connection has written so far, wrapping around. The guide cannot have grown by more.
unsigned pages_written(sqlite3* conn) {
  int pages = 0;
  int highest = 0;
  (void)sqlite3_db_status(conn, SQLITE_DBSTATUS_CACHE_WRITE, &pages, &highest, 0);  // an existing connection answers
  return static_cast<unsigned>(pages);
}

}  // namespace

bool Guide_room::has(int needed) {
  Db_lock lock(connection_);
  sqlite3* const conn = connection_.get();
  const time_t now = time(nullptr);
  const int64_t grown = pages_written(conn) - written_;
  if (now == looked_at_ && left_ - grown >= needed)
    return true;

  looked_at_ = now;
  int64_t left = room_.pages_left(EPG_SCHEMA);
  if (left >= 0 && left < needed && remove_old_entries() > 0)
    left = room_.pages_left(EPG_SCHEMA);
  left_ = left < 0 ? MOST_ROOM : std::min(left, MOST_ROOM);
  written_ = pages_written(conn);
  return left_ >= needed;
}

int Guide_room::remove_old_entries(int age_sec, bool vacuum) {
  const int oldest = saturated(int64_t{time(nullptr)} - age_sec);
  std::vector<int> entries;
  Rows rows(statements_, __func__, 0, "SELECT entry from epglist where start_epoch < $start_epoch", oldest);
  while (rows.next())
    entries.push_back(rows.number(0));
  rows.end();

  int removed = 0;
  for (const int entry : entries) {
    removed += statements_.try_run(__func__, 0, "DELETE from epglist where entry = $entry", entry).changes;
    removed += statements_.try_run(__func__, 0, "DELETE from epglist_lang where source_oid = $entry", entry).changes;
  }
  if (vacuum)
    statements_.try_run(__func__, 0, "VACUUM");  // a failure is printed there
  return removed;
}

}  // namespace sdbl
