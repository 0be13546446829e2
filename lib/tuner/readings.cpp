// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/readings.h"

#include "base/log.h"
#include "tuner/tuner_quality.h"

int Readings::freq() {
  const auto freq = frontend_.freq();
  if (!freq)
    return freq_;
  freq_ = *freq;
  return *freq;  // not the field, which another thread may have changed
}

int Readings::status() {
  const auto status = frontend_.status();
  if (!status)
    return status_;
  status_ = *status;
  return *status;
}

void Readings::read_strength() {
  if (const auto raw = frontend_.strength())
    strength_ = tuner_quality::strength(*raw);
}

int Readings::read_ber_quality() {
  const auto raw = frontend_.ber();
  if (!raw)
    return ber_quality_;
  KLOG(VERB_TRACE, "BER readback is %08x", *raw);
  const int quality = tuner_quality::ber_quality(*raw);
  ber_quality_ = quality;
  return quality;
}

float Readings::read_snr() {
  const auto raw = frontend_.snr();
  if (!raw)
    return snr_;
  KLOG(VERB_TRACE, "SNR readback is %04x", static_cast<unsigned>(*raw));
  const int noise = tuner_quality::noise(*raw, status() == Frontend::FULL_LOCK);
  const float snr = tuner_quality::snr_db(noise);
  KLOG(VERB_TRACE, "corrected snr %d log value %3.2f\n", noise, static_cast<double>(snr));
  snr_ = snr;
  return snr;
}

void Readings::clear() {
  ber_quality_ = 0;
  strength_ = 0;
}
