// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/event_words.h"

#include "tools/cli/local_time.h"

namespace {

std::string items_text(const Event_text& text) {
  std::string out;
  for (const auto& item : text.items) {
    out += (out.empty() ? "" : "; ") + item_text(item);
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

std::string item_text(const std::pair<std::string, std::string>& item) {
  return item.first + (item.first.empty() || item.second.empty() ? "" : ": ") + item.second;
}

std::string hours_text(const Guide_event& event) {
  return time_text(event, event.start, "%H:%M") + "-" + time_text(event, event.end(), "%H:%M");
}
