// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <algorithm>
#include <filesystem>
#include <memory>
#include <tuple>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/service_json.h"
#include "tools/database/stream_words.h"

namespace {

struct Channels_options {
  std::string db;
  std::string format = "table";
  bool wide = false;
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
               or_dash(service.network), mhz(service.freq), ca_text(service), state_text(service),
               or_dash(streams_text(service))});
  }
  table.print(stdout);
}

// The default database is made when it is missing; a file that somebody named must be there.
std::string database_to_read(const std::string& named) {
  if (!named.empty()) {
    return named;
  }
  std::string file = default_database();
  if (!std::filesystem::exists(file)) {
    make_folders_for(file);
    (void)check_database(file);
    // Making the tables of a new file is no news for somebody who only wanted to look.
    const console::Quiet_library quiet(-1);
    try {
      const Sdbl made(file.c_str(), Durability::FULL);
    } catch (const no_file_error& error) {
      throw Failure(fmt::format("{}: cannot be made: {}", file, error.what()));
    }
  }
  return file;
}

void list_channels(const Channels_options& options) {
  const std::string file = database_to_read(options.db);
  std::vector<Service> services = Channel_db(file).services(true);
  // Channels without a number have the largest one, so they follow the others. Those of equal number stand in the order
  // of their rows, which is the order in which they were found.
  std::stable_sort(services.begin(), services.end(), [](const Service& a, const Service& b) {
    return std::tie(a.lcn, a.channel) < std::tie(b.lcn, b.channel);
  });
  if (options.format == "json") {
    nlohmann::ordered_json out = nlohmann::ordered_json::array();
    for (const Service& service : services) {
      out.push_back(to_json(service));
    }
    console::print(out.dump(2) + "\n", "the list");
  } else {
    print_table(services, options.wide);
    if (services.empty()) {
      console::say(fmt::format("No channels in {} yet; 'kelvo scan' finds them.", file));
    }
  }
  console::finish_printing("the list");
}

}  // namespace

void add_channels(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("channels", "List the channels that scans have found");
  const auto options = std::make_shared<Channels_options>();
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->add_option("--format", options->format, "table, for people, or json, for programs")
      ->check(CLI::IsMember({"table", "json"}))
      ->capture_default_str();
  command->add_flag("--wide", options->wide, "All columns in full, however narrow the terminal is");
  command->footer(
      "Sorted by logical channel number, then by row. State: found and lost say what the last scan of the\n"
      "multiplex saw; no streams stands for a service whose streams were never described.\n"
      "A narrow terminal leaves out the columns that are needed least; files and programs get all.\n"
      "\n"
      "Examples:\n"
      "  kelvo channels\n"
      "  kelvo channels --db living-room.db --format json | jq '.[].name'");
  command->callback([options, exit_code] {
    list_channels(*options);
    *exit_code = EXIT_OK;
  });
}
