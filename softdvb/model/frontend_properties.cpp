// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/frontend_properties.h"

#include <errno.h>

#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/frontend_core.h"

namespace softdvb {

static constexpr uint32_t API_VERSION_5_12 = 0x050C;

static bool has_system(const Device_profile& d, uint32_t delivery) {
  for (const uint8_t* at = d.systems; *at != SYS_UNDEFINED; ++at)
    if (*at == delivery)
      return true;
  return false;
}

static int set_system(Adapter& a, uint32_t delivery) {
  const Device_profile& d = profile_of(a);
  // Some programs leave it open.
  if (delivery == SYS_UNDEFINED)
    delivery = first_delivery(a);
  if (!d.takes_any_system && !has_system(d, delivery))
    return -EINVAL;
  a.cache.delivery = delivery;
  return 0;
}

static int tune(Adapter& a, uint64_t now_ns) {
  const int result = check_tuning(a, a.cache);
  if (result == 0)
    frontend_tune(a, a.cache, now_ns);
  return result;
}

static void set_parameter(Tuning& t, uint32_t command, uint32_t data) {
  const int32_t value = static_cast<int32_t>(data);
  switch (command) {
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

static int set_property(Adapter& a, const dtv_property& p, uint64_t now_ns) {
  switch (p.cmd) {
    // What it tunes with is what was collected before, also in earlier calls.
    case DTV_TUNE:
      return tune(a, now_ns);
    case DTV_CLEAR:
      a.cache = untuned(a, profile_of(a).takes_any_system ? first_delivery(a) : a.cache.delivery);
      return 0;
    case DTV_DELIVERY_SYSTEM:
      return set_system(a, p.u.data);
    default:
      set_parameter(a.cache, p.cmd, p.u.data);
      return 0;
  }
}

static int check_list(const dtv_properties& list) {
  if (list.num == 0 || list.num > DTV_IOCTL_MAX_MSGS)
    return -EINVAL;
  return list.props == nullptr ? -EFAULT : 0;
}

int set_properties(Adapter& a, const dtv_properties& list, uint64_t now_ns) {
  int result = check_list(list);
  for (uint32_t i = 0; result == 0 && i < list.num; ++i)
    result = set_property(a, list.props[i], now_ns);
  return result;
}

static void set_stat(dtv_property& p, bool known, uint8_t scale, uint64_t value) {
  // A statistic that is not there is still one entry, whose scale says so.
  p.u.st.len = 1;
  p.u.st.stat[0].scale = known ? scale : static_cast<uint8_t>(FE_SCALE_NOT_AVAILABLE);
  p.u.st.stat[0].uvalue = known ? value : 0;
}

// Programs of the newer interface show these in place of the old readings, so both come from the same values.
static void get_readings_as_stat(const Adapter& a, dtv_property& p, uint32_t status, uint64_t now_ns) {
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

static constexpr uint64_t BITS_A_MS = 20000;
static constexpr uint64_t BITS_A_BLOCK = 188 * 8;
static constexpr uint64_t MILLION = 1000000;
// In thousandths of a dBm and of a dB.
static constexpr int32_t LEVEL_NO_SIGNAL = -98000;
static constexpr int32_t WEAKER_BY = 30000;

static void set_level(dtv_property& p, Scale scale, bool known, int64_t decibels, uint32_t relative) {
  if (scale == Scale::NONE)
    return;
  if (scale == Scale::RELATIVE)
    return set_stat(p, known, FE_SCALE_RELATIVE, relative);
  set_stat(p, known, FE_SCALE_DECIBEL, static_cast<uint64_t>(decibels));
}

static void set_counter(dtv_property& p, bool exists, bool known, uint64_t value) {
  if (exists)
    set_stat(p, known, FE_SCALE_COUNTER, value);
}

// What a driver measures itself. It has no entry at all for what it never measures. Counters count from the lock on.
static void get_measured_stat(const Adapter& a, dtv_property& p, uint32_t status, uint64_t now_ns) {
  const Device_profile& d = profile_of(a);
  const bool locked = (status & FE_HAS_LOCK) != 0;
  const int mux = received_mux(a);
  const auto reading = [&](Reading r) { return signal_value(a, mux < 0 ? 0 : a.mux[mux].freq, r, now_ns); };
  const uint64_t bits = locked ? (now_ns - locked_since(a)) / MILLION * BITS_A_MS : 0;
  const uint64_t wrong_bits = bits * reading(Reading::BER) / MILLION;
  const auto decibels = [&](Reading r) { return static_cast<int32_t>(reading(r)); };
  const bool weak = mux >= 0 && a.mux[mux].weak != 0;
  p.u.st.len = 0;
  switch (p.cmd) {
    // The strength is that of whatever is received, all else needs a lock.
    case DTV_STAT_SIGNAL_STRENGTH:
      return set_level(p, d.stat_strength, a.fe.tuned != 0,
                       mux < 0 ? LEVEL_NO_SIGNAL : decibels(Reading::LEVEL) - (weak ? WEAKER_BY : 0),
                       mux < 0 ? d.strength_no_signal : reading(Reading::STRENGTH) / (weak ? 2 : 1));
    case DTV_STAT_CNR:
      return set_level(p, d.stat_cnr, locked, decibels(Reading::CNR), reading(Reading::SNR));
    case DTV_STAT_PRE_ERROR_BIT_COUNT:
      // Before the error correction there are always some.
      return set_counter(p, (d.stat_counters & COUNTS_PRE_BITS) != 0, locked, bits / 1000 + wrong_bits);
    case DTV_STAT_PRE_TOTAL_BIT_COUNT:
      return set_counter(p, (d.stat_counters & COUNTS_PRE_BITS) != 0, locked, bits);
    case DTV_STAT_POST_ERROR_BIT_COUNT:
      return set_counter(p, (d.stat_counters & COUNTS_BITS) != 0, locked, wrong_bits);
    case DTV_STAT_POST_TOTAL_BIT_COUNT:
      return set_counter(p, (d.stat_counters & COUNTS_BITS) != 0, locked, bits);
    case DTV_STAT_ERROR_BLOCK_COUNT:
      return set_counter(p, (d.stat_counters & COUNTS_BLOCKS) != 0, locked, reading(Reading::UCBLOCKS));
    default:
      return set_counter(p, (d.stat_counters & COUNTS_BLOCKS) != 0, locked, bits / BITS_A_BLOCK);
  }
}

static void list_systems(const Adapter& a, dtv_property& p) {
  const Device_profile& d = profile_of(a);
  p.u.buffer.len = 1;
  // One system, that of the type which the old interface tells.
  p.u.buffer.data[0] = static_cast<uint8_t>(first_delivery(a));
  for (uint32_t i = 1; d.systems[i] != SYS_UNDEFINED; p.u.buffer.len = ++i)
    p.u.buffer.data[i] = d.systems[i];
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
    case DTV_ENUM_DELSYS:
      list_systems(a, p);
      break;
    default:
      if (p.cmd >= DTV_STAT_SIGNAL_STRENGTH && p.cmd <= DTV_STAT_TOTAL_BLOCK_COUNT)
        profile_of(a).stats_are_readings ? get_readings_as_stat(a, p, status, now_ns)
                                         : get_measured_stat(a, p, status, now_ns);
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

int get_properties(Adapter& a, const dtv_properties& list, uint64_t now_ns) {
  int result = check_list(list);
  if (result != 0)
    return result;
  const uint32_t status = driver_status(a, now_ns);
  const bool asks_driver = a.fe.state != Core_state::IDLE;
  // The driver is asked before the list is looked at, so that its failure is that of every property.
  if (asks_driver && profile_of(a).reports_lock_only && (status & FE_HAS_LOCK) == 0)
    return -EINVAL;
  // Once for the whole list, so that its values belong together.
  const Tuning t = asks_driver ? reported_tuning(a, now_ns) : a.cache;
  for (uint32_t i = 0; result == 0 && i < list.num; ++i)
    result = get_property(a, t, list.props[i], status, now_ns);
  return result;
}

}  // namespace softdvb
