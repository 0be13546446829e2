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
#include "tools/database/stream_words.h"

namespace {

struct Channels_options {
  std::string db;
  std::string format = "table";
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

// An empty cell would look like a shifted column, and programs that split at blanks would miscount.
std::string or_dash(const std::string& text) {
  return text.empty() ? "-" : text;
}

// Only the last column may be broken: a name that is cut or wrapped can no longer be copied into another command.
void print_table(const std::vector<Service>& services) {
  using enum Table::Align;
  Table table({{"LCN", RIGHT},
               {"NAME"},
               {"TYPE"},
               {"PROVIDER"},
               {"NETWORK"},
               {"FREQUENCY", RIGHT},
               {"CA"},
               {"STATE"},
               {"PIDS", LEFT, true}});
  for (const Service& service : services) {
    table.add({service.lcn == NO_LCN ? "-" : std::to_string(service.lcn), or_dash(service.name), type_text(service),
               or_dash(service.provider), or_dash(service.network), mhz(service.freq), ca_text(service),
               state_text(service), or_dash(streams_text(service))});
  }
  table.print(stdout);
}

nlohmann::ordered_json or_null(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

// Keys stay in the order of writing, so that two lists can be compared line by line. What is unknown is null and not
// left out, so that programs can rely on the key; only what hardly any stream has, its scrambling, is left out, and
// what only databases have that streams are described in.
nlohmann::ordered_json to_json(const Stream& stream) {
  nlohmann::ordered_json out{{"pid", stream.pid}, {"kind", stream.kind}};
  out["codec"] = or_null(stream.codec);
  out["stream_type"] = stream.stream_type;
  out["languages"] = stream.languages;
  if (stream.ca_system != 0) {
    out["ca_system"] = stream.ca_system;
    out["ca_pid"] = stream.ca_pid;
  }
  if (stream.described) {
    out["profile"] = or_null(stream.profile);
    out["component_tag"] =
        stream.component_tag < 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(stream.component_tag);
    out["roles"] = nlohmann::ordered_json::array();
    for (const Language_role& role : stream.roles) {
      out["roles"].push_back({{"language", role.language},
                              {"role", or_null(role.role)},
                              {"page", role.page == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(role.page)}});
    }
  }
  return out;
}

// The numbers of the standard stand beside the words made of them: the words are for people and may change.
nlohmann::ordered_json to_json(const Service& service) {
  nlohmann::ordered_json out;
  out["channel"] = service.channel;
  out["lcn"] = service.lcn == NO_LCN ? nlohmann::ordered_json() : nlohmann::ordered_json(service.lcn);
  out["name"] = service.name;
  if (!service.names.empty()) {
    out["names"] = service.names;
  }
  out["type"] = type_text(service);
  out["service_type"] = service.type;
  out["provider"] = service.provider;
  out["network"] = service.network;
  out["frequency"] = service.freq;
  out["service_id"] = service.program_number;
  out["transport_stream_id"] = service.transport_stream_id;
  out["network_id"] = service.network_id;
  out["original_network_id"] = service.original_network_id;
  out["pmt_pid"] = service.pmt_pid;
  out["pcr_pid"] = service.pcr_pid;
  out["scrambled"] = service.scrambled;
  out["ca_systems"] = ca_numbers(service);
  if (!service.ca.empty()) {
    out["ca"] = nlohmann::ordered_json::array();
    for (const Service_ca& ca : service.ca) {
      out["ca"].push_back({{"system", ca.system},
                           {"name", or_null(ca_name(ca.system))},
                           {"pid", ca.pid},
                           {"stream", ca.stream == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(ca.stream)}});
    }
  }
  out["state"] = state_text(service);
  out["streams"] = nlohmann::ordered_json::array();
  for (const Stream& stream : service.streams) {
    out["streams"].push_back(to_json(stream));
  }
  return out;
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
      const Sdbl made(file.c_str());
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
    print_table(services);
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
  command->footer(
      "Sorted by logical channel number, then by row. State: found and lost say what the last scan of the\n"
      "multiplex saw; no streams stands for a service whose streams were never described.\n"
      "\n"
      "Examples:\n"
      "  kelvo channels\n"
      "  kelvo channels --db living-room.db --format json | jq '.[].name'");
  command->callback([options, exit_code] {
    list_channels(*options);
    *exit_code = EXIT_OK;
  });
}
