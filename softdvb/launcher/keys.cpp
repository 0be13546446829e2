// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/launcher/keys.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <type_traits>

#include "softdvb/model/rules.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

static constexpr uint64_t HOUR_MS = 3600000;

// A field belongs to the command or to the adapter that is being described.
template <typename T>
static T& field_of(Config& config, T Config::*field) {
  return config.*field;
}
template <typename T>
static T& field_of(Config& config, T Adapter_config::*field) {
  return config.current().*field;
}

// Keys share these few setters; the field is part of the type, so that the table holds plain functions.
template <auto FIELD>
static void set_text(Config& config, const Key&, const std::string& value) {
  field_of(config, FIELD) = value;
}

template <auto FIELD>
static void add_text(Config& config, const Key&, const std::string& value) {
  field_of(config, FIELD).push_back(value);
}

template <auto FIELD, bool VALUE>
static void set_switch(Config& config, const Key&, const std::string&) {
  field_of(config, FIELD) = VALUE;
}

template <auto FIELD>
static void set_seconds(Config& config, const Key& key, const std::string& value) {
  field_of(config, FIELD) = static_cast<double>(parse_seconds(value, key.name)) / 1e9;
}

template <auto FIELD, uint64_t MAX>
static void set_number(Config& config, const Key& key, const std::string& value) {
  auto& field = field_of(config, FIELD);
  field = static_cast<std::remove_reference_t<decltype(field)>>(parse_number(value, key.name, MAX));
}

static void set_look_interval(Config& config, const Key& key, const std::string& value) {
  const uint64_t interval_ms = parse_number(value, key.name, HOUR_MS);
  if (interval_ms == 0)
    throw Usage_error("look-interval: 0 ms is no interval");
  config.current().look_interval_ms = static_cast<uint32_t>(interval_ms);
}

static void set_filters(Config& config, const Key& key, const std::string& value) {
  const uint64_t filters = parse_number(value, key.name, MAX_DEMUX_OPENS);
  if (filters == 0)
    throw Usage_error("filters: an adapter has one at least");
  config.current().filters = static_cast<int>(filters);
}

static void set_speed(Config& config, const Key& key, const std::string& value) {
  const double speed = parse_positive(value.rfind('x', 0) == 0 ? value.substr(1) : value, key.name);
  if (speed < 0.001 || speed > 10000)
    throw Usage_error("time: the factor must be from 0.001 to 10000");
  config.speed = speed;
}

static void set_adapter(Config& config, const Key& key, const std::string& value) {
  const int wanted = static_cast<int>(parse_number(value, key.name, 99));
  auto& all = config.adapters;
  // An adapter that was described before is gone on with, in whatever order options come.
  const auto at = std::find_if(all.begin(), all.end(), [&](const Adapter_config& c) { return c.number == wanted; });
  if (at == all.end() && all.size() >= MAX_ADAPTERS)
    throw Usage_error("adapter: more than " + std::to_string(MAX_ADAPTERS));
  config.current_index = static_cast<size_t>(at - all.begin());
  if (config.current_index == all.size())
    all.emplace_back().number = wanted;
}

static void set_device(Config& config, const Key& key, const std::string& value) {
  config.current().devices = parse_devices(value, key.name);
}

// Takes "text" up to the first of the marks off the front of `rest`, and leaves the mark there.
static std::string take_front(std::string& rest, const char* marks) {
  const size_t end = std::min(rest.find_first_of(marks), rest.size());
  std::string front = rest.substr(0, end);
  rest.erase(0, end);
  return front;
}

static std::filesystem::path stream_path(const Config& config, const std::filesystem::path& file) {
  // A configuration file and its streams can be moved together.
  return config.folder.empty() || file.is_absolute() ? file : std::filesystem::path(config.folder) / file;
}

