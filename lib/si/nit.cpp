// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// NIT of the actual network (EN 300 468, 5.2.1).
#include <dvbsi++/network_information_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

void Siparse::Parts::begin_network() {
  network_ = {};
  nit_sections_ = {};
  if (whole_tables_ != nullptr)
    whole_tables_->begin();
}

void Siparse::Parts::begin_multiplex() {
  services_.clear();
}

int Siparse::Parts::parse_section_nit(NetworkInformationSection* section, int pid, int freq) {
  const bool is_new =
      nit_sections_.arrived(section->getVersionNumber(), section->getSectionNumber(), section->getLastSectionNumber());
  if (is_new || !whole_nit_)
    store_nit(*section, freq);
  if (whole_nit_ && !nit_sections_.complete())
    return 0;
  nit_sections_ = {};
  filter_.removefilter(pid, table::NIT_ACTUAL);
  KLOG(VERB_PROGRESS, "NIT scanned.\n");
  return 0;
}

void Siparse::Parts::store_nit(const NetworkInformationSection& section, int freq) {
  Scan_rows rows(db_, place(freq));
  Found found;
  const int network_id = section.getTableIdExtension();
  KLOG(VERB_TRACE, "NIT: network_id %d\n", network_id);
  int row = rows.network("network_id", network_id);
  Site network{loop::NETWORK, row, rows, text_, found, network_id};
  for (const Descriptor* descriptor : *section.getDescriptors())
    parse_descriptor(*descriptor, network);
  KLOG(VERB_TRACE, "oid %d ", row);
  for (const TransportStreamInfo* stream : *section.getTsInfo()) {
    const int ts_id = stream->getTransportStreamId();
    const int orig_network_id = stream->getOriginalNetworkId();
    KLOG(VERB_TRACE, "Tstream id  %d, Original network id %d\n", ts_id, orig_network_id);
    row = rows.network("orig_network_id", orig_network_id);
    Site site{loop::NETWORK, row, rows, text_, found, network_id, ts_id, orig_network_id};
    for (const Descriptor* descriptor : *stream->getDescriptors())
      parse_descriptor(*descriptor, site);
  }
}
