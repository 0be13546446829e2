// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <base/ids.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/bands.h"
#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/local_time.h"
#include "tools/cli/progress_lines.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/cli/verbosity_options.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"
#include "tools/database/open_database.h"
#include "tools/database/repair.h"
#include "tools/engine/tuning_text.h"
#include "tools/epg/guide_job.h"
#include "tools/epg/update_report.h"
#include "tools/watch/time_texts.h"

namespace {

// No callback says how far the tables of a guide have come, so the library is asked; more often would not be seen.
constexpr int LOOK_INTERVAL_MS = 200;
constexpr int DEFAULT_TIME_S = 600;  // for each multiplex
constexpr int BAR_WIDTH = 16;
constexpr int NARROW_BAR_WIDTH = 6;

struct Update_options {
  std::vector<int> adapters;
  std::vector<int> freqs;
  bool all = false;
  bool json = false;
  int verbosity = 0;  // how often -v was given
  std::optional<std::string> time;
  Receiver_options receiver;
  std::string db;
};

// The table reached, and the last one, in a fixed width; sections of a guide that is collected whole.
std::string table_of(const EIT_progress& service) {
  if (service.whole) {
    return fmt::format("{:4}/{:4}", service.sections, service.sections_of);
  }
  const auto number = [](int table) { return table == 0 ? std::string("   -") : fmt::format("0x{:02X}", table); };
  return number(service.table) + "/" + number(service.last_table);
}

std::string bar(const Guide_progress& progress, int width) {
  int filled = 0;
  const EIT_progress& service = progress.service;
  if (progress.state != Guide_state::COLLECTING) {
    filled = width;
  } else if (service.whole) {
    filled = width * service.sections / (std::max(service.sections, service.sections_of) + 1);
  } else if (service.last_table >= table::EIT_SCHEDULE_FIRST && service.table >= table::EIT_SCHEDULE_FIRST) {
    const int tables = service.last_table - table::EIT_SCHEDULE_FIRST + 1;
    const int reached = service.table - table::EIT_SCHEDULE_FIRST + 1;
    // Two tables more than there are, so that the bar is full only when the service is complete.
    filled = std::min(width, width * reached / (tables + 2));
  }
  return std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(width - filled), '.');
}

class Update {
 public:
  Update(std::string db, std::vector<int> freqs, int seconds, bool json, int verbosity)
      : db_(std::move(db)),
        freqs_(std::move(freqs)),
        seconds_(seconds),
        json_(json),
        quiet_(verbosity),
        draws_(verbosity < 0 && console::shows_progress()) {}

  int run(const std::map<int, Frontend_info>& frontends, bool exists);

 private:
  void work();
  void look();
  void draw();
  void say_news();
  std::string name_of(int channel) const { return channel_name(services_, channel); }
  void say_clock() const;

  std::string db_;
  std::vector<int> freqs_;
  int seconds_;
  bool json_;
  Interrupt interrupt_;
  console::Quiet_library quiet_;
  bool draws_;
  std::map<int, Service> services_;
  std::map<int, int> before_;  // events by channel
  std::unique_ptr<Sdbl> database_;
  std::unique_ptr<Channel_db> reader_;  // closed before the database, whose last user ends its log
  int channels_version_ = 0;            // of the channel file before the first adapter had it
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<Guide_job> job_;
  std::vector<Guide_multiplex> seen_;
  std::map<int, std::string> said_;  // by channel
  std::set<int> closed_;             // frequencies whose end has been said
  Progress_lines lines_;
  bool interrupted_ = false;
};

