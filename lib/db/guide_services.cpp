#include "db/guide_services.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;

namespace {

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
  parts_->errors.report_reset(sqlite3_reset(stmt), "get_eit_scan_list", __LINE__);
  std::sort(epg->begin(), epg->end(), cmp_epg_cache);
}

std::vector<sdbl::Guide_service> Sdbl::Parts::guide_services(int dvbnr, const Multiplex& multiplex, SCAN_STATE state) {
  if (state != SCAN_EIT)
    KLOG(VERB_ERROR,
         "ERROR: get_eit_scan_list:  master channel table must be syncronized, epglist tabel is indexed using this "
         "table\n");
  std::string sql;
  {
    std::lock_guard<std::mutex> settings(shell.settings_lock_);
    sql = shell.eit_services_sql_;
  }
  std::vector<sdbl::Guide_service> services;
  {
    Db_lock lock(shell.db);
    sqlite3_stmt* stmt = shell.sql_cache(false, dvbnr, sql.c_str(), number(multiplex.input.connector),
                                         number(multiplex.input.delivery), multiplex.freq);
    if (stmt == nullptr)
      return services;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      const int pmt_pid = sqlite3_column_int(stmt, 3) != 0 ? sqlite3_column_int(stmt, 1) : 0;
      services.push_back({sqlite3_column_int(stmt, 0), pmt_pid, sqlite3_column_int(stmt, 2), {}});
    }
    errors.report_reset(sqlite3_reset(stmt), "get_eit_scan_list", __LINE__);
  }
  for (sdbl::Guide_service& service : services)
    shell.read_epg_cache(dvbnr, service.channel, &service.epg);
  return services;
}

std::vector<sdbl::Guide_service> sdbl::guide_services(Sdbl& db, int dvbnr, const Multiplex& multiplex,
                                                      SCAN_STATE state) {
  return db.parts().guide_services(dvbnr, multiplex, state);
}
