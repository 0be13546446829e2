#include <sqlite3.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;
using sdbl::saturated;

namespace {

constexpr uintptr_t LOWEST_CACHE_ADDRESS = 65535;
constexpr unsigned LOOKUPS_PER_REPORT = 100;

// More pages than one row can take, when the table and each of its indexes grow by a level; for events and for texts,
// without the texts themselves. An event is refused when its texts might not fit any more.
constexpr int EVENT_PAGES = 40;
constexpr int TEXT_PAGES = 24;
constexpr int ROOM_FOR_TEXTS = 64;
constexpr size_t LEAST_PAGE_SIZE = 500;  // bytes of a text that go into a page, of the smallest size there is

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

// Puts a new event at its place, unless the very same one is there: events without a duration and such as lie within
// others are never found by the search, and would be remembered again and again.
void remember(std::vector<EPG_cache*>* cache, int ev_id, int start_epoch, int dur_sec) {
  const EPG_cache event{start_epoch, ev_id, dur_sec};
  const auto [first, last] = std::equal_range(cache->begin(), cache->end(), &event, cmp_epg_cache);
  const bool known = std::any_of(first, last, [&](const EPG_cache* other) {
    return other->ev_id == event.ev_id && other->dur_sec == event.dur_sec;
  });
  if (!known)
    cache->insert(last, new EPG_cache(event));
}

}  // namespace

bool cmp_epg_cache(const EPG_cache* a, const EPG_cache* b) {
  return a->start_epoch < b->start_epoch;
}

int Sdbl::epg_cache_binary_search(std::vector<EPG_cache*>* cache, int t) {
  int lo = 0;
  int hi = static_cast<int>(cache->size()) - 1;
  while (lo <= hi) {
    const int middle = (lo + hi) / 2;
    const EPG_cache* event = (*cache)[static_cast<size_t>(middle)];
    if (event == nullptr) {
      KLOG(VERB_ERROR, "ERROR: ec is null");
      return -1;
    }
    if (event->start_epoch <= t && t < end_of(event->start_epoch, event->dur_sec))
      return middle;
    if (event->start_epoch >= t)
      hi = middle - 1;
    else
      lo = middle + 1;
  }
  return -1;
}

int Sdbl::lookup_epg_cache(std::vector<EPG_cache*>* cache, int ev_id, int start_epoch, int dur_sec, bool* changed,
                           bool* overlap) {
  *changed = false;
  *overlap = false;
  KLOG(VERB_TRACE, "Lookup cache");
  // Deliberate: low addresses count as none.
  if (reinterpret_cast<uintptr_t>(cache) < LOWEST_CACHE_ADDRESS) {
    KLOG(VERB_ERROR, "ERROR: EPG cache is unassigned %p\n", static_cast<void*>(cache));
    return 0;
  }

  int match = 0;
  const int index = epg_cache_binary_search(cache, start_epoch);
  if (index >= 0) {
    EPG_cache* found = (*cache)[static_cast<size_t>(index)];
    if (found->start_epoch == start_epoch && found->dur_sec == dur_sec) {
      match = 1;
      *changed = found->ev_id != ev_id;
      found->ev_id = ev_id;
    } else {
      *overlap = true;
    }
  }
  KLOG(VERB_TRACE, "match is %x\n", static_cast<unsigned>(match));

  if (*overlap && (*cache)[static_cast<size_t>(index)]->start_epoch == start_epoch) {
    delete (*cache)[static_cast<size_t>(index)];
    cache->erase(cache->begin() + index);
  }
  if (match == 1) {
    ++epg_cache_hits_;
  } else {
    ++epg_cache_misses_;
    remember(cache, ev_id, start_epoch, dur_sec);
    KLOG(VERB_TRACE, "epg cache entry inserted\n");
  }
  const unsigned hits = epg_cache_hits_;
  const unsigned misses = epg_cache_misses_;
  if ((hits + misses) % LOOKUPS_PER_REPORT == 0)
    KLOG(VERB_INFO, "Epg cache hit %d, miss %d\n", static_cast<int>(hits), static_cast<int>(misses));
  return match == 1 && !*changed ? 1 : 0;
}

