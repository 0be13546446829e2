// Descriptors of elementary streams and programmes (ISO/IEC 13818-1, 2.6; EN 300 468, 6.2).
#include <algorithm>

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
#include "db/pmt_subtxt_lang.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

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

void trace(const VideoStreamDescriptor& d) {
  // The rest of the descriptor is there for MPEG-2 only.
  const bool more = d.getMpeg1OnlyFlag() == 0;
  KLOG(VERB_TRACE, "Video Stream Desc: MFR %d, FRC %d, MP10 %d, ConP %d, Plev %d CF %d, FRE %d\n",
       d.getMultipleFrameRateFlag(), d.getFrameRateCode(), d.getMpeg1OnlyFlag(), d.getConstrainedParameterFlag(),
       more ? d.getProfileAndLevelIndication() : 0, more ? d.getChromaFormat() : 0,
       more ? d.getFrameRateExtensionFlag() : 0);
}

void trace(const AudioStreamDescriptor& d) {
  KLOG(VERB_TRACE, "Audio stream descriptor, Id: %d freeformat %d, layer %d, varrate %d\n", d.getId(),
       d.getFreeFormatFlag(), d.getLayer(), d.getVariableRateAudioIndicator());
}

void trace(const ComponentDescriptor& d) {
  KLOG(VERB_TRACE, "\t Component descriptor\n Strcon %x, comptype %x, comptag %x, lang %s, text %s\n",
       static_cast<unsigned>(d.getStreamContent()), static_cast<unsigned>(d.getComponentType()),
       static_cast<unsigned>(d.getComponentTag()), d.getIso639LanguageCode().c_str(), d.getText().c_str());
}

void trace(const StreamIdentifierDescriptor& d) {
  KLOG(VERB_TRACE, "Stream identifier descriptor: comptag is %d\n", d.getComponentTag());
}

template <typename D>
void trace_as(const Descriptor* descriptor) {
  if (const D* d = as<D>(descriptor))
    trace(*d);
}

}  // namespace

// Those that are only traced.
void Siparse::Parts::parse_stream_descriptor(const Descriptor* descriptor) {
  if (!kelvo_log::enabled(VERB_TRACE))
    return;
  const int length = descriptor->getLength();
  switch (descriptor->getTag()) {
    case 0x02:
      trace_as<VideoStreamDescriptor>(descriptor);
      break;
    case 0x03:
      trace_as<AudioStreamDescriptor>(descriptor);
      break;
    case 0x06:
      if (length >= 1)
        kelvo_log::print(VERB_TRACE, "Data stream alignment descriptor : al %d\n", Raw(*descriptor).body(0));
      break;
    case 0x0C:
      kelvo_log::print(VERB_TRACE, "Mux buffer utilization descriptor, not required for receiver\n");
      break;
    case 0x0E:
      if (length >= 3) {
        const Raw raw(*descriptor);
        kelvo_log::print(VERB_TRACE, "Maximum bitrate descriptor: rate is %d\n",
                         (raw.body(0) & 0x3F) << 16 | raw.body(1) << 8 | raw.body(2));
      }
      break;
    case 0x50:
      trace_as<ComponentDescriptor>(descriptor);
      break;
    case 0x52:
      trace_as<StreamIdentifierDescriptor>(descriptor);
      break;
  }
}

// CA_descriptor (0x09, 2.6.16)
void Siparse::Parts::parse_ca_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<CaDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    program_ca_found_ = true;
    program_ca_sysid_ = d->getCaSystemId();
    program_ca_pid_ = d->getCaPid();
  } else {
    ca_sysid_ = d->getCaSystemId();
    ca_pid_ = d->getCaPid();
  }
  KLOG(VERB_TRACE, "CA descriptor SysId: %d, PID: %d \n", d->getCaSystemId(), d->getCaPid());
}

