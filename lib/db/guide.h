// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <span>
#include <string>
#include <vector>

#include "db/errors.h"
#include "db/event_cache.h"
#include "db/guide_room.h"
#include "db/one_shot.h"
#include "db/statements.h"

namespace sdbl {

// One event as it is stored.
struct Event_row {
  int channel;
  int ymd_bcd;
  int hms_bcd;
  int start_epoch;
  int dur_bcd;
  int dur_sec;
  std::string content;
  std::string rating;
  int run_status;
  int free_ca;
  int ev_id;
  int pat_prnr;
};

// The texts of an event in one language, as they are stored.
struct Event_texts {
  std::string lang, ev_name, ev_desc, ext_desc, ext_list;
};

// An event that neither replaces nor overlaps one.
struct New_event {
  Event_row event;
  int freq;
  std::vector<Event_texts> texts;
  int row = 0;  // of the table, once it is stored; -1 when it is refused
};

// The stored programme guide: the tables epglist and epglist_lang. The operations are those of Sdbl with the same
// names, which has their contracts. Worker-only, but eit_info_available.
class Guide {
 public:
  Guide(Connection& connection, One_shot& sql, const Statements& statements, Guide_room& room, Errors& errors)
      : connection_(connection), sql_(sql), statements_(statements), room_(room), errors_(errors) {}

  // `known` is what is remembered of the channel's events; with `overlapping` it loses those that are deleted.
  int eit_for_service(const Event_row& event, int freq, Event_cache::Events* known, bool replace, bool overlapping);
  int insert_epglist_lang(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                          const char* ext_desc, const char* ext_list);
  int delete_epglist_range(int channel, int start_epoch, int end_epoch, bool trace, Event_cache::Events* known);
  int eit_info_available(int channel);

  // --- For Guide_section -------------------------------------------------------------------------------------------

  // eit_for_service of an event that neither replaces nor overlaps one. REQUIRES: an open transaction on the guide.
  int store_new(const Event_row& event, int freq);
  // The same for several, with their texts, by few statements, which takes a sixth less time; prints nothing. False
  // when an event or a text was refused: then the transaction has to be undone, and statements for each say what is
  // wrong. REQUIRES: an open transaction on the guide that can be undone, and has_room() for them.
  bool store_at_once(std::vector<New_event>* events);
  bool has_room(const std::vector<New_event>& events);
  // Prints and remembers that events were refused.
  void report(int rc);
  // Whether another program that has the guide locked is waited for: not again before it has let go, or every section
  // would cost the whole wait. Any-thread, both.
  bool waits_for_others() const { return !others_hold_it_; }
  void note_others(bool hold_it) { others_hold_it_ = hold_it; }

 private:
  void trace(const Event_row& event, int freq);
  int insert(const Event_row& event, bool replace);
  Run store(const Event_row& event, bool replace);
  bool store_events(std::span<New_event> events);
  bool store_texts(const std::vector<New_event>& events);
  void trace_deleted_event(int oid, int start_epoch, int dur_sec);

  Connection& connection_;
  One_shot& sql_;
  const Statements& statements_;
  Guide_room& room_;
  Errors& errors_;
  std::atomic<bool> others_hold_it_{false};  // the last time that somebody looked
};

}  // namespace sdbl
