// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The local time that a multiplex broadcasts: a row of table broadcast_zone.
struct Stored_zone {
  std::string country;  // as broadcast
  int region = 0;
  int offset_min = 0;    // east of UTC
  int change_epoch = 0;  // when the next offset holds, seconds since 1970; 0 for never
  int next_offset_min = 0;
  bool operator==(const Stored_zone&) const = default;
};
