// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// How far the guide of one service has come; see Siparse::get_eit_progress() and Kelvo::eit_progress(). A plain copy,
// in no way tied to the scan.
//
// Nothing tells that the guide is complete: a table that nobody sends is waited for without end. A service has all that
// its network announces when `last_table` is not 0 and either `table` is past it, or equals it with `done` set; one
// without a schedule keeps `last_table` 0. Hosts add a time limit of their own. Where the profile repeats what was
// lost, a loss takes `done` of the current table back.
struct EIT_progress {
  int32_t service_id;  // programme number
  int32_t channel;     // row of `kanalid`
  int32_t table;       // table_id being collected: 0 before the guide's turn, 0x4E, then 0x50 to 0x5F
  int32_t last_table;  // highest last_table_id in the service's schedule sections since tuning, 0 for none
  bool active;         // nothing of the current table has been seen for it
  bool done;           // its part of the current table has been seen, or is waited for no more; stays set after 0x5F
  int32_t events;      // stored events: found in the database when the list was made, and new ones; purges not counted
};
