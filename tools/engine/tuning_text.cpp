// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/tuning_text.h"

#include <linux/dvb/frontend.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include <fmt/format.h>

#include "tools/cli/text.h"
#include "tools/engine/holder.h"

namespace {

constexpr std::pair<int, const char*> SYSTEMS[] = {
    {SYS_DVBC_ANNEX_A, "DVB-C"},
    {SYS_DVBC_ANNEX_B, "DVB-C/B"},
    {SYS_DVBC_ANNEX_C, "DVB-C/C"},
    {SYS_DVBT, "DVB-T"},
    {SYS_DVBT2, "DVB-T2"},
    {SYS_DVBS, "DVB-S"},
    {SYS_DVBS2, "DVB-S2"},
    {SYS_DVBH, "DVB-H"},
    {SYS_ISDBT, "ISDB-T"},
    {SYS_ISDBS, "ISDB-S"},
    {SYS_ISDBC, "ISDB-C"},
    {SYS_ATSC, "ATSC"},
    {SYS_ATSCMH, "ATSC-M/H"},
    {SYS_DTMB, "DTMB"},
    {SYS_CMMB, "CMMB"},
    {SYS_DAB, "DAB"},
    {SYS_TURBO, "Turbo FEC"},
    {SYS_DSS, "DSS"},
};

constexpr std::pair<unsigned, const char*> STATUS_BITS[] = {
    {FE_HAS_SIGNAL, "signal"}, {FE_HAS_CARRIER, "carrier"}, {FE_HAS_VITERBI, "viterbi"},
    {FE_HAS_SYNC, "sync"},     {FE_HAS_LOCK, "lock"},
};

std::string value_text(const Signal_value& value, const char* decibel) {
  switch (value.scale) {
    case SCALE_DECIBEL:
      return fmt::format("{:.1f} {}", value.value, decibel);
    case SCALE_RELATIVE:
      return fmt::format("{:.0f} %", value.value);
    case SCALE_RATE:
      return value.value == 0 ? "0" : fmt::format("{:.1e}", value.value);
    case SCALE_DRIVER:
      return fmt::format("{:.0f} (driver)", value.value);
    default:
      return "-";
  }
}

std::string no_device_text(int error) {
  switch (error) {
    case EBUSY:
      return "busy: another program has the frontend";
    case EACCES:
    case EPERM:
      return "no right to open (group video)";
    case ENODEV:
    case ENXIO:
    case ENOENT:
      return "the adapter is gone";
    case 0:
      return "the frontend cannot be used";
    default:
      return fmt::format("the frontend cannot be used: {}", strerror(error));
  }
}

}  // namespace

std::string system_name(int system) {
  for (const auto& [number, name] : SYSTEMS) {
    if (number == system) {
      return name;
    }
  }
  return fmt::format("system {}", system);
}

std::string system_text(const Tuning_result& tuning) {
  if (tuning.outcome != TUNING_LOCKED || tuning.system == 0) {
    return "-";
  }
  return system_name(tuning.system) + (tuning.pipe >= 0 ? fmt::format(" pipe {}", tuning.pipe) : "");
}

std::string no_lock_text(const Tuning_result& tuning) {
  switch (tuning.outcome) {
    case TUNING_NO_SIGNAL:
      return "no signal";
    case TUNING_NO_LOCK:
      return "signal, no lock";
    case TUNING_NO_STREAM:
      return "locked, no stream";
    case TUNING_REFUSED:
      return tuning.error == 0 ? "refused by the device"
                               : fmt::format("refused by the device: {}", strerror(tuning.error));
    case TUNING_CANCELLED:
      return "interrupted";
    case TUNING_NO_DEVICE:
      return no_device_text(tuning.error);
    case TUNING_NO_FIRMWARE:
      return "firmware missing (see dmesg)";
    default:
      return "no lock";
  }
}

std::string locked_text(const Tuning_result& tuning) {
  return tuning.offset_hz == 0 ? "locked" : fmt::format("locked, reports {}", mhz(tuning.freq + tuning.offset_hz));
}

std::string frontend_failure(const std::string& path, int error) {
  switch (error) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
    case ENOTDIR:
      return path + ": no such device; is the adapter plugged in?";
    case EBUSY:
      if (const std::optional<Holder> holder = holder_of(path)) {
        return fmt::format("{}: in use by another program: {} (pid {}); stop it first", path, holder->program,
                           holder->pid);
      }
      return path + ": in use by another program; stop it first";
    case EACCES:
    case EPERM:
      return path + ": permission denied; is the user in group video?";
    default:
      return fmt::format("{}: cannot be opened: {}", path, strerror(error));
  }
}

std::string strength_text(const Signal_value& value) {
  // The box's driver has percents, which may lie a little beyond.
  return value.scale == SCALE_BOX ? fmt::format("{:.0f} %", value.value) : value_text(value, "dBm");
}

std::string snr_text(const Signal_value& value) {
  return value.scale == SCALE_BOX ? fmt::format("{:.1f} dB", value.value) : value_text(value, "dB");
}

std::string errors_text(const Signal_value& value) {
  return value.scale == SCALE_BOX ? fmt::format("quality {:.0f} of 100", value.value) : value_text(value, "dB");
}

std::string status_text(unsigned status) {
  std::string out;
  for (const auto& [bit, name] : STATUS_BITS) {
    if ((status & bit) != 0) {
      out += (out.empty() ? "" : " ") + std::string(name);
    }
  }
  return out.empty() ? "none" : out;
}

std::string lost_text(const std::vector<Lost_sections>& lost) {
  int overflows = 0;
  int broken = 0;
  for (const Lost_sections& one : lost) {
    overflows += one.overflows;
    broken += one.crc_errors;
  }
  std::string out;
  if (overflows > 0) {
    out = fmt::format("lost {} section{} or more (buffer overflow)", overflows, overflows == 1 ? "" : "s");
  }
  if (broken > 0) {
    out += fmt::format("{}{} section{} came broken", out.empty() ? "" : ", ", broken, broken == 1 ? "" : "s");
  }
  return out;
}