int Update::run(const std::map<int, Frontend_info>& frontends, bool exists) {
  // Counted before the library has the files, whose adapters begin to store events at once.
  before_ = Guide_db(db_).counts();
  database_ = open_database(db_, exists);
  collect_all_guides(database_.get());
  reader_ = std::make_unique<Channel_db>(db_);
  channels_version_ = reader_->version();
  try {
    engine_ = std::make_unique<Engine>(frontends, requests_for(freqs_), database_.get());
  } catch (const Failure&) {
    reader_.reset();
    database_.reset();
    if (!exists) {
      remove_database(db_);  // only here is it known that another program has the frontend
    }
    throw;
  }
  job_ = std::make_unique<Guide_job>(freqs_, seconds_, engine_.get());
  engine_->start([this](Adapter& adapter, const Tuning_request& request) { job_->work(adapter, request); });
  work();
  engine_->join();  // Each adapter ends what it is writing.
  lines_.clear();
  // What came after the last look of the loop belongs into the report.
  seen_ = job_->multiplexes();
  say_news();
  if (json_) {
    console::print(update_json(seen_, services_, before_).dump(2) + "\n", "the report");
  } else {
    print_update_report(seen_, services_, before_);
  }
  console::finish_printing("the report");
  check_written(database_.get(), db_);
  // Tuning to a multiplex scans it, too.
  if (reader_->version() != channels_version_) {
    keep_good_copy(database_.get(), db_);
  }
  say_clock();
  if (interrupted_) {
    console::say("kelvo: interrupted; what was collected is kept");
    return EXIT_INTERRUPTED;
  }
  for (const int adapter : engine_->gone()) {
    console::say(fmt::format("kelvo: adapter {} is gone; what was collected is kept", adapter));
  }
  return engine_->gone().empty() ? EXIT_OK : EXIT_FAILED;
}

void Update::work() {
  pollfd waits[] = {{engine_->fd(), POLLIN, 0}, {interrupt_.fd(), POLLIN, 0}};
  while (!engine_->ended()) {
    (void)poll(waits, 2, interrupted_ ? Engine::STOP_INTERVAL_MS : LOOK_INTERVAL_MS);
    engine_->calm();
    seen_ = job_->multiplexes();
    if (draws_) {
      draw();
    } else {
      say_news();
    }
    if ((waits[1].revents & POLLIN) != 0) {
      interrupted_ = true;
      waits[1].fd = -1;
    }
    if (interrupted_) {
      engine_->stop();
    }
    // Unlike a scan, which lets what is under way end, nothing of a guide counts that can no longer be stored.
    if (write_failed(database_.get())) {
      engine_->stop();  // Nothing more can be kept.
    }
  }
}

void Update::draw() {
  look();
  std::vector<std::string> lines;
  for (const Guide_multiplex& multiplex : seen_) {
    if (multiplex.outcome != Guide_outcome::RUNNING) {
      continue;
    }
    lines.push_back(fmt::format(
        "{}  {} of {} multiplexes done", mhz(multiplex.freq),
        std::count_if(seen_.begin(), seen_.end(), [](const Guide_multiplex& other) { return other.over(); }),
        seen_.size()));
    for (const Guide_progress& progress : multiplex.services) {
      const std::string name = name_of(progress.service.channel);
      lines.push_back(console::is_narrow()
                          ? fmt::format(" [{}] {}  {}", bar(progress, NARROW_BAR_WIDTH), name, progress.service.events)
                          : fmt::format("  [{}] {:5} events  {}  {}", bar(progress, BAR_WIDTH), progress.service.events,
                                        table_of(progress.service), name));
    }
  }
  lines_.draw(lines);
}

// The services by row; read again when a multiplex names one that is not known.
void Update::look() {
  for (const Guide_multiplex& multiplex : seen_) {
    for (const Guide_progress& progress : multiplex.services) {
      if (!services_.contains(progress.service.channel)) {
        for (const Service& service : reader_->services(false)) {
          services_[service.channel] = service;
        }
        return;
      }
    }
  }
}

void Update::say_news() {
  look();
  if (draws_) {
    return;  // The report says it.
  }
  for (const Guide_multiplex& multiplex : seen_) {
    for (const Guide_progress& progress : multiplex.services) {
      if (progress.state == Guide_state::COLLECTING) {
        continue;
      }
      // Once a service, also where its guide is sent anew and completed once more.
      std::string& said = said_[progress.service.channel];
      if (said.empty()) {
        said = fmt::format("{}: {}, {} events", name_of(progress.service.channel), guide_text_of(progress, multiplex),
                           progress.service.events);
        console::report(said);
      }
    }
    if (multiplex.over() && closed_.insert(multiplex.freq).second) {
      console::report(
          fmt::format("[{}/{}] {}: {}", closed_.size(), seen_.size(), mhz(multiplex.freq), outcome_text(multiplex)));
    }
  }
}

