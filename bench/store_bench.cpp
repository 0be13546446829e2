// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What storing costs, each figure with its mark, measured in one run:
//   - bytes handed to the system for an event, at five events a section, of the guide by table and of the whole guide;
//   - the rate of storing sections against that of storing the same events statement by statement, with the mark for
//     files without a journal;
//   - bytes for the first scan of 24 services, for a rescan that finds them unchanged, and for a purge.
// Every figure of bytes for files without a journal, with a rollback journal and with a WAL; only the first has marks,
// the others are shown. Exit code 1 when one misses its mark. Times are CPU time, the best of several rounds.
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "base/messages.h"
#include "db/guide_section.h"
#include "db/scan_merger.h"
#include "db/sdbl_parts.h"
#include "guide_slots.h"
#include "process_figures.h"

namespace {

using process_figures::cpu_s;
using process_figures::Folder;
using process_figures::io;
using process_figures::must;

constexpr int FREQ = 506000000;
constexpr int HALF_HOUR = 1800;
constexpr int CHANNELS = 30;
constexpr int EVENTS_OF_A_SECTION = 5;
constexpr int EVENTS = 1500;  // a round; whole sections of every channel
constexpr int ROUNDS = 12;
constexpr int SERVICES = 24;
constexpr int STREAMS = 4;
constexpr int DAY_S = 86400;
constexpr double KB = 1024;
const char NAME[] = "An evening of music and talk";
const char TEXT[] = "Guests from four countries play what they grew up with, and say why it still matters to them.";
const char* const JOURNALS[] = {"off", "delete", "wal"};

const int first_start = static_cast<int>(time(nullptr)) + DAY_S;
const Guide_slots slots{EVENTS_OF_A_SECTION, CHANNELS, first_start, HALF_HOUR};

bool all_good = true;

void row(const std::string& what, double value, const char* unit, double mark, bool is_good, const char* relation) {
  std::printf("%s  %-64s %10.1f %-4s (%s %.0f)\n", is_good ? "PASS" : "FAIL", what.c_str(), value, unit, relation,
              mark);
  (void)std::fflush(stdout);
  all_good = all_good && is_good;
}

void at_most(const std::string& what, int64_t bytes, double count, double mark_kb, bool has_mark) {
  const double kb = static_cast<double>(bytes) / KB / count;
  if (has_mark)
    row(what, kb, "KB", mark_kb, kb <= mark_kb, "at most");
  else
    std::printf("      %-64s %10.1f KB\n", what.c_str(), kb);
}

class Database {
 public:
  explicit Database(const std::string& journal) {
    sdbl_->create_temp_tables(0);
    for (const char* schema : {"main", "epg_db"})
      run(std::string("PRAGMA ") + schema + ".journal_mode = " + journal);
  }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  Sdbl& operator*() { return *sdbl_; }
  Sdbl* operator->() { return sdbl_.get(); }
  Sdbl::Parts& parts() { return sdbl_->parts(); }
  void run(const std::string& sql) {
    must(sqlite3_exec(parts().connection.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sql.c_str());
  }

 private:
  const Folder folder_;
  std::unique_ptr<Sdbl> sdbl_ = std::make_unique<Sdbl>(folder_.file("dvb.db").c_str());
};

// --- Events ----------------------------------------------------------------------------------------------------------

class By_statement {
 public:
  explicit By_statement(const char* journal) : db_(journal) {}
  void section(int first) {
    for (int n = first; n < first + EVENTS_OF_A_SECTION; ++n) {
      const Guide_slot s = slots.at(n);
      service_.channel = s.channel;
      const int row = db_->eit_for_service(0, 0, FREQ, 10, &service_, 0x20260301, 0x180000, 0x003000, s.start,
                                           HALF_HOUR, 0, 0, n & 0xFFFF, &content_, &rating_, false, false);
      must(row > 0, "storing");
      db_->insert_epglist_lang(row, "est", NAME, TEXT, "", "");
    }
  }

