// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/stream_index.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace softdvb {

static constexpr size_t TS_PACKET_SIZE = 188;
static constexpr uint8_t SYNC = 0x47;
static constexpr double PCR_HZ = 27000000.0;
static constexpr uint64_t PCR_WRAP = (uint64_t{1} << 33) * 300;
static constexpr uint64_t LONGEST_PCR_GAP = 27000000;  // a second; more is a splice

struct File_closer {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, File_closer>;

static File open_file(const std::string& name) {
  File file(std::fopen(name.c_str(), "rb"));
  if (file == nullptr)
    throw std::runtime_error(name + ": cannot be opened: " + std::strerror(errno));
  return file;
}

Stream_layout detect_layout(const std::string& name) {
  const File file = open_file(name);
  // Some packets of each size, enough to tell a sync byte from a byte that happens to have its value.
  std::vector<uint8_t> head(size_t{204} * 64);
  head.resize(std::fread(head.data(), 1, head.size(), file.get()));
  std::fseek(file.get(), 0, SEEK_END);
  const uint64_t size = static_cast<uint64_t>(std::ftell(file.get()));
  if (head.empty())
    throw std::runtime_error(name + ": the file is empty");

  Stream_layout best;
  size_t most = 0;
  for (const uint32_t packet_size : {188u, 192u, 204u}) {
    // A file may begin in the middle of a packet, and those of 192 bytes begin with a time stamp.
    for (size_t first = 0; first < packet_size && first < head.size(); ++first) {
      if (head[first] != SYNC)
        continue;
      size_t hits = 0;
      for (size_t at = first; at < head.size() && head[at] == SYNC; at += packet_size)
        ++hits;
      const size_t possible = (head.size() - first + packet_size - 1) / packet_size;
      // A few packets are enough where the file holds no more; the smallest offset wins among equals.
      if (hits > most && hits + hits / 8 + 1 >= std::min<size_t>(possible, 60)) {
        most = hits;
        best.packet_size = packet_size;
        best.first_offset = first;
      }
    }
  }
  if (best.packet_size == 0 || size < best.first_offset + TS_PACKET_SIZE)
    throw std::runtime_error(name + ": no transport stream packets in it");
  // The last packet may lack what stands behind its 188 bytes.
  best.packets = (size - best.first_offset - TS_PACKET_SIZE) / best.packet_size + 1;
  return best;
}

static bool pcr_of(const uint8_t* p, int* pid, uint64_t* pcr) {
  if (p[0] != SYNC || (p[3] & 0x20) == 0 || p[4] < 7 || (p[5] & 0x10) == 0)
    return false;
  const uint64_t base =
      uint64_t{p[6]} << 25 | uint64_t{p[7]} << 17 | uint64_t{p[8]} << 9 | uint64_t{p[9]} << 1 | p[10] >> 7;
  *pid = (p[1] & 0x1F) << 8 | p[2];
  *pcr = base * 300 + ((p[10] & 1u) << 8 | p[11]);
  return true;
}

struct Clock_reference {
  uint64_t packet;
  uint64_t pcr;
};

// Of the first PID that carries any.
static std::vector<Clock_reference> clock_references(const std::string& name, const Stream_layout& layout) {
  const File file = open_file(name);
  std::fseek(file.get(), static_cast<long>(layout.first_offset), SEEK_SET);
  std::vector<Clock_reference> found;
  std::vector<uint8_t> block(layout.packet_size * static_cast<size_t>(std::min<uint64_t>(layout.packets, 512)));
  int pcr_pid = -1;
  for (uint64_t packet = 0; packet < layout.packets;) {
    const size_t got = std::fread(block.data(), 1, block.size(), file.get());
    if (got < TS_PACKET_SIZE)
      break;
    for (size_t at = 0; at + TS_PACKET_SIZE <= got; at += layout.packet_size, ++packet) {
      int pid = 0;
      uint64_t pcr = 0;
      if (!pcr_of(&block[at], &pid, &pcr))
        continue;
      // Clocks of other programmes run apart from this one; mixing two would jump with every reference.
      if (pcr_pid < 0)
        pcr_pid = pid;
      if (pid == pcr_pid)
        found.push_back({packet, pcr});
    }
  }
  return found;
}

std::vector<Index_point> index_by_rate(const Stream_layout& layout, double bits_per_second) {
  const double seconds = static_cast<double>(layout.packets) * TS_PACKET_SIZE * 8 / bits_per_second;
  // A stream of no length would be played for ever at one moment.
  return {{0, 0}, {layout.packets, std::max<uint64_t>(1, static_cast<uint64_t>(seconds * 1e9))}};
}

std::vector<Index_point> index_by_pcr(const std::string& name, const Stream_layout& layout, double default_rate) {
  const std::vector<Clock_reference> references = clock_references(name, layout);
  uint64_t ticks = 0;
  uint64_t packets = 0;
  for (size_t i = 1; i < references.size(); ++i) {
    const uint64_t gap = (references[i].pcr + PCR_WRAP - references[i - 1].pcr) % PCR_WRAP;
    // Recordings that were cut have jumps in their clock, which say nothing about the rate.
    if (gap == 0 || gap > LONGEST_PCR_GAP)
      continue;
    ticks += gap;
    packets += references[i].packet - references[i - 1].packet;
  }
  if (packets == 0)
    // Without a clock any pace is as good as another, and a usual one keeps programs busy.
    return index_by_rate(layout, default_rate);

  // Where the clock says nothing (before the first, after the last, over a splice), the mean rate holds.
  const double mean_ns = static_cast<double>(ticks) / PCR_HZ * 1e9 / static_cast<double>(packets);
  std::vector<Index_point> points{{0, 0}};
  double time = static_cast<double>(references[0].packet) * mean_ns;
  if (references[0].packet > 0)
    points.push_back({references[0].packet, static_cast<uint64_t>(time)});
  for (size_t i = 1; i < references.size(); ++i) {
    const uint64_t gap = (references[i].pcr + PCR_WRAP - references[i - 1].pcr) % PCR_WRAP;
    const uint64_t between = references[i].packet - references[i - 1].packet;
    const bool splice = gap == 0 || gap > LONGEST_PCR_GAP;
    time += splice ? static_cast<double>(between) * mean_ns : static_cast<double>(gap) / PCR_HZ * 1e9;
    points.push_back({references[i].packet, static_cast<uint64_t>(time)});
  }
  time += static_cast<double>(layout.packets - references.back().packet) * mean_ns;
  points.push_back({layout.packets, static_cast<uint64_t>(time)});
  return points;
}

static uint64_t interpolate(uint64_t x0, uint64_t y0, uint64_t x1, uint64_t y1, uint64_t x) {
  if (x1 <= x0)
    return y0;
  const double share = static_cast<double>(x - x0) / static_cast<double>(x1 - x0);
  return y0 + static_cast<uint64_t>(share * static_cast<double>(y1 - y0));
}

uint64_t time_of_packet(const Index_point* points, size_t count, uint64_t packet) {
  const Index_point* end = points + count;
  const Index_point* after =
      std::upper_bound(points, end, packet, [](uint64_t p, const Index_point& point) { return p < point.packet; });
  if (after == points)
    return points->time_ns;
  if (after == end)
    return points[count - 1].time_ns;
  return interpolate(after[-1].packet, after[-1].time_ns, after->packet, after->time_ns, packet);
}

// Searched by halves over packets and not over points, so that it agrees with time_of_packet() to the packet.
uint64_t packet_at_time(const Index_point* points, size_t count, uint64_t time_ns) {
  uint64_t low = 0;
  uint64_t high = points[count - 1].packet;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    if (time_of_packet(points, count, middle) < time_ns)
      low = middle + 1;
    else
      high = middle;
  }
  return low;
}

}  // namespace softdvb
