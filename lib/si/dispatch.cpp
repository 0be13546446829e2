// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The parser's parts put together, and the dispatch of sections to the parsers of their tables.
#include <cstdio>

#include <dvbsi++/ca_section.h>
#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "si/scan_rows.h"
#include "si/section_guard.h"
#include "si/siparse_parts.h"
#include "si/stream_names.h"
#include "si/whole_guide_reader.h"

namespace {

size_t section_size(const uint8_t* bytes) {
  return static_cast<size_t>((bytes[1] & 0x0F) << 8 | bytes[2]) + 3;
}

void report_unrecognized(unsigned table_id) {
  KLOG(VERB_WARNING, "WARNING: *********   Unreckognized section %x *********  \n", table_id);
}

// The loop that hosts mean by a context.
unsigned loop_of(int context) {
  switch (context) {
    case CONTEXT_PROGRAMME:
      return loop::PROGRAMME;
    case CONTEXT_STREAM:
      return loop::STREAM;
    case CONTEXT_EVENT:
      return loop::EVENT;
    default:
      return loop::SERVICE;
  }
}

// The guide of the actual multiplex, one table after the other. Its round stands in the parser, which has more to ask
// it.
class Table_by_table : public Guide_reader {
 public:
  explicit Table_by_table(Siparse::Parts& parser) : parser_(parser) {}

  void begin(int) override {}
  void scan_ended(int, bool) override {}
  void catch_up() override {}
  void start(int freq) override { parser_.start_guide_by_table(freq); }
  void announced(int, bool, bool) override {}
  bool takes(unsigned table_id) const override {
    return table_id == table::EIT_PRESENT_FOLLOWING ||
           (table_id >= table::EIT_SCHEDULE_FIRST && table_id <= table::EIT_SCHEDULE_LAST);
  }
  void section(const uint8_t* bytes, size_t, int freq) override { parser_.parse_guide_by_table(bytes, freq); }
  bool seen_once() const override { return parser_.guide().seen_once(); }
  void progress(std::vector<EIT_progress>* progress) const override { parser_.guide().progress(progress); }

 private:
  Siparse::Parts& parser_;
};

}  // namespace

Siparse::Parts::Parts(Section_filter& filter, int adapter, Input input, Sdbl& db)
    : filter_(filter),
      db_(db),
      adapter_(adapter),
      input_(input),
      guide_(db, adapter, input),
      guide_reader_(std::make_unique<Table_by_table>(*this)) {}

Siparse::Parts::~Parts() = default;

void Siparse::Parts::read_as(const Receiver_profile& profile) {
  text_.read_as(profile);
  set_system_policy(profile.set_clock, profile.set_zone);
  set_repeat_lost(profile.repeat_lost);
  set_whole_nit(profile.whole_nit);
  if (profile.whole_tables)
    whole_tables_ = std::make_unique<Whole_tables>();
  other_networks_ = profile.other_networks;
  all_numbers_ = profile.channel_numbers == Receiver_profile::Channel_numbers::ALL;
  country_ = profile.country;
  if (profile.watch_tables)
    watch_ = std::make_unique<Table_watch>();
  name_streams_ = profile.name_streams;
  if (profile.zone_country == Receiver_profile::Zone_country::COUNTRY)
    country_offset_ = std::make_unique<Country_offset>(profile.country);
  if (profile.guide == Receiver_profile::Guide::WHOLE)
    guide_reader_ = std::make_unique<Whole_guide_reader>(*this, filter_, db_, adapter_, input_, profile.other_guides);
}

char* Siparse::Parts::add_dvbnr(const char* base) {
  (void)std::snprintf(table_name_, sizeof table_name_, "%s_%d", base, adapter_);
  return table_name_;
}

template <typename Section, typename Parse>
void Siparse::Parts::scan_section(const uint8_t* bytes, Parse parse) {
  const size_t size = section_size(bytes);
  if (const char* problem = section_guard::section_problem(bytes, size)) {
    KLOG(VERB_TRACE, "Section dropped: %s\n", problem);
    return;
  }
#ifdef KELVO_DVBSI_SYSTEM
  if (safe_copy_ == nullptr)
    safe_copy_ = std::make_unique<section_guard::Safe_copy>();
  bytes = safe_copy_->copy(bytes, size);
#endif
  Section section(bytes);
  parse(&section);
}

template <typename Section, typename Parse>
void Siparse::Parts::scan_long_section(const uint8_t* bytes, Parse parse) {
  scan_section<Section>(bytes, [&](Section* section) {
    if (section->getCurrentNextIndicator() == 1)
      parse(section);
  });
}

