// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// PMT and CAT (ISO/IEC 13818-1, 2.4.4).
#include <dvbsi++/ca_section.h>
#include <dvbsi++/program_map_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

int Siparse::Parts::parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE stage) {
  const int program = section->getProgramNumber();
  if (section->getSectionNumber() + section->getLastSectionNumber() != 0)
    KLOG(VERB_ERROR, "ERROR: Fragmented PMT secnr: %d, lastsec %d\n", static_cast<int>(section->getSectionNumber()),
         static_cast<int>(section->getLastSectionNumber()));
  KLOG(VERB_TRACE, "PMT: Program %d, PID %x, PCR pid %x\n", program, static_cast<unsigned>(pid),
       static_cast<unsigned>(section->getPcrPid()));
  // What has come before, or belongs to no programme, would be stored twice or nowhere.
  const bool awaited = whole_tables_ == nullptr || whole_tables_->pmt(pid, program);
  if (awaited && (stage != SCAN_PMT || pmt_is_new(program, section->getVersionNumber())))
    store_pmt(*section, place(freq, stage));
  if (whole_tables_ == nullptr || !whole_tables_->awaits_pmt_on(pid))
    filter_.removefilter(pid, table::PMT);
  return 0;
}

std::vector<int> Siparse::Parts::services_awaited_on(int pid) const {
  return whole_tables_ != nullptr ? whole_tables_->awaited_on(pid) : std::vector<int>{};
}

// PMTs of known services are read every few seconds: one of the version that was read last changes nothing.
bool Siparse::Parts::pmt_is_new(int program, int version) {
  SQL_cache* service = guide_.service(program);
  if (service == nullptr) {
    KLOG(VERB_WARNING, "WARNING: parse_section_pmt: cannot locate program number in sql cache\n");
    return false;
  }
  if (service->scan_mark >= 0 && service->scan_mark == version)
    return false;
  service->scan_mark = version;
  pmt_versions_match_ = false;
  return true;
}

void Siparse::Parts::store_pmt(ProgramMapSection& section, const Place& place) {
  const int program = section.getProgramNumber();
  Scan_rows rows(db_, place);
  Found found(name_streams_ ? Subtitle_rows::ALL : Subtitle_rows::ONE_A_LANGUAGE);
  Site programme{loop::PROGRAMME, CONTEXT_PROGRAMME, rows, text_, found};
  for (const Descriptor* descriptor : *section.getDescriptors())
    parse_descriptor(*descriptor, programme);

  Site site{loop::STREAM, CONTEXT_STREAM, rows, text_, found};
  const int channel = rows.channel_of(program, section.getPcrPid());
  for (const ElementaryStreamInfo* stream : *section.getEsInfo()) {
    // Not the subtitles: those of the programme's loop are the first stream's, and storing takes them away.
    found.stream = Stream_found{};
    for (const Descriptor* descriptor : *stream->getDescriptors())
      parse_descriptor(*descriptor, site);
    // Deliberate: the programme's CA wins over the stream's own.
    if (found.programme_ca)
      found.stream.ca = *found.programme_ca;
    rows.stream(channel, stream->getPid(), stream->getType(), found.stream, found.subtitles.taken());
    KLOG(VERB_TRACE, "Program %d: ES pid %d, ES type %d\n", program, static_cast<int>(stream->getPid()),
         static_cast<int>(stream->getType()));
  }
}

// Its descriptors are traced only; nothing in the database comes from a CAT.
int Siparse::Parts::parse_section_cat(ConditionalAccessSection* section, int, int freq) {
  Scan_rows rows(db_, place(freq));
  Found found;
  Site site{loop::CAT, CONTEXT_PROGRAMME, rows, text_, found};
  for (const Descriptor* descriptor : *section->getDescriptors())
    parse_descriptor(*descriptor, site);
  return 0;
}

int Siparse::Parts::init_pmt_table_scan_from_database(int freq) {
  pmt_versions_match_ = true;
  int result = 1;
  for (const SQL_cache& service : guide_.services()) {
    result = 0;
    if (service.pmt_pid == 0)
      continue;
    if (whole_tables_ == nullptr || whole_tables_->await_pmt({service.pat_prnr, service.pmt_pid}))
      result = filter_.addfilter(service.pmt_pid, table::PMT, freq);
  }
  return result;
}
