// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "db/connection.h"

namespace sdbl {

// For threads that must not wait until a file is free, such as a host's that tunes: as long as it lives, statements of
// this thread answer SQLITE_BUSY at once where others wait up to the busy time-out. The connection's mutex, which a
// worker may hold all through such a wait, is tried for a moment only.
class At_once {
 public:
  explicit At_once(const Connection& connection);
  ~At_once();
  At_once(const At_once&) = delete;
  At_once& operator=(const At_once&) = delete;

  // Whether this thread has the connection. When not, no statement may be run.
  bool has_connection() const { return has_connection_; }

  // False when another program keeps the channel file locked. Otherwise it cannot lock it any more until this object
  // goes, so what is read next is not busy.
  bool can_read();

 private:
  sqlite3* const conn_;
  bool has_connection_ = false;
  sqlite3_stmt* reading_ = nullptr;
};

}  // namespace sdbl
