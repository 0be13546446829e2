// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/event_words.h"

#include "tools/cli/local_time.h"

namespace {

std::string items_text(const Event_text& text) {
  std::string out;
  for (const auto& [name, item] : text.items) {
    out += (out.empty() ? "" : "; ") + name + (name.empty() || item.empty() ? "" : ": ") + item;
  }
  return out;
}

}  // namespace

std::string time_text(const Guide_event& event, int64_t seconds, const char* format) {
  return event.zone ? zone_time(seconds, event.zone->offset_at(seconds), format) : local_time(seconds, format);
}

std::string full_text(const Event_text& text) {
  std::string out;
  for (const std::string& part : {text.description, text.extended, items_text(text)}) {
    if (!part.empty()) {
      out += (out.empty() ? "" : " ") + part;
    }
  }
  return out;
}

const Event_text& best_text(const Guide_event& event) {
  static const Event_text none;
  return event.texts.empty() ? none : event.texts.front();
}

std::string or_dash(const std::string& text) {
  return text.empty() ? "-" : text;
}

std::string lcn_text(const Service& service) {
  return service.lcn == NO_LCN ? "-" : std::to_string(service.lcn);
}

std::string hours_text(const Guide_event& event) {
  return time_text(event, event.start, "%H:%M") + "-" + time_text(event, event.end(), "%H:%M");
}
