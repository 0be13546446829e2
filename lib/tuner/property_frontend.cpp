// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/property_frontend.h"

#include <iterator>

#include "base/log.h"

namespace {

dtv_property property(uint32_t command, uint32_t value = 0) {
  dtv_property out{};
  out.cmd = command;
  out.u.data = value;
  return out;
}

uint32_t bits(int value) {
  return static_cast<uint32_t>(value);
}

// Everything automatic, which also lets T2 be found with the modes that DVB-T does not have.
constexpr dvb_ofdm_parameters AUTOMATIC{BANDWIDTH_AUTO,      FEC_AUTO,      FEC_AUTO, QAM_AUTO, TRANSMISSION_MODE_AUTO,
                                        GUARD_INTERVAL_AUTO, HIERARCHY_AUTO};

}  // namespace

bool Property_frontend::tune(const Attempt& attempt, const Turn* turn) {
  dvb_ofdm_parameters ofdm = AUTOMATIC;
  if (attempt.stored) {
    ofdm = attempt.stored->u.ofdm;
    ofdm.transmission_mode = TRANSMISSION_MODE_AUTO;  // stored lines have the modes exchanged
  }
  const uint32_t pipe = attempt.pipe < 0 ? NO_STREAM_ID_FILTER : bits(attempt.pipe);
  // DTV_CLEAR keeps the delivery system of whoever tuned last, so that comes right behind it.
  dtv_property properties[] = {
      property(DTV_CLEAR),
      property(DTV_DELIVERY_SYSTEM, bits(attempt.system)),
      property(DTV_FREQUENCY, bits(attempt.freq)),
      property(DTV_BANDWIDTH_HZ, bits(attempt.bandwidth_hz)),
      property(DTV_INVERSION, INVERSION_AUTO),
      property(DTV_MODULATION, ofdm.constellation),
      property(DTV_CODE_RATE_HP, ofdm.code_rate_HP),
      property(DTV_CODE_RATE_LP, ofdm.code_rate_LP),
      property(DTV_TRANSMISSION_MODE, ofdm.transmission_mode),
      property(DTV_GUARD_INTERVAL, ofdm.guard_interval),
      property(DTV_HIERARCHY, ofdm.hierarchy_information),
      property(DTV_STREAM_ID, pipe),
      property(DTV_TUNE),
  };
  dtv_properties all{};
  all.num = static_cast<uint32_t>(std::size(properties));
  all.props = properties;
  KLOG(VERB_TRACE, "Tuning %s to %d Hz, system %d, bandwidth %d Hz, pipe %d\n", device_.path(), attempt.freq,
       attempt.system, attempt.bandwidth_hz, attempt.pipe);
  return device_.control(FE_SET_PROPERTY, &all, turn) >= 0;
}

Reported Property_frontend::reported() {
  dtv_property properties[] = {property(DTV_FREQUENCY), property(DTV_DELIVERY_SYSTEM), property(DTV_BANDWIDTH_HZ),
                               property(DTV_MODULATION)};
  dtv_properties all{};
  all.num = static_cast<uint32_t>(std::size(properties));
  all.props = properties;
  if (device_.control(FE_GET_PROPERTY, &all) < 0)
    return {};
  return {static_cast<int>(properties[0].u.data), static_cast<int>(properties[1].u.data),
          static_cast<int>(properties[2].u.data), static_cast<int>(properties[3].u.data)};
}
