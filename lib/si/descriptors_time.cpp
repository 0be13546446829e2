// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of the TOT (EN 300 468, 6.2).
#include <dvbsi++/local_time_offset_descriptor.h>

#include "base/log.h"
#include "si/descriptor_handlers.h"
#include "si/siparse.h"
#include "si/system_clock.h"

namespace descriptor_handlers {

namespace {

int minutes_east(unsigned bcd, int polarity) {
  const int east = static_cast<int>(Siparse::bcd_to_int(bcd >> 8) * 60 + Siparse::bcd_to_int(bcd & 0xFF));
  return polarity == 1 ? -east : east;
}

}  // namespace

// local_time_offset_descriptor (0x58, 6.2.20). Wherever it stands, its context is taken for the frequency.
void local_time_offset(const Descriptor& descriptor, Site& site) {
  const auto* d = as<LocalTimeOffsetDescriptor>(descriptor);
  if (d == nullptr)
    return;
  for (const LocalTimeOffset* entry : *d->getLocalTimeOffsets()) {
    const unsigned offset = entry->getLocalTimeOffset();
    const std::string country = entry->getCountryCode();
    const int region = entry->getCountryRegionId();
    const int polarity = entry->getLocalTimeOffsetPolarity();
    KLOG(VERB_PROGRESS, "Country id %s region id %d, offset %x, next_offset %x , polarity %d, ymd %x, hms %x\n",
         country.c_str(), region, offset, static_cast<unsigned>(entry->getNextTimeOffset()), polarity,
         Siparse::mjd_to_bcd(entry->getTimeOfChangeMjd()), static_cast<unsigned>(entry->getTimeOfChangeBcd()));
    const int minutes = minutes_east(offset, polarity);
    if (site.offsets != nullptr) {
      site.offsets->push_back({country, region, minutes,
                               broadcast_seconds(entry->getTimeOfChangeMjd(), entry->getTimeOfChangeBcd()),
                               minutes_east(entry->getNextTimeOffset(), polarity)});
      continue;
    }
    const int result = site.rows.local_offset(site.context, minutes, country, region, site.sets_zone);
    if (result != ZONE_UNTOUCHED)
      site.found.zone = {result, minutes, country};
  }
}

}  // namespace descriptor_handlers
