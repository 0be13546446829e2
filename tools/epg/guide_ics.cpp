// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/guide_ics.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "tools/cli/local_time.h"
#include "tools/cli/text.h"
#include "tools/database/channel_id.h"
#include "tools/epg/event_words.h"
#include "tools/epg/language_code.h"

namespace {

std::string utc(int64_t seconds, const char* format = "%Y%m%dT%H%M%SZ") {
  return zone_time(seconds, 0, format);
}

// RFC 5545, 3.3.11.
std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\' || c == ';' || c == ',') {
      out += '\\';
    }
    out += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return out;
}

// A content line, broken so that none has more than 75 octets (3.1); never inside a character.
std::string line(const std::string& text) {
  constexpr size_t LONGEST = 75;
  std::string out;
  size_t column = 0;
  for (size_t at = 0; at < text.size();) {
    size_t size = 1;
    while (at + size < text.size() && (static_cast<unsigned char>(text[at + size]) & 0xC0) == 0x80) {
      ++size;
    }
    if (column + size > LONGEST) {
      out += "\r\n ";
      column = 1;
    }
    out.append(text, at, size);
    column += size;
    at += size;
  }
  return out + "\r\n";
}

std::string text_line(const std::string& name, const std::string& text, const std::string& language) {
  if (text.empty()) {
    return "";
  }
  const std::string code = language_code(language);
  return line(name + (code.empty() ? "" : ";LANGUAGE=" + code) + ":" + escaped(text));
}

std::string description(const Event_text& text) {
  std::vector<std::string> parts = paragraphs(text);
  for (const auto& item : text.items) {
    parts.push_back(item_text(item));
  }
  return fmt::format("{}", fmt::join(parts, "\n"));
}

std::string event_lines(const Guide_event& event, const Service& service, const std::string& uid, int64_t made) {
  const Event_text& text = best_text(event);
  std::string out =
      line("BEGIN:VEVENT") + line("UID:" + uid) + line("DTSTAMP:" + utc(made)) + line("DTSTART:" + utc(event.start));
  if (event.duration > 0) {
    out += line("DTEND:" + utc(event.end()));
  }
  out += text_line("SUMMARY", or_dash(text.title), text.language);
  out += text_line("DESCRIPTION", description(text), text.language);
  out += text_line("LOCATION", service.name, "");
  std::vector<std::string> genres(event.genres.size());
  std::transform(event.genres.begin(), event.genres.end(), genres.begin(), escaped);
  if (!genres.empty()) {
    out += line(fmt::format("CATEGORIES:{}", fmt::join(genres, ",")));
  }
  // What is on television keeps nobody busy.
  return out + line("TRANSP:TRANSPARENT") + line("END:VEVENT");
}

// A calendar must have something in it.
std::string zone_lines() {
  return line("BEGIN:VTIMEZONE") + line("TZID:UTC") + line("BEGIN:STANDARD") + line("DTSTART:19700101T000000") +
         line("TZOFFSETFROM:+0000") + line("TZOFFSETTO:+0000") + line("END:STANDARD") + line("END:VTIMEZONE");
}

}  // namespace

std::string guide_ics(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t made) {
  std::string out = line("BEGIN:VCALENDAR") + line("VERSION:2.0") +
                    line("PRODID:-//kelvo//kelvo " KELVO_VERSION "//EN") + line("CALSCALE:GREGORIAN");
  if (events.empty()) {
    out += zone_lines();
  }
  std::set<std::string> uids;
  for (const Guide_event& event : events) {
    const Service& service = services.at(event.channel);
    std::string uid = fmt::format("{}-{}@{}", utc(event.start, "%Y%m%d"), event.id, channel_id(service));
    // Networks that give several events the same id, and services that two transmitters send.
    if (!uids.insert(uid).second) {
      uid = fmt::format("{}-{}-{}@{}", event.start, event.id, event.channel, channel_id(service));
    }
    out += event_lines(event, service, uid, made);
  }
  return out + line("END:VCALENDAR");
}
