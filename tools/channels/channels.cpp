// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <kelvo/kelvo.h>

#include "tools/channels/channel_url.h"
#include "tools/channels/list_format.h"
#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/output_file.h"
#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/stream_words.h"

namespace {

struct Channels_options {
  std::string db;
  std::string format = "table";
  bool wide = false;
  bool all = false;
  bool tv = false;
  bool radio = false;
  bool free = false;
  std::string url;
  std::string output;
};

// A service can be marked as scrambled in the service table while no system is named for its streams; "yes" says so
// much.
std::string ca_text(const Service& service) {
  const std::vector<std::string> systems = service.ca.empty() ? ca_numbers(service) : ca_names(service);
  if (!systems.empty()) {
    return fmt::format("{}", fmt::join(systems, " "));
  }
  return service.scrambled ? "yes" : "-";
}

// "found, hidden" where the network asks receivers not to list it.
std::string state_and_mark(const Service& service) {
  return state_text(service) + (service.visible ? "" : ", hidden");
}

// A name that is cut or wrapped can no longer be copied into another command.
void print_table(const std::vector<Service>& services, bool wide) {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"LCN", RIGHT},
               {"NAME"},
               {"TYPE", LEFT, WHOLE, 2},
               {"PROVIDER", LEFT, WHOLE, 4},
               {"NETWORK", LEFT, WHOLE, 5},
               {"FREQUENCY", RIGHT, WHOLE, 1},
               {"CA", LEFT, WORDS, 3},
               {"STATE"},
               {"PIDS", LEFT, WORDS, 6}},
              wide);
  for (const Service& service : services) {
    table.add({lcn_text(service), or_dash(service.name), type_text(service), or_dash(service.provider),
               or_dash(service.network), mhz(service.freq), ca_text(service), state_and_mark(service),
               or_dash(streams_text(service))});
  }
  table.print(stdout);
}

// Before the first scan there are no channels, and no file; one that somebody named must be there.
std::vector<Service> stored_services(const std::string& file, bool is_default) {
  struct stat status {};
  if (is_default && stat(file.c_str(), &status) != 0 && errno == ENOENT) {
    return {};
  }
  return Channel_db(file).services(true);
}

// Why a list for tuning leaves a service out; nothing when it is in.
const char* why_left_out(const Service& service) {
  if (service.scan_state == 0 && service.row_status != 2) {
    return "lost";
  }
  if (!service.visible) {
    return "hidden";
  }
  if (service.streams.empty()) {
    return "without streams";
  }
  return is_tv(service) || is_radio(service) ? nullptr : "neither television nor radio";
}

// What was asked for; and, unless that is all, what can be watched or listened to. Says what that leaves out.
void choose(const Channels_options& options, bool for_tuning, std::vector<Service>* services) {
  std::erase_if(*services, [&options](const Service& service) {
    const bool asked =
        (!options.tv && !options.radio) || (options.tv && is_tv(service)) || (options.radio && is_radio(service));
    return !asked || (options.free && service.scrambled);
  });
  if (!for_tuning || options.all) {
    return;
  }
  const size_t before = services->size();
  std::map<std::string, int> left_out;
  std::erase_if(*services, [&left_out](const Service& service) {
    const char* why = why_left_out(service);
    if (why != nullptr) {
      ++left_out[why];
    }
    return why != nullptr;
  });
  std::vector<std::string> reasons;
  reasons.reserve(left_out.size());
  for (const auto& [why, count] : left_out) {
    reasons.push_back(fmt::format("{} {}", count, why));
  }
  if (!reasons.empty()) {
    console::say(fmt::format("{} of {} left out: {}; --all writes them, too.", before - services->size(),
                             counted(before, "channel"), fmt::join(reasons, ", ")));
  }
}

const List_format* find_format(const std::string& name) {
  for (const List_format& format : list_formats()) {
    if (name == format.name) {
      return &format;
    }
  }
  return nullptr;  // the table
}

