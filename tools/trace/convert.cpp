// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/trace/records.h"
#include "tools/trace/write.h"

namespace {

struct Convert_options {
  std::string in;
  std::string out;
  std::string format;
  std::string from = "auto";
  int verbosity = 0;  // how often -v was given
};

// Compared by inode, so that links and other spellings of the path are noticed as well: the input would be replaced by
// its own conversion.
bool same_file(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && S_ISREG(first.st_mode) &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::string title_of(const std::string& in) {
  const std::string name = in == "-" ? "" : std::filesystem::path(in).filename().string();
  return name.empty() ? "Trace" : "Trace " + name;
}

void convert(const Convert_options& options) {
  const std::map<std::string, Trace_source> sources = {{"auto", Trace_source::DETECT},
                                                       {"little", Trace_source::LITTLE},
                                                       {"big", Trace_source::BIG},
                                                       {"log", Trace_source::LOG}};
  const std::string format = trace_format(options.format, options.out, "kelvo trace convert");
  if (same_file(options.in, options.out)) {
    throw Failure("IN and OUT are the same file (see 'kelvo trace convert --help')", EXIT_USAGE);
  }
  // All of it is read before the output is touched.
  Trace_words trace = read_trace(options.in, sources.at(options.from));
  const Interrupt interrupt;
  const size_t left_out = write_trace({options.out, format, title_of(options.in), options.verbosity - 1}, &trace.words,
                                      [&] { return interrupt.came(); });

  const std::string in = options.in == "-" ? "standard input" : options.in;
  if (trace.cut) {
    console::say(clean_text(fmt::format("kelvo: {}: the last record is cut off and left out", in)));
  }
  if (left_out > 0) {
    console::say(clean_text(fmt::format("kelvo: {}: {} of {} records make no sense and {} left out", in, left_out,
                                        trace.words.size() / 4, left_out == 1 ? "is" : "are")));
  }
}

}  // namespace

void add_trace_convert(CLI::App& trace, int* exit_code) {
  CLI::App* command = trace.add_subcommand("convert", "Make something to look at from a trace");
  const auto options = std::make_shared<Convert_options>();
  command->add_option("IN", options->in, "Trace: raw 32-bit words, or log lines; - for standard input")->required();
  command->add_option("OUT", options->out, "What is made, replaced when it exists; - for standard output")->required();
  add_trace_format_option(command, &options->format);
  command
      ->add_option("--from", options->from,
                   "What IN is: little or big, raw words with that end first; log; or auto, which finds out")
      ->check(CLI::IsMember({"auto", "little", "big", "log"}))
      ->capture_default_str();
  command->add_flag("-v,--verbose", options->verbosity,
                    "Show what the library says when it makes tdi: errors; repeated, warnings, too");
  command->footer(
      "OUT appears when it is complete. Records that make no sense are left out and counted.\n"
      "\n"
      "Examples:\n"
      "  kelvo trace convert box.bin box.svg\n"
      "  kelvo trace convert box.log box.json\n"
      "  kelvo trace convert box.bin - --format tdi --from big");
  command->callback([options, exit_code] {
    convert(*options);
    *exit_code = EXIT_OK;
  });
}
