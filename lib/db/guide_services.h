// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "base/types.h"
#include "db/statements.h"

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

// Which services these are.
class Guide_services {
 public:
  explicit Guide_services(const Statements& statements) : statements_(statements) { set_types(nullptr, 0); }

  // Sdbl::set_eit_service_types. Any-thread.
  void set_types(const int* types, int n);

  // guide_services() above.
  std::vector<Guide_service> list(int dvbnr, const Multiplex& multiplex, SCAN_STATE state) const;

 private:
  std::vector<EPG_cache*> stored_events(int dvbnr, int channel, bool* busy) const;

  const Statements& statements_;
  mutable Mutex lock_{Lock_rank::DATABASE_LEAF, "types of the guide"};  // guards the text
  std::string sql_;                                                     // the query, with the types in it
};

}  // namespace sdbl
