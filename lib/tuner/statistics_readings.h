// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include <cstdint>
#include <optional>

#include "base/mutex.h"
#include "tuner/device.h"
#include "tuner/readings.h"

// The counters of one refresh, for rates.
struct Error_counts {
  std::optional<uint64_t> pre_errors, pre_bits;
  std::optional<uint64_t> post_errors, post_bits;
  std::optional<uint64_t> block_errors, blocks;
};

// Readings on scales that every driver has: the statistics of DVBv5, and what FE_READ_* says where a driver has no
// statistics. Not installed. Only refresh() touches the device; all others answer what it brought.
//
// Tuner's plain numbers are made of them. Strength: percent, where -100 to -20 dBm are 0 to 100. BER quality: 0 without
// lock; else from uncorrected blocks (1 of 10 is 0, 1 of a million 100), else from the errors after the inner code
// (0.01 is 0, 1e-7 is 100), else from the SNR (6 dB is 10, 30 dB is 100; relative as it is), else 100.
class Statistics_readings final : public Readings {
 public:
  // `device` is not owned.
  explicit Statistics_readings(Device& device) : device_(device) {}

  Pass refresh() override;
  int freq() override;
  int status() override;
  float snr() override;
  void begin_tuning() override { clear(); }
  void tuning_has_locked() override { (void)refresh(); }
  void read_strength() override {}
  int read_ber_quality() override { return ber_quality(); }
  int strength() const override;
  int ber_quality() const override;
  void clear() override;
  Signal_readings signal() const override;

 private:
  void read_statistics(Signal_readings* signal);
  void read_version_3(Signal_readings* signal);
  void read_freq();

  Device& device_;
  mutable Mutex lock_{Lock_rank::ALONE, "last readings"};  // guards the following; not held while the device is asked
  Signal_readings signal_;
  int64_t read_at_ms_ = -1;
  int freq_ = 0;
  Error_counts counts_;
};

namespace statistics {

// The parts of the above, as pure functions.
int strength_percent(const Signal_value& strength);
int quality(const Signal_readings& signal);
// `errors` of `total` since the counters before; absent when one of them is, or nothing was counted meanwhile. Counters
// that have become smaller were begun anew.
Signal_value rate(const std::optional<uint64_t>& errors, const std::optional<uint64_t>& total,
                  const std::optional<uint64_t>& errors_before, const std::optional<uint64_t>& total_before);
// Of one entry as the driver gives it.
Signal_value level(const dtv_stats& entry);

}  // namespace statistics
