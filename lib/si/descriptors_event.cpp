// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of events (EN 300 468, 6.2).
#include <cstdio>
#include <string>

#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

#include "base/log.h"
#include "si/descriptor_handlers.h"
#include "si/dvb_text.h"
#include "si/section_guard.h"

namespace descriptor_handlers {

// short_event_descriptor (0x4D, 6.2.38)
void short_event(const Descriptor& descriptor, Site& site) {
  const auto* d = as<ShortEventDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (site.context == CONTEXT_PROGRAMME) {
    KLOG(VERB_TRACE, "Short Event descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  EIT_lang* language = site.found.event_at_hand().texts.find_or_make(d->getIso639LanguageCode());
  const bool has_name = !d->getEventName().empty();
  const bool has_text = !d->getText().empty();
  if (has_name)
    language->ev_name = site.text.utf8(d->getEventName());
  if (has_text)
    language->ev_desc = site.text.utf8(d->getText(), Dvb_text::Lines::KEPT);
  KLOG(VERB_TRACE, "IsoLangcode %s, EventName %s, Text %s\n", d->getIso639LanguageCode().c_str(),
       has_name ? language->ev_name.c_str() : "", has_text ? language->ev_desc.c_str() : "");
  if (!has_name)
    KLOG(VERB_TRACE, "short event descriptor name is 0\n");
  if (!has_name && !has_text)
    KLOG(VERB_TRACE, "short evet descriptor data is 0\n");
}

// extended_event_descriptor (0x4E, 6.2.15)
void extended_event(const Descriptor& descriptor, Site& site) {
  const auto* d = as<ExtendedEventDescriptor>(descriptor);
  if (d == nullptr || !section_guard::body_ok(descriptor))
    return;
  if (site.context == CONTEXT_PROGRAMME) {
    KLOG(VERB_TRACE, "Extended Event descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  Event_found& event = site.found.event_at_hand();
  EIT_lang* language = event.texts.find_or_make(d->getIso639LanguageCode());
  const size_t known_items = language->items.size();
  language->started = true;
  const int number = d->getDescriptorNumber();
  const int last = d->getLastDescriptorNumber();
  if (number == last)
    language->complete = true;
  const std::string text = site.text.add_extended(*d, *event.extended.find_or_make(language->lang), *language);
  KLOG(VERB_TRACE, "EXTDesc nr %x, last desc nr %x, Isolangcode %s, Text %s\n", static_cast<unsigned>(number),
       static_cast<unsigned>(last), d->getIso639LanguageCode().c_str(), text.c_str());
  if (d->getText().empty())
    KLOG(VERB_PROGRESS, "Extended event descriptor length is 0\n");
  else if (number == 0)
    KLOG(VERB_TRACE, "Inserting epg info for OID %d %s\n", site.context, text.c_str());
  else
    KLOG(VERB_TRACE, "Appending epg info for OID %d nr %d, %s\n", site.context, number, text.c_str());
  for (size_t i = known_items; i < language->items.size(); ++i)
    KLOG(VERB_TRACE, "EXTlist: Description %s, item %s\n", language->items[i].first.c_str(),
         language->items[i].second.c_str());
}

// content_descriptor (0x54, 6.2.9). A second one replaces the first.
void content(const Descriptor& descriptor, Site& site) {
  const auto* d = as<ContentDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (site.context == CONTEXT_PROGRAMME) {
    KLOG(VERB_TRACE, "Content descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  if (d->getClassifications()->empty()) {
    KLOG(VERB_TRACE, "content descriptor 0");
    return;
  }
  std::string& content = site.found.event_at_hand().content;
  content.clear();
  for (const ContentClassification* entry : *d->getClassifications()) {
    const unsigned content_1 = entry->getContentNibbleLevel1();
    const unsigned content_2 = entry->getContentNibbleLevel2();
    const unsigned user_1 = entry->getUserNibble1();
    const unsigned user_2 = entry->getUserNibble2();
    char text[16];
    (void)std::snprintf(text, sizeof text, "%1x.%1x.%1x.%1x ", content_1 & 0xF, content_2 & 0xF, user_1 & 0xF,
                        user_2 & 0xF);
    content += text;
    KLOG(VERB_TRACE, "CN1 %x, CN2 %x, UN1 %x, UN2 %x\n", content_1, content_2, user_1, user_2);
  }
}

// parental_rating_descriptor (0x55, 6.2.29). A second one replaces the first.
void parental_rating(const Descriptor& descriptor, Site& site) {
  const auto* d = as<ParentalRatingDescriptor>(descriptor);
  if (d == nullptr)
    return;
  std::string& rating = site.found.event_at_hand().rating;
  if (!d->getParentalRatings()->empty())
    rating.clear();
  for (const ParentalRating* entry : *d->getParentalRatings()) {
    char text[16];
    (void)std::snprintf(text, sizeof text, "%02x@%s", static_cast<unsigned>(entry->getRating()),
                        entry->getCountryCode().c_str());
    rating += text;
    rating += ' ';
  }
  KLOG(VERB_TRACE, "\tParentalrating:");
  KLOG(VERB_TRACE, " %s\n", rating.c_str());
}

}  // namespace descriptor_handlers
