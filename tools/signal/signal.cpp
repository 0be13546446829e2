// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/frequency.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/output_file.h"
#include "tools/cli/progress_lines.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/temporary_folder.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/find_channel.h"
#include "tools/database/open_database.h"
#include "tools/engine/device.h"
#include "tools/engine/tuning_text.h"
#include "tools/signal/meters.h"
#include "tools/signal/signal_log.h"
#include "tools/signal/signal_plot.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int DRAW_INTERVAL_MS = 250;
constexpr std::chrono::seconds SAMPLE_INTERVAL{1};
constexpr std::chrono::seconds RETRY_INTERVAL{1};  // after a tuning that found nothing
constexpr std::chrono::milliseconds CANCEL_INTERVAL{50};

struct Signal_options {
  std::string channel;
  std::optional<int> freq;
  int adapter = 0;
  Receiver_options receiver;
  std::optional<std::string> time;
  bool json = false;
  std::string log;
  std::string plot;
  std::string from;
  std::string db;
};

// Tunes on a thread of its own, again and again until there is a lock, so that the readings can be watched meanwhile:
// whoever turns an aerial wants to see what happens before the lock. From then on the device holds on by itself.
class Tuning_thread {
 public:
  Tuning_thread(Tuner* tuner, int freq) : tuner_(*tuner), thread_([this, freq] { run(freq); }) {}
  ~Tuning_thread() {
    {
      std::unique_lock lock(mutex_);
      stopped_ = true;
      changed_.notify_all();
      // Again and again, since a tuning may begin just behind a call.
      while (!changed_.wait_for(lock, CANCEL_INTERVAL, [this] { return ended_; })) {
        tuner_.cancel_tuning();
      }
    }
    thread_.join();
  }
  Tuning_thread(const Tuning_thread&) = delete;
  Tuning_thread& operator=(const Tuning_thread&) = delete;

  // How often a tuning has ended.
  int tunings() const { return tunings_; }

 private:
  void run(int freq) {
    Tuning_request request;
    request.freq = freq;
    std::unique_lock lock(mutex_);
    while (!stopped_) {
      lock.unlock();
      const bool locked = tuner_.tune(request) != 0 || tuner_.last_tuning().outcome == TUNING_NO_STREAM;
      lock.lock();
      ++tunings_;
      if (locked) {
        break;
      }
      (void)changed_.wait_for(lock, RETRY_INTERVAL, [this] { return stopped_; });
    }
    ended_ = true;
    changed_.notify_all();
  }

  Tuner& tuner_;
  std::atomic<int> tunings_{0};
  std::mutex mutex_;  // guards the next two
  std::condition_variable changed_;
  bool stopped_ = false;
  bool ended_ = false;
  std::thread thread_;  // last: it uses what stands before it
};

int64_t now_ms() {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

bool is_locked(const Signal_readings& readings) {
  return (readings.status & FE_HAS_LOCK) != 0;
}

std::string tuning_text(const Tuning_result& tuning) {
  if (tuning.outcome != TUNING_LOCKED) {
    return no_lock_text(tuning);
  }
  return fmt::format("{}, {}{}", locked_text(tuning), system_text(tuning),
                     tuning.lock_ms >= 0 ? fmt::format(", in {} ms", tuning.lock_ms) : "");
}

nlohmann::ordered_json to_json(const Signal_value& value) {
  if (value.scale == SCALE_ABSENT) {
    return nullptr;
  }
  return {{"value", value.value}, {"unit", scale_word(value.scale)}};
}

nlohmann::ordered_json to_json(const std::vector<Signal_value>& layers) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const Signal_value& layer : layers) {
    out.push_back(to_json(layer));
  }
  return out;
}

std::string json_line(const Signal_sample& sample) {
  const Signal_readings& readings = sample.readings;
  nlohmann::ordered_json out;
  out["time"] = utc_text(sample.time_ms);
  out["freq_hz"] = sample.freq;
  out["system"] = sample.system.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(sample.system);
  out["status"] = readings.status;
  out["locked"] = is_locked(readings);
  out["strength"] = to_json(readings.strength);
  out["snr"] = to_json(readings.snr);
  out["pre_ber"] = to_json(readings.pre_ber);
  out["post_ber"] = to_json(readings.post_ber);
  out["block_errors"] = to_json(readings.block_errors);
  if (!readings.strength_layers.empty()) {
    out["strength_layers"] = to_json(readings.strength_layers);
  }
  if (!readings.snr_layers.empty()) {
    out["snr_layers"] = to_json(readings.snr_layers);
  }
  out["age_ms"] = readings.age_ms;
  return out.dump();
}

std::string title_of(int freq, const std::string& name) {
  return name.empty() ? mhz(freq) : fmt::format("{}, {}", name, mhz(freq));
}