// Before any file is opened, so that a slip is never hidden behind a missing database.
void check_options(const Channels_options& options, const List_format* format) {
  if (!options.url.empty()) {
    if (format == nullptr || !format->has_links) {
      throw Failure("--url: only --format m3u and xspf have links", EXIT_USAGE);
    }
    check_url_template(options.url);
  }
  if (!options.output.empty() && format == nullptr) {
    throw Failure("--output: a table is for the terminal; choose another --format for a file", EXIT_USAGE);
  }
}

void write_list(const Channels_options& options, const List_format& format, const std::vector<Service>& services) {
  const List_text list = format.write(services, {options.url});
  for (const std::string& note : list.notes) {
    console::say(note);
  }
  if (options.output.empty() || options.output == "-") {
    console::print(list.text, "the list");
    return;
  }
  Output_file out(options.output);
  out.write(list.text);
  out.finish();
}

void list_channels(const Channels_options& options) {
  const List_format* format = find_format(options.format);
  check_options(options, format);
  const std::string file = options.db.empty() ? default_database() : options.db;
  std::vector<Service> services = stored_services(file, options.db.empty());
  sort_by_number(&services);
  const bool none = services.empty();
  choose(options, format != nullptr && format->for_tuning, &services);
  if (format == nullptr) {
    print_table(services, options.wide);
  } else {
    write_list(options, *format, services);
  }
  // Programs see for themselves that a list of all that is known is empty.
  if (none && (format == nullptr || format->for_tuning)) {
    console::say(fmt::format("No channels in {} yet; 'kelvo scan' finds them.", file));
  }
  console::finish_printing("the list");
}

}  // namespace

void add_channels(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("channels", "List the channels that scans have found");
  const auto options = std::make_shared<Channels_options>();
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  std::vector<std::string> names{"table"};
  for (const List_format& format : list_formats()) {
    names.emplace_back(format.name);
  }
  command->add_option("--format", options->format, "table, for people, or one for a program")
      ->check(CLI::IsMember(names))
      ->capture_default_str();
  command
      ->add_option("-o,--output", options->output, "A file for the list, whole or not at all, instead of printing it")
      ->type_name("FILE");
  command->add_flag("--tv", options->tv, "Television only");
  command->add_flag("--radio", options->radio, "Radio only; with --tv both, and no data services");
  command->add_flag("--free", options->free, "No scrambled channels");
  command->add_flag("--all", options->all,
                    "vdr, dvbv5, zap, m3u, xspf: also what is lost, hidden, data or without streams");
  command->add_option("--url", options->url, "m3u, xspf: the link of each channel, such as http://host/{number}")
      ->type_name("TEMPLATE");
  command->add_flag("--wide", options->wide, "All columns in full, however narrow the terminal is");
  command->footer(
      "Sorted by logical channel number, then by row. State: found and lost say what the last scan of the\n"
      "multiplex saw; no streams stands for a service whose streams were never described; hidden for one that its\n"
      "network asks receivers not to list.\n"
      "A narrow terminal leaves out the columns that are needed least; files and programs get all.\n"
      "\n"
      "Formats: vdr (also mpv), dvbv5 (dvbv5-zap), zap (tzap, mplayer; without DVB-T2), m3u and xspf (players), csv,\n"
      "json. In --url stand {number} {name} {id} {channel} {service_id} {transport_stream_id}\n"
      "{original_network_id} {network_id} {frequency}.\n"
      "\n"
      "Examples:\n"
      "  kelvo channels\n"
      "  kelvo channels --format vdr -o ~/.config/mpv/channels.conf.ter && mpv dvb://NAME\n"
      "  kelvo channels --format dvbv5 -o channels.conf && dvbv5-zap -c channels.conf NAME\n"
      "  kelvo channels --format m3u --url 'http://box:8080/{number}' -o tv.m3u\n"
      "  kelvo channels --db living-room.db --format json | jq -r '.channels[].name'");
  command->callback([options, exit_code] {
    list_channels(*options);
    *exit_code = EXIT_OK;
  });
}
