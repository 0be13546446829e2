// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/search_plan.h"

#include <algorithm>

namespace {

constexpr int HIGHEST_VHF_FREQ = 299999999;
constexpr unsigned HIGHEST_VHF_FREQ_OF_VERSION_3 = 399999999;
constexpr int BANDWIDTH_OF_VHF = 7000000;
constexpr int BANDWIDTH_OF_UHF = 8000000;
constexpr int LONGEST_PAT_MS = 10000;

// The one asked for alone; else the one stored, the one that locked last, DVB-T, the other, as far as the frontend
// receives them.
std::vector<int> order_of_systems(const Tuning_request& request, const Known_tuning& known) {
  if (request.system != 0)
    return {request.system};
  const auto received = [&known](int system) {
    return known.systems.empty() ? system == SYS_DVBT
                                 : std::find(known.systems.begin(), known.systems.end(), system) != known.systems.end();
  };
  std::vector<int> systems;
  for (const int system : {known.stored_system, known.last_system, int{SYS_DVBT}, int{SYS_DVBT2}}) {
    if ((system == SYS_DVBT || system == SYS_DVBT2) && received(system) &&
        std::find(systems.begin(), systems.end(), system) == systems.end())
      systems.push_back(system);
  }
  if (systems.empty())
    systems.push_back(SYS_DVBT);  // the device will refuse it, which is said
  return systems;
}

Attempt shifted(Attempt attempt, int offset_hz) {
  attempt.freq += offset_hz;
  return attempt;
}

}  // namespace

int default_bandwidth(int freq) {
  return freq <= HIGHEST_VHF_FREQ ? BANDWIDTH_OF_VHF : BANDWIDTH_OF_UHF;
}

int default_bandwidth_of_version_3(int freq) {
  return static_cast<unsigned>(freq) <= HIGHEST_VHF_FREQ_OF_VERSION_3 ? BANDWIDTH_OF_VHF : BANDWIDTH_OF_UHF;
}

Search_plan make_search_plan(const Receiver_profile& profile, const Tuning_request& request,
                             const Known_tuning& known) {
  Search_plan plan;
  plan.read_back = profile.lock == Receiver_profile::Lock::STATUS;
  const bool version_3 = profile.tuning == Receiver_profile::Tuning::VERSION_3;

  Attempt attempt;
  attempt.freq = request.freq;
  const int pipe = request.pipe >= 0 ? request.pipe : known.stored_pipe;
  attempt.bandwidth_hz = request.bandwidth_hz != 0 ? request.bandwidth_hz : known.stored_bandwidth_hz;
  if (attempt.bandwidth_hz == 0)
    attempt.bandwidth_hz = version_3 ? default_bandwidth_of_version_3(request.freq) : default_bandwidth(request.freq);
  if (version_3)
    attempt.stored = known.nit;

  std::vector<int> systems = order_of_systems(request, known);
  if (!profile.search)
    systems.resize(1);
  // A broadcast that was found beside its channel's centre is there again.
  const bool beside = profile.search && known.stored_offset_hz != 0;
  for (const int system : systems) {
    attempt.system = system;
    attempt.pipe = system == SYS_DVBT2 ? pipe : -1;
    if (beside && system == known.stored_system)
      plan.attempts.push_back(shifted(attempt, known.stored_offset_hz));
    plan.attempts.push_back(attempt);
    // The network may have renumbered its pipes since.
    if (profile.search && request.pipe < 0 && known.stored_pipe >= 0 && system == SYS_DVBT2) {
      Attempt any_pipe = attempt;
      any_pipe.pipe = -1;
      plan.attempts.push_back(any_pipe);
    }
  }
  if (!profile.search)
    return plan;

  for (const int system : systems) {
    attempt.system = system;
    attempt.pipe = system == SYS_DVBT2 ? pipe : -1;
    if (system == SYS_DVBT && known.nit && !attempt.stored) {
      Attempt as_announced = attempt;
      as_announced.stored = known.nit;
      plan.second.push_back(as_announced);
    }
    if (profile.offset_hz > 0) {
      plan.second.push_back(shifted(attempt, profile.offset_hz));
      plan.second.push_back(shifted(attempt, -profile.offset_hz));
    }
  }
  plan.first_pat_ms =
      std::min(request.first_pat_ms > 0 ? request.first_pat_ms : profile.lock_times.first_pat, LONGEST_PAT_MS);
  plan.pipes = request.pipe < 0;
  return plan;
}
