// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/connection.h"

namespace sdbl {

void set_up(sqlite3* conn, Durability durability) {
  (void)sqlite3_extended_result_codes(conn, 1);
  // The pragma "default_cache_size" writes to the file, which without this waits for the disk, up to seconds on a busy
  // one. What cannot be set now (the file is locked or damaged) shows itself at the pragmas.
  if (durability == Durability::NONE)
    (void)sqlite3_exec(conn, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
  (void)sqlite3_busy_timeout(conn, SQL_TIMEOUT_MS);
}

Connection::~Connection() {
  for (sqlite3* conn : replaced_) {
    while (sqlite3_stmt* stmt = sqlite3_next_stmt(conn, nullptr))
      (void)sqlite3_finalize(stmt);  // repeats the code of the last step
    (void)sqlite3_close(conn);       // nobody is left to be told
  }
}

}  // namespace sdbl
