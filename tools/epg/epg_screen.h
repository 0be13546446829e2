// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// Events of the guide as people want them, on standard output. `services` holds at least the channels of `events`, by
// row.
struct Guide_table {
  bool full = false;      // with extended texts and items
  bool one_time = false;  // all of them are on at one time: the date says little
  bool wide = false;      // all columns in full, however narrow the terminal is
};
void print_guide_table(const std::vector<Guide_event>& events, const std::map<int, Service>& services,
                       const Guide_table& how);
// A line a channel: what is on at `now`, and what comes next. Of a channel at most one of each is given, by start.
void print_now_and_next(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t now,
                        bool wide);
// Everything that is known of each event at the time `now`, as paragraphs.
void print_events_in_full(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t now);
