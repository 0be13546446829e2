// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/exact_lock.h"

#include <chrono>
#include <thread>

#include "base/log.h"
#include "base/monotonic.h"
#include "tuner/device.h"

namespace {

constexpr int LOWEST_STRENGTH = 40;
constexpr int TUNE_CHECKS = 3;
constexpr std::chrono::milliseconds TUNE_CHECK_SLEEP{50};

}  // namespace

Lock_wait Exact_lock::wait(const Attempt& attempt, bool /*taken*/, int64_t begun_ms, const Turn& /*turn*/) {
  Lock_wait wait;
  wait.locked = locked_on(attempt.freq, &wait.status);
  for (int check = 1; check <= TUNE_CHECKS && !wait.locked; ++check) {
    KLOG(VERB_PROGRESS, "%d ", check);
    std::this_thread::sleep_for(TUNE_CHECK_SLEEP);
    // Deliberate: the last sleep is not followed by a test.
    wait.locked = check < TUNE_CHECKS && locked_on(attempt.freq, &wait.status);
  }
  wait.ms = static_cast<int>(monotonic_ms() - begun_ms);
  return wait;
}

bool Exact_lock::tuned_to(int freq, int /*last_key*/) {
  unsigned status = 0;
  return locked_on(freq, &status);
}

bool Exact_lock::locked_on(int freq, unsigned* seen) {
  const int reported_freq = readings_.freq();
  if (reported_freq != freq) {
    KLOG(VERB_PROGRESS, "Tuner freq %d != in freq %d. ", reported_freq, freq);
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  const int status = readings_.status();
  *seen |= static_cast<unsigned>(status);
  if ((status & Device::FULL_LOCK) != Device::FULL_LOCK) {
    KLOG(VERB_PROGRESS, "No Lock, Status %x ", static_cast<unsigned>(status));
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  readings_.read_strength();
  const int strength = readings_.strength();
  if (strength < LOWEST_STRENGTH) {
    KLOG(VERB_PROGRESS, "Strength %f below accepted %f ", static_cast<double>(strength),
         static_cast<double>(LOWEST_STRENGTH));
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  return true;
}
