// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "tools/play/transport_packet.h"

// Counts what is missing between the packets of each PID (ISO/IEC 13818-1, 2.4.3.3). Packets without payload and null
// packets do not count, a packet may come twice, and a discontinuity that is announced is none.
class Continuity {
 public:
  enum class Verdict {
    IN_ORDER,
    DUPLICATE,
    GAP,      // packets before it are missing
    DAMAGED,  // the transport error indicator is set: nothing of it can be trusted
  };

  Verdict look(const Transport_packet& packet);
  // What comes next of the PID is the first of it.
  void forget(int pid) { pids_.erase(pid); }

  uint64_t gaps() const { return gaps_; }
  // At the least: a counter has four bits.
  uint64_t lost() const { return lost_; }
  uint64_t damaged() const { return damaged_; }

 private:
  struct Seen {
    int counter = 0;
    bool twice = false;
    std::array<uint8_t, Transport_packet::SIZE> packet{};
  };
  static bool is_repeated(const Seen& seen, const Transport_packet& packet);

  std::map<int, Seen> pids_;
  uint64_t gaps_ = 0;
  uint64_t lost_ = 0;
  uint64_t damaged_ = 0;
};
