// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A description of a stream, as softdvb-mux reads it; short ones become streams.
#include <cstdlib>
#include <string>

#include "fuzz/entries.h"
#include "softdvb/mux/json_node.h"
#include "softdvb/mux/stream.h"

int fuzz::description(const uint8_t* data, size_t size) {
  constexpr int64_t NOW = 1772388000;
  constexpr double MOST_BITS = 250'000;
  try {
    const softdvb_mux::Description all =
        softdvb_mux::parse_description(std::string(reinterpret_cast<const char*>(data), size), NOW, NOW);
    if (all.duration * static_cast<double>(all.bit_rate) > MOST_BITS)
      return 0;
    const softdvb_mux::Bytes stream = softdvb_mux::make_stream(all);
    if (stream.size() % softdvb_mux::PACKET != 0)
      std::abort();
  } catch (const softdvb_mux::Description_error&) {
    // says what is wrong with it
  }
  return 0;
}
