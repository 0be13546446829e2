// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of elementary streams and programmes (ISO/IEC 13818-1, 2.6; EN 300 468, 6.2).
#include <cstdint>
#include <string>

#include <dvbsi++/ac3_descriptor.h>
#include <dvbsi++/audio_stream_descriptor.h>
#include <dvbsi++/ca_descriptor.h>
#include <dvbsi++/component_descriptor.h>
#include <dvbsi++/iso639_language_descriptor.h>
#include <dvbsi++/stream_identifier_descriptor.h>
#include <dvbsi++/subtitling_descriptor.h>
#include <dvbsi++/teletext_descriptor.h>
#include <dvbsi++/video_stream_descriptor.h>

#include "base/log.h"
#include "si/descriptor_handlers.h"

namespace descriptor_handlers {

namespace {

// Subtypes that come from a descriptor, not from the stream type, have the high bit set.
constexpr uint32_t SUBTYPE_AC3 = 0x80000001;
constexpr uint32_t SUBTYPE_TELETEXT = 0x80003000;
constexpr uint32_t SUBTYPE_SUBTITLING = 0x80004000;

// Tag, length and body of a descriptor that has no class of its own.
struct Raw {
  explicit Raw(const Descriptor& descriptor) {
    if (descriptor.getLength() != 0)
      descriptor.writeToBuffer(bytes);
  }
  int body(size_t i) const { return bytes[2 + i]; }
  uint8_t bytes[2 + 255] = {};
};

}  // namespace

// --- Only traced -----------------------------------------------------------------------------------------------------

void video_stream(const Descriptor& descriptor, Site&) {
  const auto* d = as<VideoStreamDescriptor>(descriptor);
  if (d == nullptr)
    return;
  // The rest of the descriptor is there for MPEG-2 only.
  const bool more = d->getMpeg1OnlyFlag() == 0;
  KLOG(VERB_TRACE, "Video Stream Desc: MFR %d, FRC %d, MP10 %d, ConP %d, Plev %d CF %d, FRE %d\n",
       d->getMultipleFrameRateFlag(), d->getFrameRateCode(), d->getMpeg1OnlyFlag(), d->getConstrainedParameterFlag(),
       more ? d->getProfileAndLevelIndication() : 0, more ? d->getChromaFormat() : 0,
       more ? d->getFrameRateExtensionFlag() : 0);
}

void audio_stream(const Descriptor& descriptor, Site&) {
  if (const auto* d = as<AudioStreamDescriptor>(descriptor))
    KLOG(VERB_TRACE, "Audio stream descriptor, Id: %d freeformat %d, layer %d, varrate %d\n", d->getId(),
         d->getFreeFormatFlag(), d->getLayer(), d->getVariableRateAudioIndicator());
}

void data_stream_alignment(const Descriptor& descriptor, Site&) {
  if (descriptor.getLength() >= 1)
    KLOG(VERB_TRACE, "Data stream alignment descriptor : al %d\n", Raw(descriptor).body(0));
}

void multiplex_buffer_utilization(const Descriptor&, Site&) {
  KLOG(VERB_TRACE, "Mux buffer utilization descriptor, not required for receiver\n");
}

void maximum_bitrate(const Descriptor& descriptor, Site&) {
  if (descriptor.getLength() < 3 || !kelvo_log::enabled(VERB_TRACE))
    return;
  const Raw raw(descriptor);
  kelvo_log::print(VERB_TRACE, "Maximum bitrate descriptor: rate is %d\n",
                   (raw.body(0) & 0x3F) << 16 | raw.body(1) << 8 | raw.body(2));
}

void component(const Descriptor& descriptor, Site&) {
  if (const auto* d = as<ComponentDescriptor>(descriptor))
    KLOG(VERB_TRACE, "\t Component descriptor\n Strcon %x, comptype %x, comptag %x, lang %s, text %s\n",
         static_cast<unsigned>(d->getStreamContent()), static_cast<unsigned>(d->getComponentType()),
         static_cast<unsigned>(d->getComponentTag()), d->getIso639LanguageCode().c_str(), d->getText().c_str());
}

void stream_identifier(const Descriptor& descriptor, Site&) {
  if (const auto* d = as<StreamIdentifierDescriptor>(descriptor))
    KLOG(VERB_TRACE, "Stream identifier descriptor: comptag is %d\n", d->getComponentTag());
}

// --- Of programmes and streams ---------------------------------------------------------------------------------------

// CA_descriptor (0x09, 2.6.16). Of several the last one counts.
void ca(const Descriptor& descriptor, Site& site) {
  const auto* d = as<CaDescriptor>(descriptor);
  if (d == nullptr)
    return;
  const Ca_found found{d->getCaSystemId(), d->getCaPid()};
  if (site.context == CONTEXT_PROGRAMME)
    site.found.programme_ca = found;
  else
    site.found.stream.ca = found;
  KLOG(VERB_TRACE, "CA descriptor SysId: %d, PID: %d \n", found.system_id, found.pid);
}

// ISO_639_language_descriptor (0x0A, 2.6.18). A second one is joined to the first.
void language(const Descriptor& descriptor, Site& site) {
  const auto* d = as<Iso639LanguageDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (site.context == CONTEXT_PROGRAMME) {
    KLOG(VERB_TRACE, "ISO_LANG descriptor, OID not found\n");
    return;
  }
  Stream_found& stream = site.found.stream;
  for (const Iso639Language* entry : *d->getIso639Languages()) {
    stream.languages += entry->getIso639LanguageCode() + " ";
    stream.audio_types += std::to_string(entry->getAudioType()) + " ";
  }
  KLOG(VERB_TRACE, "ISO 639 lang descriptor, languages %s, codes %s, oid %d\n", stream.languages.c_str(),
       stream.audio_types.c_str(), site.context);
}

// teletext_descriptor (0x56, 6.2.44)
void teletext(const Descriptor& descriptor, Site& site) {
  const auto* d = as<TeletextDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "\tTeletext descriptor\n");
  for (const VbiTeletext* entry : *d->getVbiTeletexts()) {
    site.found.subtitles.add({entry->getIso639LanguageCode(),
                              static_cast<int32_t>(SUBTYPE_TELETEXT | (entry->getTeletextType() & 0x1Fu)),
                              entry->getTeletextPageNumber(), entry->getTeletextMagazineNumber()});
    KLOG(VERB_TRACE, "\tTxt %s, Type: %d, Pagenr: %d, MagNr: %d\n", entry->getIso639LanguageCode().c_str(),
         entry->getTeletextType(), entry->getTeletextPageNumber(), entry->getTeletextMagazineNumber());
  }
}

