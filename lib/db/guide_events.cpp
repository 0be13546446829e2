// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_events.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "base/log.h"
#include "db/transaction.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

constexpr char GUIDE_OPERATION[] = "guide_events";

// Pages that a transaction may need: every table and index may grow by a level once, and each event takes its own.
constexpr int ROOM_TO_GROW = 120;
constexpr int PAGES_OF_EVENT = 2;
constexpr int MOST_PAGES = 500;
constexpr size_t LEAST_PAGE_BYTES = 500;
constexpr int PAUSE_MS = 20;
constexpr int PARKED_FROM = 0x7FFFFFFF;

int pages_of(const Guide_write& write) {
  size_t bytes = write.content.size() + write.rating.size();
  for (const Guide_text& text : write.texts) {
    bytes += text.ev_name.size() + text.ev_desc.size() + text.ext_desc.size() + text.ext_list.size();
    for (const auto& [name, value] : text.items)
      bytes += name.size() + value.size() + 16;
  }
  for (const Guide_component& component : write.details.components)
    bytes += component.text.size() + 24;
  bytes += write.details.series_crid.size() + write.details.programme_crid.size();
  bytes += 16 * (write.details.ratings.size() + write.details.genres.size());
  return PAGES_OF_EVENT + static_cast<int>(bytes / LEAST_PAGE_BYTES);
}

bool is_taken(int code) {
  return code == SQLITE_CONSTRAINT_UNIQUE || code == SQLITE_CONSTRAINT;
}

}  // namespace

std::vector<Guide_channel> Guide_events::channels(const Multiplex& multiplex) const {
  std::vector<Guide_channel> channels;
  Rows rows(statements_, GUIDE_OPERATION, 0,
            "SELECT channel, pat_prnr FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq "
            "ORDER BY channel",
            number(multiplex.input.connector), number(multiplex.input.delivery), multiplex.freq);
  while (rows.next())
    channels.push_back({rows.number(0), rows.number(1)});
  return channels;
}

int Guide_events::channel_of(int orig_network_id, int ts_id, int service_id) const {
  // Of a multiplex that is received twice, the one that was found in the last scan.
  return statements_.first_number(GUIDE_OPERATION, 0,
                                  "SELECT channel FROM kanalid WHERE orig_network_id = $onid AND tstream_id = $tsid "
                                  "AND pat_prnr = $sid ORDER BY scan_state <> 1, channel",
                                  orig_network_id, ts_id, service_id);
}

bool Guide_events::has_tables() {
  if (made_on_ != connection_.get() && schema_.has_event_tables())
    made_on_ = connection_.get();
  return made_on_ == connection_.get();
}

int Guide_events::make_tables() {
  if (has_tables())
    return SQLITE_OK;
  const int rc = schema_.create_event_tables();
  if (sql_ok(rc))
    made_on_ = connection_.get();
  return rc;
}

bool Guide_events::rows(int channel, std::vector<Guide_row>* all) {
  int rc = SQLITE_OK;
  for (int waited = 0;; waited += PAUSE_MS) {
    rc = try_rows(channel, all);
    if ((rc & 0xFF) != SQLITE_BUSY)
      return true;
    if (failed_ || waited >= SQL_TIMEOUT_MS)
      break;
    (void)usleep(PAUSE_MS * 1000);  // a shorter pause is as good
  }
  note_end(channel, rc);
  return false;
}