// Whatever became of a wrong clock, nobody should have to find it out.
void Update::say_clock() const {
  Time_texts texts;
  for (const auto& adapter : engine_->adapters()) {
    if (const std::optional<Time_news> news = adapter->clock_news()) {
      for (const std::string& text : texts.texts(*news)) {
        console::say("kelvo: " + text);
      }
    }
  }
}

int update(const Update_options& options) {
  const int given_time = options.time ? parse_duration(*options.time, "--for") : 0;
  const std::string db = options.db.empty() ? default_database() : options.db;
  check_database_name(db);
  // A set: what is named twice is collected once, and the order is that of the report.
  std::set<int> freqs(options.freqs.begin(), options.freqs.end());
  if (freqs.empty()) {
    const std::vector<int> known = multiplexes_with_guide(Channel_db(db).services(false));
    freqs.insert(known.begin(), known.end());
    if (freqs.empty()) {
      throw Failure(fmt::format("{}: no channels yet; find them with 'kelvo scan'", db));
    }
  }
  const Receiver_profile profile = profile_of(options.receiver);
  std::map<int, Frontend_info> frontends;
  for (const int number : options.adapters.empty() ? std::vector<int>{0} : options.adapters) {
    if (!frontends.contains(number)) {
      frontends[number] = check_adapter(number, profile);
    }
  }
  // Only the folders of the default: a path that somebody named is either right or a slip.
  if (options.db.empty()) {
    make_folders_for(db);
  }
  const bool exists = check_database(db);
  const int seconds = given_time > 0 ? given_time : DEFAULT_TIME_S * static_cast<int>(freqs.size());
  return Update(db, {freqs.begin(), freqs.end()}, seconds, options.json, options.verbosity - 1).run(frontends, exists);
}

}  // namespace

void add_epg_update(CLI::App& epg, int* exit_code) {
  CLI::App* command = epg.add_subcommand("update", "Collect the guide of the known multiplexes");
  const auto options = std::make_shared<Update_options>();
  add_adapters_option(command, &options->adapters,
                      "DVB adapter, 0 to 3; several share the multiplexes and work side by side; default: 0");
  CLI::Option* freq = add_freqs_option(command, &options->freqs);
  command->add_flag("--all", options->all, "All multiplexes of the channel database; the default")->excludes(freq);
  command->add_option("--for", options->time, "At most so long in all: 90s, 10m, 1h; default: 10m a multiplex")
      ->type_name("TIME");
  command->add_flag("--json", options->json, "The report as one object, for programs: multiplexes with their services");
  add_quiet_option(command);
  add_verbose_option(command, &options->verbosity);
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  add_country_option(command, &options->receiver);
  add_charset_option(command, &options->receiver);
  add_other_option(command, &options->receiver);
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "Ends when every service has all that its network announces, or when the time is up; says what is there and\n"
      "what is not. Ctrl-C keeps what was stored. Exit code: 0 ended, 1 failed, 2 wrong arguments, 130 interrupted.\n"
      "\n"
      "Examples:\n"
      "  kelvo epg update\n"
      "  kelvo epg update --freq 506000000 --for 90s");
  command->callback([&epg, options, exit_code] {
    // `kelvo epg --db X update` would otherwise collect into the default database without a word.
    for (const CLI::Option* option : epg.get_options()) {
      if (option->count() > 0) {
        throw Failure(fmt::format("{}: stands before 'update'; its options stand behind it (see 'kelvo epg update "
                                  "--help')",
                                  option->get_name()),
                      EXIT_USAGE);
      }
    }
    *exit_code = update(*options);
  });
}