void Siparse::Parts::scan_assembled_section(const uint8_t* bytes, int pid, int freq, SCAN_STATE stage) {
  const unsigned table_id = bytes[0];
  ++sections_;
  // Deliberate: the first of the two lines shows table ids of 0x80 and above sign-extended.
  KLOG(VERB_TRACE, ">>>>> Table id %x , pid %x, cntr %d \n", static_cast<unsigned>(static_cast<signed char>(bytes[0])),
       static_cast<unsigned>(pid), sections_);
  KLOG(VERB_TRACE, "Nr %3d.%02x.%02x ", sections_, static_cast<unsigned>(pid), table_id);

  if (watch_ != nullptr && is_watched(bytes, pid, stage))
    return;

  switch (table_id) {
    case table::PAT:
      if (pid != pid::PAT)
        break;
      KLOG(VERB_TRACE, "Scanning PAT\n");
      scan_long_section<ProgramAssociationSection>(bytes, [&](auto* pat) { parse_section_pat(pat, freq, stage); });
      break;
    case table::CAT:
      if (pid != pid::CAT)
        break;
      KLOG(VERB_PROGRESS, "--->>>> !!!!!! Contitional Access section!!!!!\n");
      scan_long_section<ConditionalAccessSection>(bytes, [&](auto* cat) { parse_section_cat(cat, pid, freq); });
      break;
    case table::PMT:
      KLOG(VERB_TRACE, "Scanning PMT for pid %d\n", pid);
      scan_long_section<ProgramMapSection>(bytes, [&](auto* pmt) {
        if (name_streams_)
          Scan_rows(db_, place(freq)).streams(pmt->getProgramNumber(), streams_of_pmt({bytes, section_size(bytes)}));
        parse_section_pmt(pmt, pid, freq, stage);
      });
      break;
    case table::NIT_ACTUAL:
      // Deliberate: a PAT may name another PID for the NIT; without whole tables a NIT that comes there is dropped and
      // its filter stays.
      if (pid != network_pid())
        break;
      KLOG(VERB_TRACE, "Scanning NIT same network\n");
      scan_long_section<NetworkInformationSection>(bytes, [&](auto* nit) {
        network_.nit({bytes, section_size(bytes)});
        if (all_numbers_)
          numbers_.nit({bytes, section_size(bytes)}, false);
        parse_section_nit(nit, pid, freq);
      });
      break;
    case table::SDT_ACTUAL:
      if (pid != pid::SDT)
        break;
      KLOG(VERB_TRACE, "Scanning SDT\n");
      scan_long_section<ServiceDescriptionSection>(bytes, [&](auto* sdt) {
        for (const ServiceDescription* service : *sdt->getDescriptions())
          guide_reader_->announced(service->getServiceId(), service->getEitPresentFollowingFlag() != 0,
                                   service->getEitScheduleFlag() != 0);
        parse_section_sdt(sdt, freq);
      });
      break;
    case table::NIT_OTHER:
    case table::SDT_OTHER:
      if (!other_networks_)
        report_unrecognized(table_id);
      else if (table_id == table::NIT_OTHER && pid == network_pid())
        scan_long_section<NetworkInformationSection>(bytes, [&](auto*) {
          parse_other_nit({bytes, section_size(bytes)});
        });
      else if (table_id == table::SDT_OTHER && pid == pid::SDT)
        scan_long_section<ServiceDescriptionSection>(bytes, [&](auto* sdt) {
          parse_other_sdt(*sdt, {bytes, section_size(bytes)});
        });
      break;
    case table::TDT:
      if (pid == pid::TIME)
        scan_section<TimeAndDateSection>(bytes, [&](auto* tdt) { parse_section_tdt(tdt, freq); });
      break;
    case table::TOT:
      if (pid == pid::TIME)
        scan_section<TimeOffsetSection>(bytes, [&](auto* tot) { parse_section_tot(tot, freq); });
      break;
    default:
      if (!guide_reader_->takes(table_id))
        report_unrecognized(table_id);
      else if (pid == pid::EIT)
        guide_reader_->section(bytes, section_size(bytes), freq);
  }
}

void Siparse::Parts::read_guide_section(const uint8_t* section,
                                        const std::function<void(EventInformationSection&)>& read) {
  scan_section<EventInformationSection>(section, [&](auto* eit) { read(*eit); });
}

void Siparse::Parts::parse_guide_by_table(const uint8_t* section, int freq) {
  scan_section<EventInformationSection>(section, [&](auto* eit) {
    KLOG(VERB_TRACE, "Scanning EIT, section number %d\n", static_cast<int>(eit->getSectionNumber()));
    if (eit->getCurrentNextIndicator() == 1)
      parse_section_eit(eit, freq);
  });
}

int Siparse::Parts::network_pid() const {
  return whole_tables_ != nullptr ? whole_tables_->network_pid() : pid::NIT;
}

// True when a section is there to be compared only.
bool Siparse::Parts::is_watched(const uint8_t* bytes, int pid, SCAN_STATE stage) {
  const int table_id = bytes[0];
  const bool watched = (table_id == table::PAT && pid == pid::PAT) ||
                       (table_id == table::NIT_ACTUAL && pid == network_pid()) ||
                       (table_id == table::SDT_ACTUAL && pid == pid::SDT);
  const size_t size = section_size(bytes);
  constexpr unsigned IS_CURRENT = 1;
  if (!watched || section_guard::section_problem(bytes, size) != nullptr || (bytes[5] & IS_CURRENT) == 0)
    return false;
  if (stage != SCAN_EIT)
    watch_->read({bytes, size});
  else
    watch_->compare({bytes, size});
  return stage == SCAN_EIT;
}

void Siparse::Parts::parse_descriptor_info(const Descriptor& descriptor, int context) {
  Scan_rows rows(db_, place(0));
  Site site{loop_of(context), context, rows, text_, found_by_hand_};
  parse_descriptor(descriptor, site);
}

void Siparse::Parts::parse_nit_descriptor_info(const Descriptor& descriptor, int freq, int context, int network_id,
                                               int ts_id, int orig_network_id) {
  Scan_rows rows(db_, place(freq));
  Site site{loop::NETWORK, context, rows, text_, found_by_hand_, network_id, ts_id, orig_network_id};
  parse_descriptor(descriptor, site);
}
