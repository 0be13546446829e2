// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/trace/write.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/output_file.h"
#include "tools/trace/print.h"
#include "tools/trace/timeline.h"

namespace {

// Descriptors of a pipe, closed at the end.
struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw Failure("cannot make a pipe: too many open files?");
    }
  }
  ~Pipe() {
    close_end(0);
    close_end(1);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void close_end(size_t end) {
    if (ends[end] >= 0) {
      (void)close(ends[end]);
      ends[end] = -1;
    }
  }
  int ends[2] = {-1, -1};
};

// The library writes to a descriptor and tells nobody when that fails, so it gets a pipe, and what comes out of it is
// written here.
void print_tdi(std::vector<unsigned>* words, const Text_sink& out) {
  Pipe pipe;
  std::thread converter([&] {
    Timedoc timedoc;
    timedoc.set_output(pipe.ends[1]);
    timedoc.convert_to_tdi(words->data(), static_cast<int>(words->size()));
    // The reader below ends when this end is closed.
    pipe.close_end(1);
  });
  try {
    char block[1 << 16];
    for (ssize_t n = 0; (n = read(pipe.ends[0], block, sizeof block)) != 0;) {
      if (n > 0) {
        out({block, static_cast<size_t>(n)});
      }
    }
  } catch (...) {
    pipe.close_end(0);  // what the library goes on writing fails at once
    converter.join();
    throw;
  }
  converter.join();
}

void print_log(const std::vector<unsigned>& words, const Text_sink& out) {
  for (size_t i = 0; i + 4 <= words.size(); i += 4) {
    out(fmt::format("{:08x} {:08x} {:08x} {:08x}\n", words[i], words[i + 1], words[i + 2], words[i + 3]));
  }
}

}  // namespace

CLI::Option* add_trace_format_option(CLI::App* command, std::string* format) {
  return command
      ->add_option(
          "--format", *format,
          "tdi, for the TimeDoctor viewer; log, a line a record; json, for chrome://tracing and Perfetto; svg, "
          "a picture; default: what the name of OUT ends in")
      ->check(CLI::IsMember({"tdi", "log", "json", "svg"}));
}

std::string trace_format(const std::string& option, const std::string& file, const std::string& command) {
  if (!option.empty()) {
    return option;
  }
  const std::string extension = std::filesystem::path(file).extension().string();
  for (const char* format : {"tdi", "log", "json", "svg"}) {
    if (extension == std::string(".") + format) {
      return format;
    }
  }
  throw Failure(
      fmt::format("--format is required where OUT does not end in .tdi, .log, .json or .svg (see '{} --help')",
                  command),
      EXIT_USAGE);
}

size_t write_trace(const Trace_file& file, std::vector<unsigned>* words, const std::function<bool()>& interrupted) {
  // Made for every format, as it counts the records that make no sense, and before the output, which a failure here
  // must not touch.
  const Timeline timeline = make_timeline(*words);
  Output_file out(file.name);
  const Text_sink sink = [&](std::string_view text) {
    if (interrupted()) {
      throw Failure("interrupted; nothing was written", EXIT_INTERRUPTED);
    }
    out.write(text);
  };
  if (file.format == "tdi") {
    // What the library says of bad records is summed up by the caller.
    const console::Quiet_library quiet(file.verbosity);
    print_tdi(words, sink);
  } else if (file.format == "log") {
    print_log(*words, sink);
  } else if (file.format == "json") {
    print_trace_json(timeline, sink);
  } else {
    print_trace_svg(timeline, file.title, sink);
  }
  out.finish();
  return file.format == "log" ? 0 : timeline.left_out;
}
