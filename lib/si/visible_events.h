// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <vector>

// One event as a section of a service's guide says it.
struct Event_heard {
  bool present_following;  // of that table, not of the schedule
  bool outdated;           // its section is of an older version than the table's newest one, and has not come since
  int table_id;
  int section;  // section number
  int index;    // place in the section, from 0
  int event_id;
  int start;        // seconds since 1970, UTC
  int duration;     // seconds, 0 or more
  uint32_t digest;  // of the event's bytes
};

// One event that stands in the guide, and the same event as the schedule says it, where present/following hides that.
// Both point into what visible_events() was given.
struct Event_shown {
  const Event_heard* event;
  const Event_heard* also;  // null for none
};

// What of all that is heard of one service stands in its guide, by start; no two have the same start. The order in
// which the events are given does not count.
//   - Present/following counts before the schedule: what has the id of one of its events, or overlaps one, is hidden.
//   - Of the same table, an outdated event is hidden by one that is not, when they have the same id or overlap.
//   - Of two with the same start, the one of the lower table, section and index counts.
// Events of the schedule that overlap, and hide each other by none of these, are all shown: so they are on air.
// Pure, any-thread.
std::vector<Event_shown> visible_events(const std::vector<Event_heard>& heard);
