// SDT of the actual multiplex (EN 300 468, 5.2.3).
#include <dvbsi++/service_description_section.h>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse_internal.h"
#include "si/siparse_parts.h"

int Siparse::Parts::parse_section_sdt(ServiceDescriptionSection* section, int freq) {
  const Scoped_value scope(loop_, Loop::SDT);
  for (const ServiceDescription* service : *section->getDescriptions()) {
    const int service_id = service->getServiceId();
    KLOG(VERB_TRACE, "SERV id %d, EIT sch flag %x, EITpresfoll %x, runningstat %x, freecamode %x\n", service_id,
         static_cast<unsigned>(service->getEitScheduleFlag()),
         static_cast<unsigned>(service->getEitPresentFollowingFlag()),
         static_cast<unsigned>(service->getRunningStatus()), static_cast<unsigned>(service->getFreeCaMode()));
    const int oid = db_->sdt_for_service(dvbnr_, type_, conn_, freq, service_id, service->getRunningStatus(),
                                         service->getFreeCaMode());
    if (oid == -1) {
      KLOG(VERB_PROGRESS, "SDT channel not found for serv_id %d freq in kanalid_scan %d\n", service_id, freq);
      continue;
    }
    for (Descriptor* descriptor : *service->getDescriptors())
      parse_descriptor_info(descriptor, oid);
  }
  if (db_->sql_row_exists("SELECT channel FROM kanalid_scan_%d WHERE prov_name = '' AND freq = %d;", dvbnr_, freq)) {
    KLOG(VERB_TRACE, "SDT entry empty\n");
  } else {
    KLOG(VERB_TRACE, "Moving on to eit scan\n");
    filter_->removefilter(17, 0x42);
  }
  KLOG(VERB_PROGRESS, "SDT scanned.\n");
  return 0;
}