// subtitling_descriptor (0x59, 6.2.42)
void subtitling(const Descriptor& descriptor, Site& site) {
  const auto* d = as<SubtitlingDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "\tSubtitling descriptor\n");
  for (const Subtitling* entry : *d->getSubtitlings()) {
    site.found.subtitles.add({entry->getIso639LanguageCode(),
                              static_cast<int32_t>(SUBTYPE_SUBTITLING | entry->getSubtitlingType()),
                              entry->getAncillaryPageId(), entry->getCompositionPageId()});
    KLOG(VERB_TRACE, "\tSub %s Type: %d AncpageId: %d CompPageId: %d\n", entry->getIso639LanguageCode().c_str(),
         entry->getSubtitlingType(), entry->getAncillaryPageId(), entry->getCompositionPageId());
  }
}

// AC-3_descriptor (0x6A, Annex D)
void ac3(const Descriptor& descriptor, Site& site) {
  const auto* d = as<Ac3Descriptor>(descriptor);
  if (d == nullptr)
    return;
  site.found.stream.subtype = static_cast<int32_t>(SUBTYPE_AC3);
  site.found.stream.codec = "AC3";
  KLOG(VERB_TRACE, "AC3 descriptor: Type %d, bsid %d, mainid %d, asvc %d, ac3type %d, bsid %d, mainid %d, avsc %d\n",
       d->getAc3TypeFlag(), d->getBsidFlag(), d->getMainidFlag(), d->getAsvcFlag(), d->getAc3Type(), d->getBsid(),
       d->getMainid(), d->getAvsc());
}

}  // namespace descriptor_handlers
