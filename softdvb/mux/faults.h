// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/mux/tables.h"

namespace softdvb_mux {

// One transmission of one section on its way to the packets.
struct Transmission {
  Bytes section;
  uint16_t pid = 0;
  bool dropped = false;
  bool twice = false;
  bool packets_twice = false;
  bool transport_error = false;
  bool cut = false;
  int lost_packet = -1;
  unsigned skip = 0;  // continuity counter values left out before it
};

// Applies the faults that are meant for the `count`th transmission (from 0) of this section of `table` at `at`.
void apply_faults(const std::vector<Fault>& faults, const Table& table, uint64_t count, double at,
                  Transmission* transmission);

}  // namespace softdvb_mux
