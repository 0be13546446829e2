#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "base/polled_timer.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;
using sdbl::report_reset;

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

// Lists the television services of a multiplex.
constexpr std::string_view TELEVISION_SERVICES =
    "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
    "freq = $freq AND serv_type = 1;";
constexpr std::string_view TELEVISION_ONLY = "= 1;";
static_assert(TELEVISION_SERVICES.ends_with(TELEVISION_ONLY));

constexpr int DIGITAL_TELEVISION = 1;
constexpr int MOST_SERVICE_TYPE = 255;

}  // namespace

void Sdbl::set_eit_service_types(const int* types, int n) {
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
  std::lock_guard<std::mutex> settings(settings_lock_);
  eit_services_sql_ = std::move(sql);
}

// The stored events of a service, sorted by start.
void Sdbl::read_epg_cache(int dvbnr, int channel, std::vector<EPG_cache*>* epg) {
  Db_lock lock(db);
  sqlite3_stmt* stmt = sql_cache(
      false, dvbnr, "SELECT ev_id, start_epoch, dur_sec from epglist WHERE channel = $channel ORDER BY 1;", channel);
  if (stmt == nullptr)
    return;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    auto event = std::make_unique<EPG_cache>(
        EPG_cache{sqlite3_column_int(stmt, 1), sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 2)});
    epg->push_back(event.get());
    (void)event.release();  // the vector's owner has it
  }
  report_reset(sqlite3_reset(stmt), "get_eit_scan_list", __LINE__);
  std::sort(epg->begin(), epg->end(), cmp_epg_cache);
}

std::list<SQL_cache*>* Sdbl::get_eit_scan_list(int dvbnr, int dvb_type, int hf_conn, int freq,
                                               std::list<SQL_cache*>* list, SCAN_STATE state) {
  if (state != SCAN_EIT)
    KLOG(VERB_ERROR,
         "ERROR: get_eit_scan_list:  master channel table must be syncronized, epglist tabel is indexed using this "
         "table\n");
  std::string sql;
  {
    std::lock_guard<std::mutex> settings(settings_lock_);
    sql = eit_services_sql_;
  }
  std::list<SQL_cache*> found;
  {
    Db_lock lock(db);
    sqlite3_stmt* stmt = sql_cache(false, dvbnr, sql.c_str(), hf_conn, dvb_type, freq);
    if (stmt == nullptr)
      return list;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      const int pmt_pid = sqlite3_column_int(stmt, 3) != 0 ? sqlite3_column_int(stmt, 1) : 0;
      auto entry = std::make_unique<SQL_cache>(SQL_cache{sqlite3_column_int(stmt, 0),
                                                         pmt_pid,
                                                         -1,
                                                         sqlite3_column_int(stmt, 2),
                                                         polled_timer::none(),
                                                         true,
                                                         false,
                                                         0,
                                                         {}});
      found.push_back(entry.get());
      (void)entry.release();  // the list's owner gets it
    }
    report_reset(sqlite3_reset(stmt), SDBL_HERE);
  }
  for (SQL_cache* entry : found) {
    entry->timer = create_timer();
    arm(entry->timer);
    read_epg_cache(dvbnr, entry->channel, &entry->epg);
  }
  list->splice(list->end(), found);
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
