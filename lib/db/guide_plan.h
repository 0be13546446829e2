// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sdbl {

// A stored event of a channel, as far as it is compared.
struct Guide_row {
  int entry;
  int ev_id;
  int start;  // seconds since 1970, UTC
  int duration;
  int64_t digest = -1;     // of what was stored; -1 where that is not known
  bool confirmed = false;  // this broadcast has said it
  int run_status = 0;
  int running_since = 0;
  int table_id = 0;  // that said it; 0 where that is not known
};

// An event as it should stand there.
struct Guide_wish {
  int ev_id;
  int start;
  int duration;
  int64_t digest;
};

// What makes rows out of wishes.
struct Guide_plan {
  std::vector<int> row_of;      // for each wish its row in the list, -1 for a new one
  std::vector<bool> to_write;   // for each wish, whether its row differs
  std::vector<size_t> removed;  // rows that go
};

// Both lists are sorted by start, and have each start once. A wish takes over the row of its id and start; else of its
// id, where that is the only one of it and not over; else of its start. Of the other rows go those that overlap a wish,
// and of those that are not over at `now` the confirmed ones, and when `complete` all. Pure, any-thread.
Guide_plan plan_guide(const std::vector<Guide_row>& rows, const std::vector<Guide_wish>& wishes, int now,
                      bool complete);

}  // namespace sdbl
