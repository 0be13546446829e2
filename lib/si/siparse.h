// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <memory>
#include <string>
#include <vector>

#include "base/export.h"
#include "base/types.h"
#include "si/eit_progress.h"

class ConditionalAccessSection;
class Descriptor;
class EventInformationSection;
class NetworkInformationSection;
class ProgramAssociationSection;
class ProgramMapSection;
class Sdbl;
class Section_filter;
class ServiceDescriptionSection;
class TimeAndDateSection;
class TimeOffsetSection;
struct EIT_lang;
struct PMT_subtxt_lang;
struct SQL_cache;

// The parser of DVB Service Information of one adapter: takes whole sections, stores what they say in the scan tables
// and drives the scan on by adding and removing section filters. A PAT opens the filters for NIT, PMTs and SDT; each
// table closes its own filter when it has been read.
//
// Kelvo creates one per adapter and deletes it; nothing but systime_valid(), get_eit_stored() and get_eit_progress() is
// for other threads: everything else is *worker-only*. What those three read are atomic values, and a copy of the
// guide's progress under a lock.
//
// What surprises:
//   - Versions are looked at for PMTs of known services only (SCAN_PMT); elsewhere a section counts when its
//     current_next_indicator is 1.
//   - One NIT section is read per scan, unless the profile says all, and only on PID 16, though the filter may have
//     been opened on another PID.
//   - The SDT stays open until every service of the PAT has a provider name, so a network without provider names is
//     merged by the scan's time-out only; unless the profile reads tables whole.
//
// Hostile input: a section whose length or inner loops do not add up is dropped or read as far as it holds; a
// descriptor that is broken inside is skipped.
//
// Failures: nothing throws, and no result tells of one. What the database refuses is printed by it and left out; the
// rest of the section is stored, and its filter is closed all the same. Objects and texts that are given stay the
// caller's; nothing of them is kept.
//
// The classes of the sections are those of <dvbsi++/...>: the system's libdvbsi++, or the library's own, hidden ones.
// With the own ones a host gives whole sections to scan_assembled_section and has no use for the operations that take
// objects.
class KELVO_EXPORT Siparse {
 public:
  // `filter` and `db` are not owned and outlive the parser; `dvbnr` is the adapter's number, 0 to 3.
  // Prints an error for every character set that iconv does not know; texts in it then stay as broadcast. Traces
  // whether the clock looks right.
  Siparse(Section_filter* filter, int dvbnr, HF_CONN_ID conn, DVB_TYPE_ID type, Sdbl* db);
  ~Siparse();

  Siparse(const Siparse&) = delete;
  Siparse& operator=(const Siparse&) = delete;

  // Dispatches one whole section, at `section`, that came from `pid` while `freq` (Hz) was tuned. `data` is not used.
  // A table on a PID that is not its own is dropped silently; an unknown table with a warning. Returns 0.
  // REQUIRES: section_length + 3 bytes are there.
  int scan_assembled_section(char* section, int pid, int freq, void* data, SCAN_STATE state);

