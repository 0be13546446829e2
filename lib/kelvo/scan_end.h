// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include "base/types.h"
#include "db/channel_change.h"
#include "db/database_error.h"
#include "filter/lost_sections.h"
#include "si/announced_multiplex.h"

// How a scan ended.
enum : int {
  SCAN_COMPLETE = 0,     // every table that it waited for has been read
  SCAN_TIMED_OUT = 1,    // 40 s were over first, or PMTs were given up before: `missing` has what never came
  SCAN_NO_STREAM = 2,    // DVB-H, or no section within 6 s of a request without a channel
  SCAN_NO_DEMUX = 3,     // a filter could not be set: the demultiplexer could not be opened
  SCAN_REPLACED = 4,     // another request, or one that failed to tune, took its filters away
  SCAN_DEVICE_GONE = 5,  // the device went away; only where the profile watches it
};

// A table that was waited for.
struct Missing_table {
  int pid;
  int table_id;
  int service_id = -1;  // of a PMT: whose. An entry for each, where the profile reads tables whole; else -1
};

// The end of one scan, which began with a request or a rescan: a full one from the PAT on (stage SCAN_PAT), or of the
// PMTs alone (SCAN_PMT). What the guide collects afterwards belongs to no scan.
struct Scan_end {
  int adapter = 0;
  int freq = 0;      // Hz, as asked for
  int channel = -1;  // the request's, -1 for none
  SCAN_STATE stage = SCAN_NONE;
  int outcome = SCAN_COMPLETE;
  bool merged = false;  // the channel list was brought up to date; not so without room (error 13)
  int changes = 0;  // what the merge changed: bits of Sdbl::update_master_scan_data's result; 256: `channel_changes`
  std::vector<Channel_change> channel_changes;  // by channel; only where the profile refreshes
  std::vector<Missing_table> missing;           // of a scan that timed out
  Database_error error;                         // the first one since the scan began; code 0 for none

  // What the scan has read of the multiplex; -1 until its SDT (EN 300 468, 5.2.3) or PAT has come.
  int original_network_id = -1;
  int transport_stream_id = -1;
  std::vector<Announced_multiplex> announced;  // by its NIT, each once
  std::vector<Lost_sections> lost;             // on the multiplex until now; only PIDs that lost any
};
