// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The list of services that hosts of the guide's rows get, each entry with a timer. Nothing else here makes timers.
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/log.h"
#include "base/polled_timer.h"
#include "db/guide_services.h"
#include "db/sdbl.h"

namespace {

constexpr int SERVICE_WAIT_S = 10;

timer_t create_timer() {
  const timer_t timer = polled_timer::create();
  if (timer == polled_timer::none())
    KLOG(VERB_ERROR, "ERROR: timer_create: %s\n", std::strerror(errno));
  return timer;
}

void arm(timer_t timer) {
  (void)polled_timer::arm(timer, SERVICE_WAIT_S, SERVICE_WAIT_S);  // fails only for a timer that could not be made
}

}  // namespace

std::list<SQL_cache*>* Sdbl::get_eit_scan_list(int dvbnr, int dvb_type, int hf_conn, int freq,
                                               std::list<SQL_cache*>* list, SCAN_STATE state) {
  const Multiplex multiplex{Input{Connector{hf_conn}, Delivery{dvb_type}}, freq};
  for (sdbl::Guide_service& service : sdbl::guide_services(*this, dvbnr, multiplex, state)) {
    auto entry = std::make_unique<SQL_cache>(SQL_cache{service.pat_prnr, service.pmt_pid, -1, service.channel,
                                                       create_timer(), true, false, 0, std::move(service.epg)});
    arm(entry->timer);
    list->push_back(entry.get());
    (void)entry.release();  // the list's owner has it
  }
  return list;
}

void Sdbl::reset_eit_scan_list(std::list<SQL_cache*>* list) {
  for (SQL_cache* entry : *list) {
    entry->active = true;
    entry->scan_mark = -1;
    entry->done = false;
    entry->count = 0;
    arm(entry->timer);
  }
}

void Sdbl::clear_eit_scan_list(std::list<SQL_cache*>* list) {
  for (SQL_cache* entry : *list) {
    polled_timer::remove(entry->timer);
    for (EPG_cache* event : entry->epg)
      delete event;
    delete entry;
  }
  list->clear();
}
