// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <algorithm>
#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "db/pmt_subtxt_lang.h"
#include "si/broadcast_time.h"
#include "si/eit_lang.h"
#include "si/extended_texts.h"

// What descriptors say, as values. Handlers (descriptor_handlers.h) fill these records, the parser of the table hands
// them to the database (scan_rows.h). They live as long as the section that is being read, or shorter.

// One record for each language, in the order in which the languages were met. A list of pointers, because hosts and the
// database take one. `T` begins with the language's code, `lang`.
template <typename T>
class By_language {
 public:
  By_language() = default;
  ~By_language() { clear(); }
  By_language(const By_language&) = delete;
  By_language& operator=(const By_language&) = delete;

  // The record of this language; made, with everything else zero, when there is none.
  T* find_or_make(const std::string& code) {
    const auto known = std::find_if(list_.begin(), list_.end(), [&](const T* record) { return record->lang == code; });
    if (known != list_.end())
      return *known;
    list_.push_back(new T{});
    list_.back()->lang = code;
    return list_.back();
  }
  void clear() {
    for (T* record : list_)
      delete record;
    list_.clear();
  }

  const std::list<T*>& list() const { return list_; }
  // For who takes the records away: it deletes them and empties the list.
  std::list<T*>* taken() { return &list_; }

 private:
  std::list<T*> list_;
};

// Which entries of teletext and subtitling descriptors are kept.
enum class Subtitle_rows {
  ONE_A_LANGUAGE,  // the last one of each language
  ALL,             // every one that differs
};

// What these descriptors have left for the next stream that is stored.
class Subtitles_found : public By_language<PMT_subtxt_lang> {
 public:
  explicit Subtitles_found(Subtitle_rows rows) : rows_(rows) {}

  void add(const PMT_subtxt_lang& entry) {
    const auto same = [&entry](const PMT_subtxt_lang* other) {
      return other->lang == entry.lang && other->es_subtype == entry.es_subtype && other->p1 == entry.p1 &&
             other->p2 == entry.p2;
    };
    if (rows_ == Subtitle_rows::ONE_A_LANGUAGE)
      *find_or_make(entry.lang) = entry;
    else if (std::none_of(list().begin(), list().end(), same))
      taken()->push_back(new PMT_subtxt_lang(entry));
  }

 private:
  Subtitle_rows rows_;
};

struct Ca_found {
  int system_id = 0;
  int pid = 0;
};

// One elementary stream of a PMT.
struct Stream_found {
  int32_t subtype = 0;
  std::string codec;
  std::string languages;    // ISO 639 codes, each followed by a blank
  std::string audio_types;  // their numbers, likewise
  Ca_found ca;
};

// One event of an EIT; what it has when no descriptor says anything else.
struct Event_found {
  std::string content = "0.0.0.0";
  std::string rating = "0@est";
  By_language<EIT_lang> texts;
  By_language<Extended_texts> extended;
};

// What the last local time offset did that did anything.
struct Zone_found {
  int result = ZONE_UNTOUCHED;
  int offset_min = 0;
  std::string country;
  // Only of an offset that was chosen:
  int region = 0;
  int64_t change = 0;  // seconds since 1970, 0 for none that is to come
  int next_offset_min = 0;
};

// A terrestrial delivery system; numbers as broadcast, but for the frequency.
struct Delivery_found {
  int freq = 0;  // Hz
  int bandwidth = 0;
  int constellation = 0;
  int hierarchy = 0;
  int code_rate_hp = 0;
  int code_rate_lp = 0;
  int guard_interval = 0;
  int transmission_mode = 0;
};

// What the descriptors of one section have left so far. Each table's parser takes what belongs to it. The rest, from
// descriptors that stand in the wrong loop, goes with the section.
struct Found {
  explicit Found(Subtitle_rows rows = Subtitle_rows::ONE_A_LANGUAGE) : subtitles(rows) {}

  std::optional<Ca_found> programme_ca;  // of a PMT's programme loop; the last one counts
  Stream_found stream;                   // the elementary stream at hand
  Subtitles_found subtitles;             // teletext and subtitling for the next stream that is stored
  std::optional<Event_found> event;      // the event at hand; made when a descriptor needs it
  Zone_found zone;

  Event_found& event_at_hand() { return event ? *event : event.emplace(); }
};
