#pragma once

#include <iconv.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "si/broadcast_time.h"
#include "si/eit_progress.h"
#include "si/siparse.h"

class Event;

namespace section_guard {
class Safe_copy;
}

// What stands behind Siparse. Its public operations have the contracts of those of Siparse; the two below are all that
// others use.
class Siparse::Parts {
 public:
  Parts(Section_filter* filter, int dvbnr, HF_CONN_ID conn, DVB_TYPE_ID type, Sdbl* db);
  ~Parts();

  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  int scan_assembled_section(char* section, int pid, int freq, void* data, SCAN_STATE state);

  int parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE state);
  int parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE state);
  int parse_section_cat(ConditionalAccessSection* section, int pid, int freq);
  int parse_section_nit(NetworkInformationSection* section, int pid, int freq);
  int parse_section_sdt(ServiceDescriptionSection* section, int freq);

  int init_pmt_table_scan_from_database(int freq);

  char* add_dvbnr(const char* base);

  bool systime_valid() const;

  int get_eit_stored() const;

  void parse_descriptor_info(Descriptor* descriptor, int context);

  void parse_nit_descriptor_info(Descriptor* descriptor, int freq, int context, int network_id, int ts_id,
                                 int orig_network_id);

  PMT_subtxt_lang* find_create_subtxt_lang(const std::string& code);
  EIT_lang* find_create_epglang(const std::string& code);

  int start_eit_scan(int freq, SCAN_STATE state);

  int init_cache_list(int freq, SCAN_STATE state);

  void reset_cache_list();

  void get_eit_progress(std::vector<EIT_progress>* progress) const;

  void parse_section_eit(EventInformationSection* section, int freq);

  SQL_cache* eit_scan_loop(int service_id, long start, long end, bool last_section, bool present_running,
                           bool* all_done, int freq, int table_id);

  bool get_eit_info_available();

  int parse_section_tdt(TimeAndDateSection* section, int freq);
  int parse_section_tot(TimeOffsetSection* section, int freq);

  std::string* dvb_text_to_utf8(std::string* text);

  void generate_char_test_tables(int channel);

  void replace_epg_info(int channel, int event_id, long start, const char* name, const char* raw);

  // For Kelvo's loop. True while PMTs are being read again for services of the database and every one so far was of the
  // version last read: there is nothing to merge then. Set by init_pmt_table_scan_from_database(). Worker-only.
  bool pmt_versions_match() const { return pmt_from_database_; }

  // For Kelvo. Who is told of each TDT and TOT, on the worker, when clock and zone have been dealt with and before the
  // table's filter is closed. Null for nobody, as at first. Any-thread; a call that is under way is not waited for.
  void set_time_listener(void (*listener)(void* data, const Broadcast_time& time), void* data);

 private:
  // Where the descriptors at hand stand, beyond what `context` tells.
  enum class Loop { NONE, PMT, CAT, SDT, NIT, EIT, TOT };

  template <typename Section, typename Parse>
  void scan_long_section(const uint8_t* bytes, Parse parse);
  template <typename Section, typename Parse>
  void scan_section(const uint8_t* bytes, Parse parse);
  void clear_leftovers();

  void store_event(const Event* event, SQL_cache* service, int service_id, int freq, int ymd, int hms, int start,
                   int duration);
  void open_next_eit_table(int freq, int table_id);
  void note_schedule_table(int service_id, int last_table);
  void count_stored_event(int service_id);
  void publish_progress();

  Broadcast_time set_clock(unsigned mjd, unsigned hms_bcd, time_t now);
  void tell(const Broadcast_time& time);

  bool names_storable(int context) const;
  void parse_stream_descriptor(const Descriptor* descriptor);
  void parse_ca_descriptor(const Descriptor* descriptor, int context);
  void parse_language_descriptor(const Descriptor* descriptor, int context);
  void parse_service_descriptor(const Descriptor* descriptor, int context);
  void parse_service_names_descriptor(const Descriptor* descriptor, int context);
  void parse_short_event_descriptor(const Descriptor* descriptor, int context);
  void parse_extended_event_descriptor(const Descriptor* descriptor, int context);
  void parse_content_descriptor(const Descriptor* descriptor, int context);
  void parse_rating_descriptor(const Descriptor* descriptor);
  void parse_teletext_descriptor(const Descriptor* descriptor);
  void parse_subtitling_descriptor(const Descriptor* descriptor);
  void parse_terrestrial_descriptor(const Descriptor* descriptor);
  void parse_ac3_descriptor(const Descriptor* descriptor);
  void parse_time_offset_descriptor(const Descriptor* descriptor, int freq);
  void parse_network_name_descriptor(const Descriptor* descriptor, int freq, int network_id);
  void parse_network_names_descriptor(const Descriptor* descriptor, int freq, int network_id);
  void parse_channel_numbers_descriptor(const Descriptor* descriptor, int freq, int network_id, int ts_id,
                                        int orig_network_id);
  std::string utf8_of(const std::string& dvb_text);

  Section_filter* const filter_;
  char table_name_[64] = "";
  const int dvbnr_;
  Sdbl* const db_;
  std::list<SQL_cache*>* cache_list_;  // services of the multiplex; scan_mark holds the last PMT version
  int64_t timers_due_ns_ = 0;          // of CLOCK_MONOTONIC; until then no service on cache_list_ has waited too long
  int current_eit_table_ = 0;
  std::string country_code_ = "EST";
  int local_time_offset_ = 120;  // minutes east of UTC
  bool time_offset_received_ = true;
  std::atomic<bool> system_time_valid_;
  const HF_CONN_ID conn_;
  const DVB_TYPE_ID type_;
  int selected_service_ = -1;
  bool eit_info_available_ = false;
  std::atomic<int> eit_stored_ = 0;
  int section_counter_ = 0;

  // What hosts may know of cache_list_: `progress_` is the worker's, `published_` its copy for everybody.
  std::vector<EIT_progress> progress_;
  bool progress_changed_ = false;
  bool guide_ended_ = false;          // the last table has been closed
  mutable std::mutex progress_lock_;  // guards published_; a leaf
  std::vector<EIT_progress> published_;

  int eit_mismatches_ = 0;

  // CA of a PMT's programme loop.
  bool program_ca_found_ = false;
  int program_ca_sysid_ = 0;
  int program_ca_pid_ = 0;

  static constexpr int CLOCK_TOLERANCE_S = 10;
  static constexpr size_t ISO_8859_TABLES = 16;
  iconv_t iso8859_[ISO_8859_TABLES];  // ISO-8859-n at n - 1
  iconv_t iso6937_;
  iconv_t iso10646_;

  // The event at hand.
  std::string event_content_;
  std::string event_rating_;
  std::list<EIT_lang*> epg_languages_;

  // The elementary stream at hand.
  int es_subtype_ = 0;
  std::string codec_;
  std::string languages_;
  std::string lang_codes_;
  int ca_sysid_ = 0;
  int ca_pid_ = 0;
  std::list<PMT_subtxt_lang*> subtxt_languages_;

  // PMTs are being read again for services of the database, and none of them was of another version so far: set by
  // init_pmt_table_scan_from_database(), cleared by the first PMT that is not the one last read.
  bool pmt_from_database_ = false;

  Loop loop_ = Loop::NONE;

  std::mutex listener_lock_;  // guards the two below; a leaf
  void (*time_listener_)(void* data, const Broadcast_time& time) = nullptr;
  void* time_listener_data_ = nullptr;
  std::unique_ptr<section_guard::Safe_copy> safe_copy_;  // made when a system libdvbsi++ needs it
};