 private:
  Database db_;
  SQL_cache service_{};
  std::string content_ = "1.0.0.0 ";
  std::string rating_ = "0c@EST ";
};

class By_section {
 public:
  explicit By_section(const char* journal) : db_(journal) {}
  void section(int first) {
    sdbl::Guide_section events(db_.parts().connection, db_.parts().guide);
    for (int n = first; n < first + EVENTS_OF_A_SECTION; ++n) {
      const Guide_slot s = slots.at(n);
      (void)events.store(
          {s.channel, 0x20260301, 0x180000, s.start, 0x003000, HALF_HOUR, content_, rating_, 0, 0, n & 0xFFFF, 10},
          {{"est", NAME, TEXT, "", ""}}, FREQ);
    }
    must(events.end(), "ending a section");
    for (size_t n = 0; n < EVENTS_OF_A_SECTION; ++n)
      must(events.row(n) > 0, "storing");
  }
  Database& db() { return db_; }

 private:
  Database db_;
  std::string content_ = "1.0.0.0 ";
  std::string rating_ = "0c@EST ";
};

// With what the added tables take of most events: components, a rating and a genre, but no items.
class Whole {
 public:
  explicit Whole(const char* journal) : db_(journal) {}
  void section(int first) {
    std::vector<sdbl::Guide_write> writes;
    for (int n = first; n < first + EVENTS_OF_A_SECTION; ++n) {
      const Guide_slot s = slots.at(n);
      sdbl::Guide_write write;
      write.channel = s.channel;
      write.ev_id = n & 0xFFFF;
      write.start = s.start;
      write.duration = HALF_HOUR;
      write.ymd_bcd = 0x20260301;
      write.hms_bcd = 0x180000;
      write.dur_bcd = 0x003000;
      write.content = "1.0.0.0 ";
      write.rating = "0c@EST ";
      write.texts = {{"est", NAME, TEXT, "", "", {}}};
      write.details.components = {{1, 5, 0, 0x0B, "est", ""}, {2, 4, 0, 1, "est", ""}};
      write.details.ratings = {{"EST", 9}};
      write.details.genres = {{1, 0, 0}};
      writes.push_back(write);
    }
    must(db_.parts().guide_events.apply({}, &writes) == sdbl::Guide_events::Applied::DONE, "storing");
  }

 private:
  Database db_;
};

template <typename Store>
double round_s(Store& store, int round) {
  const double start = cpu_s();
  for (int n = round * EVENTS; n < (round + 1) * EVENTS; n += EVENTS_OF_A_SECTION)
    store.section(n);
  return cpu_s() - start;
}

template <typename Store>
void bytes_of_events(const std::string& what, const char* journal, bool has_mark) {
  Store store(journal);
  (void)round_s(store, 0);
  const int64_t before = io("wchar");
  (void)round_s(store, 1);
  at_most(what + ", journal " + journal, io("wchar") - before, EVENTS, 16, has_mark);
}

void rate(const std::string& journal, bool has_mark) {
  By_statement statements(journal.c_str());
  By_section sections(journal.c_str());
  double statements_s = 1e9;
  double sections_s = 1e9;
  for (int round = 0; round < ROUNDS; ++round) {
    statements_s = std::min(statements_s, round_s(statements, round));
    sections_s = std::min(sections_s, round_s(sections, round));
  }
  const double ratio = statements_s / sections_s;
  std::printf("      %-64s %5.0f : %.0f = %.1f\n",
              ("events a second, by section : by statement, journal " + journal).c_str(), EVENTS / sections_s,
              EVENTS / statements_s, ratio);
  if (has_mark)
    row("rate of storing by section : by statement", ratio, "", 4, ratio >= 4, "at least");
}

void purge(const char* journal) {
  By_section guide(journal);
  for (int round = 0; round < 3; ++round)
    (void)round_s(guide, round);
  guide.db().run("UPDATE epglist SET start_epoch = start_epoch - 1000000000 WHERE entry % 3 = 0");
  const int64_t before = io("wchar");
  must(guide.db()->remove_old_entries(DAY_S, false) == EVENTS * 2, "purging");
  at_most(std::string("a purge of 1500 of 4500 events, journal ") + journal, io("wchar") - before, 1, 0, false);
}

// --- Scans -----------------------------------------------------------------------------------------------------------

class Scan {
 public:
  Scan(const char* journal, bool refresh) : db_(journal), merger_(sdbl::make_scan_merger(*db_, refresh)) {}

