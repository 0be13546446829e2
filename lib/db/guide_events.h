// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "base/multiplex.h"
#include "db/errors.h"
#include "db/guide_plan.h"
#include "db/guide_room.h"
#include "db/schema.h"
#include "db/statements.h"

namespace sdbl {

// The texts of an event in one language; see EIT_lang.
struct Guide_text {
  std::string lang, ev_name, ev_desc, ext_desc, ext_list;
  std::vector<std::pair<std::string, std::string>> items{};

  bool empty() const { return ev_name.empty() && ev_desc.empty() && ext_desc.empty() && ext_list.empty(); }
};

// What the added tables have of an event; numbers as broadcast.
struct Guide_component {
  int tag, stream_content, stream_content_ext, component_type;
  std::string lang, text;
};
struct Guide_rating {
  std::string country;
  int rating;
};
struct Guide_genre {
  int level1, level2, user;
};
struct Guide_details {
  int table_id = 0;
  int version = 0;
  int orig_network_id = 0;
  int ts_id = 0;
  std::string series_crid, programme_crid;
  std::vector<Guide_component> components;
  std::vector<Guide_rating> ratings;
  std::vector<Guide_genre> genres;
};

// An event to be stored, in `entry` or, where that is 0, in a new row.
struct Guide_write {
  int entry = 0;
  bool moves = false;  // out of the way of other rows, which may want its old start
  int channel = 0;
  int pat_prnr = 0;
  int ev_id = 0;
  int ymd_bcd = 0;
  int hms_bcd = 0;
  int dur_bcd = 0;
  int start = 0;
  int duration = 0;
  int64_t digest = 0;  // 0 to 0xFFFFFFFF
  int run_status = 0;
  int free_ca = 0;
  int running_since = 0;
  std::string content, rating;
  std::vector<Guide_text> texts;
  bool keeps_texts = false;  // those that are stored stay where there are none in `texts`
  Guide_details details;
};

// A service of a multiplex.
struct Guide_channel {
  int channel;
  int pat_prnr;
};

// The guide as the newest sections say it: rows of epglist and epglist_lang, and of the tables that are added to them,
// which are made at the first write (docs/database.md). Any-thread: each operation holds the connection's mutex.
class Guide_events {
 public:
  Guide_events(Connection& connection, const Statements& statements, Schema& schema, Guide_room& room, Errors& errors)
      : connection_(connection), statements_(statements), schema_(schema), room_(room), errors_(errors) {}

  // The services of a multiplex, of all types; and one of another multiplex, 0 when it is not known.
  std::vector<Guide_channel> channels(const Multiplex& multiplex) const;
  int channel_of(int orig_network_id, int ts_id, int service_id) const;

  // Replaces the contents of `all` by the stored events of a channel, by start. False when another program keeps the
  // guide locked, after one wait in which nobody has to wait for the connection; failures count as apply()'s.
  bool rows(int channel, std::vector<Guide_row>* all);

  // What became of changes.
  enum class Applied { DONE, FAILED, NO_ROOM };

  // Removes rows and writes others, in one transaction as far as one has room for it, and fills in the entries of new
  // rows. A row that somebody else has written meanwhile, at the same channel and start, is taken over. The first
  // failure ends the work, is remembered, and printed unless the time before failed, too. What stands in the file is
  // then to be read again; a transaction that could not begin or end has changed nothing.
  Applied apply(const std::vector<int>& removed, std::vector<Guide_write>* writes);

 private:
  bool has_tables();
  int make_tables();
  int try_rows(int channel, std::vector<Guide_row>* all);
  void note_end(int channel, int rc);
  int apply_all(const std::vector<int>& removed, std::vector<Guide_write>* writes);
  int apply_some(const std::vector<int>& removed, Guide_write* first, const Guide_write* last, int pages);
  int change(const std::vector<int>& removed, Guide_write* first, const Guide_write* last);
  int remove(int entry);
  int store_row(Guide_write* write);
  int insert_row(Guide_write* write);
  int store_texts(const Guide_write& write);
  int store_details(const Guide_write& write);
  int entry_at(int channel, int start) const;

  Connection& connection_;
  const Statements& statements_;
  Schema& schema_;
  Guide_room& room_;
  Errors& errors_;
  std::atomic<bool> failed_{false};  // the last time
  sqlite3* made_on_ = nullptr;       // the connection whose guide file has the added tables
};

}  // namespace sdbl
