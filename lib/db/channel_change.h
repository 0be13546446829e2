// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// What a refresh did to a known service: bits of Channel_change::kinds. "Old" and "new" are those of its row in
// kanalid.
enum : unsigned {
  CHANNEL_RENAMED = 1,        // serv_name
  CHANNEL_RENUMBERED = 2,     // lcn
  CHANNEL_MOVED = 4,          // freq: it is received elsewhere now
  CHANNEL_RETYPED = 8,        // serv_type
  CHANNEL_SCRAMBLED = 16,     // free_ca 0 -> 1
  CHANNEL_CLEAR = 32,         // free_ca 1 -> 0
  CHANNEL_HIDDEN = 64,        // its network asks receivers not to list it
  CHANNEL_SHOWN = 128,        // and does not any more
  CHANNEL_PROVIDER = 256,     // prov_name
  CHANNEL_STREAMS = 512,      // elementary streams were added or deleted
  CHANNEL_PIDS = 1024,        // pmt_pid or pcr_pid
  CHANNEL_NETWORK = 2048,     // network_id, orig_network_id, tstream_id or network_name
  CHANNEL_RUNNING = 4096,     // run_status
  CHANNEL_TRANSLATED = 8192,  // its names in languages (kanalid_lang)
};

// One known service of which the air says something else than before. A value; only where the profile refreshes.
struct Channel_change {
  int channel = 0;     // its row of kanalid, which stays
  int service_id = 0;  // program number of the PAT
  unsigned kinds = 0;  // CHANNEL_ bits
  std::string old_name;
  std::string new_name;  // UTF-8; the same where it was not renamed, as below
  int old_lcn = 65535;   // 65535 for none
  int new_lcn = 65535;
  int old_freq = 0;  // Hz
  int new_freq = 0;
};
