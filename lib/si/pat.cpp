// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// PAT (ISO/IEC 13818-1, 2.4.4.3).
#include <dvbsi++/program_association_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

int Siparse::Parts::parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE stage) {
  if (whole_tables_ != nullptr)
    store_whole_pat(*section, freq, stage);
  else
    store_first_pat(section, freq, stage);
  return 0;
}

void Siparse::Parts::store_first_pat(ProgramAssociationSection* section, int freq, SCAN_STATE stage) {
  if (section->getSectionNumber() + section->getLastSectionNumber() != 0)
    KLOG(VERB_ERROR, "ERROR: Fragmented PAT secnr: %d, lastsec %d\n", static_cast<int>(section->getSectionNumber()),
         static_cast<int>(section->getLastSectionNumber()));
  int network_pid = pid::NIT;
  for (const NetworkAssociation* network : *section->getNetworks()) {
    network_pid = network->getNetworkPid();
    KLOG(VERB_TRACE, "NetworkPid %d\n", network_pid);
  }
  filter_.addfilter(network_pid, table::NIT_ACTUAL, freq);

  Scan_rows rows(db_, place(freq, stage));
  const int ts_id = section->getTableIdExtension();
  network_.pat(ts_id);
  for (const ProgramAssociation* program : *section->getPrograms()) {
    const int number = program->getProgramNumber();
    const int pmt_pid = program->getProgramMapPid();
    KLOG(VERB_TRACE, "PAT: ProgramNr: %d, ProgramMapPid: %d, ts_id: %d\n", number, pmt_pid, ts_id);
    rows.programme(number, ts_id, pmt_pid);
    filter_.addfilter(pmt_pid, table::PMT, freq);
  }
  KLOG(VERB_TRACE, "PAT scanned, setting SDT, NIT, PMT\n");
  filter_.removefilter(pid::PAT, table::PAT);
  filter_.addfilter(pid::SDT, table::SDT_ACTUAL, freq);
  open_other_tables(freq);
}

// Nothing is waited for before the PAT is whole, or SDT and NIT might come before their services have rows.
void Siparse::Parts::store_whole_pat(const ProgramAssociationSection& section, int freq, SCAN_STATE stage) {
  if (!whole_tables_->pat(section))
    return;
  const int ts_id = whole_tables_->transport_stream_id();
  network_.pat(ts_id);
  filter_.addfilter(whole_tables_->network_pid(), table::NIT_ACTUAL, freq);
  Scan_rows rows(db_, place(freq, stage));
  for (const Whole_tables::Programme& programme : whole_tables_->programmes()) {
    KLOG(VERB_TRACE, "PAT: ProgramNr: %d, ProgramMapPid: %d, ts_id: %d\n", programme.number, programme.pmt_pid, ts_id);
    rows.programme(programme.number, ts_id, programme.pmt_pid);
    if (whole_tables_->await_pmt(programme))
      filter_.addfilter(programme.pmt_pid, table::PMT, freq);
  }
  KLOG(VERB_TRACE, "PAT scanned, setting SDT, NIT, PMT\n");
  filter_.removefilter(pid::PAT, table::PAT);
  filter_.addfilter(pid::SDT, table::SDT_ACTUAL, freq);
  open_other_tables(freq);
}
