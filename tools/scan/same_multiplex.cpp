// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/same_multiplex.h"

#include <db/sdbl.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>
#include <tuple>
#include <utility>

#include <climits>
#include <fmt/format.h>

#include "tools/cli/text.h"

namespace {

using Stream = std::pair<int, int>;                            // original network, transport stream
using Identity = std::tuple<int, int, int, int, std::string>;  // network, stream, program number, name

Identity identity_of(const Service& service) {
  return {service.network_id, service.original_network_id, service.transport_stream_id, service.program_number,
          service.name};
}

// Above 0: `a` is clearly better; 0: they do not differ clearly, or cannot be compared.
int compare(const Signal_value& a, const Signal_value& b, double decibels) {
  constexpr double SHARE = 0.05;  // of a scale whose meaning only the driver knows
  if (a.scale != b.scale || a.scale == SCALE_ABSENT) {
    return 0;
  }
  const double clear = a.scale == SCALE_DECIBEL ? decibels : SHARE * std::max(std::abs(a.value), std::abs(b.value));
  return a.value > b.value + clear ? 1 : b.value > a.value + clear ? -1 : 0;
}

int compare(const Reception& a, const Reception& b) {
  constexpr double CLEAR_SNR = 1;
  constexpr double CLEAR_STRENGTH = 3;
  if (a.received != b.received) {
    return a.received ? 1 : -1;
  }
  const int snr = compare(a.snr, b.snr, CLEAR_SNR);
  return snr != 0 ? snr : compare(a.strength, b.strength, CLEAR_STRENGTH);
}

bool is_there(const Service& service) {
  return service.scan_state != 0;
}

class Comparison {
 public:
  Comparison(const std::vector<Service>& before, const std::vector<Service>& after,
             const std::vector<Reception>& receptions)
      : after_(after) {
    for (const Reception& reception : receptions) {
      receptions_[reception.freq] = &reception;
    }
    for (const Service& service : before) {
      known_[service.freq] += is_there(service) ? 1 : 0;
    }
  }

  Same_multiplex run() {
    std::map<Stream, std::set<int>> places;
    for (const Service& service : after_) {
      if (is_there(service)) {
        places[{service.original_network_id, service.transport_stream_id}].insert(service.freq);
      }
    }
    for (const auto& [stream, freqs] : places) {
      compare_places(stream, freqs);
    }
    for (const auto& [freq, reception] : receptions_) {
      const auto known = known_.find(freq);
      if (!reception->received && known != known_.end() && known->second > 0 && !out_.notes.contains(freq)) {
        out_.notes[freq] = fmt::format("had {} service{}", known->second, known->second == 1 ? "" : "s");
      }
    }
    return std::move(out_);
  }

 private:
  // The frequencies that bring one transport stream, at least one.
  void compare_places(const Stream& stream, const std::set<int>& freqs) {
    const Reception* best = nullptr;
    for (const int freq : freqs) {
      const auto found = receptions_.find(freq);
      if (found == receptions_.end() || !found->second->received) {
        continue;
      }
      if (best == nullptr || is_better(*found->second, *best)) {
        best = found->second;
      }
    }
    if (best == nullptr) {
      return;
    }
    std::set<Identity> kept;
    for (const Service& service : after_) {
      if (service.freq == best->freq && service.scan_state == 1) {
        kept.insert(identity_of(service));
      }
    }
    for (const int freq : freqs) {
      if (freq != best->freq) {
        leave(stream, freq, *best, kept);
      }
    }
  }

  bool is_better(const Reception& a, const Reception& b) const {
    if (a.complete != b.complete) {
      return a.complete;
    }
    const int by_readings = compare(a, b);
    const auto known = [this](const Reception& one) {
      const auto found = known_.find(one.freq);
      return found != known_.end() && found->second > 0;
    };
    return by_readings != 0 ? by_readings > 0 : known(a) && !known(b);
  }

  void leave(const Stream& stream, int freq, const Reception& best, const std::set<Identity>& kept) {
    std::vector<int> doubles;
    for (const Service& service : after_) {
      const Stream of{service.original_network_id, service.transport_stream_id};
      if (service.freq == freq && of == stream && is_there(service) && kept.contains(identity_of(service))) {
        doubles.push_back(service.channel);
      }
    }
    if (doubles.empty()) {
      return;
    }
    const auto found = receptions_.find(freq);
    if (found == receptions_.end()) {
      // Not scanned, so nobody knows which of the two is better now.
      out_.notes[best.freq] = fmt::format("same multiplex as {}, which was not scanned", mhz(freq));
      return;
    }
    out_.doubles.insert(out_.doubles.end(), doubles.begin(), doubles.end());
    if (!found->second->received) {
      out_.notes[freq] = fmt::format("moved to {}", mhz(best.freq));
    } else {
      out_.notes[freq] =
          fmt::format("same multiplex as {}{}", mhz(best.freq), compare(best, *found->second) > 0 ? ", weaker" : "");
    }
  }

  const std::vector<Service>& after_;
  std::map<int, const Reception*> receptions_;  // by frequency
  std::map<int, int> known_;                    // by frequency: services that were there before
  Same_multiplex out_;
};

}  // namespace

Same_multiplex same_multiplexes(const std::vector<Service>& before, const std::vector<Service>& after,
                                const std::vector<Reception>& receptions) {
  return Comparison(before, after, receptions).run();
}

void mark_doubles(Sdbl* database, const std::vector<int>& channels) {
  const int now = static_cast<int>(std::min<int64_t>(time(nullptr), INT_MAX));
  for (const int channel : channels) {
    (void)database->sql_cache(
        true, 0, "UPDATE kanalid SET scan_state = $state, modified = $timestamp WHERE channel = $ch;", 0, now, channel);
  }
}