int Sdbl::eit_for_service(DVB_TYPE_ID, HF_CONN_ID, int freq, int pat_prnr, SQL_cache* sc, int ymd_bcd, int hms_bcd,
                          int dur_bcd, long start_epoch, int dur_sec, int run_status, int free_ca, int ev_id,
                          std::string* content, std::string* rating, bool replace, bool overlapping) {
  KLOG(VERB_TRACE, "Db event %d freq %d prnr %d ymd %x hms %x dur %x\n", ev_id, freq, pat_prnr,
       static_cast<unsigned>(ymd_bcd), static_cast<unsigned>(hms_bcd), static_cast<unsigned>(dur_bcd));
  const int channel = sc->channel;
  const int start = saturated(start_epoch);
  if (overlapping) {
    KLOG(VERB_WARNING, "WARNING: Overlapping\n");
    delete_epglist_range(channel, start, saturated(end_of(start, dur_sec)), true, sc);
  }

  std::lock_guard<std::mutex> writing(second_lock);
  const char* sql =
      "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
      "free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, $dur_bcd,$dur_sec,@cont,@rating, "
      "$runstat, $freeca,$evid, $pat_prnr)";
  if (replace) {
    KLOG(VERB_WARNING, "WARNING: Replacing event id channel %d, ymd_bcd %x, hms_bcd %x\n", channel,
         static_cast<unsigned>(ymd_bcd), static_cast<unsigned>(hms_bcd));
    // Deliberate: the texts of the event that is replaced stay.
    sql =
        "REPLACE INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, "
        "run_status, free_ca, ev_id, pat_prnr) VALUES ($ch,$ymd_bcd,$hms_bcd,$start_epoch, "
        "$dur_bcd,$dur_sec,@cont,@rating, $runstat, $freeca,$evid, $pat_prnr)";
  }

  Db_lock lock(db);
  sqlite3_stmt* stmt = nullptr;
  int rc = SQLITE_FULL;
  const int pages = EVENT_PAGES + pages_of({content->c_str(), rating->c_str()});
  if (!guide_has_room(pages + ROOM_FOR_TEXTS)) {
    parts_->errors.remember_full_guide("eit_for_service");
  } else {
    stmt = sql_cache(false, 0, sql, channel, ymd_bcd, hms_bcd, start, dur_bcd, dur_sec, content->c_str(),
                     rating->c_str(), run_status, free_ca, ev_id, pat_prnr);
    rc = stmt != nullptr ? sqlite3_step(stmt) : SQLITE_ERROR;
  }
  int entry = -1;
  if (rc == SQLITE_DONE)
    entry = static_cast<int>(sqlite3_last_insert_rowid(db));
  else
    KLOG(VERB_ERROR, "ERROR: eit_for_service: rc is %d\n", rc);
  parts_->errors.remember(rc, "eit_for_service");
  (void)sqlite3_reset(stmt);  // repeats the step's code; null is allowed
  return entry;
}

int Sdbl::insert_epglist_lang(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                              const char* ext_desc, const char* ext_list) {
  Db_lock lock(db);
  sqlite3_stmt* stmt = nullptr;
  int rc = SQLITE_FULL;
  const int pages = TEXT_PAGES + pages_of({lang, ev_name, ev_desc, ext_desc, ext_list});
  if (!guide_has_room(pages)) {
    parts_->errors.remember_full_guide("insert_epglist_lang");
  } else {
    stmt = sql_cache(false, 0,
                     "INSERT into epglist_lang (source_oid, lang, ev_name,  ev_desc, ext_desc, ext_list ) "
                     "VALUES ($source_oid, @lang,@ev_name, @ev_desc, @ext_desc, @ext_list)",
                     source_oid, lang, ev_name, ev_desc, ext_desc, ext_list);
    rc = stmt != nullptr ? sqlite3_step(stmt) : SQLITE_ERROR;
  }
  if (rc != SQLITE_DONE)
    KLOG(VERB_WARNING, "WARNING: epglist_lang rc = %d\n", rc);
  parts_->errors.remember(rc, "insert_epglist_lang");
  (void)sqlite3_reset(stmt);  // repeats the step's code; null is allowed
  return 0;
}

