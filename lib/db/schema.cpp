// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/schema.h"

#include <algorithm>
#include <iterator>

#include "base/log.h"

namespace sdbl {

namespace {

// What follows the table's name in a column's format.
enum class Default {
  NUMBER,    // nothing
  TEXT,      // the default text, for %Q
  REVISION,  // the schema's revision, for %3.2f
};

struct Column {
  Default kind;
  const char* format;
  const char* text = "";
};

// The order is the table's column order: a merge copies estreams by position.
//
// Deliberate: the checks join their comparisons with "&", which binds tighter, so the two-sided ones are always true.

const Column KANALID_COLUMNS[] = {
    {Default::REVISION, "ALTER TABLE  %Q ADD COLUMN revision        float DEFAULT %3.2f;"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN hf_conn         int   DEFAULT 0 CHECK(hf_conn  >= 0 &  hf_conn < 32);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN dvb_type        int   DEFAULT 0 CHECK(dvb_type >= 0 &  dvb_type < 3);"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN freq            int   DEFAULT 0 CHECK(freq  > 0);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN pat_prnr        int   DEFAULT 0 CHECK(pat_prnr  >= 0 &  pat_prnr < 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN pmt_pid         int   DEFAULT 0 CHECK(pmt_pid   >= 0 &  pmt_pid  < 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN network_id      int   DEFAULT 0 CHECK(network_id  >= 0 &  network_id < 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN orig_network_id int   DEFAULT 0 CHECK(orig_network_id  >= 0 &  orig_network_id <= "
     "65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN tstream_id      int   DEFAULT 0 CHECK(tstream_id  >= 0 &  tstream_id <= 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN lcn             int   DEFAULT 65535 CHECK(lcn  >= 0 &  lcn <= 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN pcr_pid         int   DEFAULT 0 CHECK(pcr_pid   >= 0 &  pcr_pid  <= 65535);"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN serv_name       text  DEFAULT %Q;"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN serv_type       int   DEFAULT 0 CHECK(serv_type >= 0 &  serv_type <= 255);"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN prov_name       text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN network_name    text  DEFAULT %Q;"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN run_status      int   DEFAULT 0 CHECK(run_status >= 0 &  run_status <= 255);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN free_ca         int   DEFAULT 0 CHECK(free_ca >= 0    &  free_ca < 2);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN scan_state      int   DEFAULT 0 CHECK(scan_state >= 0 &  scan_state < 256);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN row_status      int   DEFAULT 0 CHECK(row_status >= 0 &  row_status < 256);"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN modified        int   DEFAULT 0 CHECK(modified >= 0);"},
};

const Column KANALID_LANG_COLUMNS[] = {
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN lang            text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN serv_name       text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN prov_name       text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN network_name    text  DEFAULT %Q;"},
};

const Column ESTREAMS_COLUMNS[] = {
    {Default::REVISION, "ALTER TABLE  %Q ADD COLUMN revision        float DEFAULT %3.2f;"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN es_pid          int   DEFAULT 0 CHECK(es_pid  >= 0 &  es_pid <= 65535);"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN es_type         int   DEFAULT 0;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN es_subtype      int   DEFAULT 0;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN codec           text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN languages       text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN lang_codes      text  DEFAULT %Q;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN p1              int   DEFAULT 0;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN p2              int   DEFAULT 0;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN ca_sysid        int   DEFAULT 0;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN ca_pid          int   DEFAULT 0;"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN row_status      int   DEFAULT 0 CHECK(row_status >= 0 &  row_status < 256);"},
};

const Column TUNER_TABLE_COLUMNS[] = {
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN hf_conn         int   DEFAULT 0 CHECK(hf_conn  >= 0 &  hf_conn < 32);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN dvb_type        int   DEFAULT 0 CHECK(dvb_type >= 0 &  dvb_type < 3);"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN tuner_params    text  DEFAULT %Q;"},
};

const Column EPGLIST_COLUMNS[] = {
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN channel         int   DEFAULT 0;"},
    {Default::REVISION, "ALTER TABLE  %Q ADD COLUMN revision        float DEFAULT %3.2f;"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN ymd_bcd         int   DEFAULT 0 CHECK(ymd_bcd >= 0 );"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN hms_bcd         int   DEFAULT 0 CHECK(hms_bcd >= 0 );"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN start_epoch     int   DEFAULT 0 CHECK(start_epoch >= 0 );"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN dur_bcd         int   DEFAULT 0 CHECK(dur_bcd >= 0 );"},
    {Default::NUMBER, "ALTER TABLE  %Q ADD COLUMN dur_sec         int   DEFAULT 0 CHECK(dur_sec >= 0 );"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN content_id      text  DEFAULT %Q;", "0.0.0.0"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN rating          text  DEFAULT %Q;", "0@est"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN run_status      int   DEFAULT 0 CHECK(run_status >= 0 &  run_status <= 255);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN free_ca         int   DEFAULT 0 CHECK(free_ca >= 0    &  free_ca < 2);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN ev_id           int   DEFAULT 0 CHECK(ev_id   >= 0    &  ev_id <= 65535);"},
    {Default::NUMBER,
     "ALTER TABLE  %Q ADD COLUMN pat_prnr        int   DEFAULT 0 CHECK(pat_prnr   >= 0    &  pat_prnr < 65535);"},
};

const Column EPGLIST_LANG_COLUMNS[] = {
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN lang            text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN ev_name         text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN ev_desc         text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN ext_desc        text  DEFAULT %Q;"},
    {Default::TEXT, "ALTER TABLE  %Q ADD COLUMN ext_list        text  DEFAULT %Q;"},
};

const char TUNED_MULTIPLEX[] =
    "CREATE TABLE IF NOT EXISTS tuned_multiplex (freq int, hf_conn int, dvb_type int, asked_freq int, system int, "
    "pipe int, bandwidth_hz int, modulation int, offset_hz int, lock_ms int, UNIQUE (freq, hf_conn, dvb_type));";

const char BROADCAST_ZONE[] =
    "CREATE TABLE IF NOT EXISTS broadcast_zone (freq int, hf_conn int, dvb_type int, country text, region int, "
    "offset_min int, change_epoch int, next_offset_min int, UNIQUE (freq, hf_conn, dvb_type));";

const char SERVICE_DETAIL[] =
    "CREATE TABLE IF NOT EXISTS service_detail (channel integer primary key, lcn int, hd_lcn int, visible int, "
    "eit_schedule int, eit_present_following int, set_aside int, list_name text);";

const char STREAM_DETAIL[] =
    "CREATE TABLE IF NOT EXISTS stream_detail (channel int, es_pid int, es_type int, component_tag int, kind text, codec "
    "text, profile text);";

const char* const STREAM_TABLES[] = {
    STREAM_DETAIL,
    "CREATE TABLE IF NOT EXISTS stream_language (channel int, es_pid int, lang text, role text, page int);",
    "CREATE TABLE IF NOT EXISTS stream_ca (channel int, es_pid int, ca_sysid int, ca_pid int);",
    "CREATE INDEX IF NOT EXISTS stream_detail_idx ON stream_detail (channel);",
    "CREATE INDEX IF NOT EXISTS stream_language_idx ON stream_language (channel);",
    "CREATE INDEX IF NOT EXISTS stream_ca_idx ON stream_ca (channel);",
};

// The trigger comes last: where it is, the rest is. Rows of events are deleted in several places, and by programs that
// do not know these tables.
const char* const EVENT_TABLES[] = {
    "CREATE TABLE IF NOT EXISTS epg_db.event_detail (entry integer primary key, table_id int, version int, "
    "original_network_id int, tstream_id int, series_crid text, programme_crid text, running_status int, "
    "running_since int, digest int);",
    "CREATE TABLE IF NOT EXISTS epg_db.event_item (entry int, lang text, position int, name text, value text, "
    "PRIMARY KEY (entry, lang, position)) WITHOUT ROWID;",
    "CREATE TABLE IF NOT EXISTS epg_db.event_component (entry int, position int, tag int, stream_content int, "
    "stream_content_ext int, component_type int, lang text, text text, PRIMARY KEY (entry, position)) WITHOUT ROWID;",
    "CREATE TABLE IF NOT EXISTS epg_db.event_rating (entry int, position int, country text, rating int, "
    "PRIMARY KEY (entry, position)) WITHOUT ROWID;",
    "CREATE TABLE IF NOT EXISTS epg_db.event_genre (entry int, position int, level1 int, level2 int, user int, "
    "PRIMARY KEY (entry, position)) WITHOUT ROWID;",
    "CREATE TRIGGER IF NOT EXISTS epg_db.event_gone AFTER DELETE ON epglist BEGIN "
    "DELETE FROM event_detail WHERE entry = OLD.entry; DELETE FROM event_item WHERE entry = OLD.entry; "
    "DELETE FROM event_component WHERE entry = OLD.entry; DELETE FROM event_rating WHERE entry = OLD.entry; "
    "DELETE FROM event_genre WHERE entry = OLD.entry; END;",
};

const char* const KANALID_INDEXES[] = {
    "CREATE UNIQUE INDEX kanalid_otsi_idx   ON kanalid (hf_conn, dvb_type, freq, pat_prnr);",
};

const char* const KANALID_LANG_INDEXES[] = {
    "CREATE UNIQUE INDEX kanalid_lang_soid_lang_idx ON kanalid_lang (source_oid, lang);",
    "CREATE INDEX kanalid_lang_soid_idx ON kanalid_lang (source_oid);",
};

const char* const ESTREAMS_INDEXES[] = {
    "CREATE INDEX estreams_channel_idx   ON estreams (channel);",
    "CREATE INDEX estreams_estype_idx    ON estreams (es_type);",
    "CREATE INDEX estreams_essubtype_idx ON estreams (es_subtype);",
    "CREATE INDEX estreams_languages_idx ON estreams (languages);",
};

const char* const TUNER_TABLE_INDEXES[] = {
    "CREATE UNIQUE INDEX tuner_table_freq_idx ON tuner_table (freq ,hf_conn, dvb_type);",
};

const char* const EPGLIST_INDEXES[] = {
    "CREATE INDEX epg_start_idx ON epglist (start_epoch);",
    "CREATE INDEX epg_ch_idx ON epglist (channel);",
    "CREATE UNIQUE INDEX epg_ch_start_idx ON epglist (channel, start_epoch);",
    "CREATE UNIQUE INDEX epg_scanner_verify_idx ON epglist (channel, start_epoch, dur_sec);",
};

const char* const EPGLIST_LANG_INDEXES[] = {
    "CREATE UNIQUE INDEX epg_lang_soid_lang_idx ON epglist_lang (source_oid, lang);",
    "CREATE INDEX epg_lang_soid_idx ON epglist_lang (source_oid);",
};

template <size_t N>
void add_columns(One_shot& sql, sqlite3* conn, const char* table, const Column (&columns)[N], const char* operation) {
  for (const Column& column : columns) {
    switch (column.kind) {
      case Default::NUMBER:
        sql.exec_on(operation, conn, column.format, table);
        break;
      case Default::TEXT:
        sql.exec_on(operation, conn, column.format, table, column.text);
        break;
      case Default::REVISION:
        sql.exec_on(operation, conn, column.format, table, REVISION);
        break;
    }
  }
}

template <size_t N>
void run_all(One_shot& sql, sqlite3* conn, const char* const (&statements)[N]) {
  for (const char* statement : statements)
    sql.exec_on("Sdbl", conn, statement);
}

}  // namespace

void Schema::create_table_kanalid(const char* name, bool temp) {
  sql_.exec(__func__,
            temp ? "CREATE TEMP TABLE %Q (channel integer primary key autoincrement);"
                 : "CREATE TABLE %Q (channel integer primary key autoincrement);",
            name);
  add_columns(sql_, connection_.get(), name, KANALID_COLUMNS, __func__);
}

void Schema::create_table_kanalid_lang(const char* name, bool temp) {
  sql_.exec(__func__, temp ? "CREATE TEMP TABLE %Q (source_oid int);" : "CREATE TABLE %Q (source_oid int);", name);
  add_columns(sql_, connection_.get(), name, KANALID_LANG_COLUMNS, __func__);
}

void Schema::create_table_estreams(const char* name, bool temp) {
  sql_.exec(__func__, temp ? "CREATE TEMP TABLE %Q (channel int);" : "CREATE TABLE %Q (channel int);", name);
  add_columns(sql_, connection_.get(), name, ESTREAMS_COLUMNS, __func__);
}

// Only "no such table" makes a table: it is left alone when the file is busy, damaged or older.
bool Schema::begin_missing_table(sqlite3* conn, const char* probe) {
  if (sql_.try_exec_on("Sdbl", conn, probe) != SQLITE_ERROR)
    return false;
  sql_.exec_on("Sdbl", conn, "BEGIN;");
  return true;
}

void Schema::commit_table(sqlite3* conn) {
  sql_.exec_on("Sdbl", conn, "COMMIT;");
}

void Schema::create_channel_tables() {
  sqlite3* const conn = connection_.get();
  if (begin_missing_table(conn, "SELECT * FROM kanalid;")) {
    create_table_kanalid("kanalid", false);
    run_all(sql_, conn, KANALID_INDEXES);
    commit_table(conn);
  }
  if (begin_missing_table(conn, "SELECT * FROM kanalid_lang;")) {
    create_table_kanalid_lang("kanalid_lang", false);
    run_all(sql_, conn, KANALID_LANG_INDEXES);
    commit_table(conn);
  }
  if (begin_missing_table(conn, "SELECT * FROM estreams;")) {
    create_table_estreams("estreams", false);
    run_all(sql_, conn, ESTREAMS_INDEXES);
    commit_table(conn);
  }
  if (begin_missing_table(conn, "SELECT * FROM tuner_table;")) {
    sql_.exec("Sdbl", "CREATE TABLE tuner_table (freq int);");
    add_columns(sql_, conn, "tuner_table", TUNER_TABLE_COLUMNS, "Sdbl");
    run_all(sql_, conn, TUNER_TABLE_INDEXES);
    commit_table(conn);
  }
}

int Schema::create_tuned_multiplex() {
  return sql_.try_exec_on(__func__, connection_.get(), TUNED_MULTIPLEX);
}

int Schema::create_tuned_multiplex_silently() {
  return sqlite3_exec(connection_.get(), TUNED_MULTIPLEX, nullptr, nullptr, nullptr);
}

int Schema::create_broadcast_zone() {
  return sql_.try_exec_on(__func__, connection_.get(), BROADCAST_ZONE);
}

int Schema::create_service_detail() {
  return sql_.try_exec_on(__func__, connection_.get(), SERVICE_DETAIL);
}

bool Schema::create_stream_tables() {
  return std::all_of(std::begin(STREAM_TABLES), std::end(STREAM_TABLES), [this](const char* statement) {
    return kelvo_log::sql_ok(sql_.try_exec_on("create_stream_tables", connection_.get(), statement));
  });
}

bool Schema::has_event_tables() {
  return sql_.silent_number(
             "SELECT count(*) FROM epg_db.sqlite_master WHERE type = 'trigger' AND name = 'event_gone'") == 1;
}

int Schema::create_event_tables() {
  for (const char* statement : EVENT_TABLES) {
    const int rc = sql_.try_exec_on(__func__, connection_.get(), statement);
    if (!kelvo_log::sql_ok(rc))
      return rc;
  }
  return SQLITE_OK;
}

void Schema::create_epg_tables(sqlite3* conn) {
  if (begin_missing_table(conn, "SELECT * FROM epglist;")) {
    sql_.exec_on("Sdbl", conn, "CREATE TABLE epglist ( entry integer primary key autoincrement );");
    add_columns(sql_, conn, "epglist", EPGLIST_COLUMNS, "Sdbl");
    run_all(sql_, conn, EPGLIST_INDEXES);
    commit_table(conn);
  }
  if (begin_missing_table(conn, "SELECT * FROM epglist_lang;")) {
    sql_.exec_on("Sdbl", conn, "CREATE TABLE epglist_lang (source_oid int);");
    add_columns(sql_, conn, "epglist_lang", EPGLIST_LANG_COLUMNS, "Sdbl");
    run_all(sql_, conn, EPGLIST_LANG_INDEXES);
    commit_table(conn);
  }
}

}  // namespace sdbl
