// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/progress.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/cli/verbosity_options.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/open_database.h"
#include "tools/database/repair.h"
#include "tools/engine/tuning_text.h"
#include "tools/scan/scan_json.h"
#include "tools/scan/scan_report.h"
#include "tools/scan/scan_run.h"
#include "tools/scan/time_left.h"
#include "tools/scan/what_to_scan.h"

namespace {

constexpr int DRAW_INTERVAL_MS = 250;

struct Scan_options {
  std::vector<int> adapters;
  Scan_choice choice;
  bool follow = false;
  bool json = false;
  bool wide = false;
  std::optional<std::string> time;
  Receiver_options receiver;
  std::string db;
  int verbosity = 0;  // how often -v was given
};

class Scan {
 public:
  // `seconds` for everything, where that is limited.
  Scan(const std::vector<Tuning_request>& requests, std::optional<int> seconds, const std::string& db, int verbosity,
       bool json, bool wide)
      : json_(json),
        wide_(wide),
        db_(db),
        requests_(requests),
        seconds_(seconds),
        quiet_(verbosity),
        progress_(static_cast<int>(requests.size()), verbosity < 0 && console::shows_progress()) {}

  int run(const std::map<int, Frontend_info>& frontends, bool exists, bool follow);

 private:
  using Clock = Adapter::Clock;

  void work();
  int wait_ms() const;
  void handle(const Multiplex_line& line);
  void draw();
  Scan_stop stop() const {
    return interrupted_ ? Scan_stop::INTERRUPTED : time_up_ ? Scan_stop::TIME_UP : Scan_stop::NONE;
  }
  int end_code() const;

  bool json_;
  bool wide_;
  std::string db_;
  std::vector<Tuning_request> requests_;
  std::optional<int> seconds_;
  Interrupt interrupt_;
  console::Quiet_library quiet_;
  Progress progress_;
  Time_left time_left_;
  std::unique_ptr<Sdbl> database_;
  std::unique_ptr<Channel_db> reader_;  // closed before the database, whose last user ends its log
  std::unique_ptr<Scan_run> run_;
  std::optional<Clock::time_point> end_;
  bool interrupted_ = false;
  bool time_up_ = false;
  size_t said_ = 0;  // frequencies
};

int Scan::run(const std::map<int, Frontend_info>& frontends, bool exists, bool follow) {
  // Read before the library has the file, so that the report compares with what the reader knew.
  std::vector<Service> before;
  std::vector<Tuning_request> pipes;
  if (exists) {
    const Channel_db stored(db_);
    before = stored.services(false);
    pipes = stored.stored_pipes();
  }
  database_ = open_database(db_, exists);
  // A read-only connection of its own, so that reporting can never change what the scan stores.
  reader_ = std::make_unique<Channel_db>(db_);
  try {
    run_ = std::make_unique<Scan_run>(frontends, requests_, database_.get(), reader_.get());
  } catch (const Failure&) {
    reader_.reset();
    database_.reset();
    if (!exists) {
      remove_database(db_);  // only here is it known that another program has the frontend
    }
    throw;
  }
  if (seconds_) {
    end_ = Clock::now() + std::chrono::seconds(*seconds_);
  }
  run_->start(pipes, follow);
  work();
  progress_.clear();
  const std::vector<Service> after = run_->conclude(before, stop());
  if (json_) {
    fmt::print("{}\n", scan_json(run_->lines(), before, reader_->services(true)).dump(2));
  } else {
    print_report(stdout, run_->lines(), before, after, wide_);
  }
  // Only remembered here: that a database could not be written is worse news than that the report could not, and comes
  // first.
  const bool printed = fflush(stdout) == 0;
  // Adapters may still be writing when all results are in; only behind this is it known whether everything could be
  // kept.
  run_->release();
  check_written(database_.get(), db_);
  if (run_->services() > 0) {
    keep_good_copy(database_.get(), db_);
  }
  if (!printed) {
    throw Failure("cannot write the report: " + std::string(strerror(errno)));
  }
  return end_code();
}

int Scan::end_code() const {
  if (interrupted_) {
    console::say("kelvo: interrupted; what was found is kept");
    return EXIT_INTERRUPTED;
  }
  for (const int adapter : run_->gone()) {
    console::say(fmt::format("kelvo: adapter {} is gone; what was found is kept", adapter));
  }
  if (!run_->gone().empty()) {
    return EXIT_FAILED;
  }
  const std::vector<Multiplex_line>& lines = run_->lines();
  const auto left = std::count_if(lines.begin(), lines.end(),
                                  [](const Multiplex_line& line) { return line.result.outcome == Outcome::TIME_UP; });
  const auto answered = std::count_if(lines.begin(), lines.end(), [](const Multiplex_line& line) {
    return line.result.outcome == Outcome::LOCKED || line.result.outcome == Outcome::TIMED_OUT;
  });
  // A multiplex on every frequency and no services: then nothing is all there is.
  const bool found = run_->services() > 0 || answered == static_cast<int>(lines.size());
  if (left == 0) {
    if (!found) {
      console::say("kelvo: no services found");
    }
    return found ? EXIT_OK : EXIT_FAILED;
  }
  console::say(fmt::format("kelvo: the time was up before {} of {} frequencies were scanned; {}", left, lines.size(),
                           found ? "what was found is kept" : "nothing was found"));
  return found ? EXIT_OK : EXIT_FAILED;
}

// Until when there is nothing to do but to wait for something to happen; -1: for ever.
int Scan::wait_ms() const {
  if (interrupted_ || time_up_) {
    return Engine::STOP_INTERVAL_MS;
  }
  if (progress_.on()) {
    return DRAW_INTERVAL_MS;
  }
  if (!end_) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end_ - Clock::now());
  // A long time is waited for in parts, because poll() takes an int.
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3'600'000));
}

