// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/launcher/config.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "softdvb/model/clock.h"
#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/frontend_core.h"
#include "softdvb/model/rules.h"
#include "softdvb/model/stream_index.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

static constexpr double DEFAULT_RATE = 2.0e6;  // bits a second of a stream without clock references
static constexpr uint64_t NS_PER_MS = 1000000;
static constexpr uint64_t LONGEST_DELAY_MS = 3600000;

// Options that name no adapter describe the first one.
Adapter_config& Config::current() {
  if (adapters.empty())
    adapters.emplace_back();
  return adapters[current_index];
}

std::vector<int> parse_devices(const std::string& names, const std::string& what) {
  std::vector<int> devices;
  for (size_t at = 0; at <= names.size();) {
    const size_t end = std::min(names.find('+', at), names.size());
    const std::string name = names.substr(at, end - at);
    devices.push_back(device_by_name(name));
    if (devices.back() < 0)
      throw Usage_error(what + ": there is no '" + name + "'; softdvb --list-devices shows all");
    at = end + 1;
  }
  if (devices.size() > MAX_FRONTENDS)
    throw Usage_error(what + ": an adapter has " + std::to_string(MAX_FRONTENDS) + " frontends at most");
  return devices;
}

// "[FREQ=]VALUE"
static std::string per_frequency(const std::string& text, const std::string& what, uint32_t* freq) {
  const size_t at = text.find('=');
  *freq = at == std::string::npos ? 0 : static_cast<uint32_t>(parse_number(text.substr(0, at), what, 0xFFFFFFFF));
  return at == std::string::npos ? text : text.substr(at + 1);
}

static std::vector<Index_point> make_index(const Mux_config& m, const Stream_layout& layout, const std::string& pace) {
  // Also without a pace the times of the clock are needed, for offsets and stops.
  if (pace == "pcr" || pace == "fast" || pace == "manual")
    return index_by_pcr(m.file, layout, DEFAULT_RATE);
  if (pace.rfind('x', 0) == 0) {
    const double factor = parse_positive(pace.substr(1), "pace");
    std::vector<Index_point> points = index_by_pcr(m.file, layout, DEFAULT_RATE);
    for (Index_point& p : points)
      p.time_ns = static_cast<uint64_t>(static_cast<double>(p.time_ns) / factor);
    points.back().time_ns = std::max<uint64_t>(points.back().time_ns, 1);
    return points;
  }
  std::string number = pace;
  double unit = 1;
  if (!number.empty() && (number.back() == 'k' || number.back() == 'M')) {
    unit = number.back() == 'k' ? 1e3 : 1e6;
    number.pop_back();
  }
  double rate = 0;
  // What is neither a word nor a number is told with all forms, since it may have been meant as any.
  try {
    rate = parse_positive(number, "pace");
  } catch (const Usage_error&) {
    throw Usage_error("pace: '" + pace + "' is none of pcr, xFACTOR, fast, manual and no bit rate");
  }
  return index_by_rate(layout, rate * unit);
}

// A file and not shared memory: indexes are long, and each process maps only that of the stream it plays.
static void write_index(const std::string& file, const std::vector<Index_point>& points) {
  std::ofstream out(file, std::ios::binary);
  out.write(reinterpret_cast<const char*>(points.data()),
            static_cast<std::streamsize>(points.size() * sizeof(Index_point)));
  if (!out.flush())
    throw std::runtime_error(file + ": cannot be written");
}

static void copy_path(char* to, const std::string& path) {
  if (path.size() >= MAX_PATH)
    throw std::runtime_error(path + ": the path is too long");
  path.copy(to, path.size());
  to[path.size()] = '\0';
}

static void set_readings(Adapter& a, const Adapter_config& c) {
  for (const std::string& text : c.signals)
    add_signal(a, text);
  static const char* const NAMES[] = {"status", "strength", "snr", "ber", "ucblocks"};
  // A bit for each Reading, the status first, which every driver has.
  a.missing_readings = (~uint32_t{profile_of(a).readings} & HAS_ALL_READINGS) << 1;
  for (const std::string& name : c.without) {
    const auto at = std::find(std::begin(NAMES) + 1, std::end(NAMES), name);
    if (at == std::end(NAMES))
      throw Usage_error("without: '" + name + "' is none of strength, snr, ber, ucblocks");
    a.missing_readings |= 1u << (at - std::begin(NAMES));
  }
}

static void set_type(Adapter& a, const std::string& name) {
  static const char* const TYPES[] = {"qpsk", "qam", "ofdm", "atsc"};  // in the order of enum fe_type
  const auto type = std::find(std::begin(TYPES), std::end(TYPES), name);
  if (type == std::end(TYPES))
    throw Usage_error("type: '" + name + "' is none of ofdm, qpsk, qam, atsc");
  a.fe_type = static_cast<int32_t>(type - std::begin(TYPES));
  if (name != "ofdm" && !profile_of(a).takes_any_system)
    throw Usage_error(std::string("type: device ") + profile_of(a).name + " is ofdm; only box can be another type");
}

