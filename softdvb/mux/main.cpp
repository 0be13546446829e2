// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "softdvb/mux/example.h"
#include "softdvb/mux/stream.h"
#include "softdvb/mux/time_text.h"

using namespace softdvb_mux;

namespace {

constexpr int FAILED = 1;
constexpr int WRONG_USE = 2;

int complain(int code, const std::string& what) {
  std::cerr << "softdvb-mux: " << what << "\n";
  return code;
}

bool read_all(const std::string& name, std::string* text) {
  errno = 0;
  std::stringstream all;
  if (name == "-") {
    all << std::cin.rdbuf();
  } else {
    std::ifstream file(name, std::ios::binary);
    if (!file)
      return false;
    // A folder opens but cannot be read.
    if (file.peek() == std::ifstream::traits_type::eof() && errno != 0)
      return false;
    all << file.rdbuf();
  }
  *text = all.str();
  return true;
}

// "" or what failed.
std::string write_to(int fd, const Bytes& stream) {
  for (size_t done = 0; done < stream.size();) {
    const ssize_t written = write(fd, stream.data() + done, stream.size() - done);
    if (written > 0)
      done += static_cast<size_t>(written);
    // A pipe may take a part only and a signal may come between.
    else if (errno != EINTR)
      return std::strerror(errno);
  }
  return "";
}

// Writes beside the target and renames, so that a file that was there stays until the new one is whole. Devices and
// pipes are written as they are; a link stays one. Returns "" or what failed.
std::string write_all(const std::string& output_name, const Bytes& stream) {
  std::string name = output_name;
  // The rename would replace a link and leave its target as it was.
  if (char* real = realpath(output_name.c_str(), nullptr)) {
    name = real;
    std::free(real);
  }
  struct stat before = {};
  const bool there = stat(name.c_str(), &before) == 0;
  if (there && S_ISDIR(before.st_mode))
    return std::strerror(EISDIR);
  const bool plain = !there || S_ISREG(before.st_mode);
  // mkstemp makes files for their owner alone; the user's own mask is to decide.
  const mode_t mask = umask(0);
  umask(mask);
  std::string temporary = name + ".XXXXXX";
  const int fd = plain ? mkstemp(temporary.data()) : open(name.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0)
    return std::strerror(errno);
  std::string problem = write_to(fd, stream);
  if (problem.empty() && plain && fchmod(fd, there ? before.st_mode & 0777 : 0666 & ~mask) != 0)
    problem = std::strerror(errno);
  // A full disk may be told at the close only.
  if (close(fd) != 0 && problem.empty())
    problem = std::strerror(errno);
  if (problem.empty() && plain && std::rename(temporary.c_str(), name.c_str()) != 0)
    problem = std::strerror(errno);
  if (!problem.empty() && plain)
    unlink(temporary.c_str());
  return problem;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Makes a DVB-T multiplex (a transport stream) from a description in JSON.\n"
      "The keys are explained in docs/softdvb-mux.md and softdvb-mux(1).",
      "softdvb-mux");
  std::string description_name;
  std::string output_name;
  std::string now_text;
  bool list_defaults = false;
  bool example = false;
  bool quiet = false;
  app.add_option("DESCRIPTION", description_name, "the description, - for standard input")->type_name("FILE");
  app.add_option("-o,--output", output_name, "the file to write, - for standard output")->type_name("FILE");
  app.add_option("--now", now_text, "the time that \"now\" stands for, 2026-03-01T18:00:00Z (also over the file's own)")
      ->type_name("TIME");
  app.add_flag("--list-defaults", list_defaults, "print the intervals that hold when the description names none");
  app.add_flag("--example", example, "print a complete description");
  app.add_flag("-q,--quiet", quiet, "no summary and no progress");
  app.set_version_flag("--version", "softdvb-mux " SOFTDVB_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --help, --version
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return complain(WRONG_USE, std::string(error.what()) + "; see softdvb-mux --help");
  }
  if (list_defaults || example) {
    std::cout << (list_defaults ? defaults_text() : example_text());
    return 0;
  }
  if (description_name.empty())
    return complain(WRONG_USE, "no description is named; see softdvb-mux --help");
  if (output_name.empty())
    return complain(WRONG_USE, "no output is named, use -o FILE; see softdvb-mux --help");
  std::optional<int64_t> now;
  if (!now_text.empty() && !parse_utc(now_text, &now.emplace()))
    return complain(WRONG_USE, fmt::format("--now {} is no time such as 2026-03-01T18:00:00Z", now_text));
  std::string text;
  if (!read_all(description_name, &text))
    return complain(FAILED, fmt::format("{} cannot be read: {}", description_name, std::strerror(errno)));
  const bool terminal = !quiet && isatty(STDERR_FILENO) != 0;
  Bytes stream;
  try {
    const Description all = parse_description(text, static_cast<int64_t>(std::time(nullptr)), now);
    stream = make_stream(all, [&](double part) {
      if (terminal)
        std::cerr << fmt::format("\r{}: {:3.0f} %", output_name, part * 100) << std::flush;
    });
    // The progress line makes room for the summary.
    if (terminal)
      std::cerr << "\r\x1b[K";
    if (!quiet && output_name != "-")
      std::cerr << fmt::format("{}: transport stream {}, {} services, {} packets, {:.1f} s at {} bits a second\n",
                               output_name, all.transport_stream_id, all.services.size(), stream.size() / PACKET,
                               static_cast<double>(stream.size()) * 8 / static_cast<double>(all.bit_rate),
                               all.bit_rate);
  } catch (const Description_error& error) {
    return complain(WRONG_USE, description_name + ": " + error.what());
  }
  if (output_name == "-") {
    std::cout.write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    std::cout.flush();
    return std::cout ? 0 : complain(FAILED, "standard output cannot be written");
  }
  const std::string problem = write_all(output_name, stream);
  if (!problem.empty())
    return complain(FAILED, fmt::format("{} cannot be written: {}", output_name, problem));
  return 0;
}
