// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/language_list.h"
#include "tools/cli/local_time.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/find_channel.h"
#include "tools/database/guide_db.h"
#include "tools/epg/epg_screen.h"
#include "tools/epg/guide_csv.h"
#include "tools/epg/guide_ics.h"
#include "tools/epg/guide_json.h"
#include "tools/epg/xmltv.h"

namespace {

struct Epg_options {
  std::optional<std::string> channel;
  bool now = false;
  bool next = false;
  std::optional<std::string> day;
  std::optional<std::string> search;
  std::optional<std::string> languages;
  std::string zone = "here";
  std::string format = "table";
  bool show = false;
  bool wide = false;
  std::string db;
};

// Texts of all languages are searched, also of those that are not shown: who looks for a film may know its title in
// another one.
bool mentions(const Guide_event& event, const std::string& text) {
  const auto holds = [&text](const std::string& where) { return lower_case(where).find(text) != std::string::npos; };
  return std::any_of(event.texts.begin(), event.texts.end(), [&holds](const Event_text& in) {
    return holds(in.title) || holds(in.description) || holds(in.extended) ||
           std::any_of(in.items.begin(), in.items.end(), [&holds](const auto& item) { return holds(item.second); });
  });
}

// Leaves what the options ask for. `events` are those that have not ended at `now`, or those of the day.
void choose(const Epg_options& options, int64_t now, std::vector<Guide_event>* events) {
  const std::string search = lower_case(clean_text(options.search.value_or("")));
  // When the present event of each channel began. Events come sorted by start: of several that are on, the last one
  // counts, for a block may hold shorter ones.
  std::map<int, int64_t> on;
  for (const Guide_event& event : *events) {
    if (event.start <= now && event.end() > now) {
      on[event.channel] = event.start;
    }
  }
  std::set<int> seen;  // channels whose next event, the first one behind the present, has been found
  // It need not follow at once: programmes may pause.
  const auto unwanted = [&](const Guide_event& event) {
    if (options.now && event.start <= now) {
      return event.end() <= now || on[event.channel] != event.start;
    }
    if (options.next) {
      return event.start <= now || !seen.insert(event.channel).second;
    }
    if (options.now) {
      return true;
    }
    return !search.empty() && !mentions(event, search);
  };
  std::vector<Guide_event> kept;
  for (Guide_event& event : *events) {
    if (!unwanted(event)) {
      kept.push_back(std::move(event));
    }
  }
  *events = std::move(kept);
}

void show_guide(const Epg_options& options) {
  // Wrong options are refused before any file is opened, so that a slip is never hidden behind a missing database.
  std::vector<std::string> languages;
  if (options.languages) {
    languages = split_languages(*options.languages);
  }
  if (options.search && clean_text(*options.search).empty()) {
    throw Failure("--search: give a text to look for", EXIT_USAGE);
  }
  if (options.channel && options.channel->empty()) {
    throw Failure("--channel: give a number or a name", EXIT_USAGE);
  }
  // Asked once: an event that ends while this runs is in all of the output or in none of it.
  const int64_t now = time(nullptr);
  std::pair<int64_t, int64_t> range{now, std::numeric_limits<int64_t>::max()};
  if (options.day) {
    range = parse_day(*options.day);
  }
  const std::string file = options.db.empty() ? default_database() : options.db;
  const Channel_db channels(file);
  std::vector<Service> services = channels.services(true);
  sort_by_number(&services);
  if (options.channel) {
    // With one service left, everything below is restricted to it without a further condition.
    services = {Service(find_channel(services, *options.channel, "--channel"))};
  }
  std::map<int, Service> by_row;
  std::map<int, size_t> places;
  for (const Service& service : services) {
    places[service.channel] = places.size();
    by_row[service.channel] = service;
  }
  const Guide_db guide(file);
  std::vector<Guide_event> events = guide.events(range.first, range.second, languages);
  // Events of channels that are not listed: those that were not asked for, and those whose channel has been deleted.
  std::erase_if(events, [&by_row](const Guide_event& event) { return !by_row.contains(event.channel); });
  choose(options, now, &events);
  if (options.zone == "broadcast") {
    const std::map<int, Broadcast_zone> zones = channels.zones();
    for (Guide_event& event : events) {
      if (const auto zone = zones.find(by_row[event.channel].freq); zone != zones.end()) {
        event.zone = zone->second;
      }
    }
  }
  std::stable_sort(events.begin(), events.end(), [&places](const Guide_event& a, const Guide_event& b) {
    return places[a.channel] < places[b.channel];
  });
  if (options.format == "json") {
    console::print(guide_json(events, by_row).dump(2) + "\n", "the guide");
  } else if (options.format == "xmltv") {
    end_at_the_next(&events);
    console::print(guide_xmltv(events, services), "the guide");
  } else if (options.format == "csv") {
    console::print(guide_csv(events, by_row), "the guide");
  } else if (options.format == "ics") {
    console::print(guide_ics(events, by_row, now), "the guide");
  } else {
    if (options.show) {
      print_events_in_full(events, by_row, now);
    } else if (options.now && options.next) {
      print_now_and_next(events, by_row, now, options.wide);
    } else {
      print_guide_table(
          events, by_row,
          {.full = options.channel.has_value(), .one_time = options.now || options.next, .wide = options.wide});
    }
    if (events.empty()) {
      // Somebody without a guide needs another advice than somebody whose search was too narrow.
      console::say(guide.counts().empty()
                       ? fmt::format("No guide in {} yet; 'kelvo epg update' collects it.", guide.file())
                       : "No such events in the guide; 'kelvo epg update' collects newer ones.");
    }
  }
  console::finish_printing("the guide");
}

}  // namespace

