// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The public shell: each operation stands in one of the parts.
#include "db/sdbl.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "db/merge.h"
#include "db/refresh.h"
#include "db/sdbl_parts.h"
#include "db/shell_files.h"
#include "db/times.h"

namespace {

Multiplex multiplex(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq) {
  return Multiplex{Input{Connector{hf_conn}, Delivery{dvb_type}}, freq};
}

}  // namespace

// --- Files

Sdbl::Sdbl(const char* db_file) : Sdbl(db_file, Durability::NONE) {}

Sdbl::Sdbl(const char* db_file, Durability durability)
    : parts_(std::make_unique<Parts>(db_file != nullptr ? db_file : "", durability)) {
  parts_->opening.open_files();
}

Sdbl::~Sdbl() {
  parts_->cache.free();
  parts_->opening.close();
}

int Sdbl::open_db() {
  parts_->opening.open();
  return 1;
}

void Sdbl::close_db() {
  parts_->opening.close();
}

bool Sdbl::db_opened() const {
  return parts_->connection.get() != nullptr;
}

void Sdbl::flush() {
  parts_->opening.flush();
}

void Sdbl::create_temp_tables(int n) {
  parts_->scan_tables.create_temp_tables(n);
}

void Sdbl::clear_temp_tables(int n) {
  parts_->errors.begin_scan_tables(n);
  parts_->scan_tables.clear_temp_tables(n);
  parts_->stream_details.clear(n);
}

int Sdbl::remove_old_entries(int age_sec, bool vacuum) {
  return parts_->guide_room.remove_old_entries(age_sec, vacuum);
}

void Sdbl::backup_database(bool) {
  parts_->exports.export_guide();
}

void Sdbl::backup_channel_database(const char* file) {
  parts_->exports.export_channels(file);
}

bool Sdbl::first_error(Database_error* error) const {
  return parts_->errors.first(error);
}

void Sdbl::forget_errors() {
  parts_->errors.forget();
}

void Sdbl::set_backup_file_name(const char* file) {
  parts_->exports.set_guide_target(file);
}

void Sdbl::set_preferred_provider(const char* name) {
  parts_->zone.set_preferred_provider(name);
}

char* Sdbl::mapto_epg_filename(char* out, const char* path) {
  const std::string file = sdbl::epg_file_of(path);
  std::memcpy(out, file.c_str(), file.size() + 1);
  return out;
}

// --- Tables

void Sdbl::create_table_kanalid(const char* name, bool temp) {
  parts_->schema.create_table_kanalid(name, temp);
}

void Sdbl::create_table_kanalid_lang(const char* name, bool temp) {
  parts_->schema.create_table_kanalid_lang(name, temp);
}

void Sdbl::create_table_estreams(const char* name, bool temp) {
  parts_->schema.create_table_estreams(name, temp);
}

// --- Statements

int Sdbl::sql_exec(sqlite3* conn, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const int rc = parts_->sql.exec_v(__func__, conn, fmt, arguments);
  va_end(arguments);
  return rc;
}

int Sdbl::sql_get_int(int* out, int col, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const int rc = parts_->sql.get_int_v(__func__, out, col, fmt, arguments);
  va_end(arguments);
  return rc;
}

int Sdbl::sql_get_txt(std::string* out, int col, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const int rc = parts_->sql.get_txt_v(__func__, out, col, fmt, arguments);
  va_end(arguments);
  return rc;
}

bool Sdbl::sql_row_exists(const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const bool exists = parts_->sql.row_exists_v(fmt, arguments);
  va_end(arguments);
  return exists;
}

sqlite3_stmt* Sdbl::sql_cache(bool run, int instance, const char* sql, ...) {
  sdbl::Db_lock lock(parts_->connection);
  va_list arguments;
  va_start(arguments, sql);
  sqlite3_stmt* stmt = parts_->cache.bind_v(__func__, instance, sql, arguments);
  va_end(arguments);
  if (stmt != nullptr && run)
    (void)parts_->cache.run(__func__, stmt, sql);  // a failed run is printed, and the statement is good for the next
  return stmt;
}

SQL_query* Sdbl::lookup_insert_sql_query(const char* sql, int instance) {
  return parts_->cache.lookup(__func__, instance, sql);
}

void Sdbl::check_cached_queries() {
  parts_->cache.reset();
}