class Measurement {
 public:
  Measurement(const Signal_options& options, std::string title, int freq)
      : options_(options),
        title_(std::move(title)),
        freq_(freq),
        live_(!options.json && console::is_terminal() && isatty(STDOUT_FILENO) == 1) {
    if (!options.log.empty()) {
      log_ = std::make_unique<Signal_log>(options.log);
    }
  }

  // Until an interrupt, or for so many seconds (0: without end). True when there was a lock.
  bool run(Tuner* tuner, const Interrupt& interrupt, int seconds);
  const std::vector<Signal_sample>& samples() const { return samples_; }
  // How the last tuning ended.
  const Tuning_result& tuning() const { return tuning_; }

 private:
  void say(const std::string& text) const;
  void look(const Tuner& tuner, const Tuning_thread& thread);
  void take_sample(Tuner* tuner);
  void draw(const Tuner& tuner);

  const Signal_options& options_;
  std::string title_;
  int freq_;
  bool live_;
  std::unique_ptr<Signal_log> log_;
  Meters meters_;
  Progress_lines lines_;
  std::vector<Signal_sample> samples_;  // for a picture only
  int tunings_ = 0;
  Tuning_result tuning_;
  bool was_locked_ = false;
};

// A line goes out at once: a reader behind a pipe waits for it.
void Measurement::say(const std::string& text) const {
  console::print(options_.json ? text + "\n" : fmt::format("{} {}\n", local_time(time(nullptr), "%H:%M:%S"), text),
                 "the readings");
  console::finish_printing("the readings");
}

void Measurement::look(const Tuner& tuner, const Tuning_thread& thread) {
  if (const Frontend_state state = tuner.frontend_state(); state.error != 0 || state.firmware_missing) {
    lines_.clear();
    check_frontend(options_.adapter, state);
  }
  if (const int tunings = thread.tunings(); tunings != tunings_) {
    tunings_ = tunings;
    const Tuning_result before = tuning_;
    tuning_ = tuner.last_tuning();
    was_locked_ = was_locked_ || tuning_.outcome == TUNING_LOCKED || tuning_.outcome == TUNING_NO_STREAM;
    // Said once and not at each of many tries.
    if (!live_ && !options_.json && (tunings == 1 || tuning_text(before) != tuning_text(tuning_))) {
      say(tuning_text(tuning_));
    }
  }
}

void Measurement::take_sample(Tuner* tuner) {
  if (options_.receiver.profile == "box") {
    (void)tuner->fe_snr();  // there nothing else reads it
  }
  Signal_sample sample{now_ms(), freq_, "", tuner->signal()};
  was_locked_ = was_locked_ || is_locked(sample.readings);
  if (is_locked(sample.readings) && tuning_.outcome == TUNING_LOCKED) {
    sample.system = system_text(tuning_);
  }
  meters_.add(sample.readings);
  if (log_) {
    log_->add(sample);
  }
  if (options_.json) {
    say(json_line(sample));
  } else if (!live_) {
    say(readings_line(sample.readings));
  }
  if (!options_.plot.empty()) {
    samples_.push_back(std::move(sample));
  }
}

void Measurement::draw(const Tuner& tuner) {
  if (!live_) {
    return;
  }
  std::vector<std::string> lines{
      fmt::format("{}  {}", title_, tunings_ == 0 ? "tuning" : tuning_text(tuning_)),
  };
  for (std::string& line : meters_.lines(tuner.signal(), console::width())) {
    lines.push_back(std::move(line));
  }
  lines_.draw(lines);
}

bool Measurement::run(Tuner* tuner, const Interrupt& interrupt, int seconds) {
  const Tuning_thread thread(tuner, freq_);
  const Clock::time_point begun = Clock::now();
  Clock::time_point next = begun + SAMPLE_INTERVAL;
  pollfd wait{interrupt.fd(), POLLIN, 0};
  while (seconds == 0 || Clock::now() - begun < std::chrono::seconds(seconds)) {
    draw(*tuner);
    if (poll(&wait, 1, DRAW_INTERVAL_MS) > 0) {
      break;
    }
    look(*tuner, thread);
    if (Clock::now() >= next) {
      // Not from the moment of the last one, so that lines do not drift; but after a stop none is made up for.
      next = std::max(next + SAMPLE_INTERVAL, Clock::now());
      take_sample(tuner);
    }
  }
  return was_locked_;
}

void write_picture(const std::string& file, const std::vector<Signal_sample>& samples, const std::string& title) {
  Output_file out(file);
  out.write(signal_picture(samples, title));
  out.finish();
  if (file != "-") {
    console::say(
        clean_text(fmt::format("kelvo: {}: {} sample{}", file, samples.size(), samples.size() == 1 ? "" : "s")));
  }
}