static void set_frequencies(Adapter& a, const Adapter_config& c) {
  a.freq_min = profile_of(a).freq_min;
  a.freq_max = profile_of(a).freq_max;
  a.offset_hz = profile_of(a).offset_hz;
  if (!c.frequency_offset.empty()) {
    constexpr uint64_t MAX_HZ = 10000000;
    const bool below = c.frequency_offset[0] == '-';
    const int hz = static_cast<int>(parse_number(c.frequency_offset.substr(below ? 1 : 0), "frequency-offset", MAX_HZ));
    a.offset_hz = below ? -hz : hz;
  }
  if (c.frequency_range.empty())
    return;
  const size_t at = c.frequency_range.find('-');
  if (at == std::string::npos)
    throw Usage_error("frequency-range: '" + c.frequency_range + "' is not of the form MIN-MAX");
  a.freq_min = static_cast<uint32_t>(parse_number(c.frequency_range.substr(0, at), "frequency-range", 0xFFFFFFFF));
  a.freq_max = static_cast<uint32_t>(parse_number(c.frequency_range.substr(at + 1), "frequency-range", 0xFFFFFFFF));
  if (a.freq_min > a.freq_max)
    throw Usage_error("frequency-range: the lower limit is above the upper one");
}

static void set_frontend(Adapter& a, const Adapter_config& c) {
  const Device_profile& d = profile_of(a);
  set_type(a, c.type);
  set_frequencies(a, c);
  a.look_interval_ns = c.look_interval_ms.value_or(d.min_delay_ms) * NS_PER_MS;
  a.dead_reopen = c.dead_reopen;
  a.busy = c.busy && a.frontend == 0 ? 1 : 0;
  // Whoever has it open has woken it.
  if (a.busy != 0) {
    a.fe.powered = 1;
    a.fe.state = Core_state::IDLE;
  }
  a.filters = c.filters.value_or(d.filters);
  if (c.firmware != "present" && c.firmware != "missing")
    throw Usage_error("firmware: '" + c.firmware + "' is neither present nor missing");
  a.firmware_missing = c.firmware == "missing" && d.no_firmware_error != 0 ? 1 : 0;
  if (c.firmware == "missing" && a.firmware_missing == 0 && a.frontends == 1)
    throw Usage_error(std::string("firmware: device ") + d.name + " needs none");
  // After the type, on which the delivery system depends.
  a.cache = a.fe.asked = untuned(a, first_delivery(a));
}

static void set_plug(Adapter& a, const Adapter_config& c) {
  a.unplug_at_ns = static_cast<uint64_t>(c.unplug_s * 1e9);
  a.replug_at_ns = static_cast<uint64_t>(c.replug_s * 1e9);
  if (a.replug_at_ns != 0 && (a.unplug_at_ns == 0 || a.replug_at_ns < a.unplug_at_ns))
    throw Usage_error("replug: comes after an unplug");
}

static void set_pace(Adapter& a, const Adapter_config& c) {
  constexpr uint64_t PACKET = 188;
  if (c.burst != 0 && c.burst < PACKET)
    throw Usage_error("burst: less than a packet of 188 bytes");
  a.burst_packets = c.burst / PACKET;
  a.pace = c.pace == "fast" ? Pace::FAST : c.pace == "manual" ? Pace::MANUAL : Pace::TIMED;
  static const char* const STARTS[] = {"tune", "air", "filter"};  // in the order of Start
  const auto start = std::find(std::begin(STARTS), std::end(STARTS), c.start);
  if (start == std::end(STARTS))
    throw Usage_error("start: '" + c.start + "' is none of tune, air, filter");
  a.start = static_cast<Start>(start - std::begin(STARTS));
  a.loop = c.loop ? 1 : 0;
}

static uint32_t system_by_name(const std::string& name, const std::string& what) {
  if (name != "dvbt" && name != "dvbt2")
    throw Usage_error(what + ": '" + name + "' is neither dvbt nor dvbt2");
  return name == "dvbt" ? SYS_DVBT : SYS_DVBT2;
}

// "[FREQ=]MS"
static void set_lock_delays(Adapter& a, const Adapter_config& c) {
  a.lock_delay_ns = -1;
  for (const std::string& text : c.lock_delays) {
    uint32_t freq = 0;
    const uint64_t ms =
        parse_number(per_frequency(text, "lock-delay: frequency", &freq), "lock-delay", LONGEST_DELAY_MS);
    const int64_t delay_ns = static_cast<int64_t>(ms * NS_PER_MS);
    if (freq == 0)
      a.lock_delay_ns = delay_ns;
    for (int i = 0; i < a.mux_count; ++i)
      if (a.mux[i].freq == freq)
        a.mux[i].lock_delay_ns = delay_ns;
  }
  for (const std::string& text : c.weak) {
    const uint32_t freq = static_cast<uint32_t>(parse_number(text, "weak: frequency", 0xFFFFFFFF));
    for (int i = 0; i < a.mux_count; ++i)
      if (a.mux[i].freq == freq)
        a.mux[i].weak = 1;
  }
}