  // PAT, PMT, CAT (ISO/IEC 13818-1, 2.4.4), NIT and SDT (EN 300 468, 5.2.1 and 5.2.3). Their current_next_indicator is
  // not looked at here. `pid` is where the section came from and whose filter is closed; a CAT closes none and stores
  // nothing. `state` tells a PMT of a known service (SCAN_PMT) from that of a full scan. Return 0.
  int parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE state);
  int parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE state);
  int parse_section_cat(ConditionalAccessSection* section, int pid, int freq);
  int parse_section_nit(NetworkInformationSection* section, int pid, int freq);
  int parse_section_sdt(ServiceDescriptionSection* section, int freq);

  // Opens the PMT filters of the services listed by init_cache_list() that have a PMT and a PCR PID. Returns 1 when the
  // list is empty, else what the last addfilter() said, 0 when it did not have to.
  int init_pmt_table_scan_from_database(int freq);

  // `base`, an underscore and the adapter's number: the name of a scan table, cut to 63 bytes. Owned by the parser and
  // valid until the next call.
  char* add_dvbnr(const char* base);

  // True once the clock is known to be right: it was past 1999 at the start, or the broadcast has been seen. Where the
  // profile does not set the clock, false while the last time table said that it is more than 10 s off. Any-thread.
  bool systime_valid() const;

  // Events stored since the construction. Any-thread.
  int get_eit_stored() const;

  // One descriptor by hand, as if it stood in a loop of a PMT, CAT, SDT or EIT (EN 300 468, 6.2). `context` says where
  // it stood: -1 the programme loop of a PMT or a CAT, 10 an elementary stream, 1 an event, the frequency a TOT, else
  // the scan row of a service. Names and types of services (0x48, 0x5D) are stored at once, for a row only. What
  // streams and events have is collected beside what the sections of scan_assembled_section() collect: the two find_
  // operations below show it, no table stores it. A tag that nobody handles is reported at verbosity 3.
  void parse_descriptor_info(Descriptor* descriptor, int context);

  // The same for a NIT, whose names and channel numbers are stored at once; -1 for the last two ids in the network
  // loop.
  void parse_nit_descriptor_info(Descriptor* descriptor, int freq, int context, int network_id, int ts_id,
                                 int orig_network_id);

  // What parse_descriptor_info() has collected for this language, of streams and of events; made empty when missing.
  // Owned by the parser, and valid as long as it.
  PMT_subtxt_lang* find_create_subtxt_lang(const std::string& code);
  EIT_lang* find_create_epglang(const std::string& code);

  // Starts the collection of the guide at the present/following table: closes the filters of the guide's tables and
  // opens that of the first one. The list of services stays as it is. `state` is not used. Returns 0.
  int start_eit_scan(int freq, SCAN_STATE state);

  // Builds the list of services whose guide is collected, and whose PMTs are read again, from the database: those of
  // the types that Sdbl::set_eit_service_types() names. A database that fails leaves it empty. Entries that
  // eit_scan_loop() returned are gone. Any `state` but SCAN_EIT prints an error and changes nothing else. Returns 0.
  int init_cache_list(int freq, SCAN_STATE state);

  // Starts a new round over that list: everybody is waited for again, and every PMT counts as unread.
  void reset_cache_list();

  // Replaces the contents of `progress` by one entry for each service of that list, in its order: as it was after the
  // last section of the guide that changed anything. Empty before a tuning and when the list is. Changes nothing and
  // never waits for the worker's work. Any-thread.
  void get_eit_progress(std::vector<EIT_progress>* progress) const;

  // One EIT section of the actual multiplex (EN 300 468, 5.2.4). Of another table than the one being collected it is
  // dropped with an error. Events that are known, or overlap one that is, are left out; one that the database refuses
  // counts as stored. When all services are done, the next table's filter is opened instead of this one's.
  void parse_section_eit(EventInformationSection* section, int freq);

  // Bookkeeping of one service's part of a table, for one event of it: gives up services whose time is over, and counts
  // the section when it is the last one of its part. `start`, `end` and `present_running` are not used. Sets
  // `*all_done` to whether every service is finished, which an empty list is at once. Returns the service's entry,
  // owned by the parser and valid until init_cache_list(); null when the service is not listed.
  SQL_cache* eit_scan_loop(int service_id, long start, long end, bool last_section, bool present_running,
                           bool* all_done, int freq, int table_id);

  // True when the guide of the services has been seen once since start_eit_scan().
  bool get_eit_info_available();

  // TDT and TOT (EN 300 468, 5.2.5 and 5.2.6): set the system clock when it is more than 10 s off, a TOT after it has
  // dealt with the zone. Without the right to set it the clock stays, in silence; where the profile does not set it,
  // with a warning at the first difference of more than a minute. Return 0.
  int parse_section_tdt(TimeAndDateSection* section, int freq);
  int parse_section_tot(TimeOffsetSection* section, int freq);

  // Modified Julian Date to BCD 0xYYYYMMDD (EN 300 468, Annex C); eight BCD digits to a number and back. Any-thread.
  static unsigned mjd_to_bcd(unsigned mjd);
  static unsigned bcd_to_int(unsigned bcd);
  static unsigned bin_to_bcd(unsigned value);

  // Prints the UTC date at verbosity 3. Any-thread.
  static void print_gmtime(time_t t);

  // Converts a DVB text (EN 300 468, Annex A) to UTF-8 in place and returns `text`.
  // With Receiver_profile::Texts::PLAIN what cannot be converted stays as it was, with a message: texts of more than
  // 2000 bytes, the Korean and Chinese tables (0x12 to 0x14), reserved selectors, most texts with selector 0x11, and
  // texts that say they are UTF-8 (0x15), first byte included. Control codes (0x80 to 0x9F) go to the converter like
  // any other byte. With Texts::STANDARD every text is converted, in silence: U+FFFD stands for what its table does not
  // have, control codes are left out, line breaks are line feeds.
  std::string* dvb_text_to_utf8(std::string* text);

  // For looking at character tables on a screen: fills a channel's guide with one event a table. The statements name
  // columns that the guide does not have, so they print that and store nothing; the channel's events stay.
  void generate_char_test_tables(int channel);

  // Stores one such event. REQUIRES: `raw` points to 300 bytes or more.
  void replace_epg_info(int channel, int event_id, long start, const char* name, const char* raw);

  // For the library's own use: Parts is not installed.
  class Parts;
  Parts& parts() const;

 private:
  std::unique_ptr<Parts> parts_;
};
