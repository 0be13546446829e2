// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/interrupt.h"
#include "tools/cli/receiver_options.h"
#include "tools/cli/text.h"
#include "tools/cli/tuning_options.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/engine/device.h"
#include "tools/scan/what_to_scan.h"
#include "tools/serve/listener.h"
#include "tools/serve/site.h"

namespace {

constexpr int DEFAULT_PORT = 8506;
constexpr int MOST_ADAPTERS = 4;
constexpr int LOOK_INTERVAL_MS = 500;
constexpr std::chrono::seconds SIGNAL_INTERVAL{1};
// So much less than others: whoever looks at the guide does not delay a scan.
constexpr int NICENESS = 10;

struct Serve_options {
  std::string address = "127.0.0.1";
  int port = DEFAULT_PORT;
  std::vector<std::string> hosts;
  bool control = false;
  std::vector<int> adapters;
  bool no_adapter = false;
  Scan_choice choice;
  Receiver_options receiver;
  std::string db;
};

// The adapters that were named, or the first one that there is.
std::map<int, Frontend_info> frontends_of(const Serve_options& options, const Receiver_profile& profile) {
  std::map<int, Frontend_info> out;
  for (const int number : options.adapters) {
    if (!out.contains(number)) {
      out[number] = check_adapter(number, profile);
    }
  }
  for (int number = 0; options.adapters.empty() && !options.no_adapter && number < MOST_ADAPTERS && out.empty();
       ++number) {
    try {
      out[number] = check_adapter(number, profile);
    } catch (const Failure&) {
      (void)out.erase(number);
    }
  }
  return out;
}

bool has_channels(const std::string& db) {
  return std::filesystem::exists(db) && !Channel_db(db).services(false).empty();
}

std::string start_line(const Listener& listener, const std::string& db, const std::map<int, Frontend_info>& frontends,
                       const std::string& token) {
  std::vector<int> numbers;
  numbers.reserve(frontends.size());
  for (const auto& [number, frontend] : frontends) {
    numbers.push_back(number);
  }
  std::string line = fmt::format("serving {} at {}", db, listener.url());
  line += numbers.empty() ? ", as it is stored: no adapter is used"
                          : fmt::format(" with adapter {}", fmt::join(numbers, ", "));
  return line + (token.empty() ? "" : fmt::format("; scans are started at {}scan?token={}", listener.url(), token));
}

void work(Http_server* server, Stored* stored, Station* station, const Interrupt& interrupt) {
  using Clock = std::chrono::steady_clock;
  std::array<pollfd, 3> waits{
      {{server->fd(), POLLIN, 0}, {interrupt.fd(), POLLIN, 0}, {station != nullptr ? station->fd() : -1, POLLIN, 0}}};
  Clock::time_point looked = Clock::now();
  Clock::time_point told_signal = looked;
  unsigned readings = 0;
  unsigned events = 0;
  while ((waits[1].revents & POLLIN) == 0) {
    (void)poll(waits.data(), waits.size(), std::min(server->wait_ms(), LOOK_INTERVAL_MS));
    server->run();
    if (station != nullptr && (waits[2].revents & POLLIN) != 0) {
      station->calm();
      server->tell("scan", std::to_string(++events));
      for (const std::string& line : station->take_news()) {
        console::say("kelvo: " + clean_text(line));
      }
    }
    if (Clock::now() - looked < std::chrono::milliseconds(LOOK_INTERVAL_MS)) {
      continue;
    }
    looked = Clock::now();
    const Stored::Changes changes = stored->look();
    if (changes.channels) {
      server->tell("channels", std::to_string(++events));
    }
    if (changes.guide) {
      server->tell("guide", std::to_string(++events));
    }
    if (station != nullptr && station->readings() != readings && looked - told_signal >= SIGNAL_INTERVAL) {
      readings = station->readings();
      told_signal = looked;
      server->tell("signal", std::to_string(++events));
    }
  }
}

int serve(const Serve_options& options) {
  for (const std::string& name : options.hosts) {
    if (!host_of(name)) {
      throw Failure(fmt::format("--host {}: no name or address of a machine", name), EXIT_USAGE);
    }
  }
  Receiver_profile profile = profile_of(options.receiver);
  profile.country = options.choice.country.value_or("");
  std::string db = options.db;
  if (!db.empty()) {
    check_database_name(db);
  }
  std::map<int, Frontend_info> frontends = frontends_of(options, profile);
  What_to_scan what;
  if (options.control && !frontends.empty()) {
    what = what_to_scan(options.choice, [&frontends] {
      return std::any_of(frontends.begin(), frontends.end(), [](const auto& one) { return one.second.has(SYS_DVBT2); });
    });
    for (auto& [number, frontend] : frontends) {
      frontend.profile.offset_hz = what.offset_hz.value_or(frontend.profile.offset_hz);
    }
  }
  if (db.empty()) {
    db = default_database();
    check_database_name(db);
  }
  const bool receives = !frontends.empty() && (options.control || !options.adapters.empty() || has_channels(db));
  // The order of these matters: signals are blocked before the library starts threads, it is silent as long as it has
  // an object, clients go before what they wait for, and readers of the database before its last writer.
  const Interrupt interrupt;
  const console::Quiet_library quiet(-1);
  const Listener listener = listen_at(options.address, options.port);
  const std::string token = options.control ? new_token() : "";
  std::unique_ptr<Station> station;
  if (receives) {
    if (options.db.empty()) {
      make_folders_for(db);
    }
    const bool exists = check_database(db);
    station = std::make_unique<Station>(frontends, db, exists, what.requests);
  } else {
    frontends.clear();
  }
  Stored stored(db, !options.db.empty());
  Site site(&stored, station.get(), Allowed_hosts(listener.address, options.hosts), token, what.lines);
  Http_server server(listener.socket, &site);
  site.set_server(&server);
  console::print(clean_text(start_line(listener, db, frontends, token)) + "\n", "where it is");
  console::finish_printing("where it is");
  if (!listener.loopback) {
    console::say(
        fmt::format("kelvo: {} can be reached by other machines; they can read what is served", listener.address));
  }
  (void)setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), NICENESS);  // of this thread alone
  work(&server, &stored, station.get(), interrupt);
  return EXIT_OK;
}

}  // namespace