static void add_mux(Config& config, const Key& key, const std::string& value) {
  const Usage_error malformed("mux: '" + value + "' is not of the form " + key.form);
  std::string rest = value;
  Mux_config mux{};
  mux.pipe = -1;
  const std::string freq = take_front(rest, ",=");
  while (!rest.empty() && rest[0] == ',') {
    rest.erase(0, 1);
    const std::string name = take_front(rest, "=");
    if (rest.empty())
      throw malformed;
    rest.erase(0, 1);
    const std::string setting = take_front(rest, ",=");
    constexpr uint64_t LAST_PIPE = 255;
    if (name == "system")
      mux.system = setting;
    else if (name == "plp")
      mux.pipe = static_cast<int>(parse_number(setting, "mux: plp", LAST_PIPE));
    else
      throw Usage_error("mux: '" + name + "' is neither system nor plp");
  }
  if (rest.size() < 2)
    throw malformed;
  mux.freq = static_cast<uint32_t>(parse_number(freq, "mux: frequency", 0xFFFFFFFF));
  if (mux.freq == 0)
    throw Usage_error("mux: the frequency cannot be 0");
  // Only DVB-T2 has pipes.
  if (mux.pipe >= 0 && mux.system.empty())
    mux.system = "dvbt2";
  if (mux.pipe >= 0 && mux.system != "dvbt2")
    throw Usage_error("mux: plp: only dvbt2 has pipes");
  if (config.current().muxes.size() >= MAX_MUXES)
    throw Usage_error("mux: more than " + std::to_string(MAX_MUXES));
  mux.file = stream_path(config, rest.substr(1)).string();
  config.current().muxes.push_back(mux);
}

static void add_later_mux(Config& config, const Key& key, const std::string& value) {
  std::string rest = value;
  const std::string freq = take_front(rest, "=");
  const std::string seconds = rest.empty() ? "" : take_front(rest.erase(0, 1), ":");
  if (rest.size() < 2)
    throw Usage_error("then: '" + value + "' is not of the form " + key.form);
  auto& muxes = config.current().muxes;
  const uint64_t wanted = parse_number(freq, "then: frequency", 0xFFFFFFFF);
  const auto at = std::find_if(muxes.rbegin(), muxes.rend(), [&](const Mux_config& mux) { return mux.freq == wanted; });
  if (at == muxes.rend())
    throw Usage_error("then: no mux on " + freq + " stands before it");
  if (muxes.size() >= MAX_MUXES)
    throw Usage_error("mux: more than " + std::to_string(MAX_MUXES));
  Mux_config later = *at;
  later.from_s = static_cast<double>(parse_seconds(seconds, "then")) / 1e9;
  if (later.from_s <= at->from_s)
    throw Usage_error("then: " + seconds + " s is not later than the stream before");
  later.file = stream_path(config, rest.substr(1)).string();
  muxes.push_back(later);
}

