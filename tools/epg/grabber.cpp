// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/grabber.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <vector>

#include <fmt/format.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/language_list.h"
#include "tools/cli/local_time.h"
#include "tools/cli/output_file.h"
#include "tools/cli/text.h"
#include "tools/database/channel_db.h"
#include "tools/database/channel_id.h"
#include "tools/database/find_channel.h"
#include "tools/database/guide_db.h"
#include "tools/epg/grabber_settings.h"
#include "tools/epg/xmltv.h"

namespace {

std::string settings_file(const Grabber_options& options) {
  return options.config_file ? *options.config_file : default_settings_file();
}

// Without settings in the default place all channels are wanted.
Grabber_settings settings_of(const Grabber_options& options) {
  Grabber_settings out;
  if (options.config_file || std::filesystem::exists(settings_file(options))) {
    out = read_settings(settings_file(options));
  }
  if (options.database) {
    out.database = *options.database;
  }
  if (out.database.empty()) {
    out.database = default_database();
  }
  return out;
}

std::vector<Service> services_of(const std::string& database) {
  std::vector<Service> out = Channel_db(database).services(true);
  sort_by_number(&out);
  return out;
}

void write_output(const Grabber_options& options, const std::string& text) {
  Output_file out(options.output);
  out.write(text);
  out.finish();
}

void say(const Grabber_options& options, const std::string& text) {
  if (!options.quiet) {
    console::say("tv_grab_kelvo: " + clean_text(text));
  }
}

std::string name_of(const Service& service) {
  return (service.lcn == NO_LCN ? "" : std::to_string(service.lcn) + " ") + or_dash(service.name);
}

// What somebody does who knows nothing of the channel: hidden ones carry tests and software.
bool is_wanted_by_itself(const Service& service) {
  return service.visible;
}

// A settings file is no less right for a channel that is gone, or new; people should hear of it.
void tell_differences(const Grabber_options& options, const Grabber_settings& settings,
                      const std::vector<Service>& services) {
  if (settings.channels.empty()) {
    return;
  }
  std::map<std::string, const Service*> there;
  for (const Service& service : services) {
    there.emplace(channel_id(service), &service);
  }
  for (const auto& [id, wanted] : settings.channels) {
    if (wanted && !there.contains(id)) {
      say(options, fmt::format("{}: no longer in {}", id, settings.database));
    }
  }
  const auto added = std::count_if(there.begin(), there.end(), [&settings](const auto& one) {
    return !settings.channels.contains(one.first) && is_wanted_by_itself(*one.second);
  });
  if (added > 0) {
    say(options, fmt::format("{} more {} in {}; 'tv_grab_kelvo --configure' asks for them", added,
                             added == 1 ? "channel is" : "channels are", settings.database));
  }
}

std::vector<std::string> languages_of(const Grabber_options& options, const Grabber_settings& settings) {
  if (settings.languages.empty()) {
    return {};
  }
  try {
    return split_languages(settings.languages);
  } catch (const Failure&) {
    throw Failure(fmt::format("{}: languages={}: not a list of languages; give codes of three letters, such as est,eng",
                              settings_file(options), settings.languages));
  }
}

enum class Choice { YES, NO, ALL, NONE };

// The words of XMLTV's own questions; the first letter is enough. Anything else counts as the default.
Choice ask(const std::string& name, bool wanted) {
  console::put(fmt::format("Add channel {}? [yes,no,all,none (default={})] ", name, wanted ? "yes" : "no"));
  std::string line;
  (void)std::getline(std::cin, line);
  const std::string answer = lower_case(clean_text(line));
  if (!std::cin) {
    console::put("\n");
  }
  const auto is = [&answer](const char* word) { return !answer.empty() && std::string(word).starts_with(answer); };
  if (is("all")) {
    return Choice::ALL;
  }
  if (answer != "n" && is("none") && answer != "no") {
    return Choice::NONE;
  }
  return is("yes") ? Choice::YES : is("no") ? Choice::NO : wanted ? Choice::YES : Choice::NO;
}

}  // namespace

