// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/version3_frontend.h"

#include <cerrno>

#include "base/log.h"

namespace {

// Deliberate: the transmission mode is 3, whatever that number means to the driver.
constexpr auto DEFAULT_TRANSMISSION_MODE = static_cast<fe_transmit_mode_t>(3);

struct Bandwidth {
  fe_bandwidth_t value;
  int hz;
};

constexpr Bandwidth BANDWIDTHS[] = {
    {BANDWIDTH_8_MHZ, 8000000}, {BANDWIDTH_7_MHZ, 7000000},   {BANDWIDTH_6_MHZ, 6000000},
    {BANDWIDTH_5_MHZ, 5000000}, {BANDWIDTH_10_MHZ, 10000000}, {BANDWIDTH_1_712_MHZ, 1712000},
};

}  // namespace

dvb_frontend_parameters Version3_frontend::defaults(unsigned freq, int bandwidth_hz) {
  dvb_frontend_parameters parameters{};
  parameters.frequency = freq;
  parameters.inversion = INVERSION_OFF;
  parameters.u.ofdm.bandwidth = BANDWIDTH_AUTO;
  for (const Bandwidth& bandwidth : BANDWIDTHS) {
    if (bandwidth.hz == bandwidth_hz)
      parameters.u.ofdm.bandwidth = bandwidth.value;
  }
  parameters.u.ofdm.code_rate_HP = FEC_AUTO;
  parameters.u.ofdm.code_rate_LP = FEC_AUTO;
  parameters.u.ofdm.constellation = QAM_AUTO;
  parameters.u.ofdm.transmission_mode = DEFAULT_TRANSMISSION_MODE;
  parameters.u.ofdm.guard_interval = GUARD_INTERVAL_AUTO;
  parameters.u.ofdm.hierarchy_information = HIERARCHY_NONE;
  return parameters;
}

bool Version3_frontend::tune(const Attempt& attempt, const Turn* turn) {
  if (attempt.system != SYS_DVBT) {
    errno = EINVAL;
    return false;
  }
  dvb_frontend_parameters parameters =
      attempt.stored ? *attempt.stored : defaults(static_cast<unsigned>(attempt.freq), attempt.bandwidth_hz);
  if (device_.control(FE_SET_FRONTEND, &parameters, turn) >= 0)
    return true;
  if (turn == nullptr || errno != ECANCELED)
    KLOG(VERB_ERROR, "ERROR: Setting frontend parameters for %s failed\n", device_.path());
  return false;
}

Reported Version3_frontend::reported() {
  dvb_frontend_parameters parameters{};
  if (device_.control(FE_GET_FRONTEND, &parameters) < 0)
    return {};
  Reported reported{static_cast<int>(parameters.frequency), SYS_DVBT, 0, -1};
  // A driver that leaves the structure as it was says nothing.
  if (parameters.frequency == 0)
    return reported;
  reported.modulation = static_cast<int>(parameters.u.ofdm.constellation);
  for (const Bandwidth& bandwidth : BANDWIDTHS) {
    if (bandwidth.value == parameters.u.ofdm.bandwidth)
      reported.bandwidth_hz = bandwidth.hz;
  }
  return reported;
}