void add_epg(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("epg", "Show the programme guide, or collect it");
  const auto options = std::make_shared<Epg_options>();
  command
      ->add_option("--channel", options->channel,
                   "Logical channel number, name or part of it, or # and the row number of the database")
      ->type_name("NUMBER|NAME");
  CLI::Option* now = command->add_flag("--now", options->now, "What is on now");
  CLI::Option* next = command->add_flag("--next", options->next, "What comes next");
  CLI::Option* day =
      command->add_option("--day", options->day, "What is on that day: YYYY-MM-DD, today, tomorrow or yesterday")
          ->type_name("DATE")
          ->excludes(now)
          ->excludes(next);
  command->add_option("--search", options->search, "Events to come whose texts, in any language, hold this text")
      ->type_name("TEXT")
      ->excludes(now)
      ->excludes(next)
      ->excludes(day);
  command->add_option("--lang", options->languages, "Languages, best first: est,eng; others are shown for want of them")
      ->type_name("LIST");
  command
      ->add_option("--zone", options->zone,
                   "here: times of your zone; broadcast: of the multiplex's, as its time table had it; default: here")
      ->check(CLI::IsMember({"here", "broadcast"}));
  command->add_option("--format", options->format, "table, for people; json, xmltv, csv or ics, for programs")
      ->check(CLI::IsMember({"table", "json", "xmltv", "csv", "ics"}))
      ->capture_default_str();
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->add_flag("--show", options->show, "The events in full, with all texts, instead of a table");
  command->add_flag("--wide", options->wide, "All columns in full, however narrow the terminal is");
  command->require_subcommand(0, 1);
  command->footer(
      "Without --now, --next, --day or --search: everything that has not ended yet. Times are those of your zone.\n"
      "--now and --next together: one line a channel. No adapter is needed. With --channel a table has the extended\n"
      "texts, too. A terminal shortens titles and texts; --show has all of them.\n"
      "\n"
      "Examples:\n"
      "  kelvo epg --now --lang eng\n"
      "  kelvo epg --now --next\n"
      "  kelvo epg --channel 1 --now --show\n"
      "  kelvo epg --channel 1 --day tomorrow\n"
      "  kelvo epg --format xmltv > guide.xml\n"
      "  kelvo epg --search film --format ics > films.ics");
  add_epg_update(*command, exit_code);
  // The final one, because `kelvo epg update` parses through here: only then is it known whether the guide is to be
  // shown or collected.
  command->final_callback([command, options, exit_code] {
    if (command->get_subcommands().empty()) {
      show_guide(*options);
      *exit_code = EXIT_OK;
    }
  });
}
