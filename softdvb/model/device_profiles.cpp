// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <errno.h>

#include <array>
#include <sstream>

#include "softdvb/model/device_profile.h"

namespace softdvb {

// FE_CAN_MULTISTREAM and FE_CAN_2G_MODULATION, as unsigned numbers.
static constexpr uint32_t SECOND_GENERATION = 0x14000000;
static constexpr uint32_t RECOVERS = FE_CAN_RECOVER;
// Status bits, in the order in which demodulators find them.
static constexpr uint8_t NO_BITS = 0;
static constexpr uint8_t SIGNAL = FE_HAS_SIGNAL;
static constexpr uint8_t VITERBI = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI;
static constexpr uint8_t SYNC = VITERBI | FE_HAS_SYNC;

// What Linux 6.1 decides (systems, delays, missing functions, scales, errors) is as in its drivers. Times to a lock
// stand in no driver; these are below the delay after which the core starts the acquisition anew.
static constexpr std::array<Device_profile, DEVICE_COUNT> DEVICES = {{
    {
        .name = "box",
        .shown = "",
        .hardware = "a set-top box's own driver: quick and exact",
        .takes_any_system = true,
        .search = Search::ONCE,
        .min_delay_ms = 300,
        .lock_t_ms = 50,
        .lock_t2_ms = 50,
        .strength = 0xC8C8,
        .snr = 0xFAFA,
        .stat_cnr = Scale::RELATIVE,
        .stat_counters = COUNTS_PRE_BITS | COUNTS_BITS | COUNTS_BLOCKS,
        .stats_are_readings = true,
        .reported = Reported::FOUND,
        .takes_bandwidth_0 = true,
        .filters = 256,
        .freq_min = 47000000,
    },
    {
        .name = "rtl2832",
        .shown = "Realtek RTL2832 (DVB-T)",
        .hardware = "RTL2832U with R820T, USB",
        .step_hz = 333334,
        .lock_t_ms = 300,
        .early_bits = NO_BITS,
        .weak_bits = VITERBI,
        .readings = HAS_STRENGTH | HAS_SNR | HAS_BER,
        .strength = 0x02FF,  // (45 - gain) * 16, the low byte always 0xFF
        .snr = 275,
        .stat_strength = Scale::RELATIVE,
        .stat_counters = COUNTS_BITS,
    },
    {
        .name = "si2168",
        .shown = "Silicon Labs Si2168",
        .hardware = "Si2168 with Si2157, USB; loses its firmware in every sleep",
        .systems = {SYS_DVBT, SYS_DVBT2, SYS_DVBC_ANNEX_A},
        .min_delay_ms = 900,
        .lock_t_ms = 350,
        .lock_t2_ms = 750,
        .set_ms = 60,
        .readings = 0,
        .stat_strength = Scale::DECIBEL,
        .reported = Reported::NOTHING,
        .firmware_ms = 3100,
        .firmware_again_ms = 1900,
        .asleep_error = EAGAIN,
        .no_firmware_error = EAGAIN,
        .freq_min = 48000000,
        .freq_max = 870000000,
        .freq_step = 62500,
        .more_caps = SECOND_GENERATION,
        .less_caps = RECOVERS,
    },
    {
        .name = "mn88472",
        .shown = "Panasonic MN88472",
        .hardware = "MN88472 beside an RTL2832P, USB; without a filter only pipe 0 of T2",
        .systems = {SYS_DVBT, SYS_DVBT2, SYS_DVBC_ANNEX_A},
        .lock_t_ms = 400,
        .lock_t2_ms = 900,
        .readings = 0,
        .reported = Reported::NOTHING,
        .finds_pipe = false,
        .firmware_ms = 300,
        .asleep_error = EAGAIN,
        .no_firmware_error = EAGAIN,
        .more_caps = SECOND_GENERATION,
        .less_caps = RECOVERS,
    },
    {
        .name = "cxd2820r",
        .shown = "Sony CXD2820R",
        .hardware = "CXD2820R, USB; searches T and T2 in turn, whatever was asked for",
        .systems = {SYS_DVBT, SYS_DVBT2, SYS_DVBC_ANNEX_A},
        .search = Search::SYSTEMS,
        .lock_t_ms = 300,
        .lock_t2_ms = 1200,
        .wait_t_ms = 20 * 50,
        .wait_t2_ms = 40 * 50,
        .early_bits = NO_BITS,
        .weak_bits = SYNC,
        .strength = 0x7A50,  // 12 bits moved up
        .strength_no_signal = 0x1000,
        .snr = 275,
        .stat_counters = COUNTS_BITS,
        .filters = 256,
        .more_caps = SECOND_GENERATION,
    },
    {
        .name = "cxd2841er",
        .shown = "Sony CXD2841ER DVB-T/T2/C demodulator",
        .hardware = "CXD2837, 2841, 2843 or 2854, USB; waits for the lock and reports the carrier's offset",
        .systems = {SYS_DVBT, SYS_DVBT2, SYS_DVBC_ANNEX_A},
        .search = Search::TUNE,
        .min_delay_ms = 200,
        .lock_t_ms = 300,
        .lock_t2_ms = 800,
        .wait_t_ms = 2500,
        .wait_t2_ms = 2500,
        .readings = 0,
        .stat_strength = Scale::DECIBEL,
        .reports_modes = false,
        .offset_hz = 1234,
        .filters = 256,
        .freq_min = 42000000,
        .freq_max = 1002000000,
        .more_caps = SECOND_GENERATION,
    },
    {
        .name = "dib7000p",
        .shown = "DiBcom 7000PC",
        .hardware = "DiBcom 7000P, USB; searches inside set_frontend",
        .lock_t_ms = 100,
        .set_ms = 250,
        .set_no_signal_ms = 900,
        .early_bits = SIGNAL,
        .weak_bits = VITERBI,
        .strength = 0x8421,
        .strength_no_signal = 0x1000,
        .snr = 275,
        .stat_strength = Scale::DECIBEL,
        .freq_min = 44250000,
        .freq_max = 867250000,
        .freq_step = 62500,
    },
    {
        .name = "af9033",
        .shown = "Afatech AF9033 (DVB-T)",
        .hardware = "AF9033, AF9035 or IT913x, USB",
        .min_delay_ms = 2000,
        .lock_t_ms = 450,
        .early_bits = SIGNAL,
        .weak_bits = VITERBI,
        .strength = 0x8CCC,
        .strength_no_signal = 0x1000,
        .snr = 275,
        .stat_strength = Scale::DECIBEL,
    },
    {
        .name = "drxk",
        .shown = "DRXK DVB-C DVB-T",
        .hardware = "DRX-K, USB; cable first",
        .systems = {SYS_DVBC_ANNEX_A, SYS_DVBC_ANNEX_C, SYS_DVBT},
        .min_delay_ms = 3000,
        .lock_t_ms = 600,
        .readings = HAS_STRENGTH | HAS_SNR | HAS_UCBLOCKS,
        .strength = 0xA000,
        .strength_no_signal = 0x1000,
        .snr = 275,
        .stat_counters = COUNTS_PRE_BITS | COUNTS_BITS | COUNTS_BLOCKS,
        .reported = Reported::NOTHING,
        .mode_4k = Mode_4k::TAKEN_AS_8K,
        .no_firmware_error = ENODEV,
        .filters = 256,
        .freq_min = 47000000,
        .freq_max = 865000000,
    },
    {
        .name = "zl10353",
        .shown = "Zarlink ZL10353 DVB-T",
        .hardware = "ZL10353, USB or PCI; get_frontend fails without a lock, mode 4K is refused",
        .lock_t_ms = 250,
        .early_bits = SIGNAL,
        .weak_bits = VITERBI,
        .strength = 0x9A5C,
        .strength_no_signal = 0x1000,
        .snr = 240,
        .stat_strength = Scale::NONE,
        .stat_cnr = Scale::NONE,
        .stat_counters = 0,
        .reports_lock_only = true,
        .mode_4k = Mode_4k::REFUSED,
        .takes_bandwidth_0 = true,
        .filters = 256,
    },
    {
        .name = "stv0367",
        .shown = "STV0367 DDB DVB-C/T",
        .hardware = "STV0367 with TDA18212, PCIe; cable first, always reports 1 Hz",
        .systems = {SYS_DVBC_ANNEX_A, SYS_DVBT},
        .lock_t_ms = 350,
        .readings = 0,
        .stat_strength = Scale::DECIBEL,
        .reported = Reported::ONE_HZ,
        .mode_4k = Mode_4k::TAKEN_AS_2K,
        .takes_bandwidth_0 = true,
        .filters = 256,
        .freq_min = 47000000,
        .freq_max = 865000000,
    },
    {
        .name = "unkind",
        .shown = "softdvb unkind",
        .hardware = "none; for tests of programs that should run with any device",
        .systems = {SYS_DVBT, SYS_DVBT2},
        .min_delay_ms = 800,
        .lock_t_ms = 250,
        .lock_t2_ms = 250,
        .early_bits = NO_BITS,
        .weak_bits = VITERBI,
        .readings = 0,
        .stat_strength = Scale::DECIBEL,
        .offset_hz = 166000,
        .mode_4k = Mode_4k::REFUSED,
        .more_caps = SECOND_GENERATION,
    },
}};

const Device_profile& device_profile(int index) {
  return DEVICES[static_cast<size_t>(index)];
}

int device_by_name(const std::string& name) {
  for (int i = 0; i < DEVICE_COUNT; ++i)
    if (name == device_profile(i).name)
      return i;
  return -1;
}

static std::string system_names(const Device_profile& d) {
  std::string names;
  for (const uint8_t* at = d.systems; *at != SYS_UNDEFINED; ++at)
    names += std::string(names.empty() ? "" : ", ") + (*at == SYS_DVBT           ? "DVB-T"
                                                       : *at == SYS_DVBT2        ? "DVB-T2"
                                                       : *at == SYS_DVBC_ANNEX_A ? "DVB-C"
                                                                                 : "DVB-C (annex C)");
  return names;
}

static bool receives(const Device_profile& d, uint8_t system) {
  for (const uint8_t* at = d.systems; *at != SYS_UNDEFINED; ++at)
    if (*at == system)
      return true;
  return false;
}

static const char* scale_name(Scale scale) {
  return scale == Scale::NONE ? "none" : scale == Scale::RELATIVE ? "relative" : "dB";
}

static std::string reading_names(const Device_profile& d) {
  static const char* const NAMES[] = {"strength", "snr", "ber", "ucblocks"};
  std::string names;
  for (unsigned i = 0; i < 4; ++i)
    if ((d.readings & 1u << i) != 0)
      names += std::string(names.empty() ? "" : ", ") + NAMES[i];
  return names.empty() ? "none (errno 524)" : names;
}

static void describe_waits(std::ostream& out, const Device_profile& d) {
  if (d.search == Search::TUNE || d.search == Search::SYSTEMS) {
    out << "; every call waits for it, up to " << d.wait_t_ms << " ms";
    if (d.wait_t2_ms != d.wait_t_ms)
      out << " (T2 " << d.wait_t2_ms << ")";
  }
  if (d.search == Search::CORE)
    out << ", sought anew each " << d.min_delay_ms << " ms";
  if (d.step_hz != 0)
    out << " and " << d.step_hz / 1000 << " kHz beside";
  if (d.set_ms != 0)
    out << "; tuning takes " << d.set_ms << " ms";
  if (d.set_no_signal_ms != 0)
    out << " (" << d.set_no_signal_ms << " without a signal)";
  if (d.firmware_ms != 0)
    out << "; firmware " << d.firmware_ms << " ms at the first opening";
  if (d.firmware_again_ms != 0)
    out << ", " << d.firmware_again_ms << " after each sleep";
}

static void describe(std::ostream& out, const Device_profile& d) {
  static const char* const REPORTED[] = {"the transmitter's", "as asked for", "always 1 Hz", "none (no get_frontend)"};
  static const char* const MODES_4K[] = {"ignored", "refused unseen", "taken as 2K", "taken as 8K"};
  out << d.name << ": " << d.hardware << "\n  systems    " << system_names(d) << "\n  lock       " << d.lock_t_ms
      << " ms";
  if (receives(d, SYS_DVBT2) && d.lock_t2_ms != d.lock_t_ms)
    out << " (T2 " << d.lock_t2_ms << ")";
  describe_waits(out, d);
  out << "\n  readings   " << reading_names(d) << "; statistics: strength " << scale_name(d.stat_strength) << ", CNR "
      << scale_name(d.stat_cnr) << ((d.stat_counters & COUNTS_PRE_BITS) != 0 ? ", bit errors before Viterbi" : "")
      << ((d.stat_counters & COUNTS_BITS) != 0 ? ", bit errors" : "")
      << ((d.stat_counters & COUNTS_BLOCKS) != 0 ? ", blocks" : "") << "\n  frequency  "
      << REPORTED[static_cast<int>(d.reported)];
  if (d.offset_hz != 0)
    out << ", with an offset of " << d.offset_hz << " Hz";
  out << (d.reports_lock_only ? "; EINVAL without a lock" : "") << "; " << d.freq_min / 1000000 << " to "
      << d.freq_max / 1000000 << " MHz\n  mode 4K    " << MODES_4K[static_cast<int>(d.mode_4k)] << "; bandwidth 0 "
      << (d.takes_bandwidth_0 ? "taken" : "refused unseen") << "; " << d.filters << " filters\n";
}

std::string describe_devices() {
  std::ostringstream out;
  for (const Device_profile& d : DEVICES)
    describe(out, d);
  return out.str();
}

}  // namespace softdvb
