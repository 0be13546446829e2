// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "si/announced_multiplex.h"

// What a scan learns of the multiplex that it is on, and of those that its NIT names. Worker-only.
class Announcements {
 public:
  // Forgets everything: another scan begins.
  void clear();

  // A whole section of a PAT, SDT or NIT of the actual network, from the PID where it belongs; whatever bytes it has.
  void read(const uint8_t* section, size_t size);

  // -1 until an SDT, and an SDT or PAT, have been read.
  int original_network_id() const { return original_network_id_; }
  int transport_stream_id() const { return transport_stream_id_; }
  // In the NIT's order, each once. Frequencies of T2 signals that use several at a time are left out.
  std::vector<Announced_multiplex> multiplexes() const;

 private:
  // A transport stream's entry of the NIT.
  struct Entry {
    Announced_multiplex base;  // without a frequency
    bool known = false;        // its delivery system
    int t2_system = -1;
    std::vector<int> freqs;
  };

  void read_nit(const uint8_t* section, size_t size);
  void read_descriptor(Entry* entry, const uint8_t* bytes, size_t size);

  int original_network_id_ = -1;
  int transport_stream_id_ = -1;
  std::vector<Entry> entries_;
};
