// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "db/errors.h"
#include "db/file_room.h"
#include "db/statements.h"

namespace sdbl {

// Keeps the guide file inside its bounds, and free of old events. Any-thread.
class Guide_room {
 public:
  Guide_room(Connection& connection, File_room& room, const Statements& statements, Errors& errors)
      : connection_(connection), room_(room), statements_(statements), errors_(errors) {}

  // True when the guide file can take `needed` more pages. When it cannot, old events are removed first. In a
  // transaction the pages of all that was asked for since it began count as taken.
  bool has(int needed);

  // True when it can take `all` more pages. Old events are removed only when it cannot take `needed` of them.
  bool has_for_all(int needed, int all);

  // Sdbl::remove_old_entries, in one transaction for hundreds of events, so that none loses its texts alone and memory
  // is bounded. What another program keeps locked stays, which is printed.
  int remove_old_entries(int age_sec, bool vacuum);

  // Removes what is older than the age of every purge, one day, and returns how many rows went.
  int remove_old_entries() { return remove(epg_max_age(), true); }

 private:
  int remove(int age_sec, bool waits);
  bool in_transaction() const;
  // Whether so many pages were left, as of this second.
  bool was_left(int64_t needed) const;
  // Looks at the file again, and removes old events when fewer than `needed` pages are left.
  void look(int64_t needed);

  Connection& connection_;
  File_room& room_;
  const Statements& statements_;
  Errors& errors_;
  static constexpr int epg_max_age() { return 24 * 60 * 60; }  // seconds

  // Guarded by the connection's mutex.
  int64_t left_ = 0;       // pages of the guide file that were left when it was looked at
  int64_t looked_at_ = 0;  // when that was, seconds since 1970
  unsigned written_ = 0;   // and how many pages the connection had written by then
  int64_t promised_ = 0;   // and how many transactions were told since that they have
};

}  // namespace sdbl
