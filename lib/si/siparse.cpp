// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The shell of the parser: everything it does is done by its Parts.
#include "si/siparse.h"

#include <vector>

#include "si/eit_progress.h"
#include "si/siparse_parts.h"

Siparse::Siparse(Section_filter* filter, int dvbnr, HF_CONN_ID conn, DVB_TYPE_ID type, Sdbl* db)
    : parts_(std::make_unique<Parts>(*filter, dvbnr, Input{Connector{conn}, Delivery{type}}, *db)) {}

Siparse::~Siparse() = default;

Siparse::Parts& Siparse::parts() const {
  return *parts_;
}

int Siparse::scan_assembled_section(char* section, int pid, int freq, void*, SCAN_STATE state) {
  parts_->scan_assembled_section(reinterpret_cast<const uint8_t*>(section), pid, freq, state);
  return 0;
}

int Siparse::parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE state) {
  return parts_->parse_section_pat(section, freq, state);
}

int Siparse::parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE state) {
  return parts_->parse_section_pmt(section, pid, freq, state);
}

int Siparse::parse_section_cat(ConditionalAccessSection* section, int pid, int freq) {
  return parts_->parse_section_cat(section, pid, freq);
}

int Siparse::parse_section_nit(NetworkInformationSection* section, int pid, int freq) {
  return parts_->parse_section_nit(section, pid, freq);
}

int Siparse::parse_section_sdt(ServiceDescriptionSection* section, int freq) {
  return parts_->parse_section_sdt(section, freq);
}

int Siparse::init_pmt_table_scan_from_database(int freq) {
  return parts_->init_pmt_table_scan_from_database(freq);
}

char* Siparse::add_dvbnr(const char* base) {
  return parts_->add_dvbnr(base);
}

bool Siparse::systime_valid() const {
  return parts_->clock().valid();
}

int Siparse::get_eit_stored() const {
  return parts_->get_eit_stored();
}

void Siparse::parse_descriptor_info(Descriptor* descriptor, int context) {
  parts_->parse_descriptor_info(*descriptor, context);
}

void Siparse::parse_nit_descriptor_info(Descriptor* descriptor, int freq, int context, int network_id, int ts_id,
                                        int orig_network_id) {
  parts_->parse_nit_descriptor_info(*descriptor, freq, context, network_id, ts_id, orig_network_id);
}

PMT_subtxt_lang* Siparse::find_create_subtxt_lang(const std::string& code) {
  return parts_->found_by_hand().subtitles.find_or_make(code);
}

EIT_lang* Siparse::find_create_epglang(const std::string& code) {
  return parts_->found_by_hand().event_at_hand().texts.find_or_make(code);
}

int Siparse::start_eit_scan(int freq, SCAN_STATE state) {
  return parts_->start_eit_scan(freq, state);
}

int Siparse::init_cache_list(int freq, SCAN_STATE state) {
  parts_->guide().load(freq, state);
  parts_->guide_reader().begin(freq);
  return 0;
}

void Siparse::reset_cache_list() {
  parts_->guide().begin_again();
}

void Siparse::get_eit_progress(std::vector<EIT_progress>* progress) const {
  parts_->guide_reader().progress(progress);
}

void Siparse::parse_section_eit(EventInformationSection* section, int freq) {
  parts_->parse_section_eit(section, freq);
}

SQL_cache* Siparse::eit_scan_loop(int service_id, long, long, bool last_section, bool, bool* all_done, int freq,
                                  int table_id) {
  return parts_->guide().event_arrived(service_id, table_id, freq, last_section, all_done);
}

bool Siparse::get_eit_info_available() {
  return parts_->get_eit_info_available();
}

int Siparse::parse_section_tdt(TimeAndDateSection* section, int freq) {
  return parts_->parse_section_tdt(section, freq);
}

int Siparse::parse_section_tot(TimeOffsetSection* section, int freq) {
  return parts_->parse_section_tot(section, freq);
}

std::string* Siparse::dvb_text_to_utf8(std::string* text) {
  parts_->text().convert(text, Dvb_text::Lines::KEPT);
  return text;
}

void Siparse::generate_char_test_tables(int channel) {
  parts_->generate_char_test_tables(channel);
}

void Siparse::replace_epg_info(int channel, int event_id, long start, const char* name, const char* raw) {
  parts_->replace_epg_info(channel, event_id, start, name, raw);
}
