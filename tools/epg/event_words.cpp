// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/event_words.h"

#include "tools/cli/local_time.h"

namespace {

// Without the ellipsis of a text that was cut, and without white space, of which the two texts often have different
// amounts.
std::string essence(std::string text) {
  for (const char* ellipsis : {"...", "\u2026"}) {
    if (text.ends_with(ellipsis)) {
      text.resize(text.size() - std::char_traits<char>::length(ellipsis));
    }
  }
  std::erase(text, ' ');
  return text;
}

}  // namespace

std::vector<std::string> paragraphs(const Event_text& text) {
  const std::string description = essence(text.description);
  const std::string extended = essence(text.extended);
  if (extended.find(description) != std::string::npos) {
    return text.extended.empty() ? std::vector<std::string>() : std::vector{text.extended};
  }
  if (description.find(extended) != std::string::npos) {
    return {text.description};
  }
  return {text.description, text.extended};
}

std::string time_text(const Guide_event& event, int64_t seconds, const char* format) {
  return event.zone ? zone_time(seconds, event.zone->offset_at(seconds), format) : local_time(seconds, format);
}

std::string items_text(const Event_text& text) {
  std::string out;
  for (const auto& item : text.items) {
    out += (out.empty() ? "" : "; ") + item_text(item);
  }
  return out;
}

std::string full_text(const Event_text& text) {
  std::string out;
  std::vector<std::string> parts = paragraphs(text);
  parts.push_back(items_text(text));
  for (const std::string& part : parts) {
    out += (out.empty() || part.empty() ? "" : " ") + part;
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