static void set_deliveries(Adapter& a, const Adapter_config& c) {
  for (const std::string& text : c.deliveries) {
    uint32_t freq = 0;
    const uint32_t system = system_by_name(per_frequency(text, "delivery: frequency", &freq), "delivery");
    for (int i = 0; i < a.mux_count; ++i)
      if (freq == 0 || a.mux[i].freq == freq)
        a.mux[i].delivery = system;
  }
}

// Of adapters that name none, so that a whole set of tests can be run with another.
static std::vector<int> usual_devices() {
  const char* names = getenv("SOFTDVB_DEVICE");
  return names == nullptr || names[0] == '\0' ? std::vector<int>{0} : parse_devices(names, "SOFTDVB_DEVICE");
}

static void set_muxes(Adapter& a, const Adapter_config& c, const std::string& run_dir) {
  for (const Mux_config& m : c.muxes) {
    const Stream_layout layout = detect_layout(m.file);
    const std::vector<Index_point> index = make_index(m, layout, c.pace);
    Mux& mux = a.mux[a.mux_count];
    mux.freq = m.freq;
    mux.delivery = profile_of(a).takes_any_system ? first_delivery(a) : uint32_t{SYS_DVBT};
    if (!m.system.empty())
      mux.delivery = system_by_name(m.system, "mux: system");
    mux.pipe = m.pipe;
    mux.from_ns = static_cast<uint64_t>(m.from_s * 1e9);
    mux.lock_delay_ns = -1;
    mux.packet_size = layout.packet_size;
    mux.first_offset = layout.first_offset;
    mux.packets = layout.packets;
    mux.duration_ns = index.back().time_ns;
    mux.offset_ns = static_cast<uint64_t>(c.offset_s * 1e9);
    if (mux.offset_ns >= mux.duration_ns)
      throw Usage_error("offset: " + m.file + " lasts only " + std::to_string(mux.duration_ns / NS_PER_MS) + " ms");
    // The command may change its folder before it tunes.
    copy_path(mux.path, std::filesystem::absolute(m.file).string());
    if (a.frontend == 0)
      write_index(run_dir + "/index." + std::to_string(a.number) + "." + std::to_string(a.mux_count), index);
    ++a.mux_count;
  }
  for (const std::string& text : c.stops) {
    uint32_t freq = 0;
    const uint64_t stop = parse_seconds(per_frequency(text, "stop-after: frequency", &freq), "stop-after");
    for (int i = 0; i < a.mux_count; ++i)
      if (freq == 0 || a.mux[i].freq == freq)
        a.mux[i].stop_after_ns = stop;
  }
  set_deliveries(a, c);
  set_lock_delays(a, c);
}

static void fill_frontend(Adapter& a, const Adapter_config& c, const std::string& run_dir) {
  a.number = c.number;
  copy_path(a.run_dir, run_dir);
  set_pace(a, c);
  set_frontend(a, c);
  set_readings(a, c);
  set_muxes(a, c, run_dir);
}

static void fill_adapter(Shared& s, const Adapter_config& c, const std::string& run_dir) {
  const std::vector<int> devices = c.devices.empty() ? usual_devices() : c.devices;
  Adapter& a = s.adapter[s.adapter_count];
  for (const int device : devices) {
    Adapter& each = s.adapter[s.adapter_count++];
    each.device = device;
    each.frontend = static_cast<int32_t>(&each - &a);
    each.frontends = static_cast<int32_t>(devices.size());
    fill_frontend(each, c, run_dir);
  }
  set_plug(a, c);
  for (const std::string& text : c.sections)
    add_section_fault(s, a.number, text);
  if (c.tuned.empty())
    return;
  a.fe.externally_tuned = 1;
  frontend_tune(a, tuning_to(a, static_cast<uint32_t>(parse_number(c.tuned, "tuned", 0xFFFFFFFF))), 0);
}

void fill(Shared& s, const Config& config, const std::string& run_dir) {
  copy_path(s.run_dir, run_dir);
  if (!config.log.empty())
    copy_path(s.log_path, std::filesystem::absolute(config.log).string());
  s.speed = config.speed;
  const bool time_changed = config.speed != 1.0 || config.now >= 0;
  s.clock_is_virtual = time_changed ? 1 : 0;
  // With faster time a busy machine would make readers late that are not, so the stream waits for them.
  const double grace_ms = config.grace_ms >= 0 ? config.grace_ms : config.speed > 1.0 ? 200 : 0;
  s.grace_ns = static_cast<uint64_t>(grace_ms * 1e6);
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  // The two clocks are read together, because their distance holds for the whole run.
  s.start_mono_ns = machine_now_ns();
  s.real_offset_ns = nanos(real) - s.start_mono_ns;
  s.start_real_ns = config.now >= 0 ? static_cast<int64_t>(config.now * 1e9) : nanos(real);
  for (const std::string& text : config.faults)
    add_fault(s, text);
  std::vector<Adapter_config> adapters = config.adapters;
  if (adapters.empty())
    adapters.emplace_back();
  // Last, because what is tuned from the beginning counts from the times above.
  for (const Adapter_config& c : adapters)
    fill_adapter(s, c, run_dir);
}

}  // namespace softdvb
