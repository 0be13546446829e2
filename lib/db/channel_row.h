// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "base/multiplex.h"

namespace sdbl {

// Values of kanalid.row_status and kanalid.scan_state.
inline constexpr int ROW_CONFIRMED = 0;
inline constexpr int ROW_OLD = 1;
inline constexpr int ROW_NEW = 2;
inline constexpr int SERVICE_LOST = 0;
inline constexpr int SERVICE_FOUND = 1;
inline constexpr int SERVICE_TIMED_OUT = 2;

inline constexpr int NO_LCN = 65535;

// A row of kanalid with what service_detail has of it; docs/database.md tells what the fields are.
struct Channel_row {
  int channel = 0;                    // 0: it has no row yet
  static constexpr int DROPPED = -1;  // nor will it have one
  int freq = 0;
  int pat_prnr = 0;
  int pmt_pid = 0;
  int network_id = 0;
  int orig_network_id = 0;
  int tstream_id = 0;
  int lcn = NO_LCN;
  int pcr_pid = 0;
  std::string serv_name;
  int serv_type = 0;
  std::string prov_name;
  std::string network_name;
  int run_status = 0;
  int free_ca = 0;
  int scan_state = SERVICE_LOST;
  int row_status = ROW_CONFIRMED;

  struct Detail {
    int lcn = NO_LCN;  // as broadcast
    int hd_lcn = NO_LCN;
    int visible = 1;
    int eit_schedule = 0;
    int eit_present_following = 0;
    int set_aside = 0;
    std::string list_name;
    bool operator==(const Detail&) const = default;
  };
  Detail detail;

  bool operator==(const Channel_row&) const = default;
};

inline bool is_lost(const Channel_row& row) {
  return row.scan_state == SERVICE_LOST;
}

}  // namespace sdbl