  // What a scan of the multiplex hands over, and the merge.
  int64_t run() {
    const int64_t before = io("wchar");
    db_->clear_temp_tables(0);
    std::list<PMT_subtxt_lang*> none;
    sdbl::Scan_details details;
    details.original_network_id = 3;
    details.nit_came = details.has_numbers = true;
    for (int program = 1; program <= SERVICES; ++program) {
      const int row = db_->pat_for_network(0, 1, 1, FREQ, program, 7, 0x100 + program);
      (void)db_->pmt_channel_number(0, 1, 1, FREQ, program, 0x1000 + program, SCAN_PAT);
      Programme_streams streams;
      for (int stream = 0; stream < STREAMS; ++stream) {
        const int pid = 0x1000 + program * 8 + stream;
        (void)db_->pmt_for_service(0, row, pid, stream == 0 ? 27 : 3, 0, "", stream == 0 ? "" : "est ", "", 0, 0,
                                   &none);
        streams.streams.push_back({pid,
                                   stream == 0 ? 27 : 3,
                                   stream,
                                   stream == 0 ? "video" : "audio",
                                   stream == 0 ? "H.264" : "MPEG-2",
                                   "",
                                   {{"est", "", 0}}});
      }
      if (has_details_)
        db_.parts().stream_details.found(0, program, streams);
      (void)db_->sdt_for_service(0, 1, 1, FREQ, program, 4, 0);
      (void)db_->modify_table_oid(row, "kanalid_scan_0", "serv_name", "A service of the network");
      (void)db_->modify_table_oid(row, "kanalid_scan_0", "prov_name", "A provider");
      (void)db_->modify_table_oid(row, "kanalid_scan_0", "serv_type", 1);
      (void)db_->modify_lang_table_oid(row, "kanalid_lang_scan_0", "est", "serv_name", "A service of the network");
      details.services.push_back({program, true, true});
      details.numbers.push_back({3, 7, program, program, 65535, true, false, ""});
    }
    (void)db_->nit_for_network(0, 1, 1, FREQ, "network_id", 3);
    (void)db_->nit_for_network(0, 1, 1, FREQ, "orig_network_id", 3);
    (void)db_->nit_network_name(0, 1, 1, FREQ, 3, "A network");
    for (int program = 1; program <= SERVICES; ++program)
      (void)db_->nit_lcn(0, 1, 1, 7, 3, program, program);
    (void)db_->terrestrial_tuner_info(1, 1, FREQ, 0, 2, 0, 2, 2, 0, 1);
    std::vector<Channel_change> changes;
    const sdbl::Merge_end end =
        merger_->merge(0, {Input{Connector{1}, Delivery{1}}, FREQ}, SCAN_PAT, details, &changes);
    must(end.outcome == sdbl::Merge_outcome::DONE, "merging");
    return io("wchar") - before;
  }
  void with_details() { has_details_ = true; }

 private:
  Database db_;
  std::unique_ptr<sdbl::Scan_merger> merger_;
  bool has_details_ = false;
};

void scans(const char* journal, bool refresh) {
  Scan scan(journal, refresh);
  if (refresh)
    scan.with_details();
  const std::string how = std::string(refresh ? ", refreshed with details" : "") + ", journal " + journal;
  const bool has_mark = std::string(journal) == "off";
  at_most("first scan of 24 services" + how, scan.run(), 1, 120, has_mark);
  (void)scan.run();  // confirms the rows
  at_most("unchanged rescan of them" + how, scan.run(), 1, 20, has_mark);
}

}  // namespace

int main() {
  verbosity_kelvo = -1;
  for (const char* journal : {"off", "memory", "delete", "wal"})
    rate(journal, std::string(journal) == "off");
  for (const char* journal : JOURNALS) {
    const bool has_mark = std::string(journal) == "off";
    bytes_of_events<By_section>("bytes an event, by table", journal, has_mark);
    bytes_of_events<Whole>("bytes an event, whole guide", journal, has_mark);
    scans(journal, false);
    scans(journal, true);
    purge(journal);
  }
  bytes_of_events<By_statement>("bytes an event, statement by statement", "off", false);
  return all_good ? 0 : 1;
}
