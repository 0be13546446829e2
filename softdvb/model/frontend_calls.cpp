// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend_calls.h"

#include <errno.h>
#include <sys/ioctl.h>

#include <cstring>

#include "softdvb/model/frontend.h"

namespace softdvb {

static constexpr uint32_t API_VERSION_5_12 = 0x050C;

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

uint32_t default_delivery(int fe_type) {
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

dvb_frontend_info frontend_info(const Adapter& a) {
  static const char* const KINDS[] = {"DVB-S", "DVB-C", "DVB-T", "ATSC"};
  dvb_frontend_info info{};
  // Programs show this name; the number tells two adapters apart.
  const std::string name = std::string("softdvb ") + KINDS[a.fe_type] + " " + std::to_string(a.number);
  std::strncpy(info.name, name.c_str(), sizeof info.name - 1);
  info.type = static_cast<fe_type>(a.fe_type);
  info.frequency_min = a.freq_min;
  info.frequency_max = a.freq_max;
  // A sixth of a megahertz, as terrestrial drivers say.
  info.frequency_stepsize = 166667;
  // With the automatic modes, without which scans refuse to leave parameters open.
  info.caps = static_cast<fe_caps>(FE_CAN_INVERSION_AUTO | FE_CAN_FEC_1_2 | FE_CAN_FEC_2_3 | FE_CAN_FEC_3_4 |
                                   FE_CAN_FEC_5_6 | FE_CAN_FEC_7_8 | FE_CAN_FEC_AUTO | FE_CAN_QPSK | FE_CAN_QAM_16 |
                                   FE_CAN_QAM_64 | FE_CAN_QAM_AUTO | FE_CAN_TRANSMISSION_MODE_AUTO |
                                   FE_CAN_GUARD_INTERVAL_AUTO | FE_CAN_HIERARCHY_AUTO | FE_CAN_RECOVER);
  return info;
}

Tuning untuned(int fe_type) {
  Tuning t{};
  t.inversion = INVERSION_AUTO;
  t.code_rate_hp = FEC_AUTO;
  t.code_rate_lp = FEC_AUTO;
  t.modulation = QAM_AUTO;
  t.transmission_mode = TRANSMISSION_MODE_AUTO;
  t.guard_interval = GUARD_INTERVAL_AUTO;
  t.hierarchy = HIERARCHY_AUTO;
  t.fec_inner = FEC_AUTO;
  t.delivery = default_delivery(fe_type);
  // Everything that a driver may find out by itself is automatic, as after DTV_CLEAR.
  t.stream_id = NO_STREAM_ID_FILTER;
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

Tuning from_parameters(const dvb_frontend_parameters& p, int fe_type) {
  Tuning t = untuned(fe_type);
  t.frequency = p.frequency;
  t.inversion = static_cast<int32_t>(p.inversion);
  switch (fe_type) {
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

const Tuning& requested_tuning(const Adapter& a) {
  return a.requested;
}

int set_properties(Adapter& a, const dtv_properties& list, bool* tune) {
  if (list.num == 0 || list.num > DTV_IOCTL_MAX_MSGS)
    return -EINVAL;
  if (list.props == nullptr)
    return -EFAULT;
  // Properties only collect; nothing is tuned before DTV_TUNE, which may come in a later call.
  Tuning& t = a.requested;
  for (uint32_t i = 0; i < list.num; ++i) {
    const uint32_t data = list.props[i].u.data;
    const int32_t value = static_cast<int32_t>(data);
    switch (list.props[i].cmd) {
      case DTV_TUNE:
        *tune = true;
        break;
      case DTV_CLEAR:
        t = untuned(a.fe_type);
        break;
      case DTV_FREQUENCY:
        t.frequency = data;
        break;
      case DTV_MODULATION:
        t.modulation = value;
        break;
      case DTV_BANDWIDTH_HZ:
        t.bandwidth_hz = data;
        break;
      case DTV_INVERSION:
        t.inversion = value;
        break;
      case DTV_SYMBOL_RATE:
        t.symbol_rate = data;
        break;
      case DTV_INNER_FEC:
        t.fec_inner = value;
        break;
      case DTV_DELIVERY_SYSTEM:
        t.delivery = data == SYS_UNDEFINED ? default_delivery(a.fe_type) : data;
        break;
      case DTV_CODE_RATE_HP:
        t.code_rate_hp = value;
        break;
      case DTV_CODE_RATE_LP:
        t.code_rate_lp = value;
        break;
      case DTV_GUARD_INTERVAL:
        t.guard_interval = value;
        break;
      case DTV_TRANSMISSION_MODE:
        t.transmission_mode = value;
        break;
      case DTV_HIERARCHY:
        t.hierarchy = value;
        break;
      case DTV_STREAM_ID:
        t.stream_id = data;
        break;
      default:
        break;  // pilots, rolloff and the like make no difference here
    }
  }
  return 0;
}

static void set_stat(dtv_property& p, bool known, uint8_t scale, uint64_t value) {
  // A statistic that is not there is still one entry, whose scale says so.
  p.u.st.len = 1;
  p.u.st.stat[0].scale = known ? scale : static_cast<uint8_t>(FE_SCALE_NOT_AVAILABLE);
  p.u.st.stat[0].uvalue = known ? value : 0;
}

// Programs of the newer interface show these in place of the old readings, so both come from the same values.
static void get_stat(const Adapter& a, dtv_property& p, uint32_t status, uint64_t now_ns) {
  const bool locked = (status & FE_HAS_LOCK) != 0;
  const auto reading = [&](Reading r) { return signal_value(a, a.fe.asked.frequency, r, now_ns); };
  const auto has = [&](Reading r) { return (a.missing_readings & 1u << static_cast<int>(r)) == 0; };
  switch (p.cmd) {
    case DTV_STAT_SIGNAL_STRENGTH:
      // Strength is measured from the first carrier on, everything else needs a lock.
      set_stat(p, status != 0 && has(Reading::STRENGTH), FE_SCALE_RELATIVE, reading(Reading::STRENGTH));
      break;
    case DTV_STAT_CNR:
      set_stat(p, locked && has(Reading::SNR), FE_SCALE_RELATIVE, reading(Reading::SNR));
      break;
    case DTV_STAT_POST_ERROR_BIT_COUNT:
    case DTV_STAT_PRE_ERROR_BIT_COUNT:
      set_stat(p, locked && has(Reading::BER), FE_SCALE_COUNTER, reading(Reading::BER));
      break;
    case DTV_STAT_POST_TOTAL_BIT_COUNT:
    case DTV_STAT_PRE_TOTAL_BIT_COUNT:
      // Any total will do, as long as the error count beside it makes a small rate.
      set_stat(p, locked && has(Reading::BER), FE_SCALE_COUNTER, 100000000);
      break;
    case DTV_STAT_ERROR_BLOCK_COUNT:
      set_stat(p, locked && has(Reading::UCBLOCKS), FE_SCALE_COUNTER, reading(Reading::UCBLOCKS));
      break;
    default:
      set_stat(p, locked, FE_SCALE_COUNTER, 1000000);
      break;
  }
}

static int get_property(const Adapter& a, const Tuning& t, dtv_property& p, uint32_t status, uint64_t now_ns) {
  switch (p.cmd) {
    case DTV_FREQUENCY:
      p.u.data = t.frequency;
      break;
    case DTV_MODULATION:
      p.u.data = static_cast<uint32_t>(t.modulation);
      break;
    case DTV_BANDWIDTH_HZ:
      p.u.data = t.bandwidth_hz;
      break;
    case DTV_INVERSION:
      p.u.data = static_cast<uint32_t>(t.inversion);
      break;
    case DTV_SYMBOL_RATE:
      p.u.data = t.symbol_rate;
      break;
    case DTV_INNER_FEC:
      p.u.data = static_cast<uint32_t>(t.fec_inner);
      break;
    case DTV_DELIVERY_SYSTEM:
      p.u.data = t.delivery;
      break;
    case DTV_CODE_RATE_HP:
      p.u.data = static_cast<uint32_t>(t.code_rate_hp);
      break;
    case DTV_CODE_RATE_LP:
      p.u.data = static_cast<uint32_t>(t.code_rate_lp);
      break;
    case DTV_GUARD_INTERVAL:
      p.u.data = static_cast<uint32_t>(t.guard_interval);
      break;
    case DTV_TRANSMISSION_MODE:
      p.u.data = static_cast<uint32_t>(t.transmission_mode);
      break;
    case DTV_HIERARCHY:
      p.u.data = static_cast<uint32_t>(t.hierarchy);
      break;
    case DTV_STREAM_ID:
      p.u.data = t.stream_id;
      break;
    case DTV_API_VERSION:
      p.u.data = API_VERSION_5_12;
      break;
    // One system, that of the type which the old interface tells.
    case DTV_ENUM_DELSYS:
      p.u.buffer.data[0] = static_cast<uint8_t>(default_delivery(a.fe_type));
      p.u.buffer.len = 1;
      break;
    default:
      if (p.cmd >= DTV_STAT_SIGNAL_STRENGTH && p.cmd <= DTV_STAT_TOTAL_BLOCK_COUNT)
        get_stat(a, p, status, now_ns);
      else if (p.cmd > DTV_MAX_COMMAND)
        return -EINVAL;
      else
        // A known property of another delivery system is no error in the kernel.
        p.u.data = 0;
      break;
  }
  p.result = 0;
  return 0;
}

int get_properties(Adapter& a, const dtv_properties& list, uint32_t status, uint64_t now_ns) {
  if (list.num == 0 || list.num > DTV_IOCTL_MAX_MSGS)
    return -EINVAL;
  if (list.props == nullptr)
    return -EFAULT;
  // Once for the whole list, so that its values belong together.
  const Tuning t = reported_tuning(a, now_ns);
  for (uint32_t i = 0; i < list.num; ++i) {
    const int result = get_property(a, t, list.props[i], status, now_ns);
    if (result != 0)
      return result;
  }
  return 0;
}

}  // namespace softdvb
