// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Fuzz entry over the whole parser with a database behind it: the input is one section after the other, each behind a
// byte that says which PID it comes from, in which state of the scan, and whether it is read as on the box or as on any
// receiver. With KELVO_FUZZ a libFuzzer program; otherwise siparse_fuzz_test.cpp runs it over a corpus.

#include <sys/time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/messages.h"
#include "base/receiver_profile.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/dvb_text.h"
#include "si/siparse_parts.h"
#include "support/support.h"

// Broadcast times never reach the machine's clock.
extern "C" int settimeofday(const timeval*, const struct timezone*) noexcept {
  return 0;
}

namespace {

constexpr int FREQ = 506000000;
constexpr int PIDS[] = {0, 1, 0x100, 16, 17, 18, 20, 0x1FFF};
constexpr SCAN_STATE STATES[] = {SCAN_PAT, SCAN_PMT, SCAN_EIT, SCAN_NONE};

struct Receiver {
  support::Temp_dir dir;
  Sdbl db{dir.file("fuzz.db").c_str()};
  Section_filter filter{"/nonexistent/demux0"};
  Siparse parser{&filter, 0, 3, 1, &db};
  Dvb_text text;

  explicit Receiver(const Receiver_profile& profile) {
    verbosity_kelvo = -1;
    db.create_temp_tables(0);
    parser.parts().read_as(profile);
    text.read_as(profile);
    // One television service, so that PMTs are refreshed and a guide is collected.
    db.sql_cache(true, 0,
                 "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, serv_type) VALUES "
                 "(1, 3, $freq, 1, 256, 257, 1)",
                 FREQ);
  }

  void begin(const std::string& bytes) {
    std::string converted = bytes;
    text.convert(&converted);
    filter.remove_all();
    db.clear_temp_tables(0);
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.init_pmt_table_scan_from_database(FREQ);
    parser.start_eit_scan(FREQ, SCAN_EIT);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Receiver box(Receiver_profile::box());
  static Receiver any(Receiver_profile::any_linux());
  const std::string all(reinterpret_cast<const char*>(data), size);
  box.begin(all);
  any.begin(all);
  while (size > 3) {
    const int pid = PIDS[data[0] & 7];
    const SCAN_STATE state = STATES[data[0] >> 3 & 3];
    Receiver& receiver = (data[0] & 0x20) != 0 ? any : box;
    ++data;
    --size;
    // A section in a block of exactly its size, filled up with zeroes where the input ends early.
    const size_t length = 3 + (static_cast<size_t>(data[1]) << 8 | data[2]) % 4096;
    std::vector<char> section(data, data + std::min(size, length));
    section.resize(length);
    section.shrink_to_fit();
    receiver.parser.scan_assembled_section(section.data(), pid, FREQ, nullptr, state);
    data += std::min(size, length);
    size -= std::min(size, length);
  }
  return 0;
}
