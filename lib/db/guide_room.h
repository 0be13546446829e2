// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "db/file_room.h"
#include "db/statements.h"

namespace sdbl {

// Keeps the guide file inside its bounds, and free of old events. Any-thread.
class Guide_room {
 public:
  Guide_room(const Connection& connection, File_room& room, const Statements& statements)
      : connection_(connection), room_(room), statements_(statements) {}

  // True when the guide file can take `needed` more pages. When it cannot, old events are removed first.
  bool has(int needed);

  // Sdbl::remove_old_entries.
  int remove_old_entries(int age_sec, bool vacuum);

  // Removes what is older than the age of every purge, one day, and returns how many rows went.
  int remove_old_entries() { return remove_old_entries(epg_max_age(), false); }

 private:
  const Connection& connection_;
  File_room& room_;
  const Statements& statements_;
  static constexpr int epg_max_age() { return 24 * 60 * 60; }  // seconds

  // Guarded by the connection's mutex.
  int64_t left_ = 0;       // pages of the guide file that were left when it was looked at
  int64_t looked_at_ = 0;  // when that was, seconds since 1970
  unsigned written_ = 0;   // and how many pages the connection had written by then
};

}  // namespace sdbl
