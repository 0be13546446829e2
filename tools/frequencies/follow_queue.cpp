// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/frequencies/follow_queue.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstdlib>

#include "tools/cli/bands.h"

namespace {

// Offsets, and NITs that round, are smaller; channels are wider.
constexpr int SAME_HZ = 500'000;
// More than any country has channels and pipes in use.
constexpr size_t MOST_ADDED = 100;

bool is_near(int a, int b) {
  return std::abs(a - b) <= SAME_HZ;
}

bool makes_sense(const Announced_multiplex& one) {
  return one.freq >= LOWEST_FREQ && one.freq <= HIGHEST_FREQ && one.pipe >= -1 && one.pipe <= 255 &&
         (one.system == SYS_DVBT || one.system == SYS_DVBT2);
}

// A width that is none is not said to the device.
int bandwidth_of(const Announced_multiplex& one) {
  for (const int hz : {1'712'000, 5'000'000, 6'000'000, 7'000'000, 8'000'000, 10'000'000}) {
    if (one.bandwidth_hz == hz) {
      return hz;
    }
  }
  return 0;
}

}  // namespace

int key_of(const Tuning_request& request) {
  return request.freq + std::max(request.pipe, 0);
}

Follow_queue::Follow_queue(const std::vector<Tuning_request>& asked) : requests_(asked) {}

bool Follow_queue::known(const Announced_multiplex& one) const {
  // The first pipe, and DVB-T, are what a visit of the frequency finds by itself.
  const int pipe = std::max(one.pipe, 0);
  const bool visited = std::any_of(requests_.begin(), requests_.end(), [&](const Tuning_request& request) {
    return is_near(request.freq, one.freq) && (pipe == 0 || request.pipe == pipe);
  });
  if (visited || pipe == 0) {
    return visited;
  }
  const auto found = found_.find({one.original_network_id, one.transport_stream_id});
  return found != found_.end() &&
         std::any_of(found->second.begin(), found->second.end(), [&](int key) { return is_near(key, one.freq); });
}

std::vector<Tuning_request> Follow_queue::announced(int from, int original_network_id, int transport_stream_id,
                                                    const std::vector<Announced_multiplex>& list) {
  if (original_network_id >= 0 && transport_stream_id >= 0) {
    found_[{original_network_id, transport_stream_id}].insert(from);
  }
  std::vector<Tuning_request> out;
  for (const Announced_multiplex& one : list) {
    if (!makes_sense(one) || known(one) || announced_by_.size() >= MOST_ADDED) {
      continue;
    }
    Tuning_request request;
    request.freq = one.freq;
    request.system = one.system;
    request.bandwidth_hz = bandwidth_of(one);
    request.pipe = one.system == SYS_DVBT2 ? one.pipe : -1;
    requests_.push_back(request);
    announced_by_[key_of(request)] = from;
    out.push_back(request);
  }
  return out;
}

int Follow_queue::announced_by(int key) const {
  const auto found = announced_by_.find(key);
  return found == announced_by_.end() ? 0 : found->second;
}