void Scan::work() {
  pollfd waits[] = {{run_->engine().fd(), POLLIN, 0}, {interrupt_.fd(), POLLIN, 0}};
  for (bool ended = false; !ended;) {
    draw();
    (void)poll(waits, 2, wait_ms());
    run_->engine().calm();
    ended = run_->engine().ended();  // looked at first, so that no result comes behind it
    if ((waits[1].revents & POLLIN) != 0) {
      interrupted_ = true;
      // One interrupt is enough: the signal stays readable and would otherwise make this loop spin until the merges
      // have ended.
      waits[1].fd = -1;
    }
    time_up_ = time_up_ || (!ended && end_ && Clock::now() >= *end_);
    if (interrupted_ || time_up_) {
      run_->engine().stop();
    }
    for (const Multiplex_line& line : run_->take_lines(stop())) {
      handle(line);
    }
    if (!interrupted_ && write_failed(database_.get())) {
      run_->engine().close();  // Nothing more can be kept.
    }
  }
}

void Scan::handle(const Multiplex_line& line) {
  time_left_.done(line.services > 0, line.result.seconds);
  progress_.set_total(static_cast<int>(run_->total()));
  progress_.step();
  if (!progress_.on()) {
    console::report(fmt::format("[{}/{}] {}: {}", ++said_, run_->total(), mhz(line.result.freq), multiplex_text(line)));
  }
}

void Scan::draw() {
  if (!progress_.on()) {
    return;
  }
  const std::vector<Engine::Under_way> all = run_->engine().under_way();
  if (all.empty()) {
    return;
  }
  std::string freqs;
  Signal_value strength;
  std::vector<double> seconds;
  for (const Engine::Under_way& one : all) {
    freqs += (freqs.empty() ? "" : ", ") + mhz(one.freq);
    // With several adapters there is one number; the best tells whether aerial and cable are right.
    if (strength.scale == SCALE_ABSENT || (one.strength.scale != SCALE_ABSENT && one.strength.value > strength.value)) {
      strength = one.strength;
    }
    seconds.push_back(one.seconds);
  }
  std::optional<double> left = time_left_.left(run_->engine().waiting(), seconds, run_->engine().adapters().size());
  if (left && end_) {
    left = std::min(*left, std::chrono::duration<double>(*end_ - Clock::now()).count());
  }
  progress_.draw(fmt::format("{}  signal {}  {} services", freqs, strength_text(strength), run_->services()), left);
}

