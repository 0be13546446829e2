// Descriptors of PMT, CAT, SDT, EIT and TOT: the dispatch, and those of services (EN 300 468, 6.2).
#include <climits>
#include <dvbsi++/logical_channel_descriptor.h>
#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/network_name_descriptor.h>
#include <dvbsi++/service_descriptor.h>
#include <dvbsi++/terrestrial_delivery_system_descriptor.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "si/section_guard.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

namespace {

void report_unknown(unsigned tag) {
  if (tag < 0x40)
    KLOG(VERB_PROGRESS, "*** Unknown Standard Descriptor");
  else if (tag < 0x80)
    KLOG(VERB_PROGRESS, "*** Unknown SI descriptor");
  else
    KLOG(VERB_PROGRESS, "*** Unknown User descriptor");
  KLOG(VERB_PROGRESS, "%02x\n", tag);
}

void report_network_name(const Descriptor* descriptor) {
  if (const auto* d = as<NetworkNameDescriptor>(descriptor))
    KLOG(VERB_WARNING, "\tWARNING: Network name descriptor %s outside NIT\n", d->getNetworkName().c_str());
}

void report_channel_numbers(const Descriptor* descriptor) {
  const auto* d = as<LogicalChannelDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_WARNING, "WARNING: \tLCN descriptor outside NIT\n");
  for (const LogicalChannel* entry : *d->getChannelList())
    KLOG(VERB_TRACE, "\tServiceId %d VisFlag: %x LCN: %d\n", static_cast<int>(entry->getServiceId()),
         static_cast<unsigned>(entry->getVisibleServiceFlag()), static_cast<int>(entry->getLogicalChannelNumber()));
}

}  // namespace

void Siparse::Parts::parse_descriptor_info(Descriptor* descriptor, int context) {
  const unsigned tag = descriptor->getTag();
  KLOG(VERB_TRACE, "Parsing descriptor %x, dec %d, oid %d\n", tag, static_cast<int>(tag), context);
  switch (tag) {
    case 0x02:
    case 0x03:
    case 0x06:
    case 0x0C:
    case 0x0E:
    case 0x50:
    case 0x52:
      parse_stream_descriptor(descriptor);
      break;
    case 0x09:
      parse_ca_descriptor(descriptor, context);
      break;
    case 0x0A:
      parse_language_descriptor(descriptor, context);
      break;
    case 0x40:
      report_network_name(descriptor);
      break;
    case 0x48:
      parse_service_descriptor(descriptor, context);
      break;
    case 0x4D:
      parse_short_event_descriptor(descriptor, context);
      break;
    case 0x4E:
      parse_extended_event_descriptor(descriptor, context);
      break;
    case 0x54:
      parse_content_descriptor(descriptor, context);
      break;
    case 0x55:
      parse_rating_descriptor(descriptor);
      break;
    case 0x56:
      parse_teletext_descriptor(descriptor);
      break;
    case 0x58:
      parse_time_offset_descriptor(descriptor, context);
      break;
    case 0x59:
      parse_subtitling_descriptor(descriptor);
      break;
    case 0x5A:
      parse_terrestrial_descriptor(descriptor);
      break;
    case 0x5D:
      parse_service_names_descriptor(descriptor, context);
      break;
    case 0x6A:
      parse_ac3_descriptor(descriptor);
      break;
    case 0x83:
      report_channel_numbers(descriptor);
      break;
    case 0x04:  // hierarchy
    case 0x05:  // registration
    case 0x0B:  // system clock
    case 0x10:  // smoothing buffer
    case 0x11:  // STD
    case 0x28:  // AVC video
    case 0x42:  // stuffing
    case 0x45:  // VBI data
    case 0x46:  // VBI teletext
    case 0x4A:  // linkage
    case 0x53:  // CA identifier
    case 0x5F:  // private data specifier
    case 0x64:  // data broadcast
    case 0x66:  // data broadcast id
    case 0x6C:  // cell list
    case 0x6D:  // cell frequency link
    case 0x78:  // ECM repetition rate
      break;
    default:
      report_unknown(tag);
  }
}

// The contexts of events and streams are also numbers of rows, so the number alone does not tell.
bool Siparse::Parts::names_storable(int context) const {
  return loop_ == Loop::SDT || (loop_ == Loop::NONE && context != 1 && context != 10);
}

// service_descriptor (0x48, 6.2.34)
void Siparse::Parts::parse_service_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<ServiceDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    KLOG(VERB_TRACE, "Service descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  if (!names_storable(context))
    return;
  const char* table = add_dvbnr("kanalid_scan");
  db_->modify_table_oid(context, table, "serv_type", static_cast<int>(d->getServiceType()));
  const std::string service = utf8_of(d->getServiceName());
  db_->modify_table_oid(context, table, "serv_name", service.c_str());
  const std::string provider = utf8_of(d->getServiceProviderName());
  db_->modify_table_oid(context, table, "prov_name", provider.c_str());
  KLOG(VERB_TRACE, "Service type %x, Prov name %s, Service name %s\n", static_cast<unsigned>(d->getServiceType()),
       provider.c_str(), service.c_str());
}

// multilingual_service_name_descriptor (0x5D, 6.2.25)
void Siparse::Parts::parse_service_names_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<MultilingualServiceNameDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    KLOG(VERB_ERROR, "ERROR: Multilingual service name oid = -1\n");
    return;
  }
  if (!names_storable(context) || !section_guard::body_ok(*descriptor))
    return;
  const char* table = add_dvbnr("kanalid_lang_scan");
  for (const MultilingualServiceName* entry : *d->getMultilingualServiceNames()) {
    const char* language = entry->getIso639LanguageCode().c_str();
    const std::string provider = utf8_of(entry->getServiceProviderName());
    const std::string service = utf8_of(entry->getServiceName());
    KLOG(VERB_TRACE, "Mling Service Lang %s, Prov %s, Service %s\n", language, provider.c_str(), service.c_str());
    db_->modify_lang_table_oid(context, table, language, "prov_name", provider.c_str());
    db_->modify_lang_table_oid(context, table, language, "serv_name", service.c_str());
  }
}

// terrestrial_delivery_system_descriptor (0x5A, 6.2.13.4)
void Siparse::Parts::parse_terrestrial_descriptor(const Descriptor* descriptor) {
  const auto* d = as<TerrestrialDeliverySystemDescriptor>(descriptor);
  if (d == nullptr)
    return;
  const int64_t freq_hz = int64_t{d->getCentreFrequency()} * 10;
  KLOG(VERB_TRACE, "Terrastrial delivery system descritpor\n");
  KLOG(VERB_TRACE, "Cf: %8d, Bw: %d, Con: %d, Hier: %d, \nHp: %d, Lp: %d, Guard: %d, Tmode %d, OF: %d\n",
       static_cast<int>(d->getCentreFrequency()), d->getBandwidth(), d->getConstellation(),
       d->getHierarchyInformation(), d->getCodeRateHpStream(), d->getCodeRateLpStream(), d->getGuardInterval(),
       d->getTransmissionMode(), d->getOtherFrequencyFlag());
  if (freq_hz > INT_MAX)
    return;  // above 2.1 GHz: nobody broadcasts there, and no column holds it
  db_->terrestrial_tuner_info(type_, conn_, static_cast<int>(freq_hz), d->getBandwidth(), d->getConstellation(),
                              d->getHierarchyInformation(), d->getCodeRateHpStream(), d->getCodeRateLpStream(),
                              d->getGuardInterval(), d->getTransmissionMode());
}
