#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/temporary_folder.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/commands.h"
#include "tools/engine/device.h"
#include "tools/trace/recorder.h"
#include "tools/trace/records.h"
#include "tools/trace/write.h"

namespace {

constexpr unsigned TASK_TUNE = 1;
constexpr unsigned TASK_SCAN = 4;
constexpr int SAMPLE_INTERVAL_MS = 1000;  // of the signal

struct Record_options {
  std::string out;
  std::string format;
  int adapter = 0;
  std::vector<int> freqs;
};

// Scans frequencies with an adapter, into a database that nobody keeps, and records what happens.
class Recording {
 public:
  explicit Recording(Trace_recorder* recorder) : recorder_(*recorder) {
    if (wake_ < 0) {
      throw Failure("cannot make an event descriptor: too many open files?");
    }
  }
  ~Recording() { (void)close(wake_); }
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  // False when it was interrupted.
  bool run(int adapter, const std::vector<int>& freqs, const Interrupt& interrupt);

 private:
  // What the library hands back with its answer: one for each request, because it may answer twice.
  struct Request {
    Recording* owner = nullptr;
    std::atomic<bool> answered{false};
  };
  static void on_answer(void* data, int result);

  bool scan(Kelvo* kelvo, int freq, const Interrupt& interrupt);

  Trace_recorder& recorder_;
  int wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::deque<Request> requests_;
};

void Recording::on_answer(void* data, int result) {
  auto* request = static_cast<Request*>(data);
  if (!request->answered.exchange(true)) {
    request->owner->recorder_.note("done", result);
    (void)eventfd_write(request->owner->wake_, 1);
  }
}

bool Recording::scan(Kelvo* kelvo, int freq, const Interrupt& interrupt) {
  Request& request = requests_.emplace_back();
  request.owner = this;
  recorder_.note("MHz", freq / 1'000'000);
  recorder_.start(TRACE_TASK, TASK_TUNE, "tune");
  const bool locked = kelvo->tune_to_freq(freq, &request, on_answer) != 0;
  recorder_.stop(TRACE_TASK, TASK_TUNE, "tune");
  recorder_.note("lock", locked ? 1 : 0);
  if (!locked) {
    return true;
  }
  recorder_.start(TRACE_TASK, TASK_SCAN, "scan");
  pollfd waits[] = {{wake_, POLLIN, 0}, {interrupt.fd(), POLLIN, 0}};
  while (!request.answered && (waits[1].revents & POLLIN) == 0) {
    recorder_.note("sgnl", static_cast<int>(kelvo->fe_strength()));
    (void)poll(waits, 2, SAMPLE_INTERVAL_MS);
    eventfd_t count = 0;
    (void)eventfd_read(wake_, &count);
  }
  recorder_.stop(TRACE_TASK, TASK_SCAN, "scan");
  return request.answered;
}

bool Recording::run(int adapter, const std::vector<int>& freqs, const Interrupt& interrupt) {
  const Temporary_folder folder;
  const Library_listener listener(&recorder_);
  Sdbl database(folder.file("dvb.db").c_str());
  Kelvo kelvo(adapter, 0, 0, &database, true, nullptr);
  for (const int freq : freqs) {
    if (!scan(&kelvo, freq, interrupt)) {
      return false;
    }
  }
  return true;
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
  (void)check_adapter(options.adapter);
  const Interrupt interrupt;
  Trace_recorder recorder;
  bool whole = false;
  try {
    whole = Recording(&recorder).run(options.adapter, options.freqs, interrupt);
  } catch (const no_file_error& error) {
    throw Failure(fmt::format("cannot make a database for the scan: {}", error.what()));
  }
  std::vector<unsigned> words = recorder.words();
  (void)write_trace({options.out, format, title_of(options.freqs)}, &words, [] { return false; });
  console::say(clean_text(
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
  add_freqs_option(command, &options->freqs)->required();
  command->footer(
      "Tuning, scanning, filters, sections and merges, as they happen in this program. The channels are not kept.\n"
      "\n"
      "Example:\n"
      "  kelvo trace record scan.svg --freq 506000000");
  command->callback([options, exit_code] { *exit_code = record(*options); });
}
