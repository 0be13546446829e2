// NIT of the actual network (EN 300 468, 5.2.1).
#include <dvbsi++/network_information_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

int Siparse::Parts::parse_section_nit(NetworkInformationSection* section, int pid, int freq) {
  const Scoped_value scope(loop_, Loop::NIT);
  const int network_id = section->getTableIdExtension();
  KLOG(VERB_TRACE, "NIT: network_id %d\n", network_id);
  int oid = db_->nit_for_network(dvbnr_, type_, conn_, freq, "network_id", network_id);
  for (Descriptor* descriptor : *section->getDescriptors())
    parse_nit_descriptor_info(descriptor, freq, oid, network_id, -1, -1);
  KLOG(VERB_TRACE, "oid %d ", oid);
  for (const TransportStreamInfo* stream : *section->getTsInfo()) {
    const int ts_id = stream->getTransportStreamId();
    const int orig_network_id = stream->getOriginalNetworkId();
    KLOG(VERB_TRACE, "Tstream id  %d, Original network id %d\n", ts_id, orig_network_id);
    oid = db_->nit_for_network(dvbnr_, type_, conn_, freq, "orig_network_id", orig_network_id);
    for (Descriptor* descriptor : *stream->getDescriptors())
      parse_nit_descriptor_info(descriptor, freq, oid, network_id, ts_id, orig_network_id);
  }
  filter_->removefilter(pid, 0x40);
  KLOG(VERB_PROGRESS, "NIT scanned.\n");
  return 0;
}
