// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// RF connector of an input, 0 to 31. The host's own numbering: passed through and stored as `hf_conn`, never
// interpreted.
using HF_CONN_ID = int;

// Delivery type of an input, 0 to 2. The host's own numbering: passed through and stored as `dvb_type`.
using DVB_TYPE_ID = int;

// Stage of a scan. An int, because hosts pass it through as one; the names are the only values in use.
using SCAN_STATE = int;
enum : int {
  SCAN_NONE = 0,  // no scan yet
  SCAN_PMT = 1,   // PMTs of the tuned multiplex, as the database knows them (a channel is watched)
  SCAN_PAT = 2,   // everything from the PAT on: first scan of a multiplex, or a full rescan
  SCAN_EIT = 3,   // PSI done; the programme guide is being collected
};
