// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "base/log.h"

namespace sdbl {

namespace {

// More pages than one row can take, when the table and each of its indexes grow by a level; for events and for texts,
// without the texts themselves. An event is refused when its texts might not fit any more.
constexpr int EVENT_PAGES = 40;
constexpr int TEXT_PAGES = 24;
constexpr int ROOM_FOR_TEXTS = 64;
constexpr size_t LEAST_PAGE_SIZE = 500;  // bytes of a text that go into a page, of the smallest size there is

constexpr char OPERATION[] = "eit_for_service";

// There is a statement for each of these numbers of rows, so that it takes two at most for up to eight of them.
constexpr size_t ROWS_AT_ONCE[] = {8, 5, 3, 2, 1};

constexpr char INSERT_EVENT[] =
    "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
    "free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, $dur_bcd,$dur_sec,@cont,@rating, "
    "$runstat, $freeca,$evid, $pat_prnr)";
constexpr char REPLACE_EVENT[] =
    "REPLACE INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, "
    "run_status, free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, "
    "$dur_bcd,$dur_sec,@cont,@rating, $runstat, $freeca,$evid, $pat_prnr)";

// FAIL: a refused row leaves those before it where they are. To undo them all is the transaction's business; a
// statement that could do so itself would keep copies of the pages for that.
constexpr char INSERT_EVENTS[] =
    "INSERT OR FAIL INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, "
    "run_status, free_ca, ev_id, pat_prnr) VALUES ";
constexpr char EVENT_VALUES[] = "(?,?,?,?,?,?,?,?,?,?,?,?)";
constexpr char INSERT_TEXTS[] =
    "INSERT OR FAIL INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list) VALUES ";
constexpr char TEXT_VALUES[] = "(?,?,?,?,?,?)";

using Statements_for_rows = std::array<std::string, std::size(ROWS_AT_ONCE)>;

Statements_for_rows statements_for_rows(const char* insert, const std::string& values) {
  Statements_for_rows all;
  for (size_t i = 0; i < all.size(); ++i) {
    all[i] = insert + values;
    for (size_t row = 1; row < ROWS_AT_ONCE[i]; ++row)
      all[i] += "," + values;
  }
  return all;
}

// Runs `run` with the number of the first row, how many go at once and their statement, until it fails.
template <typename Run_rows>
bool for_rows(size_t rows, const Statements_for_rows& statements, Run_rows run) {
  size_t first = 0;
  for (size_t i = 0; i < statements.size(); ++i)
    for (; rows - first >= ROWS_AT_ONCE[i]; first += ROWS_AT_ONCE[i])
      if (!run(first, ROWS_AT_ONCE[i], Runtime_sql{statements[i].c_str()}))
        return false;
  return true;
}

int pages_of(std::initializer_list<const char*> texts) {
  size_t bytes = 0;
  for (const char* text : texts)
    bytes += text != nullptr ? std::strlen(text) : 0;
  return static_cast<int>(bytes / LEAST_PAGE_SIZE);
}

int pages_of(const Event_row& event) {
  return EVENT_PAGES + pages_of({event.content.c_str(), event.rating.c_str()});
}

int pages_of(const Event_texts& t) {
  return TEXT_PAGES +
         pages_of({t.lang.c_str(), t.ev_name.c_str(), t.ev_desc.c_str(), t.ext_desc.c_str(), t.ext_list.c_str()});
}

int64_t end_of(int start_epoch, int dur_sec) {
  return int64_t{start_epoch} + dur_sec;
}

struct Stored_event {
  int oid;
  int start_epoch;
  int dur_sec;
};

}  // namespace

Run Guide::store(const Event_row& event, bool replace) {
  const auto run = [&](auto sql) {
    return statements_.run_silently(OPERATION, 0, sql, event.channel, event.ymd_bcd, event.hms_bcd, event.start_epoch,
                                    event.dur_bcd, event.dur_sec, event.content, event.rating, event.run_status,
                                    event.free_ca, event.ev_id, event.pat_prnr);
  };
  using Event_sql = Sql<int, int, int, int, int, int, std::string, std::string, int, int, int, int>;
  return replace ? run(Event_sql(REPLACE_EVENT)) : run(Event_sql(INSERT_EVENT));
}

void Guide::trace(const Event_row& event, int freq) {
  KLOG(VERB_TRACE, "Db event %d freq %d prnr %d ymd %x hms %x dur %x\n", event.ev_id, freq, event.pat_prnr,
       static_cast<unsigned>(event.ymd_bcd), static_cast<unsigned>(event.hms_bcd),
       static_cast<unsigned>(event.dur_bcd));
}

void Guide::report(int rc) {
  if (rc == SQLITE_FULL)
    errors_.remember_full_guide(OPERATION);
  else
    errors_.remember(rc, OPERATION);
  KLOG(VERB_ERROR, "ERROR: eit_for_service: rc is %d\n", rc);
}

int Guide::insert(const Event_row& event, bool replace) {
  Db_lock lock(connection_);
  const int pages = pages_of(event);
  Run stored{0, 0, 0, SQLITE_FULL, false};
  if (room_.has(pages + ROOM_FOR_TEXTS))
    stored = store(event, replace);
  if (stored.code == SQLITE_DONE)
    return stored.rowid;
  report(stored.code);
  return -1;
}

int Guide::store_new(const Event_row& event, int freq) {
  trace(event, freq);
  return insert(event, false);
}

bool Guide::has_room(const std::vector<New_event>& events) {
  int pages = ROOM_FOR_TEXTS;
  for (const New_event& event : events) {
    pages += pages_of(event.event);
    for (const Event_texts& texts : event.texts)
      pages += pages_of(texts);
  }
  return room_.has_for_all(EVENT_PAGES + ROOM_FOR_TEXTS, pages);
}

bool Guide::store_at_once(std::vector<New_event>* events) {
  Db_lock lock(connection_);
  return store_events(*events) && store_texts(*events);
}

bool Guide::store_events(std::span<New_event> events) {
  static const Statements_for_rows STATEMENTS = statements_for_rows(INSERT_EVENTS, EVENT_VALUES);
  std::vector<Argument> values;
  return for_rows(events.size(), STATEMENTS, [&](size_t first, size_t count, Runtime_sql sql) {
    values.clear();
    for (const New_event& n : events.subspan(first, count)) {
      const Event_row& e = n.event;
      values.insert(values.end(),
                    {Argument(e.channel), Argument(e.ymd_bcd), Argument(e.hms_bcd), Argument(e.start_epoch),
                     Argument(e.dur_bcd), Argument(e.dur_sec), Argument(e.content), Argument(e.rating),
                     Argument(e.run_status), Argument(e.free_ca), Argument(e.ev_id), Argument(e.pat_prnr)});
    }
    const Run run = statements_.run_silently(OPERATION, 0, sql, values);
    // The table counts up, and nobody else adds to it meanwhile.
    int row = run.rowid - static_cast<int>(count);
    for (New_event& event : events.subspan(first, count))
      event.row = ++row;
    return run.done;
  });
}

bool Guide::store_texts(const std::vector<New_event>& events) {
  static const Statements_for_rows STATEMENTS = statements_for_rows(INSERT_TEXTS, TEXT_VALUES);
  std::vector<Argument> values;
  for (const New_event& event : events)
    for (const Event_texts& t : event.texts)
      values.insert(values.end(), {Argument(event.row), Argument(t.lang), Argument(t.ev_name), Argument(t.ev_desc),
                                   Argument(t.ext_desc), Argument(t.ext_list)});
  constexpr size_t COLUMNS = 6;
  const std::span<const Argument> all(values);
  return for_rows(all.size() / COLUMNS, STATEMENTS, [&](size_t first, size_t count, Runtime_sql sql) {
    return statements_.run_silently("insert_epglist_lang", 0, sql, all.subspan(first * COLUMNS, count * COLUMNS)).done;
  });
}

int Guide::eit_for_service(const Event_row& event, int freq, Event_cache::Events* known, bool replace,
                           bool overlapping) {
  trace(event, freq);
  if (overlapping) {
    KLOG(VERB_WARNING, "WARNING: Overlapping\n");
    delete_epglist_range(event.channel, event.start_epoch, saturated(end_of(event.start_epoch, event.dur_sec)), true,
                         known);
  }

  std::lock_guard<Mutex> writing(connection_.second_lock);
  // Deliberate: the texts of the event that is replaced stay.
  if (replace)
    KLOG(VERB_WARNING, "WARNING: Replacing event id channel %d, ymd_bcd %x, hms_bcd %x\n", event.channel,
         static_cast<unsigned>(event.ymd_bcd), static_cast<unsigned>(event.hms_bcd));
  return insert(event, replace);
}

int Guide::insert_epglist_lang(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                               const char* ext_desc, const char* ext_list) {
  Db_lock lock(connection_);
  int rc = SQLITE_FULL;
  const int pages = TEXT_PAGES + pages_of({lang, ev_name, ev_desc, ext_desc, ext_list});
  if (room_.has(pages))
    rc = statements_
             .run_silently(__func__, 0,
                           "INSERT into epglist_lang (source_oid, lang, ev_name,  ev_desc, ext_desc, ext_list ) "
                           "VALUES ($source_oid, @lang,@ev_name, @ev_desc, @ext_desc, @ext_list)",
                           source_oid, lang, ev_name, ev_desc, ext_desc, ext_list)
             .code;
  if (rc == SQLITE_FULL)
    errors_.remember_full_guide(__func__);
  if (rc != SQLITE_DONE)
    KLOG(VERB_WARNING, "WARNING: epglist_lang rc = %d\n", rc);
  return 0;
}

// Prints which event goes; its first text is its name.
void Guide::trace_deleted_event(int oid, int start_epoch, int dur_sec) {
  KLOG(VERB_PROGRESS, "Deleted %d -%d ", start_epoch, saturated(end_of(start_epoch, dur_sec)));
  Rows texts(statements_, "delete_epglist_range", 0, "SELECT ev_name from epglist_lang where source_oid = $epg_oid;",
             oid);
  if (texts.next())
    KLOG(VERB_PROGRESS, "%s\n", texts.text(0));
  else
    KLOG(VERB_PROGRESS, " No event description\n");
}

int Guide::delete_epglist_range(int channel, int start_epoch, int end_epoch, bool trace, Event_cache::Events* known) {
  KLOG(VERB_PROGRESS, "Delete ch %d from %d - %d\n", channel, start_epoch, end_epoch);
  std::vector<Stored_event> events;
  Rows rows(
      statements_, __func__, 0,
      "SELECT oid, ymd_bcd, hms_bcd, dur_bcd, start_epoch, dur_sec from epglist where  channel = $channel AND "
      "((start_epoch >= $start_epoch AND start_epoch < $end_epoch) OR ((start_epoch + dur_sec) > $start_epoch_cp AND "
      "(start_epoch + dur_sec) <= $end_epoch_cp) OR (start_epoch < $start_epoch_c2 AND (start_epoch + dur_sec) >= "
      "$end_epoch_c2))",
      channel, start_epoch, end_epoch, start_epoch, end_epoch, start_epoch, end_epoch);
  while (rows.next())
    events.push_back({rows.number(0), rows.number(4), rows.number(5)});
  const int rc = rows.end();
  if (events.empty())
    KLOG(VERB_WARNING, "WARNING: No rows in db are between %d ... %d delete criteria, rc = %d\n", start_epoch,
         end_epoch, rows.code());
  for (const Stored_event& event : events) {
    if (trace && kelvo_log::enabled(VERB_PROGRESS))
      trace_deleted_event(event.oid, event.start_epoch, event.dur_sec);
    statements_.run(__func__, 0, "DELETE FROM epglist_lang WHERE source_oid = $epg_oid;", event.oid);
    statements_.run(__func__, 0, "DELETE FROM epglist      WHERE oid        = $epg_oid;", event.oid);
    Event_cache::forget(known, event.start_epoch, event.dur_sec);
  }
  return rc;
}

int Guide::eit_info_available(int channel) {
  const int now = saturated(clock_now());
  KLOG(VERB_TRACE, "Current epoch %d, channel %d ", now, channel);
  int oid = 0;
  // Deliberate: an event that starts this very second does not count.
  const int rc = sql_.get_int(
      __func__, &oid, "SELECT OID from epglist WHERE channel = %d AND start_epoch < %d AND start_epoch + dur_sec > %d;",
      channel, now, now);
  if (rc == 0) {
    KLOG(VERB_PROGRESS, "EPG OK ");
    return 1;
  }
  KLOG(VERB_PROGRESS, "NO EPG ");
  return 0;
}

}  // namespace sdbl
