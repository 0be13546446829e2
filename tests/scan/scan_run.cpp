// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "scan/scan_run.h"

#include <cmath>

#include "softdvb/mux/stream.h"
#include "support/softdvb.h"

namespace {

constexpr char NOW[] = "1772388000";  // 2026-03-01 18:00 UTC

std::vector<Host_event> read_events(const std::string& text) {
  std::vector<Host_event> events;
  for (const std::string& line : support::lines_of(text)) {
    const size_t tab = line.find('\t');
    if (tab != std::string::npos)
      events.push_back({std::strtod(line.c_str(), nullptr), line.substr(tab + 1)});
  }
  return events;
}

}  // namespace

std::string Scan_run::lines(const std::vector<std::string>& words) const {
  std::string text;
  for (const Host_event& event : events) {
    bool wanted = words.empty();
    for (const std::string& word : words)
      wanted = wanted || event.what.substr(0, event.what.find(' ')) == word;
    if (wanted)
      text += event.what + "\n";
  }
  return text;
}

double Scan_run::at(const std::string& what, size_t number) const {
  for (const Host_event& event : events) {
    if (event.what == what && number-- == 0)
      return event.at;
  }
  return -1;
}

std::string lines_with(const std::string& text, const std::vector<std::string>& beginnings) {
  std::string found;
  for (const std::string& line : support::lines_of(text)) {
    if (std::any_of(beginnings.begin(), beginnings.end(), [&](const auto& b) { return line.starts_with(b); }))
      found += line + "\n";
  }
  return found;
}

void Scan_run::expect_levels(int level, const std::vector<std::pair<const char*, int>>& texts, size_t times) const {
  for (const auto& [text, its_level] : texts) {
    const std::regex wanted(text);
    const auto found = std::distance(std::sregex_iterator(err.begin(), err.end(), wanted), std::sregex_iterator());
    if (level < its_level || times != 0)
      EXPECT_EQ(found, level < its_level ? 0 : static_cast<std::ptrdiff_t>(times)) << text << " at " << level;
    else
      EXPECT_GT(found, 0) << text << " at " << level;
  }
}

std::vector<double> Scan_run::logged(const std::vector<std::string>& parts) const {
  std::vector<double> times;
  for (const std::string& line : support::lines_of(log)) {
    if (std::all_of(parts.begin(), parts.end(), [&](const auto& p) { return line.find(p) != std::string::npos; }))
      times.push_back(std::strtod(line.c_str(), nullptr));
  }
  return times;
}

double Scan_run::logged_once(const std::vector<std::string>& parts) const {
  const std::vector<double> times = logged(parts);
  EXPECT_EQ(times.size(), 1U) << testing::PrintToString(parts);
  return times.size() == 1 ? times[0] : std::nan("");
}

std::string Scan_run::timer_of(int seconds) {
  return " value=" + std::to_string(seconds) + ".000000000 interval=1.000000000 ";
}

std::vector<size_t> Scan_run::timers() const {
  std::vector<size_t> counts;
  for (const int seconds : {300, 3, 40})
    counts.push_back(logged({"timer_settime", timer_of(seconds)}).size());
  return counts;
}

std::vector<Scan_run::Span> Scan_run::filtered(const std::string& pid) const {
  // SECONDS PID TID ioctl demux0.0 HANDLE DMX_SET_FILTER pid=0x11 ...; DMX_STOP; SECONDS PID TID close PATH HANDLE
  std::vector<Span> spans;
  std::map<std::string, double> running;  // since when, by the handle
  const auto end = [&](const std::string& handle, double at) {
    const auto found = running.find(handle);
    if (found == running.end())
      return;
    spans.push_back({found->second, at});
    running.erase(found);
  };
  for (const std::string& line : support::lines_of(log)) {
    std::istringstream words(line);
    std::string process, thread, call, device, handle, what, which;
    double at = 0;
    words >> at >> process >> thread >> call >> device >> handle >> what >> which;
    if (device.find("demux0") == std::string::npos)
      continue;
    if (call == "close" || what == "DMX_STOP" || what == "DMX_SET_FILTER")
      end(handle, at);
    if (what == "DMX_SET_FILTER" && which == "pid=" + pid)
      running[handle] = at;
  }
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.from < b.from; });
  return spans;
}

Scan_run::Span Scan_run::filtered_once(const std::string& pid) const {
  const std::vector<Span> spans = filtered(pid);
  EXPECT_EQ(spans.size(), 1U) << pid;
  return spans.size() == 1 ? spans[0] : Span{std::nan(""), std::nan("")};
}

