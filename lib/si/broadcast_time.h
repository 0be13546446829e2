// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// What became of the system's clock.
enum : int {
  CLOCK_RIGHT = 0,    // at most 10 s from the broadcast: left alone
  CLOCK_SET = 1,      // set to the broadcast time
  CLOCK_REFUSED = 2,  // to be set, but the system did not allow it, or cannot hold the time: it stays wrong
  CLOCK_KEPT = 3,     // wrong, left alone because the profile does not set it
};

// What became of the system's zone.
enum : int {
  ZONE_UNTOUCHED = 0,  // no local time offset that counts
  ZONE_RIGHT = 1,      // it is the broadcast one already
  ZONE_SET = 2,        // compiled and installed
  ZONE_FAILED = 3,     // to be set, but it could not be written, compiled or installed
  ZONE_KEPT = 4,       // another one, left alone because the profile does not set it
};

// One TDT or TOT (EN 300 468, 5.2.5 and 5.2.6), and what it did.
struct Broadcast_time {
  int freq = 0;               // Hz
  int64_t utc = 0;            // the broadcast time, seconds since 1970
  int64_t off_by = 0;         // by how much the clock was slow, in seconds; negative when it was fast
  int clock = CLOCK_RIGHT;    // CLOCK_...
  int zone = ZONE_UNTOUCHED;  // ZONE_..., of the last entry that did anything
  int offset_min = 0;         // that entry's offset, minutes east of UTC
  char country[4] = "";       // that entry's country code as broadcast, cut to three bytes
  // Only where the zone's country is chosen (Receiver_profile::Zone_country::COUNTRY):
  int region = 0;            // that entry's country_region_id, 0 where the country has one zone
  int64_t change_epoch = 0;  // when its next offset holds, seconds since 1970; 0 when no change is announced
  int next_offset_min = 0;   // the offset from then on

  // Minutes east of UTC at a time, seconds since 1970, as far as the broadcast says.
  int offset_at(int64_t time) const { return change_epoch != 0 && time >= change_epoch ? next_offset_min : offset_min; }
};
