// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/driver_readings.h"

#include "base/log.h"
#include "base/monotonic.h"
#include "tuner/tuner_quality.h"

Readings::Pass Driver_readings::refresh() {
  const int bits = status();
  read_strength();
  const int quality = read_ber_quality();
  const std::lock_guard lock(lock_);
  read_at_ms_ = monotonic_ms();
  return {(bits & Device::FULL_LOCK) != 0, (bits & Device::FULL_LOCK) == Device::FULL_LOCK, quality};
}

int Driver_readings::freq() {
  dvb_frontend_parameters parameters{};
  if (device_.control(FE_GET_FRONTEND, &parameters) < 0) {
    KLOG(VERB_ERROR, "ERROR: Getting frontend parameters for %s failed\n", device_.path());
    return freq_;
  }
  const int freq = static_cast<int>(parameters.frequency);
  freq_ = freq;
  return freq;  // not the field, which another thread may have changed
}

int Driver_readings::status() {
  // Not the enum type: the box's driver sets bits that it does not have.
  uint32_t raw = 0;
  static_assert(sizeof raw == sizeof(fe_status_t));
  if (device_.control(FE_READ_STATUS, &raw) < 0) {
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", device_.path());
    return status_;
  }
  status_ = static_cast<int>(raw);
  return static_cast<int>(raw);
}

void Driver_readings::read_strength() {
  uint16_t raw = 1;
  const int result = device_.control(FE_READ_SIGNAL_STRENGTH, &raw);
  if (result >= 0)
    strength_ = tuner_quality::strength(raw);
  else
    KLOG(VERB_ERROR, "ERROR: FE_READ_STRENGTH failed for %s failed, rc is %d\n", device_.path(), result);
}

int Driver_readings::read_ber_quality() {
  uint32_t raw = 1;
  if (device_.control(FE_READ_BER, &raw) < 0) {
    // Deliberate: this and snr() say FE_READ_STATUS.
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", device_.path());
    return ber_quality_;
  }
  KLOG(VERB_TRACE, "BER readback is %08x", raw);
  const int quality = tuner_quality::ber_quality(raw);
  ber_quality_ = quality;
  return quality;
}

float Driver_readings::snr() {
  uint16_t raw = 1;
  if (device_.control(FE_READ_SNR, &raw) < 0) {
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", device_.path());
    return snr_;
  }
  KLOG(VERB_TRACE, "SNR readback is %04x", static_cast<unsigned>(raw));
  const int noise = tuner_quality::noise(raw, status() == Device::FULL_LOCK);
  const float snr = tuner_quality::snr_db(noise);
  KLOG(VERB_TRACE, "corrected snr %d log value %3.2f\n", noise, static_cast<double>(snr));
  snr_ = snr;
  snr_read_ = true;
  return snr;
}

void Driver_readings::clear() {
  ber_quality_ = 0;
  strength_ = 0;
}

Signal_readings Driver_readings::signal() const {
  Signal_readings signal;
  int64_t read_at = 0;
  {
    const std::lock_guard lock(lock_);
    read_at = read_at_ms_;
  }
  if (read_at < 0)
    return signal;
  signal.age_ms = monotonic_ms() - read_at;
  signal.status = static_cast<unsigned>(status_.load());
  signal.strength = {SCALE_BOX, static_cast<double>(strength_)};
  if (snr_read_)
    signal.snr = {SCALE_BOX, static_cast<double>(snr_)};
  signal.post_ber = {SCALE_BOX, static_cast<double>(ber_quality_)};
  return signal;
}
