// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <cstdint>
#include <vector>

struct EPG_cache;

// One television service of the multiplex whose guide is being collected. Made by Sdbl::get_eit_scan_list, owned by
// that list until Sdbl::clear_eit_scan_list. Worker-only.
struct SQL_cache {
  int32_t pat_prnr;             // service_id
  int32_t pmt_pid;              // 0 when the service has no PCR PID
  int32_t scan_mark;            // version of its PMT last read, -1 for none
  int32_t channel;              // row of `kanalid`
  timer_t timer;                // polled, never signals: when the wait for this service's part of a table ends
  bool active;                  // no section of the current table seen yet
  bool done;                    // its part of the current table is complete, or given up
  int32_t count;                // how often the last section of its part has arrived
  std::vector<EPG_cache*> epg;  // its stored events, sorted by start
};
