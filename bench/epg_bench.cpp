// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the guide costs, measured in one run, each figure with its mark:
//   - storing events through Sdbl, beside a bare loop of the same prepared statements on the same schema;
//   - the same at 30,000 stored events against 1,000;
//   - a section whose events are all known, beside libdvbpsi decoding it, and the queries it costs;
//   - bytes that the process writes for each event.
// Exit code 1 when one misses its mark. Times are CPU time, the best of several rounds: another program on the machine
// only ever adds to them.
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <dvbpsi/dvbpsi.h>

// These headers of libdvbpsi do not include what they use.
#include <dvbpsi/demux.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/psi.h>

#include "base/ids.h"
#include "base/messages.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "guide_slots.h"
#include "process_figures.h"
#include "si/siparse.h"

namespace {

using process_figures::cpu_s;
using process_figures::Folder;
using process_figures::io;
using process_figures::must;

constexpr int FREQ = 506000000;
constexpr int HALF_HOUR = 1800;
constexpr int CHANNELS = 30;
constexpr int EVENTS = 1000;  // a round
constexpr int ROUNDS = 15;
constexpr int EVENTS_OF_A_SECTION = 6;  // a segment of three hours
constexpr int FIRST_START = 1700000000;
constexpr Guide_slots SLOTS{EVENTS_OF_A_SECTION, CHANNELS, FIRST_START, HALF_HOUR};
const char NAME[] = "An evening of music and talk";
const char TEXT[] = "Guests from four countries play what they grew up with, and say why it still matters to them.";

const char INSERT_EVENT[] =
    "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
    "free_ca, ev_id, pat_prnr) VALUES (?,?,?,?,?,?,?,?,?,?,?,?)";
const char INSERT_TEXT[] =
    "INSERT into epglist_lang (source_oid, lang, ev_name,  ev_desc, ext_desc, ext_list ) VALUES (?,?,?,?,?,?)";

class Ours {
 public:
  Ours() : sdbl_(folder_.file("dvb.db").c_str()) {}
  void store(int n) {
    const Guide_slot s = SLOTS.at(n);
    service_.channel = s.channel;
    const int oid = sdbl_.eit_for_service(0, 0, FREQ, 10, &service_, 0x20260301, 0x180000, 0x003000, s.start, HALF_HOUR,
                                          0, 0, n & 0xFFFF, &content_, &rating_, false, false);
    must(oid > 0, "storing");
    sdbl_.insert_epglist_lang(oid, "est", NAME, TEXT, "", "");
  }

