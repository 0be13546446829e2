// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "si/found.h"
#include "si/local_offsets.h"
#include "si/scan_rows.h"

class Descriptor;
class Dvb_text;

// The kinds of loops in which descriptors stand, as bits.
namespace loop {

inline constexpr unsigned PROGRAMME = 1 << 0;  // of a PMT
inline constexpr unsigned STREAM = 1 << 1;     // of a PMT
inline constexpr unsigned CAT = 1 << 2;
inline constexpr unsigned SERVICE = 1 << 3;  // of an SDT
inline constexpr unsigned EVENT = 1 << 4;    // of an EIT
inline constexpr unsigned NETWORK = 1 << 5;  // both of a NIT
inline constexpr unsigned TIME = 1 << 6;     // of a TOT
inline constexpr unsigned ANY = (1 << 7) - 1;

}  // namespace loop

// What a descriptor is told beside its bytes. Those without a row of their own have these; for Siparse's
// parse_descriptor_info(), which has no other way to say it, they tell the loop, too.
inline constexpr int CONTEXT_PROGRAMME = -1;
inline constexpr int CONTEXT_EVENT = 1;
inline constexpr int CONTEXT_STREAM = 10;

// Where a descriptor stands, and what its handler works with.
struct Site {
  unsigned loop;  // one of the bits
  int context;    // the row of a service or network, the frequency of a TOT, or a CONTEXT_ value
  Scan_rows& rows;
  Dvb_text& text;
  Found& found;
  // Of the NIT's loop; -1 for the last two in its network loop.
  int network_id = -1;
  int ts_id = -1;
  int orig_network_id = -1;
  bool sets_zone = true;                         // by a local time offset
  std::vector<Local_offset>* offsets = nullptr;  // where they are collected; null: each counts at once
};

// What is done with a descriptor of this tag in one of these loops.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a row reads best in this order
struct Descriptor_row {
  uint8_t tag;
  const char* name;
  unsigned loops;
  void (*handle)(const Descriptor&, Site&);
};

// All that is known, by tag; rows of one tag stand together and share no loop.
std::span<const Descriptor_row> descriptor_rows();

// Traces the descriptor and gives it to the handler of its tag and loop. One without a handler is reported at
// verbosity 3.
void parse_descriptor(const Descriptor& descriptor, Site& site);
