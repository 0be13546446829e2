// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "scan/scan_run.h"

#include "softdvb/mux/stream.h"
#include "support/softdvb.h"

namespace {

constexpr char NOW[] = "1772388000";  // 2026-03-01 18:00 UTC

std::vector<Host_event> read_events(const std::string& text) {
  std::vector<Host_event> events;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
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

double Scan_run::at(const std::string& what) const {
  for (const Host_event& event : events) {
    if (event.what == what)
      return event.at;
  }
  return -1;
}

std::vector<double> Scan_run::times(const std::string& what) const {
  std::vector<double> all;
  for (const Host_event& event : events) {
    if (event.what == what)
      all.push_back(event.at);
  }
  return all;
}

size_t Scan_run::count_err(const std::string& text) const {
  size_t count = 0;
  for (size_t at = err.find(text); at != std::string::npos; at = err.find(text, at + text.size()))
    ++count;
  return count;
}

std::vector<double> Scan_run::logged(const std::vector<std::string>& parts) const {
  std::vector<double> times;
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    bool wanted = true;
    for (const std::string& part : parts)
      wanted = wanted && line.find(part) != std::string::npos;
    if (wanted)
      times.push_back(std::strtod(line.c_str(), nullptr));
  }
  return times;
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
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
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

std::string Scan_test::stream(const Json& patch) {
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

std::vector<std::string> Scan_test::on_freq(const std::string& file) {
  return {"--mux", std::to_string(FREQ) + "=" + file};
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
  result.err = ended.err;
  result.log = ended.log;
  EXPECT_EQ(ended.exit_code, 0) << result.lines() << result.err;
  EXPECT_TRUE(!result.events.empty() && result.events.back().what == "end") << result.lines() << result.err;
  return result;
}
