// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>
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

constexpr char INSERT_EVENT[] =
    "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
    "free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, $dur_bcd,$dur_sec,@cont,@rating, "
    "$runstat, $freeca,$evid, $pat_prnr)";
constexpr char REPLACE_EVENT[] =
    "REPLACE INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, "
    "run_status, free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, "
    "$dur_bcd,$dur_sec,@cont,@rating, $runstat, $freeca,$evid, $pat_prnr)";

int pages_of(std::initializer_list<const char*> texts) {
  size_t bytes = 0;
  for (const char* text : texts)
    bytes += text != nullptr ? std::strlen(text) : 0;
  return static_cast<int>(bytes / LEAST_PAGE_SIZE);
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
    return statements_.run_silently("eit_for_service", 0, sql, event.channel, event.ymd_bcd, event.hms_bcd,
                                    event.start_epoch, event.dur_bcd, event.dur_sec, event.content, event.rating,
                                    event.run_status, event.free_ca, event.ev_id, event.pat_prnr);
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
    errors_.remember_full_guide("eit_for_service");
  else
    errors_.remember(rc, "eit_for_service");
  KLOG(VERB_ERROR, "ERROR: eit_for_service: rc is %d\n", rc);
}

int Guide::insert(const Event_row& event, bool replace) {
  Db_lock lock(connection_);
  const int pages = EVENT_PAGES + pages_of({event.content.c_str(), event.rating.c_str()});
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
