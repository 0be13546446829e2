// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "softdvb/model/shared.h"

// What the launcher was asked for: options and the lines of a configuration file are the same pairs of key and value.
namespace softdvb {

struct Mux_config {
  uint32_t freq;
  std::string system;  // "": as the frontend receives
  int pipe;            // -1: the signal has only one
  std::string file;
  double from_s = 0;  // above 0: it takes the place of the stream before on that frequency then
};

struct Adapter_config {
  int number = 0;
  std::vector<int> devices;  // of its frontends, see device_profile(); what is left open below is the device's
  std::vector<Mux_config> muxes;
  std::string pace = "pcr";
  std::string start = "tune";
  bool loop = true;
  std::string type = "ofdm";
  std::string frequency_range;
  std::string tuned;
  std::vector<std::string> signals;
  std::vector<std::string> without;
  std::vector<std::string> deliveries;
  std::vector<std::string> stops;
  std::vector<std::string> sections;
  double offset_s = 0;
  std::vector<std::string> lock_delays;
  std::vector<std::string> weak;
  std::optional<uint32_t> look_interval_ms;
  std::string frequency_offset;
  std::string firmware = "present";
  std::optional<int> filters;
  bool busy = false;
  uint64_t burst = 0;  // bytes
  double unplug_s = 0;
  double replug_s = 0;
  int dead_reopen = 0;
};

struct Config {
  std::vector<Adapter_config> adapters;  // none: adapter 0 as it is by default
  size_t current_index = 0;
  std::vector<std::string> faults;
  std::string root;  // "": a folder in the run folder
  std::string log;
  double speed = 1.0;
  double now = -1;       // below 0: the machine's
  double grace_ms = -1;  // below 0: as the speed needs it
  bool keep = false;
  std::string folder;  // of the configuration file that is being read

  // The adapter that is being described; makes adapter 0 when there is none.
  Adapter_config& current();
};

// "NAME" or "NAME+NAME", one for each frontend; throws Usage_error.
std::vector<int> parse_devices(const std::string& names, const std::string& what);

// Writes everything into the shared record and the indexes of the streams into `run_dir`. What can only be judged with
// the rest at hand (streams, frequencies, names of readings) is checked here. Throws Usage_error where the
// configuration is wrong and std::runtime_error where a file cannot be used; the record is then of no use.
void fill(Shared& s, const Config& config, const std::string& run_dir);

}  // namespace softdvb
