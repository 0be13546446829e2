// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/temporary_folder.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/trace/write.h"

namespace {

namespace fs = std::filesystem;

struct Demo_options {
  std::string out;
  std::string format;
  std::string samples;
};

// The demonstration must run the same build that was called, and argv[0] does not say where that is.
fs::path own_program() {
  std::error_code error;
  fs::path out = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    throw Failure("cannot find out where this program is: " + error.message());
  }
  return out;
}

// Beside this program where it is installed, in the neighbouring folder where it was only built, or in the PATH.
std::string find_program(const std::string& name, const std::string& where_built) {
  const fs::path here = own_program().parent_path();
  std::vector<fs::path> places = {here / name, here / where_built / name};
  const char* path = getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    places.push_back(fs::path(folder) / name);
  }
  for (const fs::path& place : places) {
    if (fs::is_regular_file(place) && access(place.c_str(), X_OK) == 0) {
      return place.lexically_normal().string();
    }
  }
  throw Failure(fmt::format("{}: not found beside kelvo nor in the PATH; the demonstration needs it", name));
}

std::string find_samples(const std::string& named) {
  const fs::path here = own_program().parent_path();
  const std::vector<fs::path> places =
      named.empty() ? std::vector<fs::path>{here / "../" KELVO_SAMPLES_INSTALLED, here / "../samples"}
                    : std::vector<fs::path>{named};
  for (const fs::path& place : places) {
    if (fs::is_regular_file(place / "network.conf")) {
      return place.lexically_normal().string();
    }
  }
  throw Failure(named.empty() ? "the sample network is not here; name its folder (with network.conf) with --samples"
                              : fmt::format("{}: no sample network (no network.conf in it)", named));
}

// A program that this one started. It is waited for, or told to end by what interrupts this one.
class Child {
 public:
  Child(const std::vector<std::string>& argv, bool silent) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string& argument : argv) {
      arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // This program blocks the signals that end it and ignores SIGPIPE; the child would inherit both and could not be
    // ended.
    sigset_t none;
    sigset_t standard;
    sigemptyset(&none);
    sigemptyset(&standard);
    sigaddset(&standard, SIGPIPE);
    sigaddset(&standard, SIGXFSZ);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &standard);
    posix_spawnattr_setpgroup(&attributes, 0);  // Ctrl-C comes here alone
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (silent) {
      posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
      posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    }
    const int error = posix_spawn(&pid_, argv[0].c_str(), &files, &attributes, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
      throw Failure(fmt::format("{}: cannot be started: {}", argv[0], strerror(error)));
    }
    // To be waited for together with the signals. Kernels before 5.3 have none; then it is simply waited for.
    descriptor_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  }
  ~Child() {
    if (descriptor_ >= 0) {
      (void)close(descriptor_);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Its exit code, 128 and more for a signal.
  int wait(const Interrupt& interrupt) {
    pollfd waits[] = {{descriptor_, POLLIN, 0}, {interrupt.fd(), POLLIN, 0}};
    while (descriptor_ >= 0 && (waits[0].revents & POLLIN) == 0) {
      (void)poll(waits, 2, -1);
      if ((waits[1].revents & POLLIN) != 0) {
        // It may have something to put away (the scan keeps what it has recorded), so it is waited for all the same.
        (void)kill(pid_, SIGTERM);
        waits[1].fd = -1;
        waits[1].revents = 0;
      }
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  int descriptor_ = -1;
};

int demonstrate(const Demo_options& options) {
  const std::string format = trace_format(options.format, options.out, "kelvo trace demo");
  const std::string softdvb = find_program("softdvb", "../softdvb");
  const std::string softdvb_mux = find_program("softdvb-mux", "../softdvb/mux");
  const fs::path samples = find_samples(options.samples);
  const Interrupt interrupt;
  const Temporary_folder folder;

  std::vector<std::string> adapter{softdvb};
  std::vector<std::string> scan{own_program().string(), "trace", "record", options.out, "--format", format};
  std::ifstream network(samples / "network.conf");
  for (std::string line; std::getline(network, line);) {
    std::istringstream words(line);
    std::string freq;
    std::string equals;
    std::string description;
    if (!(words >> freq >> equals >> description) || freq[0] == '#') {
      continue;
    }
    const std::string stream = folder.file(freq + ".ts");
    const int made = Child({softdvb_mux, (samples / description).string(), "-o", stream}, true).wait(interrupt);
    if (interrupt.came()) {
      throw Failure("interrupted; nothing was written", EXIT_INTERRUPTED);
    }
    if (made != 0) {
      throw Failure(fmt::format("softdvb-mux could not make a stream of {}", (samples / description).string()));
    }
    adapter.insert(adapter.end(), {"--mux", freq + "=" + stream});
    scan.insert(scan.end(), {"--freq", freq});
  }
  // The scan is another run of this program, because the software adapter must be loaded before a program starts.
  adapter.emplace_back("--");
  adapter.insert(adapter.end(), scan.begin(), scan.end());
  console::say("kelvo: scanning the sample network; this takes a few seconds");
  return Child(adapter, false).wait(interrupt);
}

}  // namespace

void add_trace_demo(CLI::App& trace, int* exit_code) {
  CLI::App* command = trace.add_subcommand("demo", "Record a trace of a scan of the sample network");
  const auto options = std::make_shared<Demo_options>();
  command->add_option("OUT", options->out, "The trace, replaced when it exists; - for standard output")->required();
  add_trace_format_option(command, &options->format);
  command->add_option("--samples", options->samples, "The sample network; default: the one that came with kelvo")
      ->type_name("FOLDER");
  command->footer(
      "Makes the streams of the sample network with softdvb-mux and runs 'kelvo trace record' on them under softdvb: no\n"
      "adapter is needed.\n"
      "\n"
      "Examples:\n"
      "  kelvo trace demo scan.svg\n"
      "  kelvo trace demo scan.log\n"
      "  kelvo trace convert scan.log scan.json");
  command->callback([options, exit_code] { *exit_code = demonstrate(*options); });
}
