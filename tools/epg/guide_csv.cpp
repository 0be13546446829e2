// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/guide_csv.h"

#include <fmt/format.h>

#include "tools/cli/csv.h"
#include "tools/database/channel_id.h"
#include "tools/epg/episode.h"
#include "tools/epg/event_words.h"

namespace {

constexpr const char* SHEET_TIME = "%Y-%m-%d %H:%M:%S";  // what spreadsheets take for a time

std::string ages_text(const Guide_event& event) {
  std::vector<std::string> ages;
  for (const auto& [country, age] : event.ratings) {
    ages.push_back(fmt::format("{} ({})", age, country));
  }
  return fmt::format("{}", fmt::join(ages, "; "));
}

}  // namespace

std::string guide_csv(const std::vector<Guide_event>& events, const std::map<int, Service>& services) {
  std::string out = csv_line({"channel", "channel_id", "lcn", "name", "event_id", "start", "end", "start_epoch",
                              "duration", "language", "title", "description", "extended", "items", "episode", "genres",
                              "ages", "series_crid", "programme_crid"});
  for (const Guide_event& event : events) {
    const Service& service = services.at(event.channel);
    const Event_text& text = best_text(event);
    const std::optional<Episode> episode = find_episode(event);
    out += csv_line(
        {std::to_string(event.channel), channel_id(service), service.lcn == NO_LCN ? "" : std::to_string(service.lcn),
         service.name, std::to_string(event.id), time_text(event, event.start, SHEET_TIME),
         time_text(event, event.end(), SHEET_TIME), std::to_string(event.start), std::to_string(event.duration),
         text.language, text.title, text.description, text.extended, items_text(text), episode ? episode->text : "",
         fmt::format("{}", fmt::join(event.genres, "; ")), ages_text(event), event.series_crid, event.programme_crid});
  }
  return out;
}
