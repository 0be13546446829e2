// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "softdvb/mux/json_node.h"

namespace softdvb_mux {

// "2026-03-01T18:00:00Z", "now", "now+90m", "now-01:30:00", "today", "today+18h" (today: midnight UTC before now).
// Seconds since 1970; 1901 to 2038-04-22, where the Modified Julian Date of 16 bits ends.
int64_t read_time(const Json_node& node, int64_t now);
// "01:30:00", "90m", "45s", "2h" or a number of seconds.
int64_t read_duration(const Json_node& node, int64_t max);
// "2026-03-01T18:00:00Z" alone; false when it is none.
bool parse_utc(const std::string& text, int64_t* epoch);

struct Zone_offset {
  bool negative = false;
  uint16_t bcd = 0;  // HHMM
};
// "+02:00", "-03:30"
Zone_offset read_zone_offset(const Json_node& node);

}  // namespace softdvb_mux