int scan(const Scan_options& options) {
  const std::optional<int> seconds =
      options.time ? std::optional(parse_duration(*options.time, "--for")) : std::nullopt;
  std::string db = options.db;
  if (!db.empty()) {
    check_database_name(db);
  }
  Receiver_profile profile = profile_of(options.receiver);
  profile.country = options.choice.country.value_or("");  // of the channels and of the local time
  // Every adapter is looked at before anything is made or changed, so that a wrong number costs nothing.
  std::map<int, Frontend_info> frontends;
  for (const int number : options.adapters.empty() ? std::vector<int>{0} : options.adapters) {
    if (!frontends.contains(number)) {
      frontends[number] = check_adapter(number, profile);
    }
  }
  const What_to_scan what = what_to_scan(options.choice, [&frontends] {
    return std::any_of(frontends.begin(), frontends.end(), [](const auto& one) { return one.second.has(SYS_DVBT2); });
  });
  for (auto& [number, frontend] : frontends) {
    frontend.profile.offset_hz = what.offset_hz.value_or(frontend.profile.offset_hz);
  }
  if (db.empty()) {
    db = default_database();
    check_database_name(db);
    make_folders_for(db);
  }
  const bool exists = check_database(db);
  for (const std::string& line : what.lines) {
    console::report("kelvo: " + line);
  }
  return Scan(what.requests, seconds, db, options.verbosity - 1, options.json, options.wide)
      .run(frontends, exists, options.follow);
}

}  // namespace

void add_scan(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("scan", "Find the services of one or more frequencies");
  const auto options = std::make_shared<Scan_options>();
  add_adapters_option(command, &options->adapters,
                      "DVB adapter, 0 to 3; several share the frequencies and work side by side; default: 0");
  CLI::Option* freq = add_freqs_option(command, &options->choice.freqs);
  CLI::Option* band =
      command
          ->add_option("--band", options->choice.band,
                       "vhf (177.5 to 226.5 MHz in 7 MHz steps), uhf (474 to 858 MHz in 8 MHz steps) or all")
          ->check(CLI::IsMember({"uhf", "vhf", "all"}))
          ->excludes(freq);
  CLI::Option* country =
      command
          ->add_option("--country", options->choice.country,
                       "The channels of a country, by its two letters: DE, GB, ...; default: that of the locale")
          ->type_name("CC")
          ->excludes(freq)
          ->excludes(band);
  command
      ->add_option("--table", options->choice.table,
                   "The multiplexes of an initial scan file, or of one of the package dtv-scan-tables: de-Berlin")
      ->type_name("FILE|NAME")
      ->excludes(freq)
      ->excludes(band)
      ->excludes(country);
  command->add_flag("--follow", options->follow, "Scan as well what the multiplexes found announce");
  command->add_flag("--json", options->json, "The report as one object, for programs: multiplexes, changes, channels");
  command->add_flag("--wide", options->wide,
                    "A line for each frequency, and all columns in full, however narrow the terminal is");
  command->add_option("--for", options->time, "At most so long in all: 90s, 10m, 1h; what was found is kept")
      ->type_name("TIME");
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  add_charset_option(command, &options->receiver);
  add_other_option(command, &options->receiver);
  command->add_option("--db", options->db, "Channel database, made when missing; default: $XDG_DATA_HOME/kelvo/dvb.db")
      ->type_name("FILE");
  add_quiet_option(command);
  add_verbose_option(command, &options->verbosity);
  command->footer(
      "Ends with a line a multiplex and a table of the services that are new, back, lost or changed. Ctrl-C keeps\n"
      "what was found. A frequency without a signal takes 1.2 to 4 s, a multiplex a few seconds, 40 at most. What\n"
      "several frequencies bring is kept where it is received best.\n"
      "Exit code: 0 something was found, or there was a multiplex on every frequency; 1 nothing was found, or failed;\n"
      "2 wrong arguments; 130 interrupted.\n"
      "\n"
      "Examples:\n"
      "  kelvo scan\n"
      "  kelvo scan --country AT --follow\n"
      "  kelvo scan --table de-Berlin --for 2m\n"
      "  kelvo scan --freq 506000000 --freq 514000000\n"
      "  kelvo scan --adapter 0 --adapter 1 --band uhf --db living-room.db");
  command->callback([options, exit_code] { *exit_code = scan(*options); });
}
