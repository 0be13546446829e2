// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/at_once.h"

#include <unistd.h>

#include "base/lock_order.h"

namespace sdbl {

namespace {

// A statement that waits for nobody is over within it.
constexpr int TRIES = 20;
constexpr int PAUSE_MS = 5;

bool enter(sqlite3_mutex* mutex) {
  lock_order::take(Lock_rank::CONNECTION, mutex, "connection");
  for (int tried = 1; sqlite3_mutex_try(mutex) != SQLITE_OK; ++tried) {
    if (tried == TRIES) {
      lock_order::give(mutex);
      return false;
    }
    (void)usleep(PAUSE_MS * 1000);  // a shorter pause is as good
  }
  return true;
}

}  // namespace

At_once::At_once(const Connection& connection) : conn_(connection.get()) {
  has_connection_ = conn_ == nullptr || enter(sqlite3_db_mutex(conn_));
  if (has_connection_ && conn_ != nullptr)
    (void)sqlite3_busy_timeout(conn_, 0);
}

At_once::~At_once() {
  (void)sqlite3_finalize(reading_);  // null is allowed; repeats the step's code
  if (!has_connection_ || conn_ == nullptr)
    return;
  (void)sqlite3_busy_timeout(conn_, SQL_TIMEOUT_MS);
  sqlite3_mutex_leave(sqlite3_db_mutex(conn_));
  lock_order::give(sqlite3_db_mutex(conn_));
}

bool At_once::can_read() {
  if (!has_connection_)
    return false;
  if (conn_ == nullptr || reading_ != nullptr)
    return true;
  // The lock stays as long as the statement has not been read to its end.
  int rc = sqlite3_prepare_v2(conn_, "PRAGMA main.user_version", -1, &reading_, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_step(reading_);
  return (rc & 0xFF) != SQLITE_BUSY;
}

}  // namespace sdbl
