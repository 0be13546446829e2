// Construction, and the dispatch of sections to the parsers of their tables.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dvbsi++/ca_section.h>
#include <dvbsi++/event_information_section.h>
#include <dvbsi++/network_information_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>
#include <dvbsi++/service_description_section.h>
#include <dvbsi++/time_date_section.h>
#include <dvbsi++/time_offset_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "si/eit_lang.h"
#include "si/section_guard.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

namespace {

constexpr time_t LAST_SECOND_OF_1999 = 946684799;
constexpr size_t NO_TABLE = 12;  // there is no ISO-8859-12

iconv_t invalid_converter() {
  return reinterpret_cast<iconv_t>(static_cast<intptr_t>(-1));
}

void close_converter(iconv_t converter) {
  if (converter != invalid_converter())
    (void)iconv_close(converter);
}

iconv_t open_converter(const char* from) {
  const iconv_t converter = iconv_open("UTF-8", from);
  // Deliberate: these two are reported in other words than those of ISO 8859.
  if (converter == invalid_converter())
    KLOG(VERB_ERROR, "ERROR: Cannot set conversion from %s to UTF-8, %s\n", from, std::strerror(errno));
  return converter;
}

size_t section_size(const uint8_t* bytes) {
  return static_cast<size_t>((bytes[1] & 0x0F) << 8 | bytes[2]) + 3;
}

}  // namespace

Siparse::Parts::Parts(Section_filter* filter, int dvbnr, HF_CONN_ID conn, DVB_TYPE_ID type, Sdbl* db)
    : filter_(filter), dvbnr_(dvbnr), db_(db), cache_list_(new std::list<SQL_cache*>), conn_(conn), type_(type) {
  const time_t now = time(nullptr);
  system_time_valid_ = now >= LAST_SECOND_OF_1999;
  if (system_time_valid_)
    KLOG(VERB_TRACE, "System time valid\n");
  else
    KLOG(VERB_TRACE, "System time invalid\n");
  KLOG(VERB_TRACE, "Epoch time is %d\n", static_cast<int>(now));

  for (size_t n = 1; n <= ISO_8859_TABLES; ++n) {
    iconv_t& converter = iso8859_[n - 1];
    converter = invalid_converter();
    if (n == NO_TABLE)
      continue;
    char from[16];
    std::snprintf(from, sizeof from, "ISO-8859-%1d", static_cast<int>(n));
    converter = iconv_open("UTF-8", from);
    if (converter == invalid_converter())
      KLOG(VERB_ERROR, "ERROR: Cannot set conversion %s to UTF-8, %s\n", from, std::strerror(errno));
  }
  iso6937_ = open_converter("ISO6937");
  iso10646_ = open_converter("10646-1:1993");
}

Siparse::Parts::~Parts() {
  db_->clear_eit_scan_list(cache_list_);
  delete cache_list_;
  for (const iconv_t converter : iso8859_)
    close_converter(converter);
  close_converter(iso6937_);
  close_converter(iso10646_);
  clear_leftovers();
}

char* Siparse::Parts::add_dvbnr(const char* base) {
  std::snprintf(table_name_, sizeof table_name_, "%s_%d", base, dvbnr_);
  return table_name_;
}

bool Siparse::Parts::systime_valid() const {
  return system_time_valid_;
}

int Siparse::Parts::get_eit_stored() const {
  return eit_stored_;
}

// What no stream and no event has taken, from descriptors in the wrong loop: nothing may pile up.
void Siparse::Parts::clear_leftovers() {
  languages_.clear();
  lang_codes_.clear();
  delete_all(subtxt_languages_);
  delete_all(epg_languages_);
}

template <typename Section, typename Parse>
void Siparse::Parts::scan_section(const uint8_t* bytes, Parse parse) {
  const size_t size = section_size(bytes);
  if (const char* problem = section_guard::section_problem(bytes, size)) {
    KLOG(VERB_TRACE, "Section dropped: %s\n", problem);
    return;
  }
#ifdef KELVO_DVBSI_SYSTEM
  if (safe_copy_ == nullptr)
    safe_copy_ = std::make_unique<section_guard::Safe_copy>();
  bytes = safe_copy_->copy(bytes, size);
#endif
  Section section(bytes);
  parse(&section);
  clear_leftovers();
}

template <typename Section, typename Parse>
void Siparse::Parts::scan_long_section(const uint8_t* bytes, Parse parse) {
  scan_section<Section>(bytes, [&](Section* section) {
    if (section->getCurrentNextIndicator() == 1)
      parse(section);
  });
}

int Siparse::Parts::scan_assembled_section(char* section, int pid, int freq, void*, SCAN_STATE state) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(section);
  const unsigned table_id = bytes[0];
  ++section_counter_;
  KLOG(VERB_TRACE, ">>>>> Table id %x , pid %x, cntr %d \n", static_cast<unsigned>(static_cast<signed char>(bytes[0])),
       static_cast<unsigned>(pid), section_counter_);
  KLOG(VERB_TRACE, "Nr %3d.%02x.%02x ", section_counter_, static_cast<unsigned>(pid), table_id);

  switch (table_id) {
    case 0x00:
      if (pid != 0)
        break;
      KLOG(VERB_TRACE, "Scanning PAT\n");
      scan_long_section<ProgramAssociationSection>(bytes, [&](auto* pat) { parse_section_pat(pat, freq, state); });
      break;
    case 0x01:
      if (pid != 1)
        break;
      KLOG(VERB_PROGRESS, "--->>>> !!!!!! Contitional Access section!!!!!\n");
      scan_long_section<ConditionalAccessSection>(bytes, [&](auto* cat) { parse_section_cat(cat, 1, freq); });
      break;
    case 0x02:
      KLOG(VERB_TRACE, "Scanning PMT for pid %d\n", pid);
      scan_long_section<ProgramMapSection>(bytes, [&](auto* pmt) { parse_section_pmt(pmt, pid, freq, state); });
      break;
    case 0x40:
      // Deliberate: a PAT may name another PID for the NIT; a NIT that comes there is dropped and its filter stays.
      if (pid != 16)
        break;
      KLOG(VERB_TRACE, "Scanning NIT same network\n");
      scan_long_section<NetworkInformationSection>(bytes, [&](auto* nit) { parse_section_nit(nit, 16, freq); });
      break;
    case 0x42:
      if (pid != 17)
        break;
      KLOG(VERB_TRACE, "Scanning SDT\n");
      scan_long_section<ServiceDescriptionSection>(bytes, [&](auto* sdt) { parse_section_sdt(sdt, freq); });
      break;
    case 0x70:
      if (pid == 20)
        scan_section<TimeAndDateSection>(bytes, [&](auto* tdt) { parse_section_tdt(tdt, freq); });
      break;
    case 0x73:
      if (pid == 20)
        scan_section<TimeOffsetSection>(bytes, [&](auto* tot) { parse_section_tot(tot, freq); });
      break;
    default:
      if (table_id == 0x4E || (table_id >= 0x50 && table_id <= 0x5F)) {
        if (pid != 18)
          break;
        scan_section<EventInformationSection>(bytes, [&](auto* eit) {
          KLOG(VERB_TRACE, "Scanning EIT, section number %d\n", static_cast<int>(eit->getSectionNumber()));
          if (eit->getCurrentNextIndicator() == 1)
            parse_section_eit(eit, freq);
        });
        break;
      }
      KLOG(VERB_WARNING, "WARNING: *********   Unreckognized section %x *********  \n", table_id);
  }
  return 0;
}
