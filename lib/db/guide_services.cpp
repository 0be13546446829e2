// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_services.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "db/epg_cache.h"
#include "db/sdbl_parts.h"

namespace sdbl {

namespace {

// The operation's public name, under which failures are reported.
constexpr char LIST_OPERATION[] = "get_eit_scan_list";

// Lists the television services of a multiplex.
constexpr std::string_view TELEVISION_SERVICES =
    "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
    "freq = $freq AND serv_type = 1;";
constexpr std::string_view TELEVISION_ONLY = "= 1;";
static_assert(TELEVISION_SERVICES.ends_with(TELEVISION_ONLY));

constexpr int DIGITAL_TELEVISION = 1;
constexpr int MOST_SERVICE_TYPE = 255;

}  // namespace

void Guide_services::set_types(const int* types, int n) {
  std::set<int> wanted;
  for (int i = 0; types != nullptr && i < n; ++i)
    if (types[i] >= 0 && types[i] <= MOST_SERVICE_TYPE)
      wanted.insert(types[i]);
  std::string sql(TELEVISION_SERVICES);
  if (!wanted.empty() && wanted != std::set<int>{DIGITAL_TELEVISION}) {
    sql.resize(sql.size() - TELEVISION_ONLY.size());
    const char* separator = "IN (";
    for (const int type : wanted) {
      sql += separator + std::to_string(type);
      separator = ", ";
    }
    sql += ");";
  }
  std::lock_guard<Mutex> lock(lock_);
  sql_ = std::move(sql);
}

std::vector<EPG_cache*> Guide_services::stored_events(int dvbnr, int channel, bool* busy) const {
  std::vector<EPG_cache*> events;
  Rows rows(statements_, LIST_OPERATION, dvbnr,
            "SELECT ev_id, start_epoch, dur_sec from epglist WHERE channel = $channel ORDER BY 1;", channel);
  while (rows.next()) {
    auto event = std::make_unique<EPG_cache>(EPG_cache{rows.number(1), rows.number(0), rows.number(2)});
    events.push_back(event.get());
    (void)event.release();  // the vector's owner has it
  }
  *busy = (rows.code() & 0xFF) == SQLITE_BUSY;
  rows.end();
  std::sort(events.begin(), events.end(), cmp_epg_cache);
  return events;
}

std::vector<Guide_service> Guide_services::list(int dvbnr, const Multiplex& multiplex, SCAN_STATE state) const {
  if (state != SCAN_EIT)
    KLOG(VERB_ERROR,
         "ERROR: get_eit_scan_list:  master channel table must be syncronized, epglist tabel is indexed using this "
         "table\n");
  std::string sql;
  {
    std::lock_guard<Mutex> lock(lock_);
    sql = sql_;
  }
  std::vector<Guide_service> services;
  Rows rows(statements_, LIST_OPERATION, dvbnr, Runtime_sql{sql.c_str()}, number(multiplex.input.connector),
            number(multiplex.input.delivery), multiplex.freq);
  while (rows.next()) {
    const int pmt_pid = rows.number(3) != 0 ? rows.number(1) : 0;
    services.push_back({rows.number(0), pmt_pid, rows.number(2), {}});
  }
  rows.end();
  // Of a guide that another program keeps locked nothing is known; one wait has told so.
  bool busy = false;
  for (auto service = services.begin(); service != services.end() && !busy; ++service)
    service->epg = stored_events(dvbnr, service->channel, &busy);
  return services;
}

std::vector<Guide_service> guide_services(Sdbl& db, int dvbnr, const Multiplex& multiplex, SCAN_STATE state) {
  return db.parts().guide_services.list(dvbnr, multiplex, state);
}

}  // namespace sdbl
