#include "softdvb/launcher/config.h"

#include <errno.h>
#include <linux/dvb/frontend.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "softdvb/model/clock.h"
#include "softdvb/model/frontend.h"
#include "softdvb/model/frontend_calls.h"
#include "softdvb/model/rules.h"
#include "softdvb/model/stream_index.h"
#include "softdvb/model/usage_error.h"

namespace softdvb {

static constexpr double DEFAULT_RATE = 2.0e6;  // bits a second of a stream without clock references
static constexpr uint64_t NS_PER_MS = 1000000;

const std::vector<Config::Key>& Config::keys() {
  static const std::vector<Key> list = {
      {"adapter", "N", "the options that follow are for adapter N (default 0)"},
      {"mux", "FREQ=FILE", "a transport stream (188, 192 or 204 byte packets) on a frequency in Hz; repeat"},
      {"pace", "pcr|xFACTOR|RATE|fast|manual", "speed of the streams; RATE in bit/s, with k or M (default pcr)"},
      {"loop", "", "play streams again and again (default)"},
      {"once", "", "play each stream once"},
      {"start", "tune|air|filter", "a stream begins with each tuning (default), with the command, or with a filter"},
      {"offset", "SECONDS", "begin that far into each stream"},
      {"stop-after", "[FREQ=]SECONDS", "the stream falls silent after that time"},
      {"signal", "FREQ:READING=VALUE[@SECONDS]", "status, strength, snr, ber or ucblocks; FREQ may be *; repeat"},
      {"without", "READING", "the driver has no such reading (strength, snr, ber, ucblocks); repeat"},
      {"frequency-range", "MIN-MAX", "limits of the frontend in Hz (default 47000000-862000000)"},
      {"type", "ofdm|qpsk|qam|atsc", "type of the frontend (default ofdm)"},
      {"delivery", "[FREQ=]dvbt|dvbt2", "how the streams are transmitted (default: as the frontend receives)"},
      {"lock-delay", "MS", "from tuning to lock (default 50)"},
      {"look-interval", "MS", "between the core's looks for a lock, which make events (default 300)"},
      {"tuned", "FREQ", "another program holds the frontend on FREQ already"},
      {"dead-reopen", "N", "the Nth opening for writing finds no core thread: it never tunes"},
      {"section", "PID[/TABLE]=KIND", "drop, cut:BYTES, double, crc or silence; [@FIRST][*COUNT][+SECONDS]; repeat"},
      {"fault", "CALL[(GLOB)]=ERRNO", "a call that fails; [@FIRST][*COUNT]; repeat"},
      {"root", "DIR", "sandbox for /dvbfiles, /tmp/zoneinfo, /tmp/testsig (default: a temporary one)"},
      {"log", "FILE", "a line for each call on devices and clocks"},
      {"time", "xFACTOR", "virtual time runs FACTOR times as fast"},
      {"now", "EPOCH", "the time that the command sees when it starts"},
      {"grace", "MS", "real time that a late reader gets before its queue overflows"},
      {"keep", "", "leave the temporary folders"},
  };
  return list;
}

Adapter_config& Config::current() {
  if (adapters_.empty()) {
    adapters_.emplace_back();
    current_ = 0;
  }
  return adapters_[current_];
}

void Config::set(const std::string& key, const std::string& value) {
  const auto number = [&](uint64_t max) { return parse_number(value, key, max); };
  if (key == "adapter") {
    const int wanted = static_cast<int>(number(99));
    const auto at =
        std::find_if(adapters_.begin(), adapters_.end(), [&](const Adapter_config& c) { return c.number == wanted; });
    if (at == adapters_.end()) {
      if (adapters_.size() >= MAX_ADAPTERS)
        throw Usage_error("adapter: more than " + std::to_string(MAX_ADAPTERS));
      adapters_.emplace_back().number = wanted;
      current_ = adapters_.size() - 1;
    } else {
      current_ = static_cast<size_t>(at - adapters_.begin());
    }
  } else if (key == "mux") {
    const size_t at = value.find('=');
    if (at == std::string::npos || at + 1 == value.size())
      throw Usage_error("mux: '" + value + "' is not of the form FREQ=FILE");
    const uint32_t freq = static_cast<uint32_t>(parse_number(value.substr(0, at), "mux: frequency", 0xFFFFFFFF));
    if (freq == 0)
      throw Usage_error("mux: the frequency cannot be 0");
    std::filesystem::path file = value.substr(at + 1);
    if (!folder_.empty() && file.is_relative())
      file = std::filesystem::path(folder_) / file;
    if (current().muxes.size() >= MAX_MUXES)
      throw Usage_error("mux: more than " + std::to_string(MAX_MUXES));
    current().muxes.push_back({freq, file.string()});
  } else if (key == "pace") {
    current().pace = value;
  } else if (key == "loop") {
    current().loop = true;
  } else if (key == "once") {
    current().loop = false;
  } else if (key == "start") {
    current().start = value;
  } else if (key == "offset") {
    current().offset_s = static_cast<double>(parse_seconds(value, key)) / 1e9;
  } else if (key == "stop-after") {
    current().stops.push_back(value);
  } else if (key == "signal") {
    current().signals.push_back(value);
  } else if (key == "without") {
    current().without.push_back(value);
  } else if (key == "frequency-range") {
    current().frequency_range = value;
  } else if (key == "type") {
    current().type = value;
  } else if (key == "delivery") {
    current().deliveries.push_back(value);
  } else if (key == "lock-delay") {
    current().lock_delay_ms = static_cast<uint32_t>(number(3600000));
  } else if (key == "look-interval") {
    current().look_interval_ms = static_cast<uint32_t>(number(3600000));
    if (current().look_interval_ms == 0)
      throw Usage_error("look-interval: 0 ms is no interval");
  } else if (key == "tuned") {
    current().tuned = value;
  } else if (key == "dead-reopen") {
    current().dead_reopen = static_cast<int>(number(1000000));
  } else if (key == "section") {
    current().sections.push_back(value);
  } else if (key == "fault") {
    faults_.push_back(value);
  } else if (key == "root") {
    root_ = value;
  } else if (key == "log") {
    log_ = value;
  } else if (key == "time") {
    speed_ = parse_positive(value.rfind('x', 0) == 0 ? value.substr(1) : value, key);
    if (speed_ < 0.001 || speed_ > 10000)
      throw Usage_error("time: the factor must be from 0.001 to 10000");
  } else if (key == "now") {
    now_ = static_cast<double>(parse_seconds(value, key)) / 1e9;
  } else if (key == "grace") {
    grace_ms_ = static_cast<double>(number(600000));
  } else if (key == "keep") {
    keep_ = true;
  } else {
    throw Usage_error("there is no option '" + key + "'");
  }
}

void Config::read_file(const std::string& file) {
  std::ifstream in(file);
  if (!in)
    throw std::runtime_error(file + ": cannot be opened: " + strerror(errno));
  folder_ = std::filesystem::path(file).parent_path().string();
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
        set("adapter", trimmed(line.substr(9, line.size() - 10)));
        continue;
      }
      const size_t at = line.find('=');
      const std::string key = trimmed(line.substr(0, at));
      const std::string value = at == std::string::npos ? "" : trimmed(line.substr(at + 1));
      const auto known = std::find_if(keys().begin(), keys().end(), [&](const Key& k) { return key == k.name; });
      if (known == keys().end())
        throw Usage_error("there is no key '" + key + "'");
      if (value.empty() != (known->value[0] == '\0'))
        throw Usage_error(key + (value.empty() ? ": a value is missing" : ": takes no value"));
      set(key, value);
    } catch (const Usage_error& e) {
      throw Usage_error(file + ", line " + std::to_string(line_number) + ": " + e.what());
    }
  }
  folder_.clear();
}