void Sdbl::free_prepared_queries() {
  parts_->cache.free();
}

// --- Times

unsigned Sdbl::bin_to_bcd(unsigned value) {
  return sdbl::bin_to_bcd(value);
}

int Sdbl::bcd_to_int(unsigned bcd) {
  return sdbl::bcd_to_int(bcd);
}

int Sdbl::ymd_hms_to_tzepoch(int ymd_bcd, int hms_bcd) {
  return sdbl::ymd_hms_to_tzepoch(ymd_bcd, hms_bcd);
}

int Sdbl::usec_to_now(const timespec* start) {
  return sdbl::usec_to_now(start);
}

void Sdbl::update_system_timezone(int offset_min, const char* zone_name, int zone_nr, DVB_TYPE_ID dvb_type,
                                  HF_CONN_ID hf_conn, int freq) {
  (void)parts_->zone.update(offset_min, zone_name, zone_nr, multiplex(dvb_type, hf_conn, freq), true);
}

// --- Writing what a scan finds

int Sdbl::pat_for_network(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int ts_id,
                          int pmt_pid) {
  return parts_->scan_tables.pat_for_network(dvbnr, multiplex(dvb_type, hf_conn, freq), pat_prnr, ts_id, pmt_pid);
}

int Sdbl::sdt_for_service(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int run_status,
                          int free_ca) {
  return parts_->scan_tables.sdt_for_service(dvbnr, multiplex(dvb_type, hf_conn, freq), pat_prnr, run_status, free_ca);
}

int Sdbl::pmt_for_service(int dvbnr, int channel, int es_pid, int es_type, int es_subtype, const char* codec,
                          const char* languages, const char* lang_codes, int ca_sysid, int ca_pid,
                          std::list<PMT_subtxt_lang*>* subtxt) {
  return parts_->scan_tables.pmt_for_service(dvbnr, channel, es_pid, es_type, es_subtype, codec, languages, lang_codes,
                                             ca_sysid, ca_pid, subtxt);
}

int Sdbl::pmt_channel_number(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int pcr_pid,
                             SCAN_STATE state) {
  return parts_->scan_tables.pmt_channel_number(dvbnr, multiplex(dvb_type, hf_conn, freq), pat_prnr, pcr_pid, state);
}

int Sdbl::nit_for_network(int dvbnr, int dvb_type, int hf_conn, int freq, const char* column, int value) {
  return parts_->scan_tables.nit_for_network(dvbnr, multiplex(dvb_type, hf_conn, freq), column, value);
}

int Sdbl::nit_lcn(int dvbnr, int dvb_type, int hf_conn, int ts_id, int onet_id, int serv_id, int lcn) {
  return parts_->scan_tables.nit_lcn(dvbnr, Input{Connector{hf_conn}, Delivery{dvb_type}}, ts_id, onet_id, serv_id,
                                     lcn);
}

int Sdbl::nit_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int netid, const char* name) {
  return parts_->scan_tables.nit_network_name(dvbnr, multiplex(dvb_type, hf_conn, freq), netid, name);
}

int Sdbl::nit_multilingual_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int net_id, const char* lang,
                                        const char* name) {
  return parts_->scan_tables.nit_multilingual_network_name(dvbnr, multiplex(dvb_type, hf_conn, freq), net_id, lang,
                                                           name);
}

int Sdbl::append_table_oid(int oid, const char* table, const char* column, const char* text) {
  return parts_->channel_list.append_table_oid(oid, table, column, text);
}

int Sdbl::modify_table_oid(int oid, const char* table, const char* column, const char* text) {
  return parts_->channel_list.modify_table_oid(oid, table, column, text);
}

int Sdbl::modify_table_oid(int oid, const char* table, const char* column, int value) {
  return parts_->channel_list.modify_table_oid(oid, table, column, value);
}

int Sdbl::append_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                const char* text) {
  return parts_->channel_list.append_lang_table_oid(source_oid, table, lang, column, text);
}

int Sdbl::modify_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column,
                                const char* text) {
  return parts_->channel_list.modify_lang_table_oid(source_oid, table, lang, column, text);
}

// --- Reading the channel list

int Sdbl::get_pat_prnr(int channel, int freq) {
  return parts_->channel_list.get_pat_prnr(channel, freq);
}

