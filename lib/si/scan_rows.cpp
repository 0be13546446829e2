// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/scan_rows.h"

#include <utility>

#include "base/log.h"
#include "db/guide_section.h"
#include "db/sdbl_parts.h"
#include "db/sql_cache.h"
#include "si/broadcast_time.h"

namespace {

int result_of(sdbl::Zone_outcome outcome) {
  switch (outcome) {
    case sdbl::Zone_outcome::RIGHT:
      return ZONE_RIGHT;
    case sdbl::Zone_outcome::SET:
      return ZONE_SET;
    case sdbl::Zone_outcome::FAILED:
      return ZONE_FAILED;
    case sdbl::Zone_outcome::KEPT:
      return ZONE_KEPT;
    case sdbl::Zone_outcome::UNTOUCHED:
      break;
  }
  return ZONE_UNTOUCHED;
}

}  // namespace

std::string Scan_rows::table(const char* base) const {
  return base + ("_" + std::to_string(place_.adapter));
}

void Scan_rows::programme(int number, int ts_id, int pmt_pid) {
  (void)db_.scan_tables.pat_for_network(place_.adapter, place_.multiplex, number, ts_id, pmt_pid);
}

int Scan_rows::channel_of(int programme, int pcr_pid) {
  return db_.scan_tables.pmt_channel_number(place_.adapter, place_.multiplex, programme, pcr_pid, place_.stage);
}

void Scan_rows::stream(int channel, int pid, int type, const Stream_found& stream,
                       std::list<PMT_subtxt_lang*>* subtitles) {
  (void)db_.scan_tables.pmt_for_service(place_.adapter, channel, pid, type, stream.subtype, stream.codec.c_str(),
                                        stream.languages.c_str(), stream.audio_types.c_str(), stream.ca.system_id,
                                        stream.ca.pid, subtitles);
}

void Scan_rows::streams(int programme, Programme_streams streams) {
  db_.stream_details.found(place_.adapter, programme, std::move(streams));
}

int Scan_rows::network(const char* column, int value) {
  return db_.scan_tables.nit_for_network(place_.adapter, place_.multiplex, column, value);
}

void Scan_rows::network_name(int network_id, const std::string& name) {
  (void)db_.scan_tables.nit_network_name(place_.adapter, place_.multiplex, network_id, name.c_str());
}

void Scan_rows::network_name(int network_id, const std::string& language, const std::string& name) {
  (void)db_.scan_tables.nit_multilingual_network_name(place_.adapter, place_.multiplex, network_id, language.c_str(),
                                                      name.c_str());
}

void Scan_rows::channel_number(int ts_id, int orig_network_id, int service_id, int lcn) {
  (void)db_.scan_tables.nit_lcn(place_.adapter, place_.multiplex.input, ts_id, orig_network_id, service_id, lcn);
}

void Scan_rows::delivery(const Delivery_found& delivery) {
  (void)db_.tuner_table.terrestrial_tuner_info(
      {place_.multiplex.input, delivery.freq},
      {delivery.bandwidth, delivery.constellation, delivery.hierarchy, delivery.code_rate_hp, delivery.code_rate_lp,
       delivery.guard_interval, delivery.transmission_mode});
}

int Scan_rows::service(int service_id, int running_status, int free_ca_mode) {
  return db_.scan_tables.sdt_for_service(place_.adapter, place_.multiplex, service_id, running_status, free_ca_mode);
}

void Scan_rows::service_type(int row, int type) {
  (void)db_.channel_list.modify_table_oid(row, table("kanalid_scan").c_str(), "serv_type", type);
}

void Scan_rows::service_name(int row, const std::string& name) {
  (void)db_.channel_list.modify_table_oid(row, table("kanalid_scan").c_str(), "serv_name", name.c_str());
}

void Scan_rows::provider_name(int row, const std::string& name) {
  (void)db_.channel_list.modify_table_oid(row, table("kanalid_scan").c_str(), "prov_name", name.c_str());
}

void Scan_rows::service_name(int row, const std::string& language, const std::string& name) {
  (void)db_.channel_list.modify_lang_table_oid(row, table("kanalid_lang_scan").c_str(), language.c_str(), "serv_name",
                                               name.c_str());
}

void Scan_rows::provider_name(int row, const std::string& language, const std::string& name) {
  (void)db_.channel_list.modify_lang_table_oid(row, table("kanalid_lang_scan").c_str(), language.c_str(), "prov_name",
                                               name.c_str());
}

bool Scan_rows::provider_missing() {
  return sdbl_.sql_row_exists("SELECT channel FROM kanalid_scan_%d WHERE prov_name = '' AND freq = %d;", place_.adapter,
                              place_.multiplex.freq);
}

int Scan_rows::event(sdbl::Guide_section& section, const Place& place, int service_id, const SQL_cache& cache,
                     const Event_times& times, Event_found* event) {
  // Events that replace or overlap one do not come this far: what the guide says first about a time is kept.
  std::vector<sdbl::Event_texts> texts;
  for (EIT_lang* text : event->texts.list())
    texts.push_back({text->lang, std::move(text->ev_name), std::move(text->ev_desc), std::move(text->ext_desc),
                     std::move(text->ext_list)});
  const int row = section.store(
      {cache.channel, times.ymd_bcd, times.hms_bcd, times.start, times.duration_bcd, times.duration, event->content,
       event->rating, times.running_status, times.free_ca_mode, times.event_id, service_id},
      std::move(texts), place.multiplex.freq);
  for (const EIT_lang* text : event->texts.list())
    if (text->started && !text->complete)
      KLOG(VERB_PROGRESS, "Fragmented extended event for source_oid %d\n", row);
  return row;
}

int Scan_rows::original_network_id() {
  return db_.channel_list.original_network_id(place_.multiplex);
}

int Scan_rows::local_offset(int freq, int minutes, const std::string& country, int region, bool sets_zone) {
  return result_of(db_.zone.update(minutes, country.c_str(), region, {place_.multiplex.input, freq}, sets_zone));
}

int Scan_rows::zone(const Zone_found& zone, int64_t utc, bool sets_zone) {
  db_.zones.store(place_.multiplex,
                  {zone.country, zone.region, zone.offset_min, sdbl::saturated(zone.change), zone.next_offset_min});
  return result_of(db_.zone.follow(zone.offset_min, zone.country.c_str(), zone.region, utc, sets_zone));
}
