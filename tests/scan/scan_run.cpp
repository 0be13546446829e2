#include "scan/scan_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "softdvb/mux/stream.h"

extern char** environ;

namespace {

constexpr char NOW[] = "1772388000";  // 2026-03-01 18:00 UTC

// Runs a program with its output in files; its exit code, or -1.
int run_program(const std::vector<std::string>& words, const std::string& out, const std::string& err) {
  std::vector<char*> arguments;
  for (const std::string& word : words)
    arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t child = 0;
  const int result = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (result != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

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

std::string Scan_test::stream(const Json& patch) {
  const std::string base = support::read_file(std::string(KELVO_SOURCE_DIR) + "/tests/data/scan/base.json");
  const support::Bytes packets = softdvb_mux::make_stream(Json::parse(base).patch(patch).dump(), 0);
  std::string file = folder_.file("stream" + std::to_string(streams_++) + ".ts");
  support::write_file(file, std::string(packets.begin(), packets.end()));
  return file;
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
  const std::string out = folder_.file("out");
  const std::string err = folder_.file("err");
  const std::string log = folder_.file("log");
  support::write_file(script_file, "open " + database() + "\n" + script);
  std::vector<std::string> words = {
      SOFTDVB_PROGRAM, "--root", sandbox(), "--log", log, "--now", NOW, "--time", "x" + std::to_string(speed)};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"--", SCAN_HOST_PROGRAM, script_file});
  std::error_code ignored;
  std::filesystem::create_directories(sandbox(), ignored);
  std::filesystem::remove(log, ignored);

  const int code = run_program(words, out, err);
  Scan_run result;
  result.events = read_events(support::read_file(out));
  result.err = support::read_file(err);
  result.log = support::read_file(log);
  EXPECT_EQ(0, code) << result.lines() << result.err;
  EXPECT_TRUE(!result.events.empty() && result.events.back().what == "end") << result.lines() << result.err;
  return result;
}