const std::vector<Key>& keys() {
  static const std::vector<Key> list = {
      {"adapter", "N", "the options that follow are for adapter N (default 0)", set_adapter},
      {"device", "NAME[+NAME]",
       "the frontend to imitate, or two that share the rest of the adapter; see --list-devices (default box)",
       set_device},
      {"mux", "FREQ[,system=dvbt2][,plp=N]=FILE",
       "a transport stream (188, 192 or 204 byte packets) on a frequency in Hz; repeat", add_mux},
      {"then", "FREQ=SECONDS:FILE", "another stream takes the place of that of FREQ so long after the start; repeat",
       add_later_mux},
      {"pace", "pcr|xFACTOR|RATE|fast|manual", "speed of the streams; RATE in bit/s, with k or M (default pcr)",
       set_text<&Adapter_config::pace>},
      {"loop", "", "play streams again and again (default)", set_switch<&Adapter_config::loop, true>},
      {"once", "", "play each stream once", set_switch<&Adapter_config::loop, false>},
      {"start", "tune|air|filter", "a stream begins with each tuning (default), with the command, or with a filter",
       set_text<&Adapter_config::start>},
      {"offset", "SECONDS", "begin that far into each stream", set_seconds<&Adapter_config::offset_s>},
      {"stop-after", "[FREQ=]SECONDS", "the stream falls silent after that time", add_text<&Adapter_config::stops>},
      {"signal", "FREQ:READING=VALUE[@SECONDS]",
       "status, strength, snr, ber, ucblocks, level or cnr; FREQ may be *; repeat", add_text<&Adapter_config::signals>},
      {"without", "READING", "the driver has no such reading (strength, snr, ber, ucblocks); repeat",
       add_text<&Adapter_config::without>},
      {"frequency-range", "MIN-MAX", "limits of the frontend in Hz (default: the device's, box 47000000-862000000)",
       set_text<&Adapter_config::frequency_range>},
      {"type", "ofdm|qpsk|qam|atsc", "type of the frontend (default ofdm)", set_text<&Adapter_config::type>},
      {"delivery", "[FREQ=]dvbt|dvbt2", "how the streams are transmitted (default: as the frontend receives)",
       add_text<&Adapter_config::deliveries>},
      {"lock-delay", "[FREQ=]MS", "from tuning to lock (default: the device's, box 50)",
       add_text<&Adapter_config::lock_delays>},
      {"weak", "FREQ", "a signal too weak for a lock; repeat", add_text<&Adapter_config::weak>},
      {"look-interval", "MS", "between the core's looks for a lock, which make events (default: the device's, box 300)",
       set_look_interval},
      {"frequency-offset", "HZ", "that the driver finds and reports when locked; may be below 0",
       set_text<&Adapter_config::frequency_offset>},
      {"firmware", "present|missing", "of a device that needs one", set_text<&Adapter_config::firmware>},
      {"filters", "N", "filters that may be open at once (default: the device's)", set_filters},
      {"busy", "", "another program has the frontend open for writing", set_switch<&Adapter_config::busy, true>},
      {"burst", "BYTES", "packets arrive so many bytes at a time", set_number<&Adapter_config::burst, 16777216>},
      {"unplug", "SECONDS", "the device is pulled out that long after the start",
       set_seconds<&Adapter_config::unplug_s>},
      {"replug", "SECONDS", "and is back that long after the start", set_seconds<&Adapter_config::replug_s>},
      {"tuned", "FREQ", "another program holds the frontend on FREQ already", set_text<&Adapter_config::tuned>},
      {"dead-reopen", "N", "the Nth opening for writing finds no core thread: it never tunes",
       set_number<&Adapter_config::dead_reopen, 1000000>},
      {"section", "PID[/TABLE]=KIND", "drop, cut:BYTES, double, crc or silence; [@FIRST][*COUNT][+SECONDS]; repeat",
       add_text<&Adapter_config::sections>},
      {"fault", "CALL[(GLOB)]=ERRNO", "a call that fails; [@FIRST][*COUNT]; repeat", add_text<&Config::faults>},
      {"root", "DIR", "sandbox for /dvbfiles, /tmp/zoneinfo, /tmp/testsig (default: a temporary one)",
       set_text<&Config::root>},
      {"log", "FILE", "a line for each call on devices and clocks", set_text<&Config::log>},
      {"time", "xFACTOR", "virtual time runs FACTOR times as fast", set_speed},
      {"now", "EPOCH", "the time that the command sees when it starts", set_seconds<&Config::now>},
      {"grace", "MS", "real time that a late reader gets before its queue overflows",
       set_number<&Config::grace_ms, 600000>},
      {"keep", "", "leave the temporary folders", set_switch<&Config::keep, true>},
  };
  return list;
}

void read_file(Config& config, const std::string& file) {
  std::ifstream in(file);
  if (!in)
    throw std::runtime_error(file + ": cannot be opened: " + strerror(errno));
  config.folder = std::filesystem::path(file).parent_path().string();
  int line_number = 0;
  for (std::string line; std::getline(in, line);) {
    ++line_number;
    line = trimmed(line);
    if (line.empty() || line[0] == '#')
      continue;
    try {
      if (line.front() == '[') {
        if (line.back() != ']' || line.rfind("[adapter ", 0) != 0)
          throw Usage_error("'" + line + "' is not of the form [adapter N]");
        // A section line is the same as the option and gets its checks.
        const Key& adapter = keys().front();
        adapter.set(config, adapter, trimmed(line.substr(9, line.size() - 10)));
        continue;
      }
      const size_t at = line.find('=');
      const std::string key = trimmed(line.substr(0, at));
      const std::string value = at == std::string::npos ? "" : trimmed(line.substr(at + 1));
      const auto known = std::find_if(keys().begin(), keys().end(), [&](const Key& k) { return key == k.name; });
      if (known == keys().end())
        throw Usage_error("there is no key '" + key + "'");
      // The form in the help tells whether there is a value.
      if (value.empty() != (known->form[0] == '\0'))
        throw Usage_error(key + (value.empty() ? ": a value is missing" : ": takes no value"));
      known->set(config, *known, value);
    } catch (const Usage_error& e) {
      throw Usage_error(file + ", line " + std::to_string(line_number) + ": " + e.what());
    }
  }
  // Options behind --config are meant from the folder of the user again.
  config.folder.clear();
}

}  // namespace softdvb
