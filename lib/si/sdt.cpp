// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// SDT of the actual multiplex (EN 300 468, 5.2.3).
#include <dvbsi++/service_description_section.h>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter.h"
#include "si/scan_rows.h"
#include "si/siparse_parts.h"

int Siparse::Parts::parse_section_sdt(ServiceDescriptionSection* section, int freq) {
  if (whole_tables_ != nullptr)
    store_whole_sdt(*section, freq);
  else
    store_first_sdt(*section, freq);
  KLOG(VERB_PROGRESS, "SDT scanned.\n");
  return 0;
}

void Siparse::Parts::store_whole_sdt(const ServiceDescriptionSection& section, int freq) {
  if (whole_tables_->sdt(section))
    store_sdt(section, freq);
  if (!whole_tables_->sdt_is_complete())
    return;
  services_.sdt_is_complete(section.getVersionNumber());
  KLOG(VERB_TRACE, "Moving on to eit scan\n");
  filter_.removefilter(pid::SDT, table::SDT_ACTUAL);
}

void Siparse::Parts::store_first_sdt(const ServiceDescriptionSection& section, int freq) {
  store_sdt(section, freq);
  if (Scan_rows(db_, place(freq)).provider_missing()) {
    KLOG(VERB_TRACE, "SDT entry empty\n");
  } else {
    KLOG(VERB_TRACE, "Moving on to eit scan\n");
    filter_.removefilter(pid::SDT, table::SDT_ACTUAL);
  }
}

void Siparse::Parts::store_sdt(const ServiceDescriptionSection& section, int freq) {
  network_.sdt(section.getOriginalNetworkId(), section.getTransportStreamId());
  Scan_rows rows(db_, place(freq));
  Found found;
  for (const ServiceDescription* service : *section.getDescriptions()) {
    const int service_id = service->getServiceId();
    KLOG(VERB_TRACE, "SERV id %d, EIT sch flag %x, EITpresfoll %x, runningstat %x, freecamode %x\n", service_id,
         static_cast<unsigned>(service->getEitScheduleFlag()),
         static_cast<unsigned>(service->getEitPresentFollowingFlag()),
         static_cast<unsigned>(service->getRunningStatus()), static_cast<unsigned>(service->getFreeCaMode()));
    services_.sdt({service_id, service->getEitScheduleFlag() != 0, service->getEitPresentFollowingFlag() != 0,
                   static_cast<int>(section.getVersionNumber())});
    const int row = rows.service(service_id, service->getRunningStatus(), service->getFreeCaMode());
    if (row == -1) {
      KLOG(VERB_PROGRESS, "SDT channel not found for serv_id %d freq in kanalid_scan %d\n", service_id, freq);
      continue;
    }
    Site site{loop::SERVICE, row, rows, text_, found};
    for (const Descriptor* descriptor : *service->getDescriptors())
      parse_descriptor(*descriptor, site);
  }
}
