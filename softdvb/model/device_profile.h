// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include <cstddef>
#include <cstdint>
#include <string>

// The frontends that an adapter can imitate, all that tells them apart in one table (device_profiles.cpp). What Linux's
// DVB core does with any of them is in frontend_core.cpp.
namespace softdvb {

// Who looks for the signal.
enum class Search : uint8_t {
  ONCE,    // the driver, called once for each tuning
  CORE,    // the core calls set_frontend again each `min_delay_ms` without a lock
  TUNE,    // the driver waits in its own "tune" up to `wait_*_ms`, called once; tunes twice after the first lock
  SYSTEMS  // the driver's "search" waits up to `wait_*_ms`, and after a failure tries T2 in place of T and T for T2
};

// What get_frontend says of the frequency.
enum class Reported : uint8_t {
  FOUND,   // the transmitter's own
  ASKED,   // what was asked for, and the offset that a receiver measured
  ONE_HZ,  // always 1 Hz
  NOTHING  // there is no get_frontend
};

enum class Scale : uint8_t { NONE, RELATIVE, DECIBEL };

// What becomes of transmission mode 4K, which DVB-T does not have.
enum class Mode_4k : uint8_t { AUTOMATIC, REFUSED, TAKEN_AS_2K, TAKEN_AS_8K };

// Readings that the driver has, and counters among its statistics.
enum : uint8_t { HAS_STRENGTH = 1, HAS_SNR = 2, HAS_BER = 4, HAS_UCBLOCKS = 8, HAS_ALL_READINGS = 15 };
enum : uint8_t { COUNTS_PRE_BITS = 1, COUNTS_BITS = 2, COUNTS_BLOCKS = 4 };

// Fields that a row leaves out are those of a driver without peculiarities.
struct Device_profile {
  const char* name;   // as in --device
  const char* shown;  // as in FE_GET_INFO; "": told from the type and the adapter's number
  const char* hardware;

  // enum fe_delivery_system in the driver's order, 0 behind the last.
  uint8_t systems[5] = {SYS_DVBT};
  bool takes_any_system = false;  // also those that it does not list

  Search search = Search::CORE;
  uint16_t min_delay_ms = 1000;
  uint32_t step_hz = 0;  // the core also tries so far above and below
  uint16_t lock_t_ms = 300;
  uint16_t lock_t2_ms = 300;
  // How long the driver keeps everybody waiting: in set_frontend (`_no_signal`: where nothing is on air), and in
  // Search::TUNE and SYSTEMS until there is a lock.
  uint16_t set_ms = 0;
  uint16_t set_no_signal_ms = 0;
  uint16_t wait_t_ms = 0;
  uint16_t wait_t2_ms = 0;
  uint8_t early_bits = FE_HAS_SIGNAL | FE_HAS_CARRIER;  // status before the lock
  uint8_t weak_bits = FE_HAS_SIGNAL | FE_HAS_CARRIER;   // and of a signal that is too weak for one

  // Version 3 readings with a lock, and the strength without.
  uint8_t readings = HAS_ALL_READINGS;
  uint16_t strength = 0xC000;
  uint16_t strength_no_signal = 0;
  uint16_t snr = 0xA000;
  Scale stat_strength = Scale::RELATIVE;
  Scale stat_cnr = Scale::DECIBEL;
  uint8_t stat_counters = COUNTS_BITS | COUNTS_BLOCKS;
  bool stats_are_readings = false;  // the statistics are the readings under other names, and their totals stand still

  Reported reported = Reported::ASKED;
  bool reports_modes = true;       // also the modes that were found, where they were left to the driver
  bool reports_lock_only = false;  // get_frontend fails with EINVAL without a lock
  int32_t offset_hz = 0;           // measured

  Mode_4k mode_4k = Mode_4k::AUTOMATIC;
  bool takes_bandwidth_0 = false;
  bool finds_pipe = true;  // "no filter" is any pipe, else pipe 0

  uint16_t firmware_ms = 0;        // to load at the first opening for writing
  uint16_t firmware_again_ms = 0;  // and after each sleep
  int asleep_error = 0;            // of FE_READ_STATUS while asleep
  int no_firmware_error = 0;       // and before tuning when the firmware is missing; 0: needs none

  uint16_t filters = 255;
  uint32_t freq_min = 174000000;
  uint32_t freq_max = 862000000;
  uint32_t freq_step = 166667;
  uint32_t more_caps = 0;  // besides those that all have
  uint32_t less_caps = 0;
};

inline constexpr int DEVICE_COUNT = 12;
// The first is the default.
const Device_profile& device_profile(int index);
// -1 when there is none of that name.
int device_by_name(const std::string& name);
// For people: one paragraph a device.
std::string describe_devices();

}  // namespace softdvb