void plot_log(const Signal_options& options) {
  const std::vector<Signal_sample> samples = read_signal_log(options.from);
  if (samples.empty()) {
    throw Failure(options.from + ": has no samples");
  }
  const bool one = std::all_of(samples.begin(), samples.end(),
                               [&](const Signal_sample& sample) { return sample.freq == samples.front().freq; });
  write_picture(options.plot, samples, one ? mhz(samples.front().freq) : "Several frequencies");
}

int measure(const Signal_options& options) {
  const int seconds = options.time ? parse_duration(*options.time, "--for") : 0;
  const Receiver_profile profile = profile_of(options.receiver);
  int freq = options.freq.value_or(0);
  std::string name;
  std::string db;
  if (!options.freq) {
    db = options.db.empty() ? default_database() : options.db;
    check_database_name(db);
    const Service service = find_channel(Channel_db(db).services(false), options.channel, "channel");
    freq = service.freq;
    name = service.name;
  }
  const Frontend_info frontend = check_adapter(options.adapter, profile);
  Measurement measurement(options, title_of(freq, name), freq);
  // Signals are blocked before the library starts threads, and it is silent before its first object and until its last
  // is gone.
  const Interrupt interrupt;
  const console::Quiet_library quiet(-1);
  // A channel's system and pipe stand in its database; a bare frequency leaves no trace.
  std::optional<Temporary_folder> folder;
  if (options.freq) {
    db = folder.emplace().file("dvb.db");
  } else {
    (void)check_database(db);
  }
  const std::unique_ptr<Sdbl> database = open_database(db, !options.freq);
  bool locked = false;
  {
    Tuner tuner(frontend.path.c_str(), database.get(), 0, 0, profile);
    check_frontend(options.adapter, tuner.frontend_state());
    locked = measurement.run(&tuner, interrupt, seconds);
  }
  if (!options.plot.empty() && !measurement.samples().empty()) {
    write_picture(options.plot, measurement.samples(), title_of(freq, name));
  }
  if (!locked) {
    throw Failure(fmt::format("{}: {}", mhz(freq), no_lock_text(measurement.tuning())));
  }
  return EXIT_OK;
}

int signal_command(const Signal_options& options) {
  if (!options.from.empty()) {
    if (options.plot.empty()) {
      throw Failure("--from: says what to draw and not where to; give --plot, too", EXIT_USAGE);
    }
    plot_log(options);
    return EXIT_OK;
  }
  if (options.plot == "-") {
    throw Failure("--plot -: only with --from; the readings go to standard output", EXIT_USAGE);
  }
  if (options.channel.empty() && !options.freq) {
    throw Failure("signal: of what? give a channel or --freq (see 'kelvo signal --help')", EXIT_USAGE);
  }
  return measure(options);
}

}  // namespace

void add_signal(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("signal", "Show how good a signal is, live");
  const auto options = std::make_shared<Signal_options>();
  CLI::Option* channel = command->add_option(
      "CHANNEL", options->channel,
      "Channel whose multiplex is received: number, name or part of it, or # and the row number of the database");
  CLI::Option* freq =
      command->add_option("--freq", options->freq, "Centre frequency in Hz, or as 474M, instead of a channel")
          ->type_name("HZ")
          ->transform(hz_text)
          ->excludes(channel);
  CLI::Option* adapter = command->add_option("--adapter", options->adapter, "DVB adapter, 0 to 3; default: 0")
                             ->type_name("N")
                             ->check(CLI::Range(0, 3));
  add_receiver_options(command, &options->receiver);
  CLI::Option* time = command->add_option("--for", options->time, "End after so long: 90s, 10m, 1h; default: at Ctrl-C")
                          ->type_name("TIME");
  CLI::Option* json = command->add_flag("--json", options->json, "An object a second, each on a line, for programs");
  CLI::Option* log =
      command->add_option("--log", options->log, "Add a line a second to this file of comma separated values")
          ->type_name("FILE");
  command->add_option("--plot", options->plot, "Draw what was measured, at the end; - for standard output")
      ->type_name("SVG");
  command->add_option("--from", options->from, "Measure nothing: draw this file, made with --log")
      ->type_name("FILE")
      ->excludes(channel)
      ->excludes(freq)
      ->excludes(adapter)
      ->excludes(time)
      ->excludes(json)
      ->excludes(log);
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "Meters on a terminal, elsewhere a line a second. A reading that the device does not have is '-'. Without a\n"
      "lock it is tried again and again. Exit code: 0 there was a lock, 1 there was none or failed, 2 wrong arguments.\n"
      "\n"
      "Examples:\n"
      "  kelvo signal 1\n"
      "  kelvo signal --freq 506000000 --for 1h --log evening.csv\n"
      "  kelvo signal --from evening.csv --plot evening.svg");
  command->callback([options, exit_code] { *exit_code = signal_command(*options); });
}
