// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of services (EN 300 468, 6.2).
#include <string>

#include <dvbsi++/multilingual_service_name_descriptor.h>
#include <dvbsi++/service_descriptor.h>

#include "base/log.h"
#include "si/descriptor_handlers.h"
#include "si/dvb_text.h"
#include "si/section_guard.h"

namespace descriptor_handlers {

// service_descriptor (0x48, 6.2.34)
void service(const Descriptor& descriptor, Site& site) {
  const auto* d = as<ServiceDescriptor>(descriptor);
  if (d == nullptr)
    return;
  site.rows.service_type(site.context, static_cast<int>(d->getServiceType()));
  const std::string name = site.text.utf8(d->getServiceName());
  site.rows.service_name(site.context, name);
  const std::string provider = site.text.utf8(d->getServiceProviderName());
  site.rows.provider_name(site.context, provider);
  KLOG(VERB_TRACE, "Service type %x, Prov name %s, Service name %s\n", static_cast<unsigned>(d->getServiceType()),
       provider.c_str(), name.c_str());
}

// Contexts of events, streams and times are numbers of rows as well, so nothing may be stored for them.
void service_elsewhere(const Descriptor& descriptor, Site& site) {
  if (as<ServiceDescriptor>(descriptor) != nullptr && site.context == CONTEXT_PROGRAMME)
    KLOG(VERB_TRACE, "Service descriptor %d OID not found\n", static_cast<int>(descriptor.getTag()));
}

// multilingual_service_name_descriptor (0x5D, 6.2.25)
void service_names(const Descriptor& descriptor, Site& site) {
  const auto* d = as<MultilingualServiceNameDescriptor>(descriptor);
  if (d == nullptr || !section_guard::body_ok(descriptor))
    return;
  for (const MultilingualServiceName* entry : *d->getMultilingualServiceNames()) {
    const std::string language = entry->getIso639LanguageCode();
    const std::string provider = site.text.utf8(entry->getServiceProviderName());
    const std::string name = site.text.utf8(entry->getServiceName());
    site.rows.provider_name(site.context, language, provider);
    site.rows.service_name(site.context, language, name);
    KLOG(VERB_TRACE, "Mling Service Lang %s, Prov %s, Service %s\n", language.c_str(), provider.c_str(), name.c_str());
  }
}

void service_names_elsewhere(const Descriptor& descriptor, Site& site) {
  if (as<MultilingualServiceNameDescriptor>(descriptor) != nullptr && site.context == CONTEXT_PROGRAMME)
    KLOG(VERB_ERROR, "ERROR: Multilingual service name oid = -1\n");
}

}  // namespace descriptor_handlers