int Guide_events::try_rows(int channel, std::vector<Guide_row>* all) {
  Db_lock lock(connection_);  // so that the tables stay
  all->clear();
  int rc = SQLITE_OK;
  const auto read = [&](auto sql) {
    Rows rows(statements_, GUIDE_OPERATION, 0, sql, channel);
    while (rows.try_next()) {
      Guide_row row{rows.number(0), rows.number(1), rows.number(2), rows.number(3)};
      row.run_status = rows.number(4);
      if (rows.number(5) != 0)
        row.digest = static_cast<uint32_t>(rows.number(6));
      row.running_since = rows.number(7);
      row.table_id = rows.number(8);
      all->push_back(row);
    }
    rc = rows.code();
    if ((rc & 0xFF) == SQLITE_BUSY)
      rows.drop();
  };
  if (connection_.get() != nullptr)
    (void)sqlite3_busy_timeout(connection_.get(), 0);
  if (has_tables())
    read(Sql<int>(
        "SELECT e.entry, ev_id, start_epoch, dur_sec, run_status, d.entry IS NOT NULL, digest, running_since, "
        "table_id FROM epglist e LEFT JOIN event_detail d ON d.entry = e.entry WHERE channel = $channel ORDER BY 3"));
  else
    read(
        Sql<int>("SELECT entry, ev_id, start_epoch, dur_sec, run_status, 0, 0, 0, 0 FROM epglist WHERE channel = "
                 "$channel ORDER BY 3"));
  if (connection_.get() != nullptr)
    (void)sqlite3_busy_timeout(connection_.get(), SQL_TIMEOUT_MS);
  return rc;
}

// A failure is printed when the time before was none.
void Guide_events::note_end(int channel, int rc) {
  const bool failed_before = failed_.exchange(!sql_ok(rc));
  if (sql_ok(rc))
    return;
  errors_.remember(rc, GUIDE_OPERATION);
  if (!failed_before)
    KLOG(VERB_ERROR, "ERROR: The guide of channel %d is not stored: %s\n", channel, sqlite3_errstr(rc));
}

Guide_events::Applied Guide_events::apply(const std::vector<int>& removed, std::vector<Guide_write>* writes) {
  const int rc = apply_all(removed, writes);
  note_end(writes->empty() ? 0 : writes->front().channel, rc);
  return sql_ok(rc) ? Applied::DONE : rc == SQLITE_FULL ? Applied::NO_ROOM : Applied::FAILED;
}

int Guide_events::apply_all(const std::vector<int>& removed, std::vector<Guide_write>* writes) {
  // What moves goes first and together, because it may only be right together.
  std::stable_partition(writes->begin(), writes->end(), [](const Guide_write& write) { return write.moves; });
  Guide_write* first = writes->data();
  Guide_write* const end = first + writes->size();
  bool any = !removed.empty();
  while (any || first != end) {
    int pages = ROOM_TO_GROW;
    Guide_write* last = first;
    while (last != end && (last->moves || pages < MOST_PAGES))
      pages += pages_of(*last++);
    const int rc = apply_some(any ? removed : std::vector<int>{}, first, last, std::min(pages, 2 * MOST_PAGES));
    if (!sql_ok(rc))
      return rc;
    any = false;
    first = last;
  }
  return SQLITE_OK;
}

int Guide_events::apply_some(const std::vector<int>& removed, Guide_write* first, const Guide_write* last, int pages) {
  // A program that still keeps its lock is not waited for again.
  Transaction transaction(connection_, Db_file::GUIDE, {.waits = !failed_});
  if (!transaction.is_open())
    return transaction.code();
  // Removing needs no room, and makes some.
  if (first != last && !room_.has(pages)) {
    errors_.remember_full_guide("eit_for_service");
    return SQLITE_FULL;
  }
  const bool had_tables = has_tables();
  int rc = first != last ? make_tables() : SQLITE_OK;
  if (sql_ok(rc))
    rc = change(removed, first, last);
  // A row that is refused takes nothing with it.
  const bool keeps = sql_ok(rc) || (rc & 0xFF) == SQLITE_CONSTRAINT;
  const int committed = keeps ? transaction.commit() : rc;
  if (!sql_ok(committed) && !had_tables)
    made_on_ = nullptr;
  return sql_ok(committed) ? rc : committed;
}