void grab(const Grabber_options& options) {
  const Grabber_settings settings = settings_of(options);
  const std::vector<std::string> languages = languages_of(options, settings);
  const std::vector<Service> services = services_of(settings.database);
  tell_differences(options, settings, services);
  const int64_t from = midnight_in(options.offset);
  const int64_t to = options.days ? midnight_in(options.offset + *options.days) : std::numeric_limits<int64_t>::max();
  std::map<int, bool> wanted;  // by row; true once it has an event
  for (const Service& service : services) {
    const auto chosen = settings.channels.find(channel_id(service));
    if (settings.channels.empty() ? is_wanted_by_itself(service)
                                  : chosen != settings.channels.end() && chosen->second) {
      wanted[service.channel] = false;
    }
  }
  // Those of later days, too, because what begins then may end what is on before.
  std::vector<Guide_event> events =
      Guide_db(settings.database).events(from, std::numeric_limits<int64_t>::max(), languages);
  end_at_the_next(&events);
  // Days fit together without a gap or a double: an event is of the day on which it begins.
  std::erase_if(events, [&](const Guide_event& event) {
    const bool of_these_days = event.start < to && (event.start >= from || (options.offset == 0 && event.end() > from));
    return !of_these_days || !wanted.contains(event.channel);
  });
  for (const Guide_event& event : events) {
    wanted[event.channel] = true;
  }
  std::vector<Service> named;
  std::copy_if(services.begin(), services.end(), std::back_inserter(named), [&wanted](const Service& service) {
    const auto found = wanted.find(service.channel);
    return found != wanted.end() && found->second;
  });
  std::stable_sort(events.begin(), events.end(),
                   [](const Guide_event& a, const Guide_event& b) { return a.channel < b.channel; });
  if (events.empty()) {
    say(options,
        fmt::format("no events of these channels and days in {}; 'kelvo epg update' collects them", settings.database));
  }
  write_output(options, guide_xmltv(events, named));
}

void list_channels(const Grabber_options& options) {
  write_output(options, guide_xmltv({}, services_of(settings_of(options).database)));
}

void configure(const Grabber_options& options) {
  const std::string file = settings_file(options);
  Grabber_settings settings;
  if (std::filesystem::exists(file)) {
    settings = read_settings(file);
  }
  settings.database = options.database            ? *options.database
                      : settings.database.empty() ? default_database()
                                                  : settings.database;
  // Whoever runs the grabber later may have another working folder, and another home.
  settings.database = std::filesystem::absolute(settings.database).lexically_normal().string();
  const std::vector<Service> services = services_of(settings.database);
  if (services.empty()) {
    throw Failure(fmt::format("{}: no channels yet; find them with 'kelvo scan'", settings.database));
  }
  std::map<std::string, std::string> names;
  std::map<std::string, bool> channels;
  std::optional<bool> rest;
  for (const Service& service : services) {
    const std::string id = channel_id(service);
    if (!names.emplace(id, name_of(service)).second) {
      continue;  // of another transmitter
    }
    const auto before = settings.channels.find(id);
    const bool as_it_was = before == settings.channels.end() ? is_wanted_by_itself(service) : before->second;
    const Choice answer = rest        ? (*rest ? Choice::YES : Choice::NO)
                          : std::cin  ? ask(names[id], as_it_was)
                          : as_it_was ? Choice::YES
                                      : Choice::NO;
    if (answer == Choice::ALL || answer == Choice::NONE) {
      rest = answer == Choice::ALL;
    }
    channels[id] = answer == Choice::YES || answer == Choice::ALL;
  }
  settings.channels = std::move(channels);
  write_settings(file, settings, names);
  say(options, fmt::format("{}: {} of {} channels", file,
                           std::count_if(settings.channels.begin(), settings.channels.end(),
                                         [](const auto& channel) { return channel.second; }),
                           settings.channels.size()));
}

void print_questions(const Grabber_options& options, const std::string& stage) {
  if (stage != "start") {
    throw Failure(fmt::format("--stage {}: there is only the stage start", stage), EXIT_USAGE);
  }
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node configuration = document.append_child("xmltvconfiguration");
  pugi::xml_node question = configuration.append_child("string");
  question.append_attribute("id") = "database";
  question.append_attribute("default") = default_database().c_str();
  const auto add = [&question](const char* element, const char* text) {
    pugi::xml_node node = question.append_child(element);
    node.append_attribute("lang") = "en";
    node.text() = text;
  };
  add("title", "Channel database");
  add("description", "The file that 'kelvo scan' has made; the guide lies beside it.");
  configuration.append_child("nextstage").append_attribute("stage") = "select-channels";
  std::ostringstream out;
  document.save(out, "  ");
  write_output(options, out.str());
}
