// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/epg_print.h"

#include <pugixml.hpp>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/cli/console.h"
#include "tools/cli/text.h"
#include "tools/epg/event_words.h"

namespace {

constexpr const char* ISO_TIME = "%Y-%m-%dT%H:%M:%S%z";
constexpr const char* XMLTV_TIME = "%Y%m%d%H%M%S %z";

// The DTD recommends ids in the form of domain names. The row number stays the same when a name or a channel number
// changes, so that readers keep their settings.
std::string channel_id(int channel) {
  return fmt::format("{}.kelvo", channel);
}

// Without the two characters that clean texts may hold and XML may not.
std::string xml_text(std::string text) {
  for (const char* never : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    for (size_t at = 0; (at = text.find(never, at)) != std::string::npos;) {
      text.erase(at, 3);
    }
  }
  return text;
}

void add_text(pugi::xml_node parent, const char* name, const std::string& text, const std::string& language) {
  pugi::xml_node node = parent.append_child(name);
  if (!language.empty()) {
    node.append_attribute("lang") = xml_text(language).c_str();
  }
  node.text() = xml_text(text).c_str();
}

void add_programme(pugi::xml_node tv, const Guide_event& event) {
  pugi::xml_node programme = tv.append_child("programme");
  programme.append_attribute("start") = time_text(event, event.start, XMLTV_TIME).c_str();
  // The stop may be left out; an event that stops as it starts would never be on.
  if (event.duration > 0) {
    programme.append_attribute("stop") = time_text(event, event.end(), XMLTV_TIME).c_str();
  }
  programme.append_attribute("channel") = channel_id(event.channel).c_str();
  bool titled = false;
  for (const Event_text& text : event.texts) {
    if (!text.title.empty()) {
      add_text(programme, "title", text.title, text.language);
      titled = true;
    }
  }
  // The DTD demands a title.
  if (!titled) {
    add_text(programme, "title", "-", "");
  }
  for (const Event_text& text : event.texts) {
    const std::string whole = full_text(text);
    if (!whole.empty()) {
      add_text(programme, "desc", whole, text.language);
    }
  }
  for (const std::string& genre : event.genres) {
    // The names of genres are the standard's English ones, whatever language the texts have.
    add_text(programme, "category", genre, "en");
  }
  for (const auto& [country, age] : event.ratings) {
    pugi::xml_node rating = programme.append_child("rating");
    rating.append_attribute("system") = xml_text(country).c_str();
    rating.append_child("value").text() = age;
  }
}

}  // namespace

void print_guide_json(const std::vector<Guide_event>& events, const std::map<int, Service>& services) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const Guide_event& event : events) {
    const Service& service = services.at(event.channel);
    nlohmann::ordered_json one;
    one["channel"] = event.channel;
    one["lcn"] = service.lcn == NO_LCN ? nlohmann::ordered_json() : nlohmann::ordered_json(service.lcn);
    one["name"] = service.name;
    one["event_id"] = event.id;
    one["start"] = time_text(event, event.start, ISO_TIME);
    one["start_epoch"] = event.start;
    one["duration"] = event.duration;
    one["genres"] = event.genres;
    one["ratings"] = nlohmann::ordered_json::array();
    for (const auto& [country, age] : event.ratings) {
      one["ratings"].push_back({{"country", country}, {"age", age}});
    }
    one["texts"] = nlohmann::ordered_json::array();
    for (const Event_text& text : event.texts) {
      nlohmann::ordered_json texts{{"language", text.language},
                                   {"title", text.title},
                                   {"description", text.description},
                                   {"extended", text.extended}};
      texts["items"] = nlohmann::ordered_json::array();
      for (const auto& [name, item] : text.items) {
        texts["items"].push_back({{"name", name}, {"text", item}});
      }
      one["texts"].push_back(std::move(texts));
    }
    out.push_back(std::move(one));
  }
  console::print(out.dump(2) + "\n", "the guide");
}

void print_guide_xmltv(const std::vector<Guide_event>& events, const std::vector<Service>& services) {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  // Names the DTD, so that people can check the guide as it is.
  document.append_child(pugi::node_doctype).set_value("tv SYSTEM \"xmltv.dtd\"");
  pugi::xml_node tv = document.append_child("tv");
  tv.append_attribute("generator-info-name") = "kelvo";
  for (const Service& service : services) {
    pugi::xml_node channel = tv.append_child("channel");
    channel.append_attribute("id") = channel_id(service.channel).c_str();
    add_text(channel, "display-name", or_dash(service.name), "");
    for (const auto& [language, name] : service.names) {
      if (name != service.name) {
        add_text(channel, "display-name", name, language);
      }
    }
    if (service.lcn != NO_LCN) {
      add_text(channel, "display-name", std::to_string(service.lcn), "");
    }
  }
  for (const Guide_event& event : events) {
    add_programme(tv, event);
  }
  std::ostringstream out;
  document.save(out, "  ");
  console::print(out.str(), "the guide");
}
