// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <optional>
#include <string>

// An event of the guide, with its texts in one language. A value; texts are valid UTF-8, whatever profile stored them,
// without control characters but for the line feeds of the two descriptions.
struct Programme {
  int entry = 0;           // its row of epglist; the event_ tables of docs/database.md know it by that
  int event_id = 0;        // (EN 300 468, 5.2.4)
  int64_t start = 0;       // seconds since 1970, UTC
  int duration_sec = 0;    // as announced; 0 where nothing was
  int running_status = 0;  // as the section said that brought it: 4 running, 0 not known. As old as that section
  std::string language;    // of the texts: ISO 639, as broadcast; empty when the event has none
  std::string title;
  std::string description;
  std::string extended;

  int64_t end() const { return start + duration_sec; }
};

// What a channel shows; see class Now_and_next.
struct Now_next {
  std::optional<Programme> now;   // empty in a gap of the guide, and where there is none
  std::optional<Programme> next;  // empty at the guide's end
};
