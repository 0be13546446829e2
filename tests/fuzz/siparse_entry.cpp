// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The whole parser with a database behind it, as the worker drives it. The input is a row of steps, a byte each: a
// section, with the PID that it comes from, the state of the scan and the receiver that reads it; or, from STEPS on,
// what the worker does between sections, in any order.

#include <dlfcn.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "base/messages.h"
#include "base/receiver_profile.h"
#include "db/scan_merger.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "fuzz/entries.h"
#include "si/guide_reader.h"
#include "si/siparse_parts.h"
#include "support/database.h"

namespace {
bool reading_input = false;
}

// Broadcast times never reach the machine's clock, and nothing that is broadcast becomes a command. Between inputs
// libFuzzer has commands of its own.
extern "C" int settimeofday(const timeval*, const struct timezone*) noexcept {
  return 0;
}
extern "C" int system(const char* command) {
  if (reading_input)
    std::abort();
  return reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"))(command);
}

namespace {

constexpr int FREQ = 506000000;
constexpr int PIDS[] = {0, 1, 0x100, 16, 17, 18, 20, 0x1FFF};
constexpr SCAN_STATE STATES[] = {SCAN_PAT, SCAN_PMT, SCAN_EIT, SCAN_NONE};
constexpr unsigned OF_ANY = 0x20;    // read as on any receiver
constexpr unsigned OF_OTHER = 0x40;  // with the other choices of that
constexpr unsigned STEPS = 0x80;

enum Step : unsigned {
  BEGIN_SCAN,
  MERGE,
  SCAN_ENDED,
  START_GUIDE,
  RESET_LIST,
  LIST_AND_PMTS,
  PROGRESS,
  OTHERS_ARE_LATE
};

Receiver_profile other_choices() {
  Receiver_profile profile = Receiver_profile::any_linux();
  profile.other_networks = true;
  profile.other_guides = true;
  profile.set_clock = true;
  profile.country = "EST";
  profile.charset = "ISO-8859-2";
  return profile;
}

class Receiver {
 public:
  explicit Receiver(const Receiver_profile& profile) {
    verbosity_kelvo = -1;
    const char* const fewer_system_calls = "PRAGMA locking_mode = EXCLUSIVE";
    (void)sqlite3_exec(support::conn_of(db_), fewer_system_calls, nullptr, nullptr, nullptr);
    db_.create_temp_tables(0);
    parser_.parts().read_as(profile);
    merger_ = sdbl::make_scan_merger(db_, profile.refresh);
    // No network's: a zone would be made and installed.
    db_.set_preferred_provider("no network has this name, however hard it tries");
  }

  void begin() {
    sqlite3* const conn = support::conn_of(db_);
    if (sqlite3_total_changes(conn) != changes_) {
      for (const char* schema : {"main", "epg_db"})
        empty(schema);
      // One television service, so that PMTs are refreshed and a guide is collected.
      (void)db_.sql_cache(true, 0,
                          "INSERT INTO kanalid (channel, dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, "
                          "serv_type) VALUES (1, 1, 3, 506000000, 1, 256, 257, 1)");
      db_.clear_temp_tables(0);
      changes_ = sqlite3_total_changes(conn);
    }
    filter_.remove_all();
    step(LIST_AND_PMTS);
    step(BEGIN_SCAN);
    step(START_GUIDE);
  }

  void section(std::vector<char>& section, int pid, SCAN_STATE state) {
    (void)parser_.scan_assembled_section(section.data(), pid, FREQ, nullptr, state);
  }

  void step(unsigned what) {
    Siparse::Parts& parts = parser_.parts();
    switch (what) {
      case BEGIN_SCAN:
        parts.begin_multiplex();
        parts.begin_network();
        break;
      case MERGE:
        merge();
        break;
      case SCAN_ENDED:
        parts.guide_reader().scan_ended(FREQ, true);
        break;
      case START_GUIDE:
        (void)parser_.start_eit_scan(FREQ, SCAN_EIT);
        break;
      case RESET_LIST:
        parser_.reset_cache_list();
        break;
      case LIST_AND_PMTS:
        (void)parser_.init_cache_list(FREQ, SCAN_EIT);
        (void)parser_.init_pmt_table_scan_from_database(FREQ);
        break;
      case PROGRESS:
        parser_.get_eit_progress(&progress_);
        (void)parts.guide_reader().seen_once();
        break;
      default:
        parts.end_other_tables();
    }
  }

 private:
  // Some tables are made when something is first stored in them. What stayed there would make the inputs behind it
  // slower and slower.
  void empty(const std::string& schema) {
    const std::string tables = "SELECT name FROM " + schema + ".sqlite_master WHERE type = 'table'";
    for (const std::string& table : support::rows(support::conn_of(db_), tables))
      (void)db_.sql_cache(true, 0, ("DELETE FROM " + schema + "." + table).c_str());
  }

  void merge() {
    std::vector<Channel_change> changes;
    (void)merger_->merge(0, {{Connector{3}, Delivery{1}}, FREQ}, SCAN_PAT, parser_.parts().details(), &changes);
    db_.clear_temp_tables(0);
  }

  support::Temp_dir dir_;
  Sdbl db_{dir_.file("fuzz.db").c_str()};
  Section_filter filter_{"/nonexistent/demux0"};
  Siparse parser_{&filter_, 0, 3, 1, &db_};
  std::unique_ptr<sdbl::Scan_merger> merger_;
  std::vector<EIT_progress> progress_;
  int changes_ = -1;
};

}  // namespace

int fuzz::siparse(const uint8_t* data, size_t size) {
  static Receiver box(Receiver_profile::box());
  static Receiver any(Receiver_profile::any_linux());
  static Receiver other(other_choices());
  bool begun[3] = {};
  reading_input = true;
  const auto receiver = [&](unsigned head) -> Receiver& {
    const size_t which = (head & OF_ANY) == 0 ? 0 : (head & OF_OTHER) == 0 ? 1 : 2;
    Receiver& chosen = which == 0 ? box : which == 1 ? any : other;
    if (!std::exchange(begun[which], true))
      chosen.begin();
    return chosen;
  };
  while (size > 3) {
    const unsigned head = data[0];
    ++data;
    --size;
    if ((head & STEPS) != 0) {
      receiver(head).step(head & 7);
      continue;
    }
    // A section in a block of exactly its size, filled up with zeroes where the input ends early.
    const size_t length = 3 + (static_cast<size_t>(data[1]) << 8 | data[2]) % 4096;
    std::vector<char> section(data, data + std::min(size, length));
    section.resize(length);
    section.shrink_to_fit();
    receiver(head).section(section, PIDS[head & 7], STATES[head >> 3 & 3]);
    data += std::min(size, length);
    size -= std::min(size, length);
  }
  reading_input = false;
  return 0;
}
