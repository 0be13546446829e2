// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <poll.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/temporary_folder.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/cli/verbosity_options.h"
#include "tools/commands.h"
#include "tools/engine/device.h"
#include "tools/engine/engine.h"
#include "tools/trace/recorder.h"
#include "tools/trace/records.h"
#include "tools/trace/write.h"

namespace {

constexpr unsigned TASK_TUNE = 1;
constexpr unsigned TASK_SCAN = 4;
constexpr std::chrono::seconds SAMPLE_INTERVAL{1};  // of the signal

struct Record_options {
  std::string out;
  std::string format;
  int adapter = 0;
  Receiver_options receiver;
  std::vector<int> freqs;
};

// Scans one frequency and records what happens. False when it was stopped before the answer.
bool record_frequency(Adapter& adapter, const Tuning_request& request, Trace_recorder* recorder) {
  recorder->note("MHz", request.freq / 1'000'000);
  recorder->start(TRACE_TASK, TASK_TUNE, "tune");
  const bool locked = adapter.tune(request);
  recorder->stop(TRACE_TASK, TASK_TUNE, "tune");
  recorder->note("lock", locked ? 1 : 0);
  if (!locked) {
    return !adapter.stopped();
  }
  recorder->start(TRACE_TASK, TASK_SCAN, "scan");
  std::optional<Answer> answer;
  do {
    recorder->note("sgnl", static_cast<int>(adapter.signal().strength.value));
    answer = adapter.answer(Adapter::Clock::now() + SAMPLE_INTERVAL);
    // The signal is noted between two waits, so that a reader sees how it was when something did not come.
  } while (!answer && !adapter.stopped());
  if (answer) {
    recorder->note("done", answer->kind == Answer::Kind::SCANNED ? 0 : -1);
  }
  recorder->stop(TRACE_TASK, TASK_SCAN, "scan");
  return answer.has_value();
}

// Scans frequencies with an adapter, into a database that nobody keeps, and records what happens. False when it was
// interrupted.
bool record_scan(const Record_options& options, const Interrupt& interrupt, Trace_recorder* recorder) {
  Frontend_info frontend;  // tries every frequency
  frontend.profile = profile_of(options.receiver);
  const std::map<int, Frontend_info> frontends{{options.adapter, frontend}};
  const Temporary_folder folder;
  Library_listener listener(recorder);
  Sdbl database(folder.file("dvb.db").c_str());
  // Before the engine, whose thread uses it until the engine is deleted; the listener and the database outlive it for
  // the same reason.
  std::atomic<bool> whole{true};
  Engine engine(frontends, requests_for(options.freqs), &database);
  for (const auto& adapter : engine.adapters()) {
    listener.listen_to(&adapter->kelvo());
  }
  engine.start([recorder, &whole](Adapter& adapter, const Tuning_request& request) {
    if (!record_frequency(adapter, request, recorder)) {
      whole = false;
    }
  });
  pollfd waits[] = {{engine.fd(), POLLIN, 0}, {interrupt.fd(), POLLIN, 0}};
  while (!engine.ended()) {
    (void)poll(waits, 2, waits[1].fd < 0 ? Engine::STOP_INTERVAL_MS : -1);
    engine.calm();
    if ((waits[1].revents & POLLIN) != 0) {
      waits[1].fd = -1;
    }
    if (waits[1].fd < 0) {
      engine.stop();
    }
  }
  if (!engine.gone().empty()) {
    throw Failure(fmt::format("adapter {} is gone", options.adapter));
  }
  return whole && engine.left().empty();
}

std::string title_of(const std::vector<int>& freqs) {
  std::vector<std::string> texts;
  texts.reserve(freqs.size());
  for (const int freq : freqs) {
    texts.push_back(fmt::format("{:g}", freq / 1e6));
  }
  return fmt::format("Scan of {} MHz", fmt::join(texts, ", "));
}

int record(const Record_options& options) {
  const std::string format = trace_format(options.format, options.out, "kelvo trace record");
  (void)check_adapter(options.adapter, profile_of(options.receiver));
  const Interrupt interrupt;
  Trace_recorder recorder;
  bool whole = false;
  try {
    whole = record_scan(options, interrupt, &recorder);
  } catch (const no_file_error& error) {
    throw Failure(fmt::format("cannot make a database for the scan: {}", error.what()));
  }
  std::vector<unsigned> words = recorder.words();
  // An interrupt ends the scan and not the writing: what was recorded is what the user waits for.
  (void)write_trace({options.out, format, title_of(options.freqs)}, &words, [] { return false; });
  console::report(clean_text(
      fmt::format("kelvo: {}: {} records", options.out == "-" ? "standard output" : options.out, words.size() / 4)));
  if (!whole) {
    console::say("kelvo: interrupted; what was recorded is kept");
    return EXIT_INTERRUPTED;
  }
  return EXIT_OK;
}

}  // namespace

void add_trace_record(CLI::App& trace, int* exit_code) {
  CLI::App* command = trace.add_subcommand("record", "Record a trace of a scan");
  const auto options = std::make_shared<Record_options>();
  command->add_option("OUT", options->out, "The trace, replaced when it exists; - for standard output")->required();
  add_trace_format_option(command, &options->format);
  command->add_option("--adapter", options->adapter, "DVB adapter, 0 to 3; default: 0")
      ->type_name("N")
      ->check(CLI::Range(0, 3));
  add_quiet_option(command);
  add_freqs_option(command, &options->freqs)->required();
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  command->footer(
      "Tuning, scanning, filters, sections and merges, as they happen in this program. The channels are not kept.\n"
      "\n"
      "Example:\n"
      "  kelvo trace record scan.svg --freq 506000000");
  command->callback([options, exit_code] { *exit_code = record(*options); });
}
