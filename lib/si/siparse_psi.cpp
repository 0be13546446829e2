// PAT, PMT and CAT (ISO/IEC 13818-1, 2.4.4).
#include <algorithm>

#include <dvbsi++/ca_section.h>
#include <dvbsi++/program_association_section.h>
#include <dvbsi++/program_map_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

namespace {

constexpr int PID_OF_NIT = 16;
constexpr int PID_OF_SDT = 17;
constexpr int CONTEXT_PROGRAM = -1;
constexpr int CONTEXT_STREAM = 10;

}  // namespace

int Siparse::Parts::parse_section_pat(ProgramAssociationSection* section, int freq, SCAN_STATE) {
  if (section->getSectionNumber() + section->getLastSectionNumber() != 0)
    KLOG(VERB_ERROR, "ERROR: Fragmented PAT secnr: %d, lastsec %d\n", static_cast<int>(section->getSectionNumber()),
         static_cast<int>(section->getLastSectionNumber()));
  int network_pid = PID_OF_NIT;
  for (const NetworkAssociation* network : *section->getNetworks()) {
    network_pid = network->getNetworkPid();
    KLOG(VERB_TRACE, "NetworkPid %d\n", network_pid);
  }
  filter_->addfilter(network_pid, 0x40, freq);

  const int ts_id = section->getTableIdExtension();
  for (const ProgramAssociation* program : *section->getPrograms()) {
    const int number = program->getProgramNumber();
    const int pmt_pid = program->getProgramMapPid();
    KLOG(VERB_TRACE, "PAT: ProgramNr: %d, ProgramMapPid: %d, ts_id: %d\n", number, pmt_pid, ts_id);
    db_->pat_for_network(dvbnr_, type_, conn_, freq, number, ts_id, pmt_pid);
    filter_->addfilter(pmt_pid, 0x02, freq);
  }
  KLOG(VERB_TRACE, "PAT scanned, setting SDT, NIT, PMT\n");
  filter_->removefilter(0, 0x00);
  filter_->addfilter(PID_OF_SDT, 0x42, freq);
  return 0;
}

int Siparse::Parts::parse_section_pmt(ProgramMapSection* section, int pid, int freq, SCAN_STATE state) {
  const Scoped_value scope(loop_, Loop::PMT);
  const int program = section->getProgramNumber();
  if (section->getSectionNumber() + section->getLastSectionNumber() != 0)
    KLOG(VERB_ERROR, "ERROR: Fragmented PMT secnr: %d, lastsec %d\n", static_cast<int>(section->getSectionNumber()),
         static_cast<int>(section->getLastSectionNumber()));
  KLOG(VERB_TRACE, "PMT: Program %d, PID %x, PCR pid %x\n", program, static_cast<unsigned>(pid),
       static_cast<unsigned>(section->getPcrPid()));

  if (state == SCAN_PMT) {
    const auto known = std::find_if(cache_list_->begin(), cache_list_->end(),
                                    [=](const SQL_cache* service) { return service->pat_prnr == program; });
    if (known == cache_list_->end()) {
      KLOG(VERB_WARNING, "WARNING: parse_section_pmt: cannot locate program number in sql cache\n");
      filter_->removefilter(pid, 0x02);
      return 0;
    }
    const int version = section->getVersionNumber();
    if ((*known)->scan_mark >= 0 && (*known)->scan_mark == version) {
      filter_->removefilter(pid, 0x02);
      return 0;
    }
    (*known)->scan_mark = version;
    pmt_from_database_ = false;
  }

  program_ca_found_ = false;
  for (Descriptor* descriptor : *section->getDescriptors())
    parse_descriptor_info(descriptor, CONTEXT_PROGRAM);
  const int channel = db_->pmt_channel_number(dvbnr_, type_, conn_, freq, program, section->getPcrPid(), state);
  for (const ElementaryStreamInfo* stream : *section->getEsInfo()) {
    es_subtype_ = 0;
    codec_.clear();
    languages_.clear();
    lang_codes_.clear();
    ca_sysid_ = 0;
    ca_pid_ = 0;
    for (Descriptor* descriptor : *stream->getDescriptors())
      parse_descriptor_info(descriptor, CONTEXT_STREAM);
    if (program_ca_found_) {
      // Deliberate: the programme's CA wins over the stream's own.
      ca_sysid_ = program_ca_sysid_;
      ca_pid_ = program_ca_pid_;
    }
    db_->pmt_for_service(dvbnr_, channel, stream->getPid(), stream->getType(), es_subtype_, codec_.c_str(),
                         languages_.c_str(), lang_codes_.c_str(), ca_sysid_, ca_pid_, &subtxt_languages_);
    KLOG(VERB_TRACE, "Program %d: ES pid %d, ES type %d\n", program, static_cast<int>(stream->getPid()),
         static_cast<int>(stream->getType()));
  }
  filter_->removefilter(pid, 0x02);
  return 0;
}

int Siparse::Parts::parse_section_cat(ConditionalAccessSection* section, int, int) {
  const Scoped_value scope(loop_, Loop::CAT);
  for (Descriptor* descriptor : *section->getDescriptors())
    parse_descriptor_info(descriptor, CONTEXT_PROGRAM);
  return 0;
}

int Siparse::Parts::init_pmt_table_scan_from_database(int freq) {
  pmt_from_database_ = true;
  int result = 1;
  for (const SQL_cache* service : *cache_list_) {
    result = 0;
    if (service->pmt_pid != 0)
      result = filter_->addfilter(service->pmt_pid, 0x02, freq);
  }
  return result;
}
