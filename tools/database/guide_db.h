// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/database/channel_db.h"

// What an event says in one language. All texts are clean.
struct Event_text {
  std::string language;
  std::string title;
  std::string description;
  std::string extended;
  std::vector<std::pair<std::string, std::string>> items;  // "Director", "..."
};

// A content descriptor's entry: numbers as broadcast, see genre_words.h.
struct Event_genre {
  int level1 = 0;
  int level2 = 0;
  int user = 0;
};

// What an event says of one of its streams: a row of event_component. Numbers as broadcast.
struct Event_component {
  int tag = 0;
  int content = 0;    // stream_content
  int extension = 0;  // stream_content_ext
  int type = 0;       // component_type
  std::string language;
  std::string text;
};

// An event of the guide: a row of epglist with its rows of epglist_lang, and of the event_ tables where the guide has
// them. All texts are clean.
struct Guide_event {
  int channel = 0;         // row of kanalid
  int id = 0;              // event_id
  int64_t start = 0;       // seconds since 1970, UTC
  int duration = 0;        // seconds
  int running_status = 0;  // EN 300 468, table 6
  bool scrambled = false;
  std::vector<std::string> genres;                   // names of the first level, each once
  std::vector<Event_genre> contents;                 // what they are made of
  std::vector<std::pair<std::string, int>> ratings;  // country, lowest age in years
  std::string series_crid;                           // as broadcast, empty for none
  std::string programme_crid;
  std::vector<Event_component> components;
  std::vector<Event_text> texts;       // in the order wanted, see Guide_db
  std::optional<Broadcast_zone> zone;  // to show its times in; the reader's without one

  int64_t end() const { return start + duration; }
};

// A text of the guide made fit for a screen, see clean_text(). Texts that are still in the character table that their
// first byte names (EN 300 468, A.2) are converted first.
std::string guide_text(std::string_view text);

// The items of an extended description, as epglist_lang joins them: a line for each with the description, a colon and
// the item; or, from profile box, the description twice, a colon, the item, a comma.
std::vector<std::pair<std::string, std::string>> split_items(std::string_view list);

// How much of a guide there is.
struct Guide_extent {
  int events = 0;
  int64_t end = 0;  // of the last one, seconds since 1970
};

// A read-only connection to the guide file that belongs to a channel database.
class Guide_db {
 public:
  // Throws Failure when the file is there but cannot be read. A guide that was never made is an empty one.
  explicit Guide_db(const std::string& channel_file);

  const std::string& file() const { return file_; }

  // Events that are on at some time from `from` up to, not including, `to`, by start. `languages` come first in each
  // event's texts, in this order; the others behind them as they were stored.
  std::vector<Guide_event> events(int64_t from, int64_t to, const std::vector<std::string>& languages) const;

  // How many events are stored for each channel.
  std::map<int, int> counts() const;
  // The same with their end.
  std::map<int, Guide_extent> extents() const;

  // Another number after any change of the file by somebody else; 0 while there is none.
  int version() const;

 private:
  std::string file_;
  Connection connection_;
  bool has_details_ = false;  // the event_ tables
};