// ISO_639_language_descriptor (0x0A, 2.6.18)
void Siparse::Parts::parse_language_descriptor(const Descriptor* descriptor, int context) {
  const auto* d = as<Iso639LanguageDescriptor>(descriptor);
  if (d == nullptr)
    return;
  if (context == -1) {
    KLOG(VERB_TRACE, "ISO_LANG descriptor, OID not found\n");
    return;
  }
  for (const Iso639Language* entry : *d->getIso639Languages()) {
    languages_ += entry->getIso639LanguageCode() + " ";
    lang_codes_ += std::to_string(entry->getAudioType()) + " ";
  }
  KLOG(VERB_TRACE, "ISO 639 lang descriptor, languages %s, codes %s, oid %d\n", languages_.c_str(), lang_codes_.c_str(),
       context);
}

// teletext_descriptor (0x56, 6.2.44)
void Siparse::Parts::parse_teletext_descriptor(const Descriptor* descriptor) {
  const auto* d = as<TeletextDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "\tTeletext descriptor\n");
  for (const VbiTeletext* entry : *d->getVbiTeletexts()) {
    PMT_subtxt_lang* language = find_create_subtxt_lang(entry->getIso639LanguageCode());
    language->es_subtype = static_cast<int32_t>(SUBTYPE_TELETEXT | (entry->getTeletextType() & 0x1Fu));
    language->p1 = entry->getTeletextPageNumber();
    language->p2 = entry->getTeletextMagazineNumber();
    KLOG(VERB_TRACE, "\tTxt %s, Type: %d, Pagenr: %d, MagNr: %d\n", entry->getIso639LanguageCode().c_str(),
         entry->getTeletextType(), entry->getTeletextPageNumber(), entry->getTeletextMagazineNumber());
  }
}

// subtitling_descriptor (0x59, 6.2.42)
void Siparse::Parts::parse_subtitling_descriptor(const Descriptor* descriptor) {
  const auto* d = as<SubtitlingDescriptor>(descriptor);
  if (d == nullptr)
    return;
  KLOG(VERB_TRACE, "\tSubtitling descriptor\n");
  for (const Subtitling* entry : *d->getSubtitlings()) {
    PMT_subtxt_lang* language = find_create_subtxt_lang(entry->getIso639LanguageCode());
    language->es_subtype = static_cast<int32_t>(SUBTYPE_SUBTITLING | entry->getSubtitlingType());
    language->p1 = entry->getAncillaryPageId();
    language->p2 = entry->getCompositionPageId();
    KLOG(VERB_TRACE, "\tSub %s Type: %d AncpageId: %d CompPageId: %d\n", entry->getIso639LanguageCode().c_str(),
         entry->getSubtitlingType(), entry->getAncillaryPageId(), entry->getCompositionPageId());
  }
}

// AC-3_descriptor (0x6A, Annex D)
void Siparse::Parts::parse_ac3_descriptor(const Descriptor* descriptor) {
  const auto* d = as<Ac3Descriptor>(descriptor);
  if (d == nullptr)
    return;
  es_subtype_ = static_cast<int32_t>(SUBTYPE_AC3);
  codec_ = "AC3";
  KLOG(VERB_TRACE, "AC3 descriptor: Type %d, bsid %d, mainid %d, asvc %d, ac3type %d, bsid %d, mainid %d, avsc %d\n",
       d->getAc3TypeFlag(), d->getBsidFlag(), d->getMainidFlag(), d->getAsvcFlag(), d->getAc3Type(), d->getBsid(),
       d->getMainid(), d->getAvsc());
}

PMT_subtxt_lang* Siparse::Parts::find_create_subtxt_lang(const std::string& code) {
  const auto known = std::find_if(subtxt_languages_.begin(), subtxt_languages_.end(),
                                  [&](const PMT_subtxt_lang* entry) { return entry->lang == code; });
  if (known != subtxt_languages_.end())
    return *known;
  subtxt_languages_.push_back(new PMT_subtxt_lang{code, 0, 0, 0});
  return subtxt_languages_.back();
}
