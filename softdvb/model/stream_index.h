// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Where the packets of a recorded stream lie in its file, and when each is on air.
namespace softdvb {

struct Index_point {
  uint64_t packet;
  uint64_t time_ns;
};

struct Stream_layout {
  uint32_t packet_size = 0;  // 188, 192 or 204
  uint64_t first_offset = 0;
  uint64_t packets = 0;
};

// Finds the packets by their sync bytes. Throws std::runtime_error with the file's name: missing, empty, no packets.
Stream_layout detect_layout(const std::string& file);

// Times by the clock references of the stream's first PID that has some. Without any (or with `rate` above 0) by bit
// rate. First point: packet 0 at 0; last: the number of packets and the length of a pass.
std::vector<Index_point> index_by_pcr(const std::string& file, const Stream_layout& layout, double default_rate);
std::vector<Index_point> index_by_rate(const Stream_layout& layout, double bits_per_second);

// Both directions between packets and times, linear between the points.
uint64_t time_of_packet(const Index_point* points, size_t count, uint64_t packet);
uint64_t packet_at_time(const Index_point* points, size_t count, uint64_t time_ns);  // the first not before time_ns

}  // namespace softdvb