int Guide_events::change(const std::vector<int>& removed, Guide_write* first, const Guide_write* last) {
  for (const int entry : removed)
    if (const int rc = remove(entry); !sql_ok(rc))
      return rc;
  // Out of each other's way.
  if (last - first > 1 && first[1].moves) {
    int parked = PARKED_FROM;
    for (const Guide_write* write = first; write != last && write->moves; ++write) {
      const Run run = statements_.run_silently(
          GUIDE_OPERATION, 0, "UPDATE epglist SET start_epoch = $start WHERE entry = $entry", parked--, write->entry);
      if (!run.done)
        return run.code;
    }
  }
  for (Guide_write* write = first; write != last; ++write) {
    int rc = store_row(write);
    if (sql_ok(rc))
      rc = store_texts(*write);
    if (sql_ok(rc))
      rc = store_details(*write);
    if (!sql_ok(rc))
      return rc;
  }
  return SQLITE_OK;
}

int Guide_events::remove(int entry) {
  const Run texts =
      statements_.run_silently(GUIDE_OPERATION, 0, "DELETE FROM epglist_lang WHERE source_oid = $entry", entry);
  return texts.done
             ? statements_.run_silently(GUIDE_OPERATION, 0, "DELETE FROM epglist WHERE entry = $entry", entry).code
             : texts.code;
}

int Guide_events::entry_at(int channel, int start) const {
  return statements_.first_number(GUIDE_OPERATION, 0,
                                  "SELECT entry FROM epglist WHERE channel = $channel AND start_epoch = $start",
                                  channel, start);
}

int Guide_events::store_row(Guide_write* w) {
  if (w->entry == 0)
    return insert_row(w);
  const auto update = [&] {
    return statements_.run_silently(
        GUIDE_OPERATION, 0,
        "UPDATE epglist SET ymd_bcd = $ymd_bcd, hms_bcd = $hms_bcd, start_epoch = $start, dur_bcd = $dur_bcd, dur_sec "
        "= $dur_sec, content_id = @content, rating = @rating, run_status = $status, free_ca = $free_ca, ev_id = "
        "$ev_id, pat_prnr = $pat_prnr WHERE entry = $entry",
        w->ymd_bcd, w->hms_bcd, w->start, w->dur_bcd, w->duration, w->content, w->rating, w->run_status, w->free_ca,
        w->ev_id, w->pat_prnr, w->entry);
  };
  Run run = update();
  if (is_taken(run.code)) {
    // By another program, or another adapter that receives the same service.
    if (const int rc = remove(entry_at(w->channel, w->start)); !sql_ok(rc))
      return rc;
    run = update();
  }
  if (!run.done || run.changes != 0)
    return run.code;
  w->entry = 0;  // purged meanwhile
  return insert_row(w);
}

int Guide_events::insert_row(Guide_write* w) {
  const Run run = statements_.run_silently(
      GUIDE_OPERATION, 0,
      "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
      "free_ca, ev_id, pat_prnr) VALUES ($ch, $ymd_bcd, $hms_bcd, $start, $dur_bcd, $dur_sec, @content, @rating, "
      "$status, $free_ca, $ev_id, $pat_prnr)",
      w->channel, w->ymd_bcd, w->hms_bcd, w->start, w->dur_bcd, w->duration, w->content, w->rating, w->run_status,
      w->free_ca, w->ev_id, w->pat_prnr);
  if (run.done) {
    w->entry = run.rowid;
    return run.code;
  }
  if (!is_taken(run.code))
    return run.code;
  w->entry = entry_at(w->channel, w->start);
  return w->entry != 0 ? store_row(w) : run.code;
}