// "[FREQ=]VALUE"
static std::string per_frequency(const std::string& text, const std::string& what, uint32_t* freq) {
  const size_t at = text.find('=');
  *freq = at == std::string::npos ? 0 : static_cast<uint32_t>(parse_number(text.substr(0, at), what, 0xFFFFFFFF));
  return at == std::string::npos ? text : text.substr(at + 1);
}

static std::vector<Index_point> make_index(const Mux_config& m, const Stream_layout& layout, const std::string& pace) {
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
  try {
    rate = parse_positive(number, "pace");
  } catch (const Usage_error&) {
    throw Usage_error("pace: '" + pace + "' is none of pcr, xFACTOR, fast, manual and no bit rate");
  }
  return index_by_rate(layout, rate * unit);
}

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
  for (const std::string& name : c.without) {
    const auto at = std::find(std::begin(NAMES) + 1, std::end(NAMES), name);
    if (at == std::end(NAMES))
      throw Usage_error("without: '" + name + "' is none of strength, snr, ber, ucblocks");
    a.missing_readings |= 1u << (at - std::begin(NAMES));
  }
}

static void set_frontend(Adapter& a, const Adapter_config& c) {
  static const char* const TYPES[] = {"qpsk", "qam", "ofdm", "atsc"};  // in the order of enum fe_type
  const auto type = std::find(std::begin(TYPES), std::end(TYPES), c.type);
  if (type == std::end(TYPES))
    throw Usage_error("type: '" + c.type + "' is none of ofdm, qpsk, qam, atsc");
  a.fe_type = static_cast<int32_t>(type - std::begin(TYPES));
  a.freq_min = 47000000;
  a.freq_max = 862000000;
  if (!c.frequency_range.empty()) {
    const size_t at = c.frequency_range.find('-');
    if (at == std::string::npos)
      throw Usage_error("frequency-range: '" + c.frequency_range + "' is not of the form MIN-MAX");
    a.freq_min = static_cast<uint32_t>(parse_number(c.frequency_range.substr(0, at), "frequency-range", 0xFFFFFFFF));
    a.freq_max = static_cast<uint32_t>(parse_number(c.frequency_range.substr(at + 1), "frequency-range", 0xFFFFFFFF));
    if (a.freq_min > a.freq_max)
      throw Usage_error("frequency-range: the lower limit is above the upper one");
  }
  a.lock_delay_ns = c.lock_delay_ms * NS_PER_MS;
  a.look_interval_ns = c.look_interval_ms * NS_PER_MS;
  a.dead_reopen = c.dead_reopen;
  a.requested = a.fe.asked = untuned(a.fe_type);
}

