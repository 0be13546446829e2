// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/update_report.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/engine/tuning_text.h"

namespace {

using Json = nlohmann::ordered_json;

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

std::string seconds_text(int ms) {
  if (ms < 1000) {
    return fmt::format("{} ms", ms);
  }
  return ms < 10000 ? fmt::format("{:.1f} s", ms / 1000.0) : fmt::format("{:.0f} s", ms / 1000.0);
}

struct Timing {
  int complete_ms = 0;  // the last of those that are; 0 for none
  int carousel_ms = 0;  // the slowest table; 0 where none came again
  bool any_incomplete = false;
};

Timing timing_of(const Guide_multiplex& multiplex) {
  Timing all;
  for (const Guide_progress& progress : multiplex.services) {
    const EIT_progress& service = progress.service;
    all.complete_ms = std::max(all.complete_ms, service.complete_ms);
    all.carousel_ms = std::max(all.carousel_ms, service.carousel_ms);
    all.any_incomplete =
        all.any_incomplete || (service.sections != 0 && service.complete_ms == 0 && service.last_table != 0);
  }
  return all;
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

// Old events may have been deleted meanwhile, so there can be fewer than before.
int new_events(const EIT_progress& service, const std::map<int, int>& before) {
  const auto old = before.find(service.channel);
  return std::max(0, service.events - (old == before.end() ? 0 : old->second));
}

struct Totals {
  int complete = 0;
  int services = 0;
  int events = 0;
  int news = 0;

  void add(const Guide_progress& progress, int new_ones) {
    ++services;
    complete += progress.state != Guide_state::COLLECTING ? 1 : 0;
    events += progress.service.events;
    news += new_ones;
  }
};

const char* word_of(Guide_state state) {
  switch (state) {
    case Guide_state::COMPLETE:
      return "complete";
    case Guide_state::NO_SCHEDULE:
      return "no schedule";
    case Guide_state::COLLECTING:
      break;
  }
  return "incomplete";
}

Json seconds_or_null(int ms) {
  return ms == 0 ? Json() : Json(ms / 1000.0);
}

}  // namespace

std::string channel_name(const std::map<int, Service>& services, int channel) {
  const auto known = services.find(channel);
  if (known == services.end() || known->second.name.empty()) {
    return fmt::format("#{}", channel);
  }
  return known->second.name;
}

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

void print_update_report(const std::vector<Guide_multiplex>& multiplexes, const std::map<int, Service>& services,
                         const std::map<int, int>& before) {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"MULTIPLEX", RIGHT, WHOLE, 1}, {"LCN", RIGHT}, {"NAME"}, {"EVENTS", RIGHT}, {"GUIDE", LEFT, WORDS}});
  Totals totals;
  bool any_lost = false;
  for (const Guide_multiplex& multiplex : multiplexes) {
    // A multiplex of which nothing came still has its line, so that the reasons are complete.
    if (multiplex.services.empty()) {
      table.add({mhz(multiplex.freq), "-", "-", "0", outcome_text(multiplex)});
    }
    for (const Guide_progress& progress : multiplex.services) {
      const auto known = services.find(progress.service.channel);
      table.add({mhz(multiplex.freq), known == services.end() ? "-" : lcn_text(known->second),
                 channel_name(services, progress.service.channel), std::to_string(progress.service.events),
                 guide_text_of(progress, multiplex)});
      totals.add(progress, new_events(progress.service, before));
    }
  }
  table.print(stdout);
  bool any_carousel = false;
  for (const Guide_multiplex& multiplex : multiplexes) {
    if (const std::string carousel = carousel_text(multiplex); !carousel.empty()) {
      fmt::print("{}{}: {}\n", any_carousel ? "" : "\n", mhz(multiplex.freq), carousel);
      any_carousel = true;
    }
  }
  for (const Guide_multiplex& multiplex : multiplexes) {
    if (const std::string lost = lost_text(multiplex.lost); !lost.empty()) {
      fmt::print("\n{}: {}", mhz(multiplex.freq), lost);
      any_lost = true;
    }
  }
  fmt::print("{}{} of {} services done, {} events, {} of them new.\n", any_lost ? "\n\n" : "\n", totals.complete,
             totals.services, totals.events, totals.news);
}

nlohmann::ordered_json update_json(const std::vector<Guide_multiplex>& multiplexes,
                                   const std::map<int, Service>& services, const std::map<int, int>& before) {
  Totals totals;
  Json all = Json::array();
  for (const Guide_multiplex& multiplex : multiplexes) {
    Json of_multiplex = Json::array();
    for (const Guide_progress& progress : multiplex.services) {
      const EIT_progress& service = progress.service;
      const auto known = services.find(service.channel);
      const int lcn = known == services.end() ? NO_LCN : known->second.lcn;
      const int new_ones = new_events(service, before);
      totals.add(progress, new_ones);
      of_multiplex.push_back({{"channel", service.channel},
                              {"lcn", lcn == NO_LCN ? Json() : Json(lcn)},
                              {"name", known == services.end() ? "" : known->second.name},
                              {"events", service.events},
                              {"new", new_ones},
                              {"state", word_of(progress.state)},
                              {"guide", guide_text_of(progress, multiplex)}});
    }
    const Timing timing = timing_of(multiplex);
    const std::string lost = lost_text(multiplex.lost);
    all.push_back({{"frequency", multiplex.freq},
                   {"result", outcome_text(multiplex)},
                   {"complete_after", timing.any_incomplete ? Json() : seconds_or_null(timing.complete_ms)},
                   {"slowest_table_every", seconds_or_null(timing.carousel_ms)},
                   {"lost", lost.empty() ? Json() : Json(lost)},
                   {"services", std::move(of_multiplex)}});
  }
  return {{"multiplexes", std::move(all)},
          {"services", totals.services},
          {"done", totals.complete},
          {"events", totals.events},
          {"new", totals.news}};
}
