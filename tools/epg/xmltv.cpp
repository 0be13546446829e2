// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/xmltv.h"

#include <algorithm>
#include <map>
#include <optional>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "tools/cli/text.h"
#include "tools/database/channel_id.h"
#include "tools/database/genre_words.h"
#include "tools/epg/component_words.h"
#include "tools/epg/episode.h"
#include "tools/epg/event_words.h"
#include "tools/epg/item_words.h"
#include "tools/epg/language_code.h"

namespace {

constexpr const char* XMLTV_TIME = "%Y%m%d%H%M%S %z";

// Without the two characters that clean texts may hold and XML may not.
std::string xml_text(std::string text) {
  for (const char* never : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    for (size_t at = 0; (at = text.find(never, at)) != std::string::npos;) {
      text.erase(at, 3);
    }
  }
  return text;
}

pugi::xml_node add_text(pugi::xml_node parent, const char* name, const std::string& text,
                        const std::string& language = "") {
  pugi::xml_node node = parent.append_child(name);
  if (const std::string code = language_code(language); !code.empty()) {
    node.append_attribute("lang") = code.c_str();
  }
  node.text() = xml_text(text).c_str();
  return node;
}

// A language that is spoken; empty for codes that only mark a sound ("original version").
std::string spoken(const std::string& broadcast) {
  const std::string code = language_code(broadcast);
  return code.size() == 3 && code[0] == 'q' ? "" : code;
}

void add_titles(pugi::xml_node programme, const Guide_event& event) {
  bool titled = false;
  for (const Event_text& text : event.texts) {
    if (!text.title.empty()) {
      add_text(programme, "title", text.title, text.language);
      titled = true;
    }
  }
  // The DTD demands a title.
  if (!titled) {
    add_text(programme, "title", "-");
  }
}

// The items of that kind of all languages, each text once.
void add_items(pugi::xml_node programme, const char* element, const Guide_event& event, Item_kind kind) {
  std::set<std::string> seen;
  for (const Event_text& text : event.texts) {
    for (const auto& [name, value] : text.items) {
      if (item_kind(name) == kind && !value.empty() && seen.insert(value).second) {
        add_text(programme, element, value, text.language);
      }
    }
  }
}

// A line each: description, extended text, and the items that do not stand in elements of their own.
void add_descriptions(pugi::xml_node programme, const Guide_event& event) {
  for (Event_text text : event.texts) {
    std::erase_if(text.items, is_understood);
    std::vector<std::string> lines = paragraphs(text);
    if (std::string items = items_text(text); !items.empty()) {
      lines.push_back(std::move(items));
    }
    if (!lines.empty()) {
      add_text(programme, "desc", fmt::format("{}", fmt::join(lines, "\n")), text.language);
    }
  }
}

void add_credits(pugi::xml_node programme, const Guide_event& event) {
  const std::vector<Person> people = people_of(event);
  if (people.empty()) {
    return;
  }
  pugi::xml_node credits = programme.append_child("credits");
  for (const Person& person : people) {
    pugi::xml_node node = add_text(credits, person_word(person.kind), person.name);
    if (!person.part.empty()) {
      node.append_attribute("role") = xml_text(person.part).c_str();
    }
  }
}

void add_date(pugi::xml_node programme, const Guide_event& event) {
  for (const Event_text& text : event.texts) {
    for (const auto& [name, value] : text.items) {
      if (item_kind(name) == Item_kind::YEAR && !year_in(value).empty()) {
        add_text(programme, "date", year_in(value));
        return;
      }
    }
  }
}

// The names of genres are the standard's English ones, whatever language the texts have.
void add_categories(pugi::xml_node programme, const Guide_event& event) {
  std::set<std::string> seen;
  for (const Event_genre& genre : event.contents) {
    const std::string name = genre.level1 == SPECIAL_CHARACTERISTICS ? "" : genre_name(genre.level1);
    for (const std::string& word : {name, genre_detail(genre.level1, genre.level2)}) {
      if (!word.empty() && seen.insert(word).second) {
        add_text(programme, "category", word, "eng");
      }
    }
  }
}

// Content reference identifiers are URIs; XMLTV has no name of its own for them.
void add_episode(pugi::xml_node programme, const Guide_event& event) {
  const auto add = [programme](const char* system, const std::string& text) {
    add_text(programme, "episode-num", text).append_attribute("system") = system;
  };
  if (const std::optional<Episode> episode = find_episode(event)) {
    if (episode->season != 0 && episode->number != 0) {
      const std::string of = episode->of == 0 ? "" : fmt::format("/{}", episode->of);
      add("xmltv_ns", fmt::format("{}.{}{}.", episode->season - 1, episode->number - 1, of));
    }
    add("onscreen", episode->text);
  }
  if (!event.programme_crid.empty()) {
    add("crid", event.programme_crid);
  }
  if (!event.series_crid.empty()) {
    add("crid-series", event.series_crid);
  }
}

// The first sound that is not a special one is what most people hear.
struct Main_components {
  const Event_component* audio = nullptr;
  Component_words video, sound;
};

Main_components main_components(const Guide_event& event) {
  Main_components out;
  for (const Event_component& component : event.components) {
    Component_words words = component_words(component);
    if (words.kind == "video" && out.video.kind.empty()) {
      out.video = std::move(words);
    } else if (words.kind == "audio" && words.role.empty() && out.audio == nullptr) {
      out.audio = &component;
      out.sound = std::move(words);
    }
  }
  return out;
}

void add_video(pugi::xml_node programme, const Guide_event& event, const Component_words& words) {
  const bool grey = std::any_of(event.contents.begin(), event.contents.end(), [](const Event_genre& genre) {
    return genre.level1 == SPECIAL_CHARACTERISTICS && genre.level2 == 1;
  });
  const bool has_aspect = words.aspect == "4:3" || words.aspect == "16:9";
  const std::string quality = words.quality == "HD" ? "HDTV" : words.quality == "UHD" ? "UHDTV" : "";
  if (!grey && !has_aspect && quality.empty()) {
    return;
  }
  pugi::xml_node video = programme.append_child("video");
  if (grey) {
    add_text(video, "colour", "no");
  }
  if (has_aspect) {
    add_text(video, "aspect", words.aspect);
  }
  if (!quality.empty()) {
    add_text(video, "quality", quality);
  }
}

// The words that the DTD has.
void add_audio(pugi::xml_node programme, const Component_words& words) {
  std::string sound;
  if (words.codec == "AC-3" || words.codec == "E-AC-3") {
    sound = "dolby digital";
  } else if (words.sound == "dual mono") {
    sound = "bilingual";
  } else {
    sound = words.sound;
  }
  if (!sound.empty()) {
    add_text(programme.append_child("audio"), "stereo", sound);
  }
}

// What the viewer can have is "teletext", also where it is sent as pictures.
void add_subtitles(pugi::xml_node programme, const Guide_event& event) {
  std::set<std::pair<std::string, std::string>> seen;
  for (const Event_component& component : event.components) {
    const Component_words words = component_words(component);
    const std::string type = words.kind == "subtitles"       ? "teletext"
                             : words.kind == "sign language" ? "deaf-signed"
                                                             : "";
    const std::string language = spoken(component.language);
    if (type.empty() || !seen.insert({type, language}).second) {
      continue;
    }
    pugi::xml_node node = programme.append_child("subtitles");
    node.append_attribute("type") = type.c_str();
    if (!language.empty()) {
      add_text(node, "language", language);
    }
  }
}

// The number alone is what readers compare. Where countries differ, each has its own system.
void add_ratings(pugi::xml_node programme, const Guide_event& event) {
  std::set<int> ages;
  for (const auto& rating : event.ratings) {
    ages.insert(rating.second);
  }
  std::set<std::pair<std::string, int>> seen;
  for (const auto& [country, age] : event.ratings) {
    const std::string system = ages.size() < 2 ? "DVB" : "DVB-" + xml_text(country);
    if (seen.insert({system, age}).second) {
      pugi::xml_node rating = programme.append_child("rating");
      rating.append_attribute("system") = system.c_str();
      rating.append_child("value").text() = age;
    }
  }
}

// In the order that the DTD demands.
void add_programme(pugi::xml_node tv, const Guide_event& event, const std::string& id) {
  pugi::xml_node programme = tv.append_child("programme");
  programme.append_attribute("start") = time_text(event, event.start, XMLTV_TIME).c_str();
  // The stop may be left out; an event that stops as it starts would never be on.
  if (event.duration > 0) {
    programme.append_attribute("stop") = time_text(event, event.end(), XMLTV_TIME).c_str();
  }
  programme.append_attribute("channel") = id.c_str();
  const Main_components components = main_components(event);
  add_titles(programme, event);
  add_items(programme, "sub-title", event, Item_kind::EPISODE_TITLE);
  add_descriptions(programme, event);
  add_credits(programme, event);
  add_date(programme, event);
  add_categories(programme, event);
  if (const std::string language = components.audio == nullptr ? "" : spoken(components.audio->language);
      !language.empty()) {
    add_text(programme, "language", language);
  }
  add_items(programme, "country", event, Item_kind::COUNTRY);
  add_episode(programme, event);
  add_video(programme, event, components.video);
  add_audio(programme, components.sound);
  add_subtitles(programme, event);
  add_ratings(programme, event);
}

void add_channel(pugi::xml_node tv, const Service& service, const std::string& id) {
  pugi::xml_node channel = tv.append_child("channel");
  channel.append_attribute("id") = id.c_str();
  add_text(channel, "display-name", or_dash(service.name));
  for (const auto& [language, name] : service.names) {
    if (name != service.name) {
      add_text(channel, "display-name", name, language);
    }
  }
  if (service.lcn != NO_LCN) {
    add_text(channel, "display-name", std::to_string(service.lcn));
  }
}

// By row, the id of those services that speak for theirs.
std::map<int, std::string> speakers(const std::vector<Guide_event>& events, const std::vector<Service>& services) {
  std::set<int> with_events;
  for (const Guide_event& event : events) {
    with_events.insert(event.channel);
  }
  const auto rank = [&with_events](const Service& service) {
    return std::pair(with_events.contains(service.channel), service.scan_state == 1);
  };
  std::map<std::string, const Service*> by_id;
  for (const Service& service : services) {
    const Service*& best = by_id[channel_id(service)];
    if (best == nullptr || rank(service) > rank(*best)) {
      best = &service;
    }
  }
  std::map<int, std::string> out;
  for (const auto& [id, service] : by_id) {
    out[service->channel] = id;
  }
  return out;
}

}  // namespace

std::string guide_xmltv(const std::vector<Guide_event>& events, const std::vector<Service>& services) {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  // Names the DTD, so that people can check the guide as it is.
  document.append_child(pugi::node_doctype).set_value("tv SYSTEM \"xmltv.dtd\"");
  pugi::xml_node tv = document.append_child("tv");
  tv.append_attribute("generator-info-name") = "kelvo/" KELVO_VERSION;
  const std::map<int, std::string> ids = speakers(events, services);
  for (const Service& service : services) {
    if (const auto id = ids.find(service.channel); id != ids.end()) {
      add_channel(tv, service, id->second);
    }
  }
  for (const Guide_event& event : events) {
    if (const auto id = ids.find(event.channel); id != ids.end()) {
      add_programme(tv, event, id->second);
    }
  }
  std::ostringstream out;
  document.save(out, "  ");
  return out.str();
}

void end_at_the_next(std::vector<Guide_event>* events) {
  std::map<int, Guide_event*> last;
  for (Guide_event& event : *events) {
    Guide_event*& before = last[event.channel];
    if (before != nullptr && before->end() > event.start) {
      before->duration = static_cast<int>(event.start - before->start);
    }
    before = &event;
  }
}
