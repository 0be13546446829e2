// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

namespace sdbl {

// What a scan has read that has no column in the scan tables.
struct Scan_details {
  // Of one service of the multiplex, from its SDT.
  struct Service {
    int service_id = 0;
    bool eit_schedule = false;
    bool eit_present_following = false;
  };
  // Of any service that a NIT names.
  struct Number {
    int original_network_id = 0;
    int transport_stream_id = 0;
    int service_id = 0;
    int lcn = 65535;     // 65535 for none, as below
    int hd_lcn = 65535;  // for receivers of HD
    bool visible = true;
    bool other = false;  // from another network's NIT
    std::string list;    // UTF-8
  };
  // Of a service of another multiplex, from an SDT of that.
  struct Name {
    int original_network_id = 0;
    int transport_stream_id = 0;
    int service_id = 0;
    int type = 0;
    std::string name;  // UTF-8
    std::string provider;
  };

  int original_network_id = -1;   // of the multiplex; -1 when neither SDT nor NIT came
  bool nit_came = false;          // of the actual network
  bool has_numbers = false;       // `numbers` are read, and count instead of the scan tables' column
  std::vector<Service> services;  // by service_id
  std::vector<Number> numbers;
  std::vector<Name> names;
};

}  // namespace sdbl