int Sdbl::get_freq(int channel) {
  return parts_->channel_list.get_freq(channel);
}

std::string* Sdbl::get_serv_name(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr) {
  return parts_->channel_list.get_serv_name(multiplex(dvb_type, hf_conn, freq), pat_prnr).release();
}

int Sdbl::fill_pids_for_channel(int channel, std::vector<CA_pid*>* pids) {
  return parts_->channel_list.fill_pids_for_channel(channel, pids);
}

Programme_streams Sdbl::read_streams(int channel) const {
  return parts_->stream_details.read(channel);
}

int Sdbl::keep_moved_channels(DVB_TYPE_ID type, HF_CONN_ID connector, const std::vector<int>& freqs,
                              std::vector<Channel_change>* changes) {
  const sdbl::Merge_end end = sdbl::Refresh(*parts_, 0, multiplex(type, connector, 0)).leave(freqs, changes);
  if (end.outcome != sdbl::Merge_outcome::DONE)
    return -1;
  return static_cast<int>(std::count_if(changes->begin(), changes->end(), [](const Channel_change& change) {
    return (change.kinds & CHANNEL_MOVED) != 0;
  }));
}

// --- Tuning parameters

int Sdbl::terrestrial_tuner_info(DVB_TYPE_ID type, HF_CONN_ID connector, int freq, int bandwidth, int constellation,
                                 int hierarchy, int code_rate_hp, int code_rate_lp, int guard_interval,
                                 int transmission_mode) {
  return parts_->tuner_table.terrestrial_tuner_info(
      multiplex(type, connector, freq),
      {bandwidth, constellation, hierarchy, code_rate_hp, code_rate_lp, guard_interval, transmission_mode});
}

int Sdbl::fill_frontend_control(DVB_TYPE_ID type, HF_CONN_ID connector, int freq, dvb_frontend_parameters* out) {
  return parts_->tuner_table.fill_frontend_control(multiplex(type, connector, freq), out);
}

// --- Merging a finished scan

int Sdbl::update_master_scan_data(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, SCAN_STATE state) {
  return parts_->scan_merge.run(dvbnr, multiplex(dvb_type, hf_conn, freq), state).changes;
}

int Sdbl::set_master_scan_timeout(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq) {
  return sdbl::set_master_scan_timeout(parts_->statements, multiplex(dvb_type, hf_conn, freq));
}

// --- Programme guide

int Sdbl::lookup_epg_cache(std::vector<EPG_cache*>* cache, int ev_id, int start_epoch, int dur_sec, bool* changed,
                           bool* overlap) {
  return parts_->event_cache.lookup(cache, ev_id, start_epoch, dur_sec, changed, overlap);
}

int Sdbl::epg_cache_binary_search(std::vector<EPG_cache*>* cache, int t) {
  return sdbl::Event_cache::search(*cache, t);
}

int Sdbl::eit_for_service(DVB_TYPE_ID, HF_CONN_ID, int freq, int pat_prnr, SQL_cache* sc, int ymd_bcd, int hms_bcd,
                          int dur_bcd, long start_epoch, int dur_sec, int run_status, int free_ca, int ev_id,
                          std::string* content, std::string* rating, bool replace, bool overlapping) {
  const sdbl::Event_row event{sc->channel, ymd_bcd, hms_bcd,  sdbl::saturated(start_epoch),
                              dur_bcd,     dur_sec, *content, *rating,
                              run_status,  free_ca, ev_id,    pat_prnr};
  return parts_->guide.eit_for_service(event, freq, &sc->epg, replace, overlapping);
}

int Sdbl::insert_epglist_lang(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                              const char* ext_desc, const char* ext_list) {
  return parts_->guide.insert_epglist_lang(source_oid, lang, ev_name, ev_desc, ext_desc, ext_list);
}

int Sdbl::delete_epglist_range(int channel, int start_epoch, int end_epoch, bool trace, SQL_cache* sc) {
  return parts_->guide.delete_epglist_range(channel, start_epoch, end_epoch, trace, &sc->epg);
}

int Sdbl::eit_info_available(int channel) {
  return parts_->guide.eit_info_available(channel);
}

// --- Services whose guide is collected; the list of them is made in eit_scan_list.cpp

void Sdbl::set_eit_service_types(const int* types, int n) {
  parts_->guide_services.set_types(types, n);
}
