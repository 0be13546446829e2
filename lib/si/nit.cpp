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
  nit_came_ = false;
  numbers_.begin(country_);
  other_nits_.close();
  other_sdts_.close();
  other_names_.clear();
  if (whole_tables_ != nullptr)
    whole_tables_->begin();
}

void Siparse::Parts::begin_multiplex() {
  services_.clear();
  if (watch_ != nullptr)
    watch_->begin();
}

int Siparse::Parts::parse_section_nit(NetworkInformationSection* section, int pid, int freq) {
  const bool is_new =
      nit_sections_.arrived(section->getVersionNumber(), section->getSectionNumber(), section->getLastSectionNumber());
  if (is_new || !whole_nit_)
    store_nit(*section, freq);
  if (whole_nit_ && !nit_sections_.complete())
    return 0;
  nit_sections_ = {};
  nit_came_ = true;
  if (all_numbers_)
    store_numbers(freq);
  filter_.removefilter(pid, table::NIT_ACTUAL);
  KLOG(VERB_PROGRESS, "NIT scanned.\n");
  return 0;
}

// The transport stream that rows have.
int Siparse::Parts::pat_stream() const {
  return whole_tables_ != nullptr ? whole_tables_->transport_stream_id() : network_.transport_stream_id();
}

// Instead of what the descriptors' handlers have stored, which know one flavour.
void Siparse::Parts::store_numbers(int freq) {
  Scan_rows rows(db_, place(freq));
  const int ts_id = pat_stream();
  const int orig_network_id = numbers_.original_network_of(ts_id);
  if (orig_network_id < 0)
    return;
  (void)rows.network("orig_network_id", orig_network_id);
  (void)rows.network("lcn", Channel_number::NONE);
  for (const Channel_number& number : numbers_.all())
    if (number.transport_stream_id == ts_id && number.original_network_id == orig_network_id)
      rows.channel_number(ts_id, orig_network_id, number.service_id,
                          number.hd_number != Channel_number::NONE ? number.hd_number : number.number);
}

sdbl::Scan_details Siparse::Parts::details() {
  sdbl::Scan_details details;
  details.nit_came = nit_came_;
  details.has_numbers = all_numbers_;
  details.original_network_id = network_.original_network_id();
  // Without an SDT in this scan what is known of the services is of an earlier one.
  if (details.original_network_id >= 0)
    for (const Service_found& service : services_.all())
      details.services.push_back({service.service_id, service.eit_schedule, service.eit_present_following});
  // An SDT of another stream than the PAT's says nothing about the network.
  const int of_nit = numbers_.original_network_of(pat_stream());
  if (details.original_network_id < 0 || (pat_stream() != network_.transport_stream_id() && of_nit >= 0))
    details.original_network_id = of_nit;
  for (const Channel_number& number : numbers_.all())
    details.numbers.push_back({number.original_network_id, number.transport_stream_id, number.service_id, number.number,
                               number.hd_number, number.visible, number.other, text_.utf8(number.list)});
  details.names = other_names_;
  return details;
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
