#pragma once

#include <vector>

#include "base/multiplex.h"
#include "base/types.h"

class Sdbl;
struct EPG_cache;

namespace sdbl {

// One service whose guide is collected, as the database knows it.
struct Guide_service {
  int pat_prnr;                 // service_id
  int pmt_pid;                  // 0 when the service has no PCR PID
  int channel;                  // row of `kanalid`
  std::vector<EPG_cache*> epg;  // its stored events, sorted by start; owned by whoever has this record
};

// The services of `multiplex` whose type is collected (Sdbl::set_eit_service_types), in the order of the table. Any
// state but SCAN_EIT prints an error, and the list is built all the same. Empty, printed, when the database fails.
// Worker-only: `dvbnr` is the adapter's number.
std::vector<Guide_service> guide_services(Sdbl& db, int dvbnr, const Multiplex& multiplex, SCAN_STATE state);

}  // namespace sdbl
