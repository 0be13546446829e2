// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend_calls.h"

#include <errno.h>
#include <sys/ioctl.h>

#include <string>

#include "softdvb/model/frontend_core.h"

namespace softdvb {

// All others, such as the voltage of a dish, are answered as by a driver that lacks them.
bool is_frontend_call(unsigned long request) {
  switch (request) {
    case FE_GET_INFO:
    case FE_READ_STATUS:
    case FE_READ_BER:
    case FE_READ_SIGNAL_STRENGTH:
    case FE_READ_SNR:
    case FE_READ_UNCORRECTED_BLOCKS:
    case FE_SET_FRONTEND:
    case FE_GET_FRONTEND:
    case FE_GET_EVENT:
    case FE_SET_PROPERTY:
    case FE_GET_PROPERTY:
      return true;
    default:
      return false;
  }
}

// Of a type of frontend.
static uint32_t default_delivery(int fe_type) {
  switch (fe_type) {
    case FE_QPSK:
      return SYS_DVBS;
    case FE_QAM:
      return SYS_DVBC_ANNEX_A;
    case FE_ATSC:
      return SYS_ATSC;
    default:
      return SYS_DVBT;
  }
}

int type_of_system(uint32_t delivery) {
  switch (delivery) {
    case SYS_DVBS:
      return FE_QPSK;
    case SYS_DVBC_ANNEX_A:
    case SYS_DVBC_ANNEX_C:
      return FE_QAM;
    case SYS_ATSC:
      return FE_ATSC;
    default:
      return FE_OFDM;
  }
}

int frontend_type(const Adapter& a) {
  return profile_of(a).takes_any_system ? a.fe_type : type_of_system(a.cache.delivery);
}

uint32_t first_delivery(const Adapter& a) {
  return profile_of(a).takes_any_system ? default_delivery(a.fe_type) : profile_of(a).systems[0];
}

void choose_old_system(Adapter& a) {
  const uint32_t cached = a.cache.delivery;
  // All that the old interface can name; for others the core takes the first that it can place at all.
  const bool old = cached == SYS_DVBT || cached == SYS_DVBC_ANNEX_A || cached == SYS_DVBS || cached == SYS_ATSC;
  if (!old || profile_of(a).takes_any_system)
    a.cache.delivery = first_delivery(a);
}

int check_tuning(const Adapter& a, const Tuning& t) {
  if (t.frequency < a.freq_min || t.frequency > a.freq_max)
    return -EINVAL;
  constexpr uint32_t LOWEST = 870000;
  constexpr uint32_t HIGHEST = 11700000;
  const bool is_cable = type_of_system(t.delivery) == FE_QAM && !profile_of(a).takes_any_system;
  return is_cable && (t.symbol_rate < LOWEST || t.symbol_rate > HIGHEST) ? -EINVAL : 0;
}

static std::string shown_name(const Adapter& a) {
  const Device_profile& d = profile_of(a);
  if (d.shown[0] != '\0')
    return d.shown;
  static const char* const KINDS[] = {"DVB-S", "DVB-C", "DVB-T", "ATSC"};
  // Programs show this name; the number tells two adapters apart.
  return std::string("softdvb ") + KINDS[a.fe_type] + " " + std::to_string(a.number);
}

dvb_frontend_info frontend_info(const Adapter& a) {
  dvb_frontend_info info{};
  const Device_profile& d = profile_of(a);
  shown_name(a).copy(info.name, sizeof info.name - 1);
  info.type = static_cast<fe_type>(frontend_type(a));
  info.frequency_min = a.freq_min;
  info.frequency_max = a.freq_max;
  info.frequency_stepsize = d.freq_step;
  // With the automatic modes, without which scans refuse to leave parameters open.
  constexpr uint32_t ALL_HAVE = FE_CAN_INVERSION_AUTO | FE_CAN_FEC_1_2 | FE_CAN_FEC_2_3 | FE_CAN_FEC_3_4 |
                                FE_CAN_FEC_5_6 | FE_CAN_FEC_7_8 | FE_CAN_FEC_AUTO | FE_CAN_QPSK | FE_CAN_QAM_16 |
                                FE_CAN_QAM_64 | FE_CAN_QAM_AUTO | FE_CAN_TRANSMISSION_MODE_AUTO |
                                FE_CAN_GUARD_INTERVAL_AUTO | FE_CAN_HIERARCHY_AUTO | FE_CAN_RECOVER;
  info.caps = static_cast<fe_caps>((ALL_HAVE | d.more_caps) & ~d.less_caps);
  return info;
}

Tuning untuned(const Adapter& a, uint32_t delivery) {
  Tuning t{};
  // The core clears its cache with zeros, and forgets this one.
  t.inversion = profile_of(a).takes_any_system ? INVERSION_AUTO : INVERSION_OFF;
  t.code_rate_hp = FEC_AUTO;
  t.code_rate_lp = FEC_AUTO;
  t.modulation = QAM_AUTO;
  t.transmission_mode = TRANSMISSION_MODE_AUTO;
  t.guard_interval = GUARD_INTERVAL_AUTO;
  t.hierarchy = HIERARCHY_AUTO;
  t.fec_inner = FEC_AUTO;
  t.delivery = delivery;
  t.stream_id = NO_STREAM_ID_FILTER;
  return t;
}

Tuning tuning_to(const Adapter& a, uint32_t freq) {
  Tuning t = untuned(a, first_delivery(a));
  t.frequency = freq;
  if (!profile_of(a).takes_bandwidth_0)
    t.bandwidth_hz = 8000000;
  for (int i = 0; i < a.mux_count; ++i)
    if (a.mux[i].freq == freq)
      t.delivery = a.mux[i].delivery;
  return t;
}

struct Bandwidth {
  fe_bandwidth value;
  uint32_t hz;
};

static constexpr Bandwidth BANDWIDTHS[] = {
    // Automatic is 0 Hz in the newer interface.
    {BANDWIDTH_8_MHZ, 8000000}, {BANDWIDTH_7_MHZ, 7000000},   {BANDWIDTH_6_MHZ, 6000000},     {BANDWIDTH_AUTO, 0},
    {BANDWIDTH_5_MHZ, 5000000}, {BANDWIDTH_10_MHZ, 10000000}, {BANDWIDTH_1_712_MHZ, 1712000},
};

dvb_frontend_parameters to_parameters(const Tuning& t, int fe_type) {
  dvb_frontend_parameters p{};
  p.frequency = t.frequency;
  p.inversion = static_cast<fe_spectral_inversion>(t.inversion);
  switch (fe_type) {
    case FE_QPSK:
      p.u.qpsk.symbol_rate = t.symbol_rate;
      p.u.qpsk.fec_inner = static_cast<fe_code_rate>(t.fec_inner);
      return p;
    case FE_QAM:
      p.u.qam.symbol_rate = t.symbol_rate;
      p.u.qam.fec_inner = static_cast<fe_code_rate>(t.fec_inner);
      p.u.qam.modulation = static_cast<fe_modulation>(t.modulation);
      return p;
    case FE_ATSC:
      p.u.vsb.modulation = static_cast<fe_modulation>(t.modulation);
      return p;
    default:
      break;
  }
  dvb_ofdm_parameters& o = p.u.ofdm;
  // Automatic also stands for a bandwidth that the old interface has no name for.
  o.bandwidth = BANDWIDTH_AUTO;
  for (const Bandwidth& b : BANDWIDTHS)
    if (b.hz == t.bandwidth_hz)
      o.bandwidth = b.value;
  o.code_rate_HP = static_cast<fe_code_rate>(t.code_rate_hp);
  o.code_rate_LP = static_cast<fe_code_rate>(t.code_rate_lp);
  o.constellation = static_cast<fe_modulation>(t.modulation);
  o.transmission_mode = static_cast<fe_transmit_mode>(t.transmission_mode);
  o.guard_interval = static_cast<fe_guard_interval>(t.guard_interval);
  o.hierarchy_information = static_cast<fe_hierarchy>(t.hierarchy);
  return p;
}

Tuning from_parameters(const dvb_frontend_parameters& p, const Adapter& a) {
  Tuning t = profile_of(a).takes_any_system ? untuned(a, first_delivery(a)) : a.cache;
  t.frequency = p.frequency;
  t.inversion = static_cast<int32_t>(p.inversion);
  switch (frontend_type(a)) {
    case FE_QPSK:
      t.symbol_rate = p.u.qpsk.symbol_rate;
      t.fec_inner = static_cast<int32_t>(p.u.qpsk.fec_inner);
      return t;
    case FE_QAM:
      t.symbol_rate = p.u.qam.symbol_rate;
      t.fec_inner = static_cast<int32_t>(p.u.qam.fec_inner);
      t.modulation = static_cast<int32_t>(p.u.qam.modulation);
      return t;
    case FE_ATSC:
      t.modulation = static_cast<int32_t>(p.u.vsb.modulation);
      return t;
    default:
      break;
  }
  const dvb_ofdm_parameters& o = p.u.ofdm;
  t.bandwidth_hz = 8000000;  // also for a bandwidth that does not exist
  for (const Bandwidth& b : BANDWIDTHS)
    if (b.value == o.bandwidth)
      t.bandwidth_hz = b.hz;
  t.code_rate_hp = static_cast<int32_t>(o.code_rate_HP);
  t.code_rate_lp = static_cast<int32_t>(o.code_rate_LP);
  t.modulation = static_cast<int32_t>(o.constellation);
  t.transmission_mode = static_cast<int32_t>(o.transmission_mode);
  t.guard_interval = static_cast<int32_t>(o.guard_interval);
  t.hierarchy = static_cast<int32_t>(o.hierarchy_information);
  return t;
}

}  // namespace softdvb
