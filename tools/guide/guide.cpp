// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/language_list.h"
#include "tools/cli/local_time.h"
#include "tools/cli/output_file.h"
#include "tools/commands.h"
#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"
#include "tools/database/service_json.h"
#include "tools/epg/guide_json.h"
#include "tools/guide/page.h"

namespace {

constexpr int MOST_DAYS = 60;

struct Guide_options {
  std::string out;
  int days = 7;
  std::optional<std::string> languages;
  std::string db;
};

// Midnight so many days after the one that `midnight` is.
int64_t days_after(int64_t midnight, int days) {
  const auto seconds = static_cast<time_t>(midnight);
  struct tm date {};
  (void)localtime_r(&seconds, &date);
  date.tm_mday += days;
  date.tm_isdst = -1;
  return mktime(&date);
}

void write_guide(const Guide_options& options) {
  const std::vector<std::string> languages =
      options.languages ? split_languages(*options.languages) : std::vector<std::string>();
  const std::string file = options.db.empty() ? default_database() : options.db;
  std::vector<Service> services = Channel_db(file).services(true);
  sort_by_number(&services);
  std::map<int, Service> by_row;
  for (const Service& service : services) {
    by_row[service.channel] = service;
  }
  const Guide_db guide(file);
  const int64_t today = parse_day("today").first;
  std::vector<Guide_event> events = guide.events(today, days_after(today, options.days), languages);
  std::erase_if(events, [&by_row](const Guide_event& event) { return !by_row.contains(event.channel); });
  Output_file out(options.out);
  out.write(guide_page(channels_json(services), guide_json(events, by_row), Page_kind::STORED));
  out.finish();
  if (events.empty()) {
    console::say(guide.counts().empty()
                     ? fmt::format("No guide in {} yet; 'kelvo epg update' collects it.", guide.file())
                     : "No such events in the guide; 'kelvo epg update' collects newer ones.");
  }
}

}  // namespace

void add_guide(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("guide", "Write the programme guide as a page for a browser");
  const auto options = std::make_shared<Guide_options>();
  command->add_option("OUT", options->out, "The page, such as guide.html; - for standard output")->required();
  command->add_option("--days", options->days, "So many days from today on")
      ->check(CLI::Range(1, MOST_DAYS))
      ->capture_default_str();
  command->add_option("--lang", options->languages, "Languages, best first: est,eng; the page can show the others, too")
      ->type_name("LIST");
  command->add_option("--db", options->db, "Channel database; default: $XDG_DATA_HOME/kelvo/dvb.db")->type_name("FILE");
  command->footer(
      "One file that holds everything: it opens in any browser, without a network, also from a stick or a mail. It is\n"
      "written as a whole or not at all. Times are those of the zone of whoever looks at it.\n"
      "\n"
      "Examples:\n"
      "  kelvo guide guide.html\n"
      "  kelvo guide --days 2 --lang eng,est - > tonight.html");
  command->callback([options, exit_code] {
    write_guide(*options);
    *exit_code = EXIT_OK;
  });
}