int Guide_events::store_texts(const Guide_write& write) {
  const auto is_empty = [](const Guide_text& text) { return text.empty(); };
  if (write.keeps_texts && std::all_of(write.texts.begin(), write.texts.end(), is_empty) &&
      statements_.first_number(GUIDE_OPERATION, 0, "SELECT count(*) FROM epglist_lang WHERE source_oid = $entry",
                               write.entry) != 0)
    return SQLITE_OK;
  const Run gone =
      statements_.run_silently(GUIDE_OPERATION, 0, "DELETE FROM epglist_lang WHERE source_oid = $entry", write.entry);
  if (!gone.done)
    return gone.code;
  const Run no_items =
      statements_.run_silently(GUIDE_OPERATION, 0, "DELETE FROM event_item WHERE entry = $entry", write.entry);
  if (!no_items.done)
    return no_items.code;
  for (const Guide_text& text : write.texts) {
    // Bound one by one: titles of one or two letters count.
    Insert row(statements_, GUIDE_OPERATION, 0,
               "INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list) VALUES ($entry, "
               "@lang, @name, @desc, @ext_desc, @ext_list)",
               write.entry, "", "", "", "", "");
    row.set("@lang", text.lang);
    row.set("@name", text.ev_name);
    row.set("@desc", text.ev_desc);
    row.set("@ext_desc", text.ext_desc);
    row.set("@ext_list", text.ext_list);
    if (const int rc = row.run_silently(); !sql_ok(rc))
      return rc;
    for (size_t i = 0; i < text.items.size(); ++i) {
      Insert item(statements_, GUIDE_OPERATION, 0,
                  "INSERT INTO event_item (entry, lang, position, name, value) VALUES ($entry, @lang, $position, "
                  "@name, @value)",
                  write.entry, "", static_cast<int>(i), "", "");
      item.set("@lang", text.lang);
      item.set("@name", text.items[i].first);
      item.set("@value", text.items[i].second);
      if (const int rc = item.run_silently(); !sql_ok(rc))
        return rc;
    }
  }
  return SQLITE_OK;
}

int Guide_events::store_details(const Guide_write& w) {
  const Guide_details& details = w.details;
  Insert row(statements_, GUIDE_OPERATION, 0,
             "INSERT OR REPLACE INTO event_detail (entry, table_id, version, original_network_id, tstream_id, "
             "series_crid, programme_crid, running_status, running_since, digest) VALUES ($entry, $table, $version, "
             "$onid, $tsid, @series, @programme, $status, $since, $digest)",
             w.entry, details.table_id, details.version, details.orig_network_id, details.ts_id, "", "", w.run_status,
             w.running_since, static_cast<int>(static_cast<uint32_t>(w.digest)));
  row.set("@series", details.series_crid);
  row.set("@programme", details.programme_crid);
  if (const int rc = row.run_silently(); !sql_ok(rc))
    return rc;
  const auto delete_from = [&](auto sql) { return statements_.run_silently(GUIDE_OPERATION, 0, sql, w.entry).code; };
  for (const auto& sql : {Sql<int>("DELETE FROM event_component WHERE entry = $entry"),
                          Sql<int>("DELETE FROM event_rating WHERE entry = $entry"),
                          Sql<int>("DELETE FROM event_genre WHERE entry = $entry")})
    if (const int rc = delete_from(sql); !sql_ok(rc))
      return rc;
  int position = 0;
  for (const Guide_component& component : details.components) {
    Insert line(statements_, GUIDE_OPERATION, 0,
                "INSERT INTO event_component (entry, position, tag, stream_content, stream_content_ext, "
                "component_type, lang, text) VALUES ($entry, $position, $tag, $content, $ext, $type, @lang, @text)",
                w.entry, position++, component.tag, component.stream_content, component.stream_content_ext,
                component.component_type, "", "");
    line.set("@lang", component.lang);
    line.set("@text", component.text);
    if (const int rc = line.run_silently(); !sql_ok(rc))
      return rc;
  }
  position = 0;
  for (const Guide_rating& rating : details.ratings) {
    const Run run = statements_.run_silently(
        GUIDE_OPERATION, 0,
        "INSERT INTO event_rating (entry, position, country, rating) VALUES ($entry, $position, @country, $rating)",
        w.entry, position++, rating.country, rating.rating);
    if (!run.done)
      return run.code;
  }
  position = 0;
  for (const Guide_genre& genre : details.genres) {
    const Run run = statements_.run_silently(
        GUIDE_OPERATION, 0,
        "INSERT INTO event_genre (entry, position, level1, level2, user) VALUES ($entry, $position, $level1, $level2, "
        "$user)",
        w.entry, position++, genre.level1, genre.level2, genre.user);
    if (!run.done)
      return run.code;
  }
  return SQLITE_OK;
}

}  // namespace sdbl
