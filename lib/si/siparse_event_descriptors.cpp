// Descriptors of events (EN 300 468, 6.2).
#include <algorithm>
#include <cstdio>

#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

#include "base/log.h"
#include "si/eit_lang.h"
#include "si/section_guard.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

// short_event_descriptor (0x4D, 6.2.38)
void Siparse::Parts::parse_short_event_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<ShortEventDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    KLOG(VERB_TRACE, "Short Event descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  EIT_lang* language = find_create_epglang(d->getIso639LanguageCode());
  const bool has_name = !d->getEventName().empty();
  const bool has_text = !d->getText().empty();
  if (has_name)
    language->ev_name = utf8_of(d->getEventName());
  if (has_text)
    language->ev_desc = utf8_of(d->getText());
  KLOG(VERB_TRACE, "IsoLangcode %s, EventName %s, Text %s\n", d->getIso639LanguageCode().c_str(),
       has_name ? language->ev_name.c_str() : "", has_text ? language->ev_desc.c_str() : "");
  if (!has_name)
    KLOG(VERB_TRACE, "short event descriptor name is 0\n");
  if (!has_name && !has_text)
    KLOG(VERB_TRACE, "short evet descriptor data is 0\n");
}

// extended_event_descriptor (0x4E, 6.2.15)
void Siparse::Parts::parse_extended_event_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<ExtendedEventDescriptor>(descriptor);
  if (d == nullptr || !section_guard::body_ok(*descriptor))
    return;
  if (context == -1) {
    KLOG(VERB_TRACE, "Extended Event descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  EIT_lang* language = find_create_epglang(d->getIso639LanguageCode());
  for (const ExtendedEvent* entry : *d->getItems()) {
    const std::string description = utf8_of(entry->getItemDescription());
    const std::string item = utf8_of(entry->getItem());
    // Deliberate: the description stands twice, and a comma follows the last item, too.
    language->ext_list += description + description + ":" + item + ",";
    KLOG(VERB_TRACE, "EXTlist: Description %s, item %s\n", description.c_str(), item.c_str());
  }
  language->started = true;
  const int number = d->getDescriptorNumber();
  const int last = d->getLastDescriptorNumber();
  if (number == last)
    language->complete = true;
  const std::string text = d->getText().empty() ? std::string() : utf8_of(d->getText());
  KLOG(VERB_TRACE, "EXTDesc nr %x, last desc nr %x, Isolangcode %s, Text %s\n", static_cast<unsigned>(number),
       static_cast<unsigned>(last), d->getIso639LanguageCode().c_str(), text.c_str());
  if (d->getText().empty()) {
    KLOG(VERB_PROGRESS, "Extended event descriptor length is 0\n");
    return;
  }
  language->ext_desc += text;
  if (number == 0)
    KLOG(VERB_TRACE, "Inserting epg info for OID %d %s\n", context, text.c_str());
  else
    KLOG(VERB_TRACE, "Appending epg info for OID %d nr %d, %s\n", context, number, text.c_str());
}

// content_descriptor (0x54, 6.2.9)
void Siparse::Parts::parse_content_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<ContentDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    KLOG(VERB_TRACE, "Content descriptor %d OID not found\n", static_cast<int>(d->getTag()));
    return;
  }
  if (d->getClassifications()->empty()) {
    KLOG(VERB_TRACE, "content descriptor 0");
    return;
  }
  event_content_.clear();
  for (const ContentClassification* entry : *d->getClassifications()) {
    const unsigned content_1 = entry->getContentNibbleLevel1();
    const unsigned content_2 = entry->getContentNibbleLevel2();
    const unsigned user_1 = entry->getUserNibble1();
    const unsigned user_2 = entry->getUserNibble2();
    char text[16];
    std::snprintf(text, sizeof text, "%1x.%1x.%1x.%1x", content_1 & 0xF, content_2 & 0xF, user_1 & 0xF, user_2 & 0xF);
    event_content_ += text;
    event_content_ += ' ';
    KLOG(VERB_TRACE, "CN1 %x, CN2 %x, UN1 %x, UN2 %x\n", content_1, content_2, user_1, user_2);
  }
}

// parental_rating_descriptor (0x55, 6.2.29)
void Siparse::Parts::parse_rating_descriptor(const Descriptor* descriptor) {
  const auto* d = as<ParentalRatingDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (!d->getParentalRatings()->empty())
    event_rating_.clear();
  for (const ParentalRating* entry : *d->getParentalRatings()) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x@%s", static_cast<unsigned>(entry->getRating()),
                  entry->getCountryCode().c_str());
    event_rating_ += text;
    event_rating_ += ' ';
  }
  KLOG(VERB_TRACE, "\tParentalrating:");
  KLOG(VERB_TRACE, " %s\n", event_rating_.c_str());
}

EIT_lang* Siparse::Parts::find_create_epglang(const std::string& code) {
  const auto known = std::find_if(epg_languages_.begin(), epg_languages_.end(),
                                  [&](const EIT_lang* entry) { return entry->lang == code; });
  if (known != epg_languages_.end())
    return *known;
  epg_languages_.push_back(new EIT_lang{code, "", "", "", "", false, false});
  return epg_languages_.back();
}
