// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/statistics_readings.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "base/monotonic.h"

namespace statistics {

namespace {

constexpr double WEAKEST_DBM = -100;
constexpr double STRONGEST_DBM = -20;

double percent(double part) {
  return std::clamp(part * 100, 0.0, 100.0);
}

// 0 for a rate of 10^-worst and more, 100 for 10^-best and less.
int rate_quality(double rate, double worst, double best) {
  if (rate <= 0)
    return 100;
  return static_cast<int>(percent((-std::log10(rate) - worst) / (best - worst)));
}

}  // namespace

int strength_percent(const Signal_value& strength) {
  if (strength.scale == SCALE_DECIBEL)
    return static_cast<int>(percent((strength.value - WEAKEST_DBM) / (STRONGEST_DBM - WEAKEST_DBM)));
  return strength.scale == SCALE_RELATIVE ? static_cast<int>(strength.value) : 0;
}

int quality(const Signal_readings& signal) {
  if ((signal.status & FE_HAS_LOCK) == 0)
    return 0;
  if (signal.block_errors.scale == SCALE_RATE)
    return rate_quality(signal.block_errors.value, 1, 6);
  if (signal.post_ber.scale == SCALE_RATE)
    return rate_quality(signal.post_ber.value, 2, 7);
  constexpr double LOWEST_DB = 6;
  constexpr double BEST_DB = 30;
  if (signal.snr.scale == SCALE_DECIBEL)
    return static_cast<int>(std::clamp(10 + (signal.snr.value - LOWEST_DB) * 90 / (BEST_DB - LOWEST_DB), 0.0, 100.0));
  if (signal.snr.scale == SCALE_RELATIVE)
    return static_cast<int>(signal.snr.value);
  return 100;
}

Signal_value rate(const std::optional<uint64_t>& errors, const std::optional<uint64_t>& total,
                  const std::optional<uint64_t>& errors_before, const std::optional<uint64_t>& total_before) {
  if (!errors || !total)
    return {};
  const bool goes_on = errors_before && total_before && *total >= *total_before && *errors >= *errors_before;
  const uint64_t counted = *total - (goes_on ? *total_before : 0);
  const uint64_t wrong = *errors - (goes_on ? *errors_before : 0);
  if (counted == 0)
    return {};
  return {SCALE_RATE, std::min(static_cast<double>(wrong) / static_cast<double>(counted), 1.0)};
}

Signal_value level(const dtv_stats& entry) {
  switch (entry.scale) {
    case FE_SCALE_DECIBEL:
      return {SCALE_DECIBEL, static_cast<double>(entry.svalue) / 1000};
    case FE_SCALE_RELATIVE:
      return {SCALE_RELATIVE, static_cast<double>(entry.uvalue & 0xFFFF) * 100 / 0xFFFF};
    default:
      return {};
  }
}

}  // namespace statistics

namespace {

std::optional<uint64_t> counter(const dtv_property& property) {
  const dtv_fe_stats& stats = property.u.st;
  if (stats.len == 0 || stats.stat[0].scale != FE_SCALE_COUNTER)
    return std::nullopt;
  return stats.stat[0].uvalue;
}

// The first entry is the whole signal's; layers follow.
Signal_value level_of(const dtv_property& property, std::vector<Signal_value>* layers) {
  const dtv_fe_stats& stats = property.u.st;
  const size_t count = std::min<size_t>(stats.len, MAX_DTV_STATS);
  for (size_t i = 1; i < count; ++i)
    layers->push_back(statistics::level(stats.stat[i]));
  return count == 0 ? Signal_value{} : statistics::level(stats.stat[0]);
}

}  // namespace

Readings::Pass Statistics_readings::refresh() {
  uint32_t status = 0;
  if (device_.control(FE_READ_STATUS, &status) < 0)
    status = 0;
  Signal_readings signal;
  signal.status = status;
  read_statistics(&signal);
  read_version_3(&signal);
  read_freq();
  const std::lock_guard lock(lock_);
  signal_ = std::move(signal);
  read_at_ms_ = monotonic_ms();
  return {status != 0, (status & FE_HAS_LOCK) != 0, statistics::quality(signal_)};
}

