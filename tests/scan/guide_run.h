// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "scan/scan_run.h"

// Guides of streams made from tests/data/scan/base.json, whose services 101 and 102 are television and 103 is radio.
// Its clock, and the host's, begin at 2026-03-01 18:00 UTC, which is 1772388000.
class Guide_test : public Scan_test {
 protected:
  static constexpr char NOW[] = "1772388000";
  static constexpr int INDEX_OF_101 = 0;
  static constexpr int INDEX_OF_102 = 1;

  // Two scans: the first one finds the services, the second one collects their guide.
  static inline const std::string COLLECT = SCAN_ONCE + "freq 0 506000000; wait_done 0 100; ";

  static constexpr char TWO_EVENTS[] =
      R"([{ "start": "now-30m", "duration": "1h" }, { "start": "now+30m", "duration": "1h" }])";

  // Patches of base.json; with only_101(), 102 is radio, which is not listed.
  static Json events_of(int service_index, const std::string& events) {
    return {{"op", "add"},
            {"path", "/services/" + std::to_string(service_index) + "/events"},
            {"value", Json::parse(events)}};
  }
  static Json both(const std::string& events) {
    return {events_of(INDEX_OF_101, events), events_of(INDEX_OF_102, events)};
  }
  static Json only_101() { return {{"op", "replace"}, {"path", "/services/1/type"}, {"value", "radio"}}; }
  static Json faults(const std::string& list) {
    return {{"op", "add"}, {"path", "/faults"}, {"value", Json::parse(list)}};
  }

  // A line an event, in the order of services and starts:
  //   SERVICE|EVENT ID|DATE|TIME|SECONDS SINCE NOW|DURATION|DURATION IN SECONDS|CONTENT|RATING|RUNNING|FREE_CA
  std::string events() const {
    return sql(
        std::string("SELECT pat_prnr, ev_id, printf('%x', ymd_bcd), printf('%06x', hms_bcd), start_epoch - ") + NOW +
        ", printf('%06x', dur_bcd), dur_sec, content_id, rating, run_status, free_ca FROM epglist ORDER BY pat_prnr, start_epoch");
  }
  // SERVICE|EVENT ID|LANGUAGE|NAME|TEXT|EXTENDED TEXT|ITEMS
  std::string texts() const {
    return sql(
        "SELECT pat_prnr, ev_id, lang, ev_name, ev_desc, ext_desc, ext_list FROM epglist e, epglist_lang l "
        "WHERE l.source_oid = e.entry ORDER BY pat_prnr, start_epoch, lang");
  }

  // As scan_of(), for what a machine that is busy at the wrong moment misses: a timer's last second, a section that
  // comes once. Runs again then, with an empty database, three times in all.
  template <typename Missed>
  Scan_run scan_until_seen(const Json& patch, const std::string& script, int speed, Missed missed) {
    for (int attempt = 1;; ++attempt) {
      Scan_run run = scan_of(patch, script, speed);
      if (attempt == 3 || !missed(run))
        return run;
      for (const char* name : {"dvb.db", "dvb_epg.db"})
        std::filesystem::remove(folder_.file(name));
    }
  }

  // When the filter of a table, "4e" and so on, was set last, in seconds since the adapter's start; -1 for never.
  static double opened(const Scan_run& run, const std::string& table) {
    const std::vector<double> times = run.logged({"DMX_SET_FILTER pid=0x12 filter=" + table});
    return times.empty() ? -1 : times.back();
  }
};