void PrintTo(const Scan_case& c, std::ostream* out) {
  *out << c.legend;
}

std::string Scan_test::stream(const Json& patch) {
  if (patch.is_null())
    return empty_stream();
  const std::string base = support::read_file(std::string(KELVO_SOURCE_DIR) + "/tests/data/scan/base.json");
  const support::Bytes packets = softdvb_mux::make_stream(Json::parse(base).patch(patch).dump(), 0);
  std::string file = folder_.file("stream" + std::to_string(streams_++) + ".ts");
  support::write_file(file, std::string(packets.begin(), packets.end()));
  return file;
}

Scan_test::Json Scan_test::with_events(int count) {
  Json events = Json::array();
  for (int i = 0; i < count; ++i)
    events.push_back(
        {{"start", "now" + std::string(i == 0 ? "-" : "+") + std::to_string(i == 0 ? 10 : 30 * i - 10) + "m"},
         {"duration", "30m"},
         {"name", "Saade " + std::to_string(i)}});
  return {{{"op", "add"}, {"path", "/services/0/events"}, {"value", events}}};
}

Scan_test::Json Scan_test::faults(const std::string& list) {
  return Json::array({{{"op", "add"}, {"path", "/faults"}, {"value", Json::parse(list)}}});
}

std::string Scan_test::empty_stream() {
  std::string packet("\x47\x1F\xFF\x10", 4);
  packet.resize(188, '\xFF');
  std::string all;
  for (int i = 0; i < 5000; ++i)
    all += packet;
  std::string file = folder_.file("stream" + std::to_string(streams_++) + ".ts");
  support::write_file(file, all);
  return file;
}

std::vector<std::string> Scan_test::on_freq(const std::string& file, const std::vector<std::string>& more) {
  std::vector<std::string> options{"--mux", std::to_string(FREQ) + "=" + file};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

void Scan_test::scan_first(const Json& patch) {
  EXPECT_EQ(scan_of(patch, SCAN_ONCE).lines({"done", "no"}), "done 0 0\n");
}

void Scan_test::expect(const Scan_case& row) {
  if (row.known)
    scan_first();
  const Scan_run run = this->run(on_freq(stream(row.patch), row.options), row.script, row.speed);
  std::string said = run.lines();
  for (size_t at = said.find('\n'); at != std::string::npos; at = said.find('\n', at))
    said.replace(at, 1, "; ");
  if (row.said != nullptr) {
    EXPECT_EQ(said, std::string(row.said) + "; end; ");
  }
  ASSERT_GE(run.events.size(), 2U);
  if (row.seconds >= 0)
    expect_seconds(row.seconds, run.events[run.events.size() - 2].at - run.events.front().at, row.speed);
  for (const auto& [text, count] : row.printed)
    EXPECT_EQ(run.count_err(text), count) << text << run.err;
  for (const auto& [text, count] : row.logged)
    EXPECT_EQ(run.logged({text}).size(), count) << text << run.log;
  if (row.reference != nullptr)
    support::expect_reference(std::string("scan/") + row.reference, dump());
}

std::string Scan_table::name(const testing::TestParamInfo<Scan_case>& row) {
  std::string name = row.param.legend;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

Scan_run Scan_test::run(std::vector<std::string> options, const std::string& script, int speed) {
  const std::string script_file = folder_.file("script");
  std::string lines = "open " + database() + "\n" + script;
  for (size_t at = lines.find("; "); at != std::string::npos; at = lines.find("; ", at))
    lines.replace(at, 2, "\n");
  support::write_file(script_file, lines + "\n");
  std::filesystem::create_directories(sandbox());
  options.insert(options.begin(), {"--root", sandbox(), "--now", NOW, "--time", "x" + std::to_string(speed)});

  const support::Softdvb_run ended = support::run_softdvb(options, {SCAN_HOST_PROGRAM, script_file});
  Scan_run result;
  result.events = read_events(ended.out);
  // The last but one line is for this.
  if (const size_t said = result.events.size(); said > 1 && result.events[said - 2].what.starts_with("starved ")) {
    result.starved = std::strtod(result.events[said - 2].what.c_str() + 8, nullptr);
    result.events.erase(result.events.end() - 2);
  }
  starved_ = result.starved;
  result.err = ended.err;
  result.log = ended.log;
  EXPECT_EQ(ended.exit_code, 0) << result.lines() << result.err;
  EXPECT_TRUE(!result.events.empty() && result.events.back().what == "end") << result.lines() << result.err;
  return result;
}
