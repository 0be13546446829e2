// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "base/receiver_profile.h"
#include "db/scan_details.h"
#include "si/broadcast_time.h"
#include "si/channel_numbers.h"
#include "si/descriptors.h"
#include "si/dvb_text.h"
#include "si/found.h"
#include "si/guide_change.h"
#include "si/guide_reader.h"
#include "si/guide_round.h"
#include "si/network_found.h"
#include "si/other_tables.h"
#include "si/place.h"
#include "si/services_found.h"
#include "si/siparse.h"
#include "si/system_clock.h"
#include "si/table_watch.h"
#include "si/whole_tables.h"

class Event;
class Scan_rows;
struct Event_times;

namespace section_guard {
class Safe_copy;
}

// What stands behind a Siparse; not installed. Other folders use the operations of the first part and no more.
//
// A section goes the same way for every table: dispatch.cpp checks it and lays its class over it, the parser of the
// table (pat.cpp and so on) walks its loops, each descriptor goes through the table in descriptors.cpp to a handler
// that fills a Found, and Scan_rows hands that to the database. Nothing of a section is left here when its parser
// returns.
class Siparse::Parts {
 public:
  // --- For Kelvo ---------------------------------------------------------------------------------------------------

  // True while PMTs are being read again for services of the database and every one so far was of the version last
  // read: there is nothing to merge then. Set by init_pmt_table_scan_from_database(). Worker-only.
  bool pmt_versions_match() const { return pmt_versions_match_; }

  // Who is told of each TDT and TOT, on the worker, when clock and zone have been dealt with and before the table's
  // filter is closed. Null for nobody, as at first. Any-thread; a call that is under way is not waited for.
  void set_time_listener(void (*listener)(void* data, const Broadcast_time& time), void* data);

  // Everything that the profile says of reading, clock and zone; what the operations below set one by one is part of
  // it. Before-start: before the first section.
  void read_as(const Receiver_profile& profile);

  // How the guide is collected, as read_as() has chosen. Worker-only.
  Guide_reader& guide_reader() { return *guide_reader_; }

  // Who is told which events of the guide a section has changed, on the worker, once all of them are stored. Only where
  // the guide is collected whole. Null for nobody, as at first. Any-thread; a call that is under way is not waited for.
  void set_guide_listener(void (*listener)(void* data, const std::vector<Guide_change>& changes), void* data);

  // Whether time tables set the system's clock, and local time offsets its zone, as both do at first. What is not set
  // is told to the listener as CLOCK_KEPT and ZONE_KEPT; systime_valid() is then System_clock::valid() of a clock that
  // is compared only. Before-start: before the first section.
  void set_system_policy(bool set_clock, bool set_zone);

  // True: once sections of the guide's PID were lost, as the filters count them, the table being read is complete only
  // when the last section of each service has come twice again. False at first. Before-start: before the first section.
  void set_repeat_lost(bool repeat) { repeat_lost_ = repeat; }

  // What has been read of the multiplex and its network since begin_network(), which a scan begins with.
  // Worker-only, both.
  const Network_found& network() const { return network_; }
  void begin_network();
  // The same for the merge, with all that the scan tables have no column for.
  sdbl::Scan_details details();

  // Closes the filters of other networks' tables that nothing more is expected of: a scan does not wait for them for
  // ever. Worker-only, once a pass.
  void end_other_tables();

  // What the SDT has named since begin_multiplex(), which a request begins with. Worker-only, both.
  const Services_found& services() const { return services_; }
  void begin_multiplex();

  // Where the profile watches tables: what the scans have read of PAT, SDT and NIT. In stage SCAN_EIT their sections
  // are only compared. Null elsewhere. Worker-only.
  Table_watch* watch() const { return watch_.get(); }
  // The PID that the PAT names for the NIT, where it is believed.
  int network_pid() const;

  // Whose PMTs are still waited for on a PID; empty where first sections are enough. Worker-only.
  std::vector<int> services_awaited_on(int pid) const;

  // True: of a NIT in several sections all are read, and its filter is closed behind the last one. False at first: one
  // section is all that is read. Before-start: before the first section.
  void set_whole_nit(bool whole) { whole_nit_ = whole; }

  // --- For Siparse, which has the contracts ------------------------------------------------------------------------

  Parts(Section_filter& filter, int adapter, Input input, Sdbl& db);
  ~Parts();
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  void scan_assembled_section(const uint8_t* section, int pid, int freq, SCAN_STATE stage);

