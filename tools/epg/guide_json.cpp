// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/guide_json.h"

#include "tools/database/channel_id.h"
#include "tools/database/genre_words.h"
#include "tools/epg/component_words.h"
#include "tools/epg/episode.h"
#include "tools/epg/event_words.h"
#include "tools/epg/item_words.h"

namespace {

using nlohmann::ordered_json;

constexpr const char* ISO_TIME = "%Y-%m-%dT%H:%M:%S%z";

ordered_json or_null(const std::string& text) {
  return text.empty() ? ordered_json() : ordered_json(text);
}

// Keys are always there, null where nothing is known, and in the order of writing, so that two guides can be compared
// line by line.
ordered_json to_json(const Event_text& text) {
  ordered_json out{{"language", text.language},
                   {"title", text.title},
                   {"description", text.description},
                   {"extended", text.extended},
                   {"items", ordered_json::array()}};
  for (const auto& [name, item] : text.items) {
    out["items"].push_back({{"name", name}, {"text", item}});
  }
  return out;
}

// The numbers of the standard stand beside the words made of them: the words are for people and may change.
ordered_json to_json(const Event_component& component) {
  const Component_words words = component_words(component);
  return {{"kind", or_null(words.kind)},
          {"language", or_null(component.language)},
          {"text", or_null(component.text)},
          {"aspect", or_null(words.aspect)},
          {"quality", or_null(words.quality)},
          {"sound", or_null(words.sound)},
          {"codec", or_null(words.codec)},
          {"role", or_null(words.role)},
          {"component_tag", component.tag},
          {"stream_content", component.content},
          {"stream_content_ext", component.extension},
          {"component_type", component.type}};
}

ordered_json to_json(const Event_genre& genre) {
  return {{"level1", genre.level1},
          {"level2", genre.level2},
          {"user", genre.user},
          {"name", or_null(genre_name(genre.level1))},
          {"detail", or_null(genre_detail(genre.level1, genre.level2))}};
}

ordered_json to_json(const Episode& episode) {
  const auto number = [](int value) { return value == 0 ? ordered_json() : ordered_json(value); };
  return {{"text", episode.text},
          {"season", number(episode.season)},
          {"number", number(episode.number)},
          {"of", number(episode.of)}};
}

ordered_json to_json(const Guide_event& event, const Service& service) {
  ordered_json out;
  out["channel"] = event.channel;
  out["channel_id"] = channel_id(service);
  out["lcn"] = service.lcn == NO_LCN ? ordered_json() : ordered_json(service.lcn);
  out["name"] = service.name;
  out["event_id"] = event.id;
  out["start"] = time_text(event, event.start, ISO_TIME);
  out["start_epoch"] = event.start;
  out["duration"] = event.duration;
  out["running_status"] = event.running_status;
  out["scrambled"] = event.scrambled;
  out["genres"] = event.genres;
  out["contents"] = ordered_json::array();
  for (const Event_genre& genre : event.contents) {
    out["contents"].push_back(to_json(genre));
  }
  out["ratings"] = ordered_json::array();
  for (const auto& [country, age] : event.ratings) {
    out["ratings"].push_back({{"country", country}, {"age", age}});
  }
  const std::optional<Episode> episode = find_episode(event);
  out["episode"] = episode ? to_json(*episode) : ordered_json();
  out["people"] = ordered_json::array();
  for (const Person& person : people_of(event)) {
    out["people"].push_back(
        {{"role", person_word(person.kind)}, {"name", person.name}, {"part", or_null(person.part)}});
  }
  out["series_crid"] = or_null(event.series_crid);
  out["programme_crid"] = or_null(event.programme_crid);
  out["components"] = ordered_json::array();
  for (const Event_component& component : event.components) {
    out["components"].push_back(to_json(component));
  }
  out["texts"] = ordered_json::array();
  for (const Event_text& text : event.texts) {
    out["texts"].push_back(to_json(text));
  }
  return out;
}

}  // namespace

ordered_json guide_json(const std::vector<Guide_event>& events, const std::map<int, Service>& services) {
  ordered_json out{{"format", "kelvo-guide"}, {"version", 1}, {"events", ordered_json::array()}};
  for (const Guide_event& event : events) {
    out["events"].push_back(to_json(event, services.at(event.channel)));
  }
  return out;
}
