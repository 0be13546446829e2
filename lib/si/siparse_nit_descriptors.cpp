// Descriptors of the NIT (EN 300 468, 6.2).
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_network_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "si/section_guard.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

void Siparse::Parts::parse_nit_descriptor_info(Descriptor* descriptor, int freq, int context, int network_id, int ts_id,
                                               int orig_network_id) {
  const unsigned tag = descriptor->getTag();
  KLOG(VERB_TRACE, "Parsing descriptor %x, dec %d\n", tag, static_cast<int>(tag));
  switch (tag) {
    case 0x40:
      parse_network_name_descriptor(descriptor, freq, network_id);
      break;
    case 0x41:  // service list
    case 0x62:  // frequency list
      break;
    case 0x5B:
      parse_network_names_descriptor(descriptor, freq, network_id);
      break;
    case 0x83:
      parse_channel_numbers_descriptor(descriptor, freq, network_id, ts_id, orig_network_id);
      break;
    default: {
      const Scoped_value scope(loop_, Loop::NIT);
      parse_descriptor_info(descriptor, context);
    }
  }
}

// network_name_descriptor (0x40, 6.2.28)
void Siparse::Parts::parse_network_name_descriptor(const Descriptor* descriptor, int freq, int network_id) {
  const auto* d = as<NetworkNameDescriptor>(descriptor);
  if (d == nullptr)
    return;
  const std::string name = utf8_of(d->getNetworkName());
  KLOG(VERB_TRACE, "\tNIT: Network name descriptor for %d is %s\n", network_id, name.c_str());
  db_->nit_network_name(dvbnr_, type_, conn_, freq, network_id, name.c_str());
}

// multilingual_network_name_descriptor (0x5B, 6.2.24)
void Siparse::Parts::parse_network_names_descriptor(const Descriptor* descriptor, int freq, int network_id) {
  const auto* d = as<MultilingualNetworkNameDescriptor>(descriptor);
  if (d == nullptr || !section_guard::body_ok(*descriptor))
    return;
  for (const MultilingualNetworkName* entry : *d->getMultilingualNetworkNames()) {
    const std::string name = utf8_of(entry->getNetworkName());
    const char* language = entry->getIso639LanguageCode().c_str();
    KLOG(VERB_TRACE, "Mling network name: Lang %s, Network %s\n", language, name.c_str());
    db_->nit_multilingual_network_name(dvbnr_, type_, conn_, freq, network_id, language, name.c_str());
  }
}

// logical_channel_descriptor (0x83, private to terrestrial networks)
void Siparse::Parts::parse_channel_numbers_descriptor(const Descriptor* descriptor, int freq, int network_id, int ts_id,
                                                      int orig_network_id) {
  const auto* d = as<LogicalChannelDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "NIT: LCN descriptor for freq %d, network_id: %d, lcn_ts_id: %d, lcn_network_id: %d\n", freq,
       network_id, ts_id, orig_network_id);
  for (const LogicalChannel* entry : *d->getChannelList()) {
    const int service_id = entry->getServiceId();
    const int lcn = entry->getLogicalChannelNumber();
    KLOG(VERB_TRACE, "\tServiceId %d VisFlag: %x LCN: %d\n", service_id,
         static_cast<unsigned>(entry->getVisibleServiceFlag()), lcn);
    db_->nit_lcn(dvbnr_, type_, conn_, ts_id, orig_network_id, service_id, lcn);
  }
}