  int parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE stage);
  int parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE stage);
  int parse_section_cat(ConditionalAccessSection* section, int pid, int freq);
  int parse_section_nit(NetworkInformationSection* section, int pid, int freq);
  int parse_section_sdt(ServiceDescriptionSection* section, int freq);
  void parse_section_eit(EventInformationSection* section, int freq);
  int start_eit_scan(int freq, SCAN_STATE stage);
  int parse_section_tdt(TimeAndDateSection* section, int freq);
  int parse_section_tot(TimeOffsetSection* section, int freq);

  void parse_descriptor_info(const Descriptor& descriptor, int context);
  void parse_nit_descriptor_info(const Descriptor& descriptor, int freq, int context, int network_id, int ts_id,
                                 int orig_network_id);
  // What those two have found so far.
  Found& found_by_hand() { return found_by_hand_; }

  int init_pmt_table_scan_from_database(int freq);
  bool get_eit_info_available();
  int get_eit_stored() const { return eit_stored_; }

  char* add_dvbnr(const char* base);
  void generate_char_test_tables(int channel);
  void replace_epg_info(int channel, int event_id, long start, const char* name, const char* raw);

  System_clock& clock() { return clock_; }
  Dvb_text& text() { return text_; }
  Guide_round& guide() { return guide_; }

  // --- For the readers of the guide --------------------------------------------------------------------------------

  // Lays the section's class over it, unless the section is broken.
  void read_guide_section(const uint8_t* section, const std::function<void(EventInformationSection&)>& read);
  // The guide's tables one after the other: the filter of the first, and its sections.
  void start_guide_by_table(int freq);
  void parse_guide_by_table(const uint8_t* section, int freq);

  Sdbl& database() { return db_; }
  Place place_on(int freq) const { return place(freq); }
  void count_stored_event() { ++eit_stored_; }
  void tell(const std::vector<Guide_change>& changes);

 private:
  struct Time_listener {
    void (*call)(void* data, const Broadcast_time& time) = nullptr;
    void* data = nullptr;
  };

  struct Guide_listener {
    void (*call)(void* data, const std::vector<Guide_change>& changes) = nullptr;
    void* data = nullptr;
  };

  Place place(int freq, SCAN_STATE stage = SCAN_NONE) const { return {adapter_, {input_, freq}, stage}; }

  template <typename Section, typename Parse>
  void scan_long_section(const uint8_t* bytes, Parse parse);
  template <typename Section, typename Parse>
  void scan_section(const uint8_t* bytes, Parse parse);

  bool is_watched(const uint8_t* bytes, int pid, SCAN_STATE stage);
  void store_first_pat(ProgramAssociationSection* section, int freq, SCAN_STATE stage);
  void store_whole_pat(const ProgramAssociationSection& section, int freq, SCAN_STATE stage);
  void store_sdt(const ServiceDescriptionSection& section, int freq);
  void store_first_sdt(const ServiceDescriptionSection& section, int freq);
  void store_whole_sdt(const ServiceDescriptionSection& section, int freq);
  bool pmt_is_new(int program, int version);
  void store_pmt(ProgramMapSection& section, const Place& place);
  int pat_stream() const;
  void store_numbers(int freq);
  void store_nit(const NetworkInformationSection& section, int freq);
  void open_other_tables(int freq);
  void parse_other_nit(std::span<const uint8_t> section);
  void parse_other_sdt(const ServiceDescriptionSection& section, std::span<const uint8_t> bytes);
  struct Section_events;
  void store_event(const Event& event, const Event_times& times, SQL_cache* service, Scan_rows& rows, Found& found,
                   Section_events& events);
  void count_event(Section_events& events);
  void end_section(Section_events& events);
  void open_next_eit_table(int freq);
  void note_lost_sections();
  void tell(const Broadcast_time& broadcast);
  Zone_found follow_country(const std::vector<Local_offset>& offsets, int64_t utc, Scan_rows& rows);

  Section_filter& filter_;
  Sdbl& db_;
  const int adapter_;
  const Input input_;

  System_clock clock_;
  bool sets_zone_ = true;
  std::unique_ptr<Country_offset> country_offset_;  // null: every offset of the preferred provider's network counts
  Dvb_text text_;
  Guide_round guide_;
  std::unique_ptr<Guide_reader> guide_reader_;
  Network_found network_;
  Services_found services_;
  bool other_networks_ = false;
  Other_tables other_nits_;
  Other_tables other_sdts_;
  std::vector<sdbl::Scan_details::Name> other_names_;
  Channel_numbers numbers_;
  bool all_numbers_ = false;
  bool nit_came_ = false;
  std::string country_;
  Sections_seen nit_sections_;
  std::unique_ptr<Table_watch> watch_;
  std::unique_ptr<Whole_tables> whole_tables_;  // null where first sections are enough

  bool whole_nit_ = false;
  bool name_streams_ = false;  // and keep all their pages and systems
  bool pmt_versions_match_ = false;
  int sections_ = 0;  // handed in so far
  bool repeat_lost_ = false;
  int eit_losses_ = 0;      // that the guide knows of
  int eit_mismatches_ = 0;  // sections of another table of the guide than the one that is read
  std::atomic<int> eit_stored_ = 0;

  Mutex listener_lock_{Lock_rank::ALONE, "listeners of sections"};  // guards the listeners; a leaf
  Time_listener listener_;
  Guide_listener guide_listener_;

  std::unique_ptr<section_guard::Safe_copy> safe_copy_;  // made when a system libdvbsi++ needs it
  Found found_by_hand_;
  char table_name_[64] = "";  // the last result of add_dvbnr()
};
