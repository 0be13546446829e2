// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <cstdint>

#include "base/mutex.h"
#include "tuner/device.h"
#include "tuner/readings.h"

// The readings of version 3 on the scales of the box's driver (tuner_quality.h), with the last good value of each. Not
// installed. Each is read when it is asked for. A reading that fails is printed with the device's path and leaves the
// value before, 0 at first.
class Driver_readings final : public Readings {
 public:
  // `device` is not owned.
  explicit Driver_readings(Device& device) : device_(device) {}

  Pass refresh() override;
  int freq() override;
  int status() override;
  float snr() override;
  void begin_tuning() override {}       // the last good values stay
  void tuning_has_locked() override {}  // strength has been read for it
  void read_strength() override;
  int read_ber_quality() override;
  int strength() const override { return strength_; }
  int ber_quality() const override { return ber_quality_; }
  void clear() override;
  Signal_readings signal() const override;

 private:
  Device& device_;
  std::atomic<int> freq_{0};
  std::atomic<int> status_{0};
  std::atomic<int> strength_{0};
  std::atomic<int> ber_quality_{0};
  std::atomic<float> snr_{0.0F};
  std::atomic<bool> snr_read_{false};  // only hosts read it: the monitor leaves it alone
  // Guards the following: 32-bit MIPS has no atomic of 64 bits.
  mutable Mutex lock_{Lock_rank::ALONE, "time of the readings"};
  int64_t read_at_ms_ = -1;  // of CLOCK_MONOTONIC, by refresh(); -1: never
};
