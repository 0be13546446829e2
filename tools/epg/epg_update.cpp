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
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"
#include "tools/database/open_database.h"
#include "tools/database/repair.h"
#include "tools/engine/tuning_text.h"
#include "tools/epg/guide_job.h"
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
  std::optional<std::string> time;
  Receiver_options receiver;
  std::string db;
};

// "at table 0x50 of 0x51"; what is not announced yet is left out. Of a guide that is collected whole how much of it has
// come.
std::string place_of(const EIT_progress& service) {
  if (service.whole && service.sections != 0) {
    return fmt::format("{} of {} sections", service.sections, service.sections_of);
  }
  if (service.table == 0) {
    return "not begun";
  }
  const std::string of = service.last_table >= service.table ? fmt::format(" of 0x{:02X}", service.last_table) : "";
  return fmt::format("at table 0x{:02X}{}", service.table, of);
}

// What there is of the guide of a service; of an unfinished one also why.
std::string guide_text_of(const Guide_progress& progress, const Guide_multiplex& multiplex) {
  switch (progress.state) {
    case Guide_state::COMPLETE:
      return progress.service.given_up ? fmt::format("{}, the rest is not sent", place_of(progress.service))
                                       : "complete";
    case Guide_state::NO_SCHEDULE:
      return progress.service.events > 0 ? "no schedule sent, now and next only" : "nothing sent";
    case Guide_state::COLLECTING:
      break;
  }
  return fmt::format("incomplete, {}: {}", place_of(progress.service), outcome_text(multiplex));
}

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

std::string seconds_text(int ms) {
  if (ms < 1000) {
    return fmt::format("{} ms", ms);
  }
  return ms < 10000 ? fmt::format("{:.1f} s", ms / 1000.0) : fmt::format("{:.0f} s", ms / 1000.0);
}

// How long a guide that is collected whole took, and how often it is sent; empty for others, and where nothing came.
std::string carousel_text(const Guide_multiplex& multiplex) {
  int complete_ms = 0;
  int carousel_ms = 0;
  size_t not_complete = 0;
  for (const Guide_progress& progress : multiplex.services) {
    const EIT_progress& service = progress.service;
    complete_ms = std::max(complete_ms, service.complete_ms);
    carousel_ms = std::max(carousel_ms, service.carousel_ms);
    not_complete += service.sections != 0 && service.complete_ms == 0 && service.last_table != 0 ? 1 : 0;
  }
  std::string text;
  if (complete_ms != 0) {
    text = (not_complete == 0 ? "complete after " : "what is complete was after ") + seconds_text(complete_ms);
  }
  if (carousel_ms != 0) {
    text += fmt::format("{}the slowest table came every {}", text.empty() ? "" : "; ", seconds_text(carousel_ms));
  }
  return text;
}

class Update {
 public:
  Update(std::string db, std::vector<int> freqs, int seconds)
      : db_(std::move(db)), freqs_(std::move(freqs)), seconds_(seconds), quiet_(-1) {}

  int run(const std::map<int, Frontend_info>& frontends, bool exists);

 private:
  void work();
  void look();
  void draw();
  void say_news();
  std::string name_of(int channel) const;
  void report();
  void say_clock() const;

  std::string db_;
  std::vector<int> freqs_;
  int seconds_;
  Interrupt interrupt_;
  console::Quiet_library quiet_;
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
  report();
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
    if (console::is_terminal()) {
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

std::string Update::name_of(int channel) const {
  const auto known = services_.find(channel);
  if (known == services_.end() || known->second.name.empty()) {
    return fmt::format("#{}", channel);
  }
  return known->second.name;
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
  if (console::is_terminal()) {
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
        console::say(said);
      }
    }
    if (multiplex.over() && closed_.insert(multiplex.freq).second) {
      console::say(
          fmt::format("[{}/{}] {}: {}", closed_.size(), seen_.size(), mhz(multiplex.freq), outcome_text(multiplex)));
    }
  }
}

void Update::report() {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"MULTIPLEX", RIGHT, WHOLE, 1}, {"LCN", RIGHT}, {"NAME"}, {"EVENTS", RIGHT}, {"GUIDE", LEFT, WORDS}});
  int complete = 0;
  int services = 0;
  int events = 0;
  int news = 0;
  bool any_lost = false;
  for (const Guide_multiplex& multiplex : seen_) {
    // A multiplex of which nothing came still has its line, so that the reasons are complete.
    if (multiplex.services.empty()) {
      table.add({mhz(multiplex.freq), "-", "-", "0", outcome_text(multiplex)});
    }
    for (const Guide_progress& progress : multiplex.services) {
      const auto known = services_.find(progress.service.channel);
      const int lcn = known == services_.end() ? NO_LCN : known->second.lcn;
      table.add({mhz(multiplex.freq), lcn == NO_LCN ? "-" : std::to_string(lcn), name_of(progress.service.channel),
                 std::to_string(progress.service.events), guide_text_of(progress, multiplex)});
      const auto old = before_.find(progress.service.channel);
      ++services;
      complete += progress.state != Guide_state::COLLECTING ? 1 : 0;
      events += progress.service.events;
      // Old events may have been deleted meanwhile, so there can be fewer than before.
      news += std::max(0, progress.service.events - (old == before_.end() ? 0 : old->second));
    }
  }
  table.print(stdout);
  bool any_carousel = false;
  for (const Guide_multiplex& multiplex : seen_) {
    if (const std::string carousel = carousel_text(multiplex); !carousel.empty()) {
      fmt::print("{}{}: {}\n", any_carousel ? "" : "\n", mhz(multiplex.freq), carousel);
      any_carousel = true;
    }
  }
  for (const Guide_multiplex& multiplex : seen_) {
    if (const std::string lost = lost_text(multiplex.lost); !lost.empty()) {
      fmt::print("\n{}: {}", mhz(multiplex.freq), lost);
      any_lost = true;
    }
  }
  fmt::print("{}{} of {} services done, {} events, {} of them new.\n", any_lost ? "\n\n" : "\n", complete, services,
             events, news);
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
    const std::vector<Service> services = Channel_db(db).services(false);
    for (const Service& service : services) {
      // Of a multiplex on two frequencies, the worse one has only lost services.
      if (service.scan_state != 0 || service.row_status == 2) {
        freqs.insert(service.freq);
      }
    }
    if (freqs.empty()) {
      for (const Service& service : services) {
        freqs.insert(service.freq);
      }
    }
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
  return Update(db, {freqs.begin(), freqs.end()}, seconds).run(frontends, exists);
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
