// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// What became of an event of the guide; values of Guide_change::kind.
enum : int32_t {
  GUIDE_ADDED = 0,    // a new row
  GUIDE_CHANGED = 1,  // other texts, length, status or event, with the same start
  GUIDE_MOVED = 2,    // another start
  GUIDE_REMOVED = 3,  // its row is gone
};

// One change of a stored event, as a section of the guide brought it; see Kelvo::set_guide_listener(). A plain value.
struct Guide_change {
  int32_t adapter;   // number of the adapter, 0 to 3
  int32_t channel;   // row of `kanalid`
  int32_t event_id;  // of the event as it is now; of a removed one as it was
  int32_t start;     // seconds since 1970, UTC; likewise
  int32_t kind;      // GUIDE_...
  int32_t entry;     // row of `epglist`
};
