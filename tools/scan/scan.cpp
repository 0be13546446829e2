// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/bands.h"
#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/open_database.h"
#include "tools/engine/engine.h"
#include "tools/scan/scan_job.h"
#include "tools/scan/scan_report.h"

namespace {

constexpr int DRAW_INTERVAL_MS = 250;

struct Scan_options {
  std::vector<int> adapters;
  std::vector<int> freqs;
  std::string band;
  std::string db;
  int verbosity = 0;  // how often -v was given
};

class Scan {
 public:
  Scan(const std::vector<int>& freqs, const std::string& db, int verbosity)
      : db_(db),
        freqs_(freqs),
        quiet_(verbosity),
        progress_(static_cast<int>(freqs.size()), verbosity < 0 && console::is_terminal()) {}

  int run(const std::map<int, Frontend_info>& frontends, bool exists);

 private:
  void work();
  void handle(const Multiplex_result& result);
  void draw();

  std::string db_;
  std::vector<int> freqs_;
  Interrupt interrupt_;
  console::Quiet_library quiet_;
  Progress progress_;
  std::unique_ptr<Channel_db> reader_;
  std::unique_ptr<Sdbl> database_;
  Scan_job job_;
  std::unique_ptr<Engine> engine_;
  std::vector<Multiplex_line> lines_;
  int services_ = 0;
  bool interrupted_ = false;
};

int Scan::run(const std::map<int, Frontend_info>& frontends, bool exists) {
  // Read before the library has the file, so that the report compares with what the reader knew.
  const std::vector<Service> before = exists ? Channel_db(db_).services(false) : std::vector<Service>();
  database_ = open_database(db_, exists);
  // A read-only connection of its own, so that reporting can never change what the scan stores.
  reader_ = std::make_unique<Channel_db>(db_);
  engine_ = std::make_unique<Engine>(frontends, requests_for(freqs_), database_.get());
  engine_->start([this](Adapter& adapter, const Tuning_request& request) { job_.work(adapter, request); });
  work();
  progress_.clear();
  if (interrupted_) {
    engine_->join();  // A merge that was under way counts.
  }
  for (const Tuning_request& request : engine_->left()) {
    lines_.push_back({{request.freq, -1, interrupted_ ? Outcome::NOT_SCANNED : Outcome::OUT_OF_RANGE}, 0});
  }
  print_report(stdout, lines_, before, reader_->services(false));
  // Only remembered here: that a database could not be written is worse news than that the report could not, and comes
  // first.
  const bool printed = fflush(stdout) == 0;
  // Adapters may still be writing when all results are in; only behind this is it known whether everything could be
  // kept.
  engine_.reset();
  check_written(database_.get(), db_);
  if (!printed) {
    throw Failure("cannot write the report: " + std::string(strerror(errno)));
  }
  if (interrupted_) {
    console::say("kelvo: interrupted; what was found is kept");
    return EXIT_INTERRUPTED;
  }
  return EXIT_OK;
}

void Scan::work() {
  pollfd waits[] = {{engine_->fd(), POLLIN, 0}, {interrupt_.fd(), POLLIN, 0}};
  for (bool ended = false; !ended;) {
    draw();
    (void)poll(waits, 2, progress_.on() ? DRAW_INTERVAL_MS : -1);
    engine_->calm();
    ended = engine_->ended();  // looked at first, so that no result comes behind it
    for (const Multiplex_result& result : job_.take_results()) {
      handle(result);
    }
    if ((waits[1].revents & POLLIN) != 0) {
      interrupted_ = true;
      // One interrupt is enough: the signal stays readable and would otherwise make this loop spin until the merges
      // have ended.
      waits[1].fd = -1;
      engine_->stop();
    }
    if (!interrupted_ && write_failed(database_.get())) {
      engine_->close();  // Nothing more can be kept.
    }
  }
}

void Scan::handle(const Multiplex_result& result) {
  Multiplex_line line{result, 0};
  if (result.outcome == Outcome::LOCKED || result.outcome == Outcome::TIMED_OUT) {
    // Counted right behind the merge of this multiplex; what a later scan does to the rows does not belong to this
    // line.
    line.services = reader_->services_found(result.freq);
    services_ += line.services;
  }
  lines_.push_back(line);
  progress_.step();
  if (!progress_.on()) {
    console::say(fmt::format("[{}/{}] {}: {}", lines_.size(), freqs_.size(), mhz(result.freq), multiplex_text(line)));
  }
}

void Scan::draw() {
  if (!progress_.on()) {
    return;
  }
  const std::vector<Engine::Under_way> all = engine_->under_way();
  if (all.empty()) {
    return;
  }
  std::string freqs;
  float strength = 0;
  for (const Engine::Under_way& one : all) {
    freqs += (freqs.empty() ? "" : ", ") + mhz(one.freq);
    // With several adapters there is one number; the best tells whether aerial and cable are right.
    strength = std::max(strength, one.strength);
  }
  progress_.draw(fmt::format("{}  signal {:.0f} %  {} services", freqs, std::min(strength, 100.0F), services_));
}

int scan(const Scan_options& options) {
  std::vector<int> freqs = options.freqs;
  if (freqs.empty()) {
    freqs = band_frequencies(options.band.empty() ? "all" : options.band);
  }
  std::set<int> seen;
  freqs.erase(std::remove_if(freqs.begin(), freqs.end(), [&seen](int freq) { return !seen.insert(freq).second; }),
              freqs.end());
  std::string db = options.db;
  if (!db.empty()) {
    check_database_name(db);
  }
  // Every adapter is opened before anything is made or changed, so that a wrong number costs nothing.
  std::map<int, Frontend_info> frontends;
  for (const int number : options.adapters.empty() ? std::vector<int>{0} : options.adapters) {
    if (!frontends.contains(number)) {
      frontends[number] = check_adapter(number);
    }
  }
  if (db.empty()) {
    db = default_database();
    check_database_name(db);
    make_folders_for(db);
  }
  const bool exists = check_database(db);
  return Scan(freqs, db, options.verbosity - 1).run(frontends, exists);
}

}  // namespace

void add_scan(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("scan", "Find the services of one or more frequencies");
  const auto options = std::make_shared<Scan_options>();
  add_adapters_option(command, &options->adapters,
                      "DVB adapter, 0 to 3; several share the frequencies and work side by side; default: 0");
  CLI::Option* freq = add_freqs_option(command, &options->freqs);
  command
      ->add_option("--band", options->band,
                   "vhf (177.5 to 226.5 MHz in 7 MHz steps), uhf (474 to 858 MHz in 8 MHz steps) or all; default: all")
      ->check(CLI::IsMember({"uhf", "vhf", "all"}))
      ->excludes(freq);
  command->add_option("--db", options->db, "Channel database, made when missing; default: $XDG_DATA_HOME/kelvo/dvb.db")
      ->type_name("FILE");
  command->add_flag("-v,--verbose", options->verbosity,
                    "Show what the library says: errors; repeated, up to five times, warnings, progress and traces");
  command->footer(
      "Ends with a line a multiplex and a table of the services that are new, back or lost. Ctrl-C keeps what\n"
      "was found. A frequency without a signal takes 0.15 s, a multiplex a few seconds, 40 at most.\n"
      "Exit code: 0 done, 1 failed, 2 wrong arguments, 130 interrupted.\n"
      "\n"
      "Examples:\n"
      "  kelvo scan\n"
      "  kelvo scan --freq 506000000 --freq 514000000\n"
      "  kelvo scan --adapter 0 --adapter 1 --band uhf --db living-room.db");
  command->callback([options, exit_code] { *exit_code = scan(*options); });
}