// Prints which event goes; its first text is its name.
void Sdbl::trace_deleted_event(int oid, int start_epoch, int dur_sec) {
  KLOG(VERB_PROGRESS, "Deleted %d -%d ", start_epoch, saturated(end_of(start_epoch, dur_sec)));
  Db_lock lock(db);
  sqlite3_stmt* stmt = sql_cache(false, 0, "SELECT ev_name from epglist_lang where source_oid = $epg_oid;", oid);
  if (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW)
    KLOG(VERB_PROGRESS, "%s\n", sdbl::column_text(stmt, 0));
  else
    KLOG(VERB_PROGRESS, " No event description\n");
  parts_->errors.report_reset(sqlite3_reset(stmt), "delete_epglist_range", __LINE__);
}

// Takes a deleted event out of the cache, when it is the one found at its start.
void Sdbl::forget_event(std::vector<EPG_cache*>* cache, int start_epoch, int dur_sec) {
  const int index = epg_cache_binary_search(cache, start_epoch);
  if (index < 0) {
    KLOG(VERB_ERROR, "ERROR: Nothing to delete in cache list for start_epoch %d\n", start_epoch);
    return;
  }
  const EPG_cache* found = (*cache)[static_cast<size_t>(index)];
  if (found->start_epoch != start_epoch || found->dur_sec != dur_sec) {
    KLOG(VERB_PROGRESS, "No exact cache start_epoch: %d != %d,  dur_sec %d != %d\n", found->start_epoch, start_epoch,
         found->dur_sec, dur_sec);
    return;
  }
  delete found;
  cache->erase(cache->begin() + index);
}

int Sdbl::delete_epglist_range(int channel, int start_epoch, int end_epoch, bool trace, SQL_cache* sc) {
  KLOG(VERB_PROGRESS, "Delete ch %d from %d - %d\n", channel, start_epoch, end_epoch);
  std::vector<Stored_event> events;
  int step = SQLITE_ERROR;
  int rc = 0;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(
        false, 0,
        "SELECT oid, ymd_bcd, hms_bcd, dur_bcd, start_epoch, dur_sec from epglist where  channel = $channel AND "
        "((start_epoch >= $start_epoch AND start_epoch < $end_epoch) OR ((start_epoch + dur_sec) > $start_epoch_cp AND "
        "(start_epoch + dur_sec) <= $end_epoch_cp) OR (start_epoch < $start_epoch_c2 AND (start_epoch + dur_sec) >= "
        "$end_epoch_c2))",
        channel, start_epoch, end_epoch, start_epoch, end_epoch, start_epoch, end_epoch);
    if (stmt != nullptr) {
      while ((step = sqlite3_step(stmt)) == SQLITE_ROW)
        events.push_back(
            Stored_event{sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 4), sqlite3_column_int(stmt, 5)});
      rc = parts_->errors.report_reset(sqlite3_reset(stmt), SDBL_HERE);
    }
  }
  if (events.empty())
    KLOG(VERB_WARNING, "WARNING: No rows in db are between %d ... %d delete criteria, rc = %d\n", start_epoch,
         end_epoch, step);
  for (const Stored_event& event : events) {
    if (trace && kelvo_log::enabled(VERB_PROGRESS))
      trace_deleted_event(event.oid, event.start_epoch, event.dur_sec);
    parts_->errors.report_run(run_cached(0, "DELETE FROM epglist_lang WHERE source_oid = $epg_oid;", event.oid).result,
                              SDBL_HERE);
    parts_->errors.report_run(run_cached(0, "DELETE FROM epglist      WHERE oid        = $epg_oid;", event.oid).result,
                              SDBL_HERE);
    forget_event(&sc->epg, event.start_epoch, event.dur_sec);
  }
  return rc;
}

int Sdbl::eit_info_available(int channel) {
  const int now = saturated(time(nullptr));
  KLOG(VERB_TRACE, "Current epoch %d, channel %d ", now, channel);
  int oid = 0;
  // Deliberate: an event that starts this very second does not count.
  const int rc = sql_get_int(
      &oid, 0, "SELECT OID from epglist WHERE channel = %d AND start_epoch < %d AND start_epoch + dur_sec > %d;",
      channel, now, now);
  if (rc == 0) {
    KLOG(VERB_PROGRESS, "EPG OK ");
    return 1;
  }
  parts_->errors.report_get_int(rc, SDBL_HERE);
  KLOG(VERB_PROGRESS, "NO EPG ");
  return 0;
}
