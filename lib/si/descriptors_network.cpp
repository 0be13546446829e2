// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of the NIT (EN 300 468, 6.2).
#include <cstdint>

#include <climits>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>

#include "base/log.h"
#include "si/descriptor_handlers.h"
#include "si/dvb_text.h"
#include "si/section_guard.h"

namespace descriptor_handlers {

namespace {

void trace(const LogicalChannel& entry) {
  KLOG(VERB_TRACE, "\tServiceId %d VisFlag: %x LCN: %d\n", static_cast<int>(entry.getServiceId()),
       static_cast<unsigned>(entry.getVisibleServiceFlag()), static_cast<int>(entry.getLogicalChannelNumber()));
}

}  // namespace

// network_name_descriptor (0x40, 6.2.28)
void network_name(const Descriptor& descriptor, Site& site) {
  const auto* d = as<NetworkNameDescriptor>(descriptor);
  if (d == nullptr)
    return;
  const std::string name = site.text.utf8(d->getNetworkName());
  KLOG(VERB_TRACE, "\tNIT: Network name descriptor for %d is %s\n", site.network_id, name.c_str());
  site.rows.network_name(site.network_id, name);
}

void network_name_elsewhere(const Descriptor& descriptor, Site&) {
  if (const auto* d = as<NetworkNameDescriptor>(descriptor))
    KLOG(VERB_WARNING, "\tWARNING: Network name descriptor %s outside NIT\n", d->getNetworkName().c_str());
}

// multilingual_network_name_descriptor (0x5B, 6.2.24)
void network_names(const Descriptor& descriptor, Site& site) {
  const auto* d = as<MultilingualNetworkNameDescriptor>(descriptor);
  if (d == nullptr || !section_guard::body_ok(descriptor))
    return;
  for (const MultilingualNetworkName* entry : *d->getMultilingualNetworkNames()) {
    const std::string name = site.text.utf8(entry->getNetworkName());
    const std::string language = entry->getIso639LanguageCode();
    KLOG(VERB_TRACE, "Mling network name: Lang %s, Network %s\n", language.c_str(), name.c_str());
    site.rows.network_name(site.network_id, language, name);
  }
}

// logical_channel_descriptor (0x83, private to terrestrial networks)
void channel_numbers(const Descriptor& descriptor, Site& site) {
  const auto* d = as<LogicalChannelDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "NIT: LCN descriptor for freq %d, network_id: %d, lcn_ts_id: %d, lcn_network_id: %d\n",
       site.rows.place().multiplex.freq, site.network_id, site.ts_id, site.orig_network_id);
  for (const LogicalChannel* entry : *d->getChannelList()) {
    trace(*entry);
    site.rows.channel_number(site.ts_id, site.orig_network_id, entry->getServiceId(), entry->getLogicalChannelNumber());
  }
}

void channel_numbers_elsewhere(const Descriptor& descriptor, Site&) {
  const auto* d = as<LogicalChannelDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_WARNING, "WARNING: \tLCN descriptor outside NIT\n");
  for (const LogicalChannel* entry : *d->getChannelList())
    trace(*entry);
}

// terrestrial_delivery_system_descriptor (0x5A, 6.2.13.4)
void terrestrial_delivery(const Descriptor& descriptor, Site& site) {
  const auto* d = as<TerrestrialDeliverySystemDescriptor>(descriptor);
  if (d == nullptr)
    return;
  const int64_t freq_hz = int64_t{d->getCentreFrequency()} * 10;
  // Above 2.1 GHz nobody broadcasts, and no column holds it.
  if (freq_hz <= INT_MAX)
    site.rows.delivery({static_cast<int>(freq_hz), d->getBandwidth(), d->getConstellation(),
                        d->getHierarchyInformation(), d->getCodeRateHpStream(), d->getCodeRateLpStream(),
                        d->getGuardInterval(), d->getTransmissionMode()});
  KLOG(VERB_TRACE, "Terrastrial delivery system descritpor\n");
  KLOG(VERB_TRACE, "Cf: %8d, Bw: %d, Con: %d, Hier: %d, \nHp: %d, Lp: %d, Guard: %d, Tmode %d, OF: %d\n",
       static_cast<int>(d->getCentreFrequency()), d->getBandwidth(), d->getConstellation(),
       d->getHierarchyInformation(), d->getCodeRateHpStream(), d->getCodeRateLpStream(), d->getGuardInterval(),
       d->getTransmissionMode(), d->getOtherFrequencyFlag());
}

}  // namespace descriptor_handlers
