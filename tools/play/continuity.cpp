// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/continuity.h"

#include <algorithm>

namespace {

constexpr int COUNTERS = 16;
// Of a clock reference, which alone may differ in a packet's second copy.
constexpr size_t PCR_FROM = 6;
constexpr size_t PCR_TO = 12;

}  // namespace

bool Continuity::is_repeated(const Seen& seen, const Transport_packet& packet) {
  const auto bytes = packet.bytes();
  const auto from = packet.has_pcr() ? PCR_FROM : PCR_TO;
  return std::equal(bytes.begin(), bytes.begin() + from, seen.packet.begin()) &&
         std::equal(bytes.begin() + PCR_TO, bytes.end(), seen.packet.begin() + PCR_TO);
}

Continuity::Verdict Continuity::look(const Transport_packet& packet) {
  const int pid = packet.pid();
  const auto known = pids_.find(pid);
  if (packet.is_damaged()) {
    ++damaged_;
    // It has come, although broken: where it stands in order the next one is not said to be behind a gap.
    if (known != pids_.end() && packet.has_payload() && packet.counter() == (known->second.counter + 1) % COUNTERS) {
      known->second.counter = packet.counter();
    }
    return Verdict::DAMAGED;
  }
  if (pid == Transport_packet::NULL_PID || (!packet.has_payload() && !packet.is_discontinuous())) {
    return Verdict::IN_ORDER;
  }
  Verdict verdict = Verdict::IN_ORDER;
  Seen& seen = known != pids_.end() ? known->second : pids_[pid];
  const int missing = (packet.counter() - seen.counter - 1 + COUNTERS) % COUNTERS;
  if (known != pids_.end() && missing != 0 && !packet.is_discontinuous()) {
    if (missing == COUNTERS - 1 && !seen.twice && is_repeated(seen, packet)) {
      seen.twice = true;
      return Verdict::DUPLICATE;
    }
    verdict = Verdict::GAP;
    ++gaps_;
    lost_ += static_cast<uint64_t>(missing);
  }
  seen.counter = packet.counter();
  seen.twice = false;
  std::copy(packet.bytes().begin(), packet.bytes().end(), seen.packet.begin());
  return verdict;
}
