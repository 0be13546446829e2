// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "tuner/frontend.h"

// What a frontend receives, on the library's scales (tuner_quality.h), with the last good value of each reading. Not
// installed. A reading that fails is printed by the Frontend and leaves the value before, 0 at first. All operations
// are any-thread; of two threads that read at the same time, the later one's value stays.
class Readings {
 public:
  // `frontend` is not owned.
  explicit Readings(Frontend& frontend) : frontend_(frontend) {}

  // Read now.
  int freq();    // Hz
  int status();  // bits of fe_status_t
  void read_strength();
  int read_ber_quality();
  float read_snr();  // dB

  // As last read, or cleared. No device access.
  int strength() const { return strength_; }
  int ber_quality() const { return ber_quality_; }

  // Strength and BER quality count as 0.
  void clear();

 private:
  Frontend& frontend_;
  std::atomic<int> freq_{0};
  std::atomic<int> status_{0};
  std::atomic<int> strength_{0};
  std::atomic<int> ber_quality_{0};
  std::atomic<float> snr_{0.0F};
};
