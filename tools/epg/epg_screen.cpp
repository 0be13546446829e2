// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/epg_screen.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/cli/text_columns.h"
#include "tools/epg/event_facts.h"
#include "tools/epg/event_words.h"

namespace {

constexpr int LONGEST_LINE = 100;  // longer ones are hard to read
constexpr int MARGIN = 2;

std::string duration_text(int seconds) {
  const int minutes = seconds / 60;
  return minutes < 60 || minutes % 60 != 0 ? fmt::format("{} min", minutes) : fmt::format("{} h", minutes / 60);
}

// A paragraph of a screen `columns` wide, which begins `margin` columns from the left; one line where nobody looks.
std::string paragraph(const std::string& text, std::optional<int> columns, int margin = MARGIN) {
  std::string out;
  const int room = columns ? std::min(*columns, LONGEST_LINE) - margin : 0;
  for (const std::string& line : columns ? wrapped(text, room) : std::vector<std::string>{text}) {
    out += std::string(static_cast<size_t>(margin), ' ') + line + "\n";
  }
  return out;
}

std::string event_in_full(const Guide_event& event, const Service& service, std::optional<int> columns, int64_t now) {
  const Event_text& main = best_text(event);
  std::string out = paragraph(or_dash(main.title), columns, 0);
  const std::string number = service.lcn == NO_LCN ? "" : std::to_string(service.lcn) + " ";
  out += paragraph(
      fmt::format("{}{}, {} {}, {}", number, or_dash(service.name), time_text(event, event.start, "%A %Y-%m-%d"),
                  hours_text(event), duration_text(event.duration)),
      columns);
  std::vector<std::string> facts = genre_facts(event);
  for (const auto& [country, age] : event.ratings) {
    facts.push_back(fmt::format("from {} years ({})", age, country));
  }
  if (!facts.empty()) {
    out += paragraph(fmt::format("{}", fmt::join(facts, ", ")), columns);
  }
  for (const Event_text& text : event.texts) {
    if (&text != &main) {
      out += "\n" + paragraph(fmt::format("{} ({})", or_dash(text.title), or_dash(text.language)), columns);
    }
    for (const std::string& part : paragraphs(text)) {
      out += "\n" + paragraph(part, columns);
    }
    bool first = true;
    for (const auto& item : text.items) {
      out += (std::exchange(first, false) ? "\n" : "") + paragraph(item_text(item), columns);
    }
  }
  bool first = true;
  for (const auto& fact : event_facts(event, now)) {
    out += (std::exchange(first, false) ? "\n" : "") + paragraph(item_text(fact), columns);
  }
  return out;
}

}  // namespace

void print_guide_table(const std::vector<Guide_event>& events, const std::map<int, Service>& services,
                       const Guide_table& how) {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"LCN", RIGHT, WHOLE, 1},
               {"CHANNEL"},
               {"DATE", LEFT, WHOLE, how.one_time ? 3 : 0},
               {"TIME"},
               {"TITLE", LEFT, SHORT},
               {"TEXT", LEFT, SHORT, 2}},
              how.wide);
  for (const Guide_event& event : events) {
    const Service& service = services.at(event.channel);
    const Event_text& text = best_text(event);
    table.add({lcn_text(service), or_dash(service.name), time_text(event, event.start, "%Y-%m-%d"), hours_text(event),
               or_dash(text.title), or_dash(how.full ? full_text(text) : text.description)});
  }
  table.print(stdout);
}

void print_now_and_next(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t now,
                        bool wide) {
  using enum Table::Align;
  using enum Table::Fit;
  Table table({{"LCN", RIGHT, WHOLE, 1}, {"CHANNEL"}, {"NOW", LEFT, SHORT}, {"NEXT", LEFT, SHORT}}, wide);
  for (size_t i = 0; i < events.size(); ++i) {
    const Guide_event& event = events[i];
    const Service& service = services.at(event.channel);
    std::vector<std::string> row{lcn_text(service), or_dash(service.name), "-", "-"};
    const auto cell = [](const Guide_event& one) {
      return time_text(one, one.start, "%H:%M") + " " + or_dash(best_text(one).title);
    };
    const bool is_now = event.start <= now;
    row[is_now ? 2 : 3] = cell(event);
    if (is_now && i + 1 < events.size() && events[i + 1].channel == event.channel) {
      row[3] = cell(events[++i]);
    }
    table.add(std::move(row));
  }
  table.print(stdout);
}

void print_events_in_full(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t now) {
  const std::optional<int> columns = Table::screen_of(stdout);
  std::string out;
  for (const Guide_event& event : events) {
    out += (out.empty() ? "" : "\n\n") + event_in_full(event, services.at(event.channel), columns, now);
  }
  console::print(out, "the guide");
}