static void set_pace(Adapter& a, const Adapter_config& c) {
  a.pace = c.pace == "fast" ? Pace::FAST : c.pace == "manual" ? Pace::MANUAL : Pace::TIMED;
  if (c.start == "tune")
    a.start = Start::TUNE;
  else if (c.start == "air")
    a.start = Start::AIR;
  else if (c.start == "filter")
    a.start = Start::FILTER;
  else
    throw Usage_error("start: '" + c.start + "' is none of tune, air, filter");
  a.loop = c.loop ? 1 : 0;
}

static void set_deliveries(Adapter& a, const Adapter_config& c) {
  for (const std::string& text : c.deliveries) {
    uint32_t freq = 0;
    const std::string name = per_frequency(text, "delivery: frequency", &freq);
    if (name != "dvbt" && name != "dvbt2")
      throw Usage_error("delivery: '" + name + "' is neither dvbt nor dvbt2");
    for (int i = 0; i < a.mux_count; ++i)
      if (freq == 0 || a.mux[i].freq == freq)
        a.mux[i].delivery = name == "dvbt" ? SYS_DVBT : SYS_DVBT2;
  }
}

void Config::fill_adapter(Shared& s, Adapter& a, const Adapter_config& c, const std::string& run_dir) const {
  a.number = c.number;
  set_pace(a, c);
  set_frontend(a, c);
  set_readings(a, c);
  for (const std::string& text : c.sections)
    add_section_fault(s, a.number, text);
  for (const Mux_config& m : c.muxes) {
    const Stream_layout layout = detect_layout(m.file);
    const std::vector<Index_point> index = make_index(m, layout, c.pace);
    Mux& mux = a.mux[a.mux_count];
    mux.freq = m.freq;
    mux.delivery = default_delivery(a.fe_type);
    mux.packet_size = layout.packet_size;
    mux.first_offset = layout.first_offset;
    mux.packets = layout.packets;
    mux.duration_ns = index.back().time_ns;
    mux.offset_ns = static_cast<uint64_t>(c.offset_s * 1e9);
    if (mux.offset_ns >= mux.duration_ns)
      throw Usage_error("offset: " + m.file + " lasts only " + std::to_string(mux.duration_ns / NS_PER_MS) + " ms");
    copy_path(mux.path, std::filesystem::absolute(m.file).string());
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
  if (c.tuned.empty())
    return;
  Tuning tuning = a.requested;
  tuning.frequency = static_cast<uint32_t>(parse_number(c.tuned, "tuned", 0xFFFFFFFF));
  for (int i = 0; i < a.mux_count; ++i)
    if (a.mux[i].freq == tuning.frequency)
      tuning.delivery = a.mux[i].delivery;
  a.fe.externally_tuned = 1;
  frontend_tune(a, tuning, 0);
}

void Config::fill(Shared& s, const std::string& run_dir) const {
  copy_path(s.run_dir, run_dir);
  if (!log_.empty())
    copy_path(s.log_path, std::filesystem::absolute(log_).string());
  s.speed = speed_;
  const bool time_changed = speed_ != 1.0 || now_ >= 0;
  s.clock_is_virtual = time_changed ? 1 : 0;
  const double grace_ms = grace_ms_ >= 0 ? grace_ms_ : speed_ > 1.0 ? 200 : 0;
  s.grace_ns = static_cast<uint64_t>(grace_ms * 1e6);
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  s.start_mono_ns = machine_now_ns();
  s.real_offset_ns = nanos(real) - s.start_mono_ns;
  s.start_real_ns = now_ >= 0 ? static_cast<int64_t>(now_ * 1e9) : nanos(real);
  for (const std::string& text : faults_)
    add_fault(s, text);
  std::vector<Adapter_config> adapters = adapters_;
  if (adapters.empty())
    adapters.emplace_back();
  for (const Adapter_config& c : adapters)
    fill_adapter(s, s.adapter[s.adapter_count++], c, run_dir);
}

}  // namespace softdvb