 private:
  Folder folder_;
  Sdbl sdbl_;
  SQL_cache service_{};
  std::string content_ = "1.0.0.0 ";
  std::string rating_ = "0c@EST ";
};

// The files are made by Sdbl; the statements run on a connection set up the same way.
class Bare {
 public:
  Bare() {
    { const Sdbl made(folder_.file("dvb.db").c_str()); }
    must(sqlite3_open(folder_.file("dvb.db").c_str(), &db_) == SQLITE_OK, "opening");
    run("PRAGMA temp_store = MEMORY; PRAGMA journal_mode = OFF; PRAGMA default_cache_size=64; PRAGMA synchronous = OFF");
    run("ATTACH DATABASE '" + folder_.file("dvb_epg.db") + "' AS epg_db");
    run("PRAGMA epg_db.journal_mode = OFF; PRAGMA epg_db.synchronous = OFF");
    must(sqlite3_prepare_v2(db_, INSERT_EVENT, -1, &event_, nullptr) == SQLITE_OK, "preparing");
    must(sqlite3_prepare_v2(db_, INSERT_TEXT, -1, &text_, nullptr) == SQLITE_OK, "preparing");
  }
  ~Bare() {
    sqlite3_finalize(event_);
    sqlite3_finalize(text_);
    sqlite3_close(db_);
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void store(int n) {
    const Guide_slot s = SLOTS.at(n);
    const int numbers[] = {s.channel, 0x20260301, 0x180000, s.start, 0x003000, HALF_HOUR};
    for (int i = 0; i < 6; ++i)
      sqlite3_bind_int(event_, i + 1, numbers[i]);
    sqlite3_bind_text(event_, 7, "1.0.0.0 ", -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(event_, 8, "0c@EST ", -1, SQLITE_TRANSIENT);
    const int rest[] = {0, 0, n & 0xFFFF, 10};
    for (int i = 0; i < 4; ++i)
      sqlite3_bind_int(event_, i + 9, rest[i]);
    must(sqlite3_step(event_) == SQLITE_DONE, "storing");
    sqlite3_reset(event_);
    sqlite3_bind_int(text_, 1, static_cast<int>(sqlite3_last_insert_rowid(db_)));
    const char* const texts[] = {"est", NAME, TEXT, "", ""};
    for (int i = 0; i < 5; ++i)
      sqlite3_bind_text(text_, i + 2, texts[i], -1, SQLITE_TRANSIENT);
    must(sqlite3_step(text_) == SQLITE_DONE, "storing");
    sqlite3_reset(text_);
  }

 private:
  void run(const std::string& sql) {
    must(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "SQL");
  }
  Folder folder_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* event_ = nullptr;
  sqlite3_stmt* text_ = nullptr;
};

template <typename Store>
double round_s(Store& store, int first) {
  const double start = cpu_s();
  for (int n = first; n < first + EVENTS; ++n)
    store.store(n);
  return cpu_s() - start;
}

double best(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

bool all_good = true;

void row(const std::string& what, const std::string& value, const char* mark, bool good) {
  std::printf("%s  %-58s %28s  (%s)\n", good ? "PASS" : "FAIL", what.c_str(), value.c_str(), mark);
  (void)std::fflush(stdout);
  all_good = all_good && good;
}

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
  char out[128];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(out, sizeof out, format, arguments);
  va_end(arguments);
  return out;
}

void store_ratio() {
  std::vector<double> ours_s;
  std::vector<double> bare_s;
  Ours ours;
  Bare bare;
  for (int round = 0; round < ROUNDS; ++round) {
    ours_s.push_back(round_s(ours, round * EVENTS));
    bare_s.push_back(round_s(bare, round * EVENTS));
  }
  const double ratio = best(bare_s) / best(ours_s);
  row("storing, ours : bare statements, events a second",
      text("%.0f : %.0f = %.2f", EVENTS / best(ours_s), EVENTS / best(bare_s), ratio), "at least 0.9", ratio >= 0.9);
}

// The rate at 30,000 stored events against the one at 1,000.
template <typename Store>
double growth() {
  constexpr int FILES = 3;
  constexpr int LATE = 30;
  std::vector<double> early;
  std::vector<double> late;
  for (int file = 0; file < FILES; ++file) {
    Store store;
    for (int round = 0; round < LATE + 3; ++round) {
      const double s = round_s(store, round * EVENTS);
      if (round >= 1 && round < 4)
        early.push_back(s);
      if (round >= LATE)
        late.push_back(s);
    }
  }
  return best(early) / best(late);
}

void growth_ratio() {
  const double ours = growth<Ours>();
  row("rate at 30,000 stored events : at 1,000", text("%.2f (bare statements %.2f)", ours, growth<Bare>()),
      "at least 0.85", ours >= 0.85);
}

template <typename Store>
void bytes_of(const char* who) {
  Store store;
  (void)round_s(store, 0);
  sync();  // what is written again before the system has written it out counts once
  const int64_t handed = io("wchar");
  const int64_t disk = io("write_bytes");
  (void)round_s(store, EVENTS);
  std::printf("      bytes an event, %s: handed to the system %.0f, to the disk %.0f\n", who,
              static_cast<double>(io("wchar") - handed) / EVENTS,
              static_cast<double>(io("write_bytes") - disk) / EVENTS);
}

// --- A section that is known

using Bytes = std::vector<uint8_t>;

void put(Bytes& out, unsigned value, int count) {
  for (int i = count - 1; i >= 0; --i)
    out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void put_text(Bytes& out, const char* text) {
  out.push_back(static_cast<uint8_t>(std::strlen(text)));
  out.insert(out.end(), text, text + std::strlen(text));
}

// Twelve half hours of MJD 60000, a name and a text each. Section 0 of `sections`.
Bytes schedule_section(unsigned table, unsigned version, unsigned sections) {
  Bytes body;
  put(body, 7, 2);
  put(body, 8193, 2);
  put(body, sections - 1, 1);  // segment_last_section_number
  put(body, table, 1);         // last_table_id
  for (unsigned n = 0; n < 12; ++n) {
    Bytes text{'e', 's', 't'};
    put_text(text, NAME);
    put_text(text, TEXT);
    put(body, n + 1, 2);
    put(body, 60000, 2);
    put(body, (n / 2) << 16 | (n % 2 != 0 ? 0x3000 : 0), 3);
    put(body, 0x003000, 3);
    put(body, static_cast<unsigned>(text.size() + 2), 2);
    put(body, 0x4D, 1);
    put(body, static_cast<unsigned>(text.size()), 1);
    body.insert(body.end(), text.begin(), text.end());
  }
  Bytes section;
  put(section, table, 1);
  put(section, 0xF000U | static_cast<unsigned>(body.size() + 9), 2);
  put(section, 10, 2);
  put(section, 0xC1U | version << 1, 1);
  put(section, 0, 1);  // section_number
  put(section, sections - 1, 1);
  section.insert(section.end(), body.begin(), body.end());
  put(section, Section_filter::crc32_be(0xFFFFFFFF, section.data(), static_cast<unsigned>(section.size())), 4);
  return section;
}

int queries = 0;

int count_query(unsigned, void*, void*, void*) {
  ++queries;
  return 0;
}

constexpr int REPEATS = 2000;  // a round

// Our side: guard, parser, all events known; 30 services are on the list. The demultiplexer has checked the CRC, as it
// does for all sections that the library asks for.
class Known_section {
 public:
  Known_section() {
    for (int service = 0; service < CHANNELS; ++service)
      sdbl_.sql_cache(true, 0, "INSERT INTO kanalid (freq, pat_prnr, serv_type) VALUES ($freq, $prnr, 1)", FREQ,
                      10 + service);
    parser_.init_cache_list(FREQ, SCAN_EIT);
    parser_.start_eit_scan(FREQ, SCAN_EIT);
    arrive();
    must(parser_.get_eit_stored() == 12, "storing a section");
    conn_ = sqlite3_db_handle(sdbl_.sql_cache(false, 0, "SELECT 1"));
  }
  double round_s() {
    parser_.reset_cache_list();  // a service that is waited for too long is given up
    arrive();
    sqlite3_trace_v2(conn_, SQLITE_TRACE_STMT, count_query, nullptr);
    const double start = cpu_s();
    for (int i = 0; i < REPEATS; ++i)
      arrive();
    const double used = cpu_s() - start;
    sqlite3_trace_v2(conn_, 0, nullptr, nullptr);
    must(parser_.get_eit_stored() == 12, "knowing a section");
    return used;
  }

 private:
  void arrive() {
    parser_.scan_assembled_section(reinterpret_cast<char*>(section_.data()), pid::EIT, FREQ, nullptr, SCAN_EIT);
  }

  Folder folder_;
  Sdbl sdbl_{folder_.file("dvb.db").c_str()};
  Section_filter filter_{"/nonexistent/demux0"};
  Siparse parser_{&filter_, 0, 0, 0, &sdbl_};
  Bytes section_ =
      schedule_section(table::EIT_PRESENT_FOLLOWING, 0, 2);  // the last one never comes, so the table goes on
  sqlite3* conn_ = nullptr;
};

// libdvbpsi takes packets and remembers versions, so it gets two versions in turn, each twice: its decoder answers when
// a section comes the second time. Both times count as a section, in its favour.
class Decoded_section {
 public:
  Decoded_section() {
    dvbpsi_AttachDemux(handle_, new_table, this);
    for (unsigned version = 0; version < 2; ++version)
      packets_[version] = packets_of(schedule_section(table::EIT_SCHEDULE_FIRST, version, 1));
  }
  ~Decoded_section() {
    dvbpsi_DetachDemux(handle_);
    dvbpsi_delete(handle_);
  }
  Decoded_section(const Decoded_section&) = delete;
  Decoded_section& operator=(const Decoded_section&) = delete;

  double round_s() {
    const int events_before = events_;
    const double start = cpu_s();
    for (int i = 0; i < REPEATS; ++i)
      arrive(packets_[i / 2 % 2]);
    const double used = cpu_s() - start;
    must(events_ - events_before == REPEATS / 2 * 12, "decoding a section");
    return used;
  }

 private:
  static constexpr size_t PACKET = 188;

  static Bytes packets_of(const Bytes& section) {
    Bytes rest{0};  // pointer_field
    rest.insert(rest.end(), section.begin(), section.end());
    Bytes out;
    for (size_t at = 0; at < rest.size(); at += PACKET - 4) {
      const size_t end = std::min(at + PACKET - 4, rest.size());
      out.insert(out.end(), {0x47, static_cast<uint8_t>(at == 0 ? 0x40 : 0), pid::EIT, 0x10});
      for (size_t i = at; i < at + PACKET - 4; ++i)
        out.push_back(i < end ? rest[i] : 0xFF);
    }
    return out;
  }
  static void new_table(dvbpsi_t* handle, uint8_t table, uint16_t service, void* self) {
    if (table == table::EIT_SCHEDULE_FIRST)
      dvbpsi_eit_attach(handle, table, service, got_table, self);
  }
  static void got_table(void* self, dvbpsi_eit_t* eit) {
    for (const dvbpsi_eit_event_t* event = eit->p_first_event; event != nullptr; event = event->p_next)
      ++static_cast<Decoded_section*>(self)->events_;
    dvbpsi_eit_delete(eit);
  }
  void arrive(Bytes& packets) {
    for (size_t at = 0; at < packets.size(); at += PACKET) {
      packets[at + 3] = static_cast<uint8_t>(0x10 | (counter_++ & 0x0F));
      dvbpsi_packet_push(handle_, packets.data() + at);
    }
  }

  dvbpsi_t* handle_ = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
  Bytes packets_[2];
  unsigned counter_ = 0;
  int events_ = 0;
};

void known_section() {
  Known_section ours;
  Decoded_section theirs;
  std::vector<double> ours_s;
  std::vector<double> theirs_s;
  for (int round = 0; round < ROUNDS; ++round) {
    ours_s.push_back(ours.round_s());
    theirs_s.push_back(theirs.round_s());
  }
  const double ratio = best(ours_s) / best(theirs_s);
  row("known section of 12 events, ours : libdvbpsi's decoding",
      text("%.1f : %.1f us = %.2f", best(ours_s) / REPEATS * 1e6, best(theirs_s) / REPEATS * 1e6, ratio), "at most 1",
      ratio <= 1);
  row(text("queries of %d known sections", ROUNDS * REPEATS), text("%d", queries), "at most 0", queries == 0);
}

}  // namespace

int main() {
  verbosity_kelvo = -1;
  store_ratio();
  growth_ratio();
  known_section();
  bytes_of<Ours>("ours");
  bytes_of<Bare>("bare statements");
  return all_good ? 0 : 1;
}
