// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// How far the guide of one service has come; see Siparse::get_eit_progress() and Kelvo::eit_progress(). A plain copy,
// in no way tied to the scan.
//
// Where the guide is collected table by table (Receiver_profile::Guide::BY_TABLE) nothing tells that it is complete: a
// table that nobody sends is waited for without end. A service has all that its network announces when `last_table` is
// not 0 and either `table` is past it, or equals it with `done` set; one without a schedule keeps `last_table` 0. Hosts
// add a time limit of their own. Where the profile repeats what was lost, a loss takes `done` of the current table
// back. What stands behind `events` stays as it is made here.
//
// Where it is collected whole, all of it is complete when every entry has `done`, of one each for the known services
// of the multiplex and, where they are asked for, for those of other multiplexes that came. A new version of a table
// takes `done` back until it is here.
struct EIT_progress {
  int32_t service_id;  // programme number
  int32_t channel;     // row of `kanalid`
  int32_t table;       // table_id being collected: 0 before the guide's turn, 0x4E, then 0x50 to 0x5F; whole: the last
                       // one of which something came
  int32_t last_table;  // highest last_table_id in the service's schedule sections since tuning, 0 for none; whole: as
                       // its newest section says
  bool active;         // nothing of the current table has been seen for it; whole: nothing at all
  bool done;           // its part of the current table has been seen, or is waited for no more; stays set after 0x5F;
                       // whole: the same of all its tables
  int32_t events;      // stored events: found in the database when the list was made, and new ones; purges not counted;
                       // whole: those that stand there now

  // Of a guide that is collected whole only.
  bool whole = false;         // this entry is of one
  bool given_up = false;      // done, but something that was announced did not come: EN 300 468, 5.2.4
  int32_t sections = 0;       // different ones that came, of
  int32_t sections_of = 0;    // so many, as far as is known; a table or segment that has not begun counts as one
  int32_t complete_ms = 0;    // from the guide's begin to `done` without `given_up`; 0 before
  int32_t carousel_ms = 0;    // longest time until one of its sections came again; 0 while none has
  int32_t slowest_table = 0;  // the table id of that section
};
