#include "si/scan_rows.h"

#include "base/log.h"
#include "db/sdbl.h"

std::string Scan_rows::table(const char* base) const {
  return base + ("_" + std::to_string(place_.adapter));
}

void Scan_rows::programme(int number, int ts_id, int pmt_pid) {
  (void)db_.pat_for_network(place_.adapter, delivery_type(), connector(), freq(), number, ts_id, pmt_pid);
}

int Scan_rows::channel_of(int programme, int pcr_pid) {
  return db_.pmt_channel_number(place_.adapter, delivery_type(), connector(), freq(), programme, pcr_pid, place_.stage);
}

void Scan_rows::stream(int channel, int pid, int type, const Stream_found& stream,
                       std::list<PMT_subtxt_lang*>* subtitles) {
  (void)db_.pmt_for_service(place_.adapter, channel, pid, type, stream.subtype, stream.codec.c_str(),
                            stream.languages.c_str(), stream.audio_types.c_str(), stream.ca.system_id, stream.ca.pid,
                            subtitles);
}

int Scan_rows::network(const char* column, int value) {
  return db_.nit_for_network(place_.adapter, delivery_type(), connector(), freq(), column, value);
}

void Scan_rows::network_name(int network_id, const std::string& name) {
  (void)db_.nit_network_name(place_.adapter, delivery_type(), connector(), freq(), network_id, name.c_str());
}

void Scan_rows::network_name(int network_id, const std::string& language, const std::string& name) {
  (void)db_.nit_multilingual_network_name(place_.adapter, delivery_type(), connector(), freq(), network_id,
                                          language.c_str(), name.c_str());
}

void Scan_rows::channel_number(int ts_id, int orig_network_id, int service_id, int lcn) {
  (void)db_.nit_lcn(place_.adapter, delivery_type(), connector(), ts_id, orig_network_id, service_id, lcn);
}

void Scan_rows::delivery(const Delivery_found& delivery) {
  (void)db_.terrestrial_tuner_info(delivery_type(), connector(), delivery.freq, delivery.bandwidth,
                                   delivery.constellation, delivery.hierarchy, delivery.code_rate_hp,
                                   delivery.code_rate_lp, delivery.guard_interval, delivery.transmission_mode);
}

int Scan_rows::service(int service_id, int running_status, int free_ca_mode) {
  return db_.sdt_for_service(place_.adapter, delivery_type(), connector(), freq(), service_id, running_status,
                             free_ca_mode);
}

void Scan_rows::service_type(int row, int type) {
  (void)db_.modify_table_oid(row, table("kanalid_scan").c_str(), "serv_type", type);
}

void Scan_rows::service_name(int row, const std::string& name) {
  (void)db_.modify_table_oid(row, table("kanalid_scan").c_str(), "serv_name", name.c_str());
}

void Scan_rows::provider_name(int row, const std::string& name) {
  (void)db_.modify_table_oid(row, table("kanalid_scan").c_str(), "prov_name", name.c_str());
}

void Scan_rows::service_name(int row, const std::string& language, const std::string& name) {
  (void)db_.modify_lang_table_oid(row, table("kanalid_lang_scan").c_str(), language.c_str(), "serv_name", name.c_str());
}

void Scan_rows::provider_name(int row, const std::string& language, const std::string& name) {
  (void)db_.modify_lang_table_oid(row, table("kanalid_lang_scan").c_str(), language.c_str(), "prov_name", name.c_str());
}

bool Scan_rows::provider_missing() {
  return db_.sql_row_exists("SELECT channel FROM kanalid_scan_%d WHERE prov_name = '' AND freq = %d;", place_.adapter,
                            freq());
}

int Scan_rows::event(int service_id, SQL_cache* cache, const Event_times& times, Event_found* event) {
  // A replaced or overlapped event is left as it is: the guide's sections never take another one's place.
  const int row =
      db_.eit_for_service(delivery_type(), connector(), freq(), service_id, cache, times.ymd_bcd, times.hms_bcd,
                          times.duration_bcd, times.start, times.duration, times.running_status, times.free_ca_mode,
                          times.event_id, &event->content, &event->rating, false, false);
  for (const EIT_lang* text : event->texts.list()) {
    if (row > 0)
      (void)db_.insert_epglist_lang(row, text->lang.c_str(), text->ev_name.c_str(), text->ev_desc.c_str(),
                                    text->ext_desc.c_str(), text->ext_list.c_str());
    if (text->started && !text->complete)
      KLOG(VERB_PROGRESS, "Fragmented extended event for source_oid %d\n", row);
  }
  return row;
}

int Scan_rows::local_offset(int freq, int minutes, const std::string& country, int region) {
  db_.update_system_timezone(minutes, country.c_str(), region, delivery_type(), connector(), freq);
  return ZONE_UNTOUCHED;
}