void add_serve(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("serve", "Show guide, channels and signal in a browser, and to Prometheus");
  const auto options = std::make_shared<Serve_options>();
  command->add_option("--port", options->port, "Port to listen on; 0: any that is free")
      ->type_name("N")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  command
      ->add_option("--address", options->address,
                   "Address to listen at; the default is for programs of this machine alone")
      ->type_name("A")
      ->capture_default_str();
  command->add_option("--host", options->hosts, "A further name by which browsers may ask; may be repeated")
      ->type_name("NAME")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  CLI::Option* control = command->add_flag("--control", options->control,
                                           "Let scans be started by who has the token in the URL that is printed");
  add_adapters_option(command, &options->adapters,
                      "DVB adapter to receive with, 0 to 3; default: the first one that there is");
  command->add_flag("--no-adapter", options->no_adapter, "Serve what is stored and receive nothing")
      ->excludes("--adapter");
  CLI::Option* freq = add_freqs_option(command, &options->choice.freqs)->needs(control);
  CLI::Option* band = command->add_option("--band", options->choice.band, "What scans look at: vhf, uhf or all")
                          ->check(CLI::IsMember({"uhf", "vhf", "all"}))
                          ->excludes(freq)
                          ->needs(control);
  command
      ->add_option("--country", options->choice.country,
                   "What scans look at: the channels of a country, by its two letters; default: that of the locale")
      ->type_name("CC")
      ->excludes(freq)
      ->excludes(band)
      ->needs(control);
  add_receiver_options(command, &options->receiver);
  add_set_clock_option(command, &options->receiver);
  add_charset_option(command, &options->receiver);
  add_other_option(command, &options->receiver);
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "Pages: / the guide, /channels with their signal, /scan; for programs /guide.json, /channels.json, /changes\n"
      "(server-sent events) and /metrics. An adapter goes round the multiplexes of the channel list and collects\n"
      "their guide. Only --control lets anybody change anything. Ctrl-C ends it.\n"
      "Exit code: 0 ended, 1 failed, 2 wrong arguments.\n"
      "\n"
      "Examples:\n"
      "  kelvo serve\n"
      "  kelvo serve --control --country AT\n"
      "  kelvo serve --address 0.0.0.0 --host box.lan --no-adapter");
  command->callback([options, exit_code] { *exit_code = serve(*options); });
}
