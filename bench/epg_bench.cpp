// What the guide costs, measured in one run:
//   - storing events through Sdbl, beside a bare loop of the same prepared statements on the same schema;
//   - the same at 1,000 and at 30,000 stored events;
//   - a section whose events are all known: time (dvbsi_bench has libdvbpsi's for such a section) and queries;
//   - bytes that the process writes for each event.
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/log.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse.h"

namespace {

constexpr int FREQ = 506000000;
constexpr int HALF_HOUR = 1800;
constexpr int CHANNELS = 30;
constexpr int EVENTS = 1000;  // a round
constexpr int ROUNDS = 9;
constexpr int FIRST_START = 1700000000;
const char NAME[] = "An evening of music and talk";
const char TEXT[] = "Guests from four countries play what they grew up with, and say why it still matters to them.";

const char INSERT_EVENT[] =
    "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
    "free_ca, ev_id, pat_prnr) VALUES (?,?,?,?,?,?,?,?,?,?,?,?)";
const char INSERT_TEXT[] =
    "INSERT into epglist_lang (source_oid, lang, ev_name,  ev_desc, ext_desc, ext_list ) VALUES (?,?,?,?,?,?)";

double cpu_s() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

int64_t bytes_written() {
  std::ifstream io("/proc/self/io");
  for (std::string key; io >> key;) {
    int64_t value = 0;
    io >> value;
    if (key == "wchar:")
      return value;
  }
  return 0;
}

class Folder {
 public:
  Folder() {
    name_ = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(name_.data()) == nullptr)
      abort();
  }
  ~Folder() { std::filesystem::remove_all(name_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(const char* name) const { return name_ + "/" + name; }

 private:
  std::string name_;
};

void must(bool good, const char* what) {
  if (good)
    return;
  std::fprintf(stderr, "epg_bench: %s failed\n", what);
  exit(1);
}

// Events come channel by channel, in the order of their start, as a schedule brings them.
struct Slot {
  int channel;
  int start;
};
Slot slot(int n) {
  return {1 + n % CHANNELS, FIRST_START + n / CHANNELS * HALF_HOUR};
}

class Ours {
 public:
  Ours() : sdbl_(folder_.file("dvb.db").c_str()) {}
  void store(int n) {
    const Slot s = slot(n);
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
    const Slot s = slot(n);
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

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void store_ratio() {
  Ours ours;
  Bare bare;
  std::vector<double> ours_s;
  std::vector<double> bare_s;
  for (int round = 0; round < ROUNDS; ++round) {
    ours_s.push_back(round_s(ours, round * EVENTS));
    bare_s.push_back(round_s(bare, round * EVENTS));
  }
  std::printf("store: %.0f events/s of CPU time, bare statements %.0f, ratio %.2f\n", EVENTS / median(ours_s),
              EVENTS / median(bare_s), median(bare_s) / median(ours_s));
}

template <typename Store>
double growth() {
  Store store;
  constexpr int NEAR = 30;  // rounds
  std::vector<double> early;
  std::vector<double> late;
  for (int round = 0; round < NEAR + 3; ++round) {
    const double s = round_s(store, round * EVENTS);
    if (round >= 1 && round < 4)
      early.push_back(s);
    if (round >= NEAR)
      late.push_back(s);
  }
  return median(early) / median(late);
}

void bytes_an_event() {
  Ours ours;
  Bare bare;
  for (int n = 0; n < EVENTS; ++n)
    ours.store(n);
  for (int n = 0; n < EVENTS; ++n)
    bare.store(n);
  int64_t before = bytes_written();
  (void)round_s(ours, EVENTS);
  const int64_t ours_bytes = bytes_written() - before;
  before = bytes_written();
  (void)round_s(bare, EVENTS);
  const int64_t bare_bytes = bytes_written() - before;
  std::printf("bytes: %.0f an event, bare statements %.0f\n", static_cast<double>(ours_bytes) / EVENTS,
              static_cast<double>(bare_bytes) / EVENTS);
}

// --- A section that is known
// -------------------------------------------------------------------------------------------

using Bytes = std::vector<uint8_t>;

void put(Bytes& out, unsigned value, int count) {
  for (int i = count - 1; i >= 0; --i)
    out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void put_text(Bytes& out, const char* text) {
  out.push_back(static_cast<uint8_t>(std::strlen(text)));
  out.insert(out.end(), text, text + std::strlen(text));
}

// Twelve half hours of MJD 60000, a name and a text each.
Bytes schedule_section(unsigned version) {
  Bytes body;
  put(body, 7, 2);
  put(body, 8193, 2);
  put(body, 1, 1);     // segment_last_section_number
  put(body, 0x4E, 1);  // last_table_id
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
  put(section, 0x4E, 1);
  put(section, 0xF000U | static_cast<unsigned>(body.size() + 9), 2);
  put(section, 10, 2);
  put(section, 0xC1U | version << 1, 1);
  put(section, 0, 1);  // section_number
  put(section, 1, 1);  // the last one never comes, so the table goes on
  section.insert(section.end(), body.begin(), body.end());
  put(section, Section_filter::crc32_be(0xFFFFFFFF, section.data(), static_cast<unsigned>(section.size())), 4);
  return section;
}

int queries = 0;

int count_query(unsigned, void*, void*, void*) {
  ++queries;
  return 0;
}

constexpr int REPEATS = 20000;

double ours_known_s() {
  const Folder folder;
  Sdbl sdbl(folder.file("dvb.db").c_str());
  Section_filter filter("/nonexistent/demux0");
  sdbl.sql_cache(true, 0, "INSERT INTO kanalid (freq, pat_prnr, serv_type) VALUES (506000000, 10, 1)");
  Siparse parser(&filter, 0, 0, 0, &sdbl);
  parser.init_cache_list(FREQ, SCAN_EIT);
  parser.start_eit_scan(FREQ, SCAN_EIT);
  Bytes section = schedule_section(0);
  const auto arrive = [&] {
    must(Section_filter::crc32_be(0xFFFFFFFF, section.data(), static_cast<unsigned>(section.size())) == 0, "CRC");
    parser.scan_assembled_section(reinterpret_cast<char*>(section.data()), 18, FREQ, nullptr, SCAN_EIT);
  };
  arrive();
  must(parser.get_eit_stored() == 12, "storing a section");
  sqlite3* conn = sqlite3_db_handle(sdbl.sql_cache(false, 0, "SELECT 1"));
  sqlite3_trace_v2(conn, SQLITE_TRACE_STMT, count_query, nullptr);
  const double start = cpu_s();
  for (int i = 0; i < REPEATS; ++i)
    arrive();
  const double used = cpu_s() - start;
  sqlite3_trace_v2(conn, 0, nullptr, nullptr);
  must(parser.get_eit_stored() == 12, "knowing a section");
  return used;
}

}  // namespace

int main() {
  verbosity_kelvo = -1;
  store_ratio();
  std::printf("growth: rate at 30000 stored events / at 1000: %.2f, bare statements %.2f\n", growth<Ours>(),
              growth<Bare>());
  bytes_an_event();
  const double ours = ours_known_s();
  std::printf("known section of 12 events: %.2f us and %d queries in %d arrivals\n", ours / REPEATS * 1e6, queries,
              REPEATS);
  return 0;
}
