// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/event_facts.h"

#include <algorithm>
#include <array>
#include <optional>

#include <fmt/format.h>

#include "tools/database/find_channel.h"
#include "tools/database/genre_words.h"
#include "tools/epg/component_words.h"
#include "tools/epg/episode.h"

namespace {

constexpr std::pair<const char*, const char*> KINDS[] = {{"video", "Picture"},
                                                         {"audio", "Sound"},
                                                         {"subtitles", "Subtitles"},
                                                         {"teletext", "Teletext"},
                                                         {"sign language", "Sign language"},
                                                         {"", "Also"}};

// EN 300 468, table 6.
constexpr std::array<const char*, 6> RUNNING = {"",        "not running", "starts in a few seconds",
                                                "pausing", "running",     "off the air"};

// Each once and no empty ones, in their order.
void add_new(std::vector<std::string>* to, const std::string& text) {
  if (!text.empty() && std::find(to->begin(), to->end(), text) == to->end()) {
    to->push_back(text);
  }
}

// "qaa" is the language in which it was made, whichever that is.
std::string language_text(const std::string& code) {
  return lower_case(code) == "qaa" ? "original" : code;
}

std::string component_text(const Event_component& component, const Component_words& words) {
  std::vector<std::string> parts;
  // Pictures have a language in the tables, which says nothing.
  add_new(&parts, words.kind == "video" ? "" : language_text(component.language));
  for (const std::string& part : {words.aspect, words.quality, words.sound, words.codec, words.role, component.text}) {
    add_new(&parts, part);
  }
  return fmt::format("{}", fmt::join(parts, ", "));
}

std::string episode_text(const Episode& episode) {
  if (episode.number == 0) {
    return episode.text;
  }
  return (episode.season == 0 ? "" : fmt::format("season {}, ", episode.season)) +
         fmt::format("episode {}", episode.number) + (episode.of == 0 ? "" : fmt::format(" of {}", episode.of));
}

}  // namespace

std::vector<std::string> genre_facts(const Guide_event& event) {
  std::vector<std::string> out;
  for (const std::string& name : event.genres) {
    std::vector<std::string> details;
    for (const Event_genre& genre : event.contents) {
      if (genre_name(genre.level1) == name) {
        add_new(&details, genre_detail(genre.level1, genre.level2));
      }
    }
    out.push_back(name + (details.empty() ? "" : fmt::format(": {}", fmt::join(details, "; "))));
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> event_facts(const Guide_event& event, int64_t now) {
  std::vector<std::pair<std::string, std::string>> out;
  if (const std::optional<Episode> episode = find_episode(event)) {
    out.emplace_back("Episode", episode_text(*episode));
  }
  for (const auto& [kind, name] : KINDS) {
    std::vector<std::string> texts;
    for (const Event_component& component : event.components) {
      const Component_words words = component_words(component);
      if (words.kind == kind) {
        add_new(&texts, component_text(component, words));
      }
    }
    if (!texts.empty()) {
      out.emplace_back(name, fmt::format("{}", fmt::join(texts, "; ")));
    }
  }
  std::vector<std::string> states;
  if (event.start <= now && now < event.end() && event.running_status > 0 &&
      static_cast<size_t>(event.running_status) < RUNNING.size()) {
    states.emplace_back(RUNNING[static_cast<size_t>(event.running_status)]);
  }
  if (event.scrambled) {
    states.emplace_back("scrambled");
  }
  if (!states.empty()) {
    out.emplace_back("Broadcast", fmt::format("{}", fmt::join(states, ", ")));
  }
  return out;
}
