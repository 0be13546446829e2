// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// NIT other and SDT other (EN 300 468, 5.2.1 and 5.2.3): they number and name services that are known.
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/service_descriptor.h>

#include "base/ids.h"
#include "base/log.h"
#include "base/monotonic.h"
#include "filter/section_filter.h"
#include "si/descriptor_handlers.h"
#include "si/siparse_parts.h"

void Siparse::Parts::open_other_tables(int freq) {
  if (!other_networks_)
    return;
  const int64_t now_ms = monotonic_ms();
  other_nits_.open(now_ms);
  other_sdts_.open(now_ms);
  filter_.addfilter(network_pid(), table::NIT_OTHER, freq);
  filter_.addfilter(pid::SDT, table::SDT_OTHER, freq);
}

void Siparse::Parts::end_other_tables() {
  const auto end = [this](Other_tables& tables, int pid, int table_id) {
    if (!tables.is_open() || !tables.is_over(monotonic_ms()))
      return;
    tables.close();
    filter_.remove_filter_range(pid, table_id, table_id);
  };
  end(other_nits_, network_pid(), table::NIT_OTHER);
  end(other_sdts_, pid::SDT, table::SDT_OTHER);
}

void Siparse::Parts::parse_other_nit(std::span<const uint8_t> section) {
  if (other_nits_.arrived(section))
    numbers_.nit(section, true);
}

void Siparse::Parts::parse_other_sdt(const ServiceDescriptionSection& section, std::span<const uint8_t> bytes) {
  if (!other_sdts_.arrived(bytes))
    return;
  for (const ServiceDescription* service : *section.getDescriptions()) {
    for (const Descriptor* descriptor : *service->getDescriptors()) {
      const auto* d = descriptor_handlers::as<ServiceDescriptor>(*descriptor);
      if (descriptor->getTag() != tag::SERVICE || d == nullptr || other_names_.size() == Other_tables::MOST)
        continue;
      other_names_.push_back({section.getOriginalNetworkId(), section.getTransportStreamId(), service->getServiceId(),
                              static_cast<int>(d->getServiceType()), text_.utf8(d->getServiceName()),
                              text_.utf8(d->getServiceProviderName())});
    }
  }
}