void Statistics_readings::read_statistics(Signal_readings* signal) {
  dtv_property properties[8] = {};
  constexpr uint32_t COMMANDS[] = {DTV_STAT_SIGNAL_STRENGTH,      DTV_STAT_CNR,
                                   DTV_STAT_PRE_ERROR_BIT_COUNT,  DTV_STAT_PRE_TOTAL_BIT_COUNT,
                                   DTV_STAT_POST_ERROR_BIT_COUNT, DTV_STAT_POST_TOTAL_BIT_COUNT,
                                   DTV_STAT_ERROR_BLOCK_COUNT,    DTV_STAT_TOTAL_BLOCK_COUNT};
  static_assert(std::size(COMMANDS) == std::size(properties));
  for (size_t i = 0; i < std::size(COMMANDS); ++i)
    properties[i].cmd = COMMANDS[i];
  dtv_properties all{};
  all.num = static_cast<uint32_t>(std::size(properties));
  all.props = properties;
  Error_counts now;
  if (device_.control(FE_GET_PROPERTY, &all) >= 0) {
    signal->strength = level_of(properties[0], &signal->strength_layers);
    signal->snr = level_of(properties[1], &signal->snr_layers);
    now = {counter(properties[2]), counter(properties[3]), counter(properties[4]),
           counter(properties[5]), counter(properties[6]), counter(properties[7])};
  }
  const std::lock_guard lock(lock_);
  signal->pre_ber = statistics::rate(now.pre_errors, now.pre_bits, counts_.pre_errors, counts_.pre_bits);
  signal->post_ber = statistics::rate(now.post_errors, now.post_bits, counts_.post_errors, counts_.post_bits);
  signal->block_errors = statistics::rate(now.block_errors, now.blocks, counts_.block_errors, counts_.blocks);
  // A driver that counted nothing since the last time has the same rates still.
  const auto keep = [](Signal_value* value, const Signal_value& before, bool counts) {
    if (value->scale == SCALE_ABSENT && counts)
      *value = before;
  };
  keep(&signal->pre_ber, signal_.pre_ber, now.pre_bits.has_value());
  keep(&signal->post_ber, signal_.post_ber, now.post_bits.has_value());
  keep(&signal->block_errors, signal_.block_errors, now.blocks.has_value());
  counts_ = now;
}

void Statistics_readings::read_version_3(Signal_readings* signal) {
  const auto read16 = [this](unsigned long request, Signal_value* value) {
    uint16_t raw = 0;
    if (value->scale == SCALE_ABSENT && device_.control(request, &raw) >= 0)
      *value = {SCALE_DRIVER, static_cast<double>(raw)};
  };
  const auto read32 = [this](unsigned long request, Signal_value* value) {
    uint32_t raw = 0;
    if (value->scale == SCALE_ABSENT && device_.control(request, &raw) >= 0)
      *value = {SCALE_DRIVER, static_cast<double>(raw)};
  };
  read16(FE_READ_SIGNAL_STRENGTH, &signal->strength);
  read16(FE_READ_SNR, &signal->snr);
  read32(FE_READ_BER, &signal->post_ber);
  read32(FE_READ_UNCORRECTED_BLOCKS, &signal->block_errors);
}

void Statistics_readings::read_freq() {
  dtv_property property{};
  property.cmd = DTV_FREQUENCY;
  dtv_properties all{};
  all.num = 1;
  all.props = &property;
  if (device_.control(FE_GET_PROPERTY, &all) < 0)
    return;
  const std::lock_guard lock(lock_);
  freq_ = static_cast<int>(property.u.data);
}

int Statistics_readings::freq() {
  const std::lock_guard lock(lock_);
  return freq_;
}

int Statistics_readings::status() {
  const std::lock_guard lock(lock_);
  return static_cast<int>(signal_.status);
}

float Statistics_readings::snr() {
  const std::lock_guard lock(lock_);
  return signal_.snr.scale == SCALE_DECIBEL ? static_cast<float>(signal_.snr.value) : 0.0F;
}

int Statistics_readings::strength() const {
  const std::lock_guard lock(lock_);
  return statistics::strength_percent(signal_.strength);
}

int Statistics_readings::ber_quality() const {
  const std::lock_guard lock(lock_);
  return statistics::quality(signal_);
}

void Statistics_readings::clear() {
  const std::lock_guard lock(lock_);
  signal_ = {};
  read_at_ms_ = -1;
  counts_ = {};
}

Signal_readings Statistics_readings::signal() const {
  const std::lock_guard lock(lock_);
  Signal_readings signal = signal_;
  if (read_at_ms_ >= 0)
    signal.age_ms = monotonic_ms() - read_at_ms_;
  return signal;
}
