// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <vector>

#include "base/receiver_profile.h"
#include "tuner/frontend.h"

// What is known before a frequency is tuned.
struct Known_tuning {
  std::vector<int> systems;  // that the frontend receives; empty: not known
  int last_system = 0;       // that locked last on this adapter; 0: none yet
  // What was found on the frequency the last time; 0 and -1 for nothing.
  int stored_system = 0;
  int stored_pipe = -1;
  int stored_bandwidth_hz = 0;
  int stored_offset_hz = 0;
  // The parameters that a NIT gave.
  std::optional<dvb_frontend_parameters> nit;
};

// How one frequency is searched; see Receiver_profile. Not installed.
struct Search_plan {
  std::vector<Attempt> attempts;  // one after the other, until one is locked
  std::vector<Attempt> second;    // then those whose system has shown some bit of the status
  int first_pat_ms = 0;           // how long a lock has to bring a PAT; 0: it is not looked for
  bool pipes = false;             // DVB-T2 locked without a PAT: pipes 0 to 3
  bool read_back = false;         // what the driver reports afterwards counts
};

// Pure.
Search_plan make_search_plan(const Receiver_profile& profile, const Tuning_request& request, const Known_tuning& known);

// What a frequency has when nothing else is known of it: 7 MHz in the VHF band, else 8 MHz.
int default_bandwidth(int freq);
// The same for version 3, whose VHF band ends at 399999999 Hz, not 299999999.
int default_bandwidth_of_version_3(int freq);
