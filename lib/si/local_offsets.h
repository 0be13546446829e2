// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// One entry of a local_time_offset_descriptor (EN 300 468, 6.2.20).
struct Local_offset {
  std::string country;  // as broadcast
  int region = 0;       // country_region_id; 0 where the country has one zone
  int offset_min = 0;   // east of UTC
  int64_t change = 0;   // when the next one holds, seconds since 1970, UTC; 0 for never
  int next_offset_min = 0;
};

// Which entry of a time table counts, where several countries stand in one: that of the country that the host named,
// else of the network's country, else of the system's zone; where none of them stands there, that of the only country
// that does. Of several regions of a country that which agrees with the system's zone, where that is of this country,
// else the one with the lowest id. Not installed. Worker-only.
class Country_offset {
 public:
  // Two or three letters, or empty.
  explicit Country_offset(std::string country) : country_(std::move(country)) {}

  // Null when none counts, else one of `offsets`. `original_network_id` below 0: not known yet. `utc` is the time of
  // the table, seconds since 1970.
  const Local_offset* choose(const std::vector<Local_offset>& offsets, int original_network_id, int64_t utc) const;

 private:
  std::string country_;
};
