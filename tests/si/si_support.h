#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/db_support.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse.h"
#include "support/support.h"
#include "support/verbosity.h"

namespace si_support {

using support::bytes;
using support::Bytes;
using support::descriptor;
using support::join;
using support::loop12;
using support::u16;

inline constexpr int FREQ = 506000000;
inline constexpr int CONN = 3;
inline constexpr int TYPE = 1;
inline constexpr int TS_ID = 0x1001;

// What `action` prints at `level`.
template <typename Action>
std::string at_level(int level, Action&& action) {
  const support::Verbosity verbosity(level);
  return support::stderr_of(action);
}

// --- Sections --------------------------------------------------------------------------------------------------------

struct Program {
  int number;
  int pid;
};

inline Bytes pat(const std::vector<Program>& programs, uint8_t number = 0, uint8_t last = 0, bool current = true) {
  Bytes body;
  for (const Program& p : programs)
    body = join({body, u16(static_cast<unsigned>(p.number)), u16(0xE000u | static_cast<unsigned>(p.pid))});
  return support::long_section(0x00, TS_ID, 0, body, number, last, current);
}

struct Stream {
  uint8_t type;
  int pid;
  Bytes descriptors;
};

inline Bytes pmt(int program, int pcr_pid, const std::vector<Stream>& streams, const Bytes& program_loop = {},
                 uint8_t version = 0, uint8_t last = 0) {
  Bytes body = join({u16(0xE000u | static_cast<unsigned>(pcr_pid)), loop12(program_loop)});
  for (const Stream& s : streams)
    body = join({body, {s.type}, u16(0xE000u | static_cast<unsigned>(s.pid)), loop12(s.descriptors)});
  return support::long_section(0x02, static_cast<uint16_t>(program), version, body, 0, last);
}

struct Multiplex {
  int ts_id;
  int orig_network_id;
  Bytes descriptors;
};

inline Bytes nit(int network_id, const Bytes& network_loop, const std::vector<Multiplex>& multiplexes) {
  Bytes streams;
  for (const Multiplex& m : multiplexes)
    streams = join({streams, u16(static_cast<unsigned>(m.ts_id)), u16(static_cast<unsigned>(m.orig_network_id)),
                    loop12(m.descriptors)});
  return support::long_section(0x40, static_cast<uint16_t>(network_id), 0,
                               join({loop12(network_loop), loop12(streams)}));
}

struct Service {
  int id;
  Bytes descriptors;
  unsigned running = 4;
  unsigned free_ca = 0;
};

inline Bytes sdt(const std::vector<Service>& services, int orig_network_id = 0x20) {
  Bytes body = join({u16(static_cast<unsigned>(orig_network_id)), {0xFF}});
  for (const Service& s : services) {
    const unsigned status = s.running << 13 | s.free_ca << 12 | static_cast<unsigned>(s.descriptors.size());
    body = join({body, u16(static_cast<unsigned>(s.id)), {0xFF}, u16(status), s.descriptors});
  }
  return support::long_section(0x42, TS_ID, 0, body);
}

inline Bytes sized(const std::string& text) {
  return join({{static_cast<uint8_t>(text.size())}, bytes(text)});
}

inline Bytes service_descriptor(uint8_t type, const std::string& provider, const std::string& name) {
  return descriptor(0x48, join({{type}, sized(provider), sized(name)}));
}

inline Bytes tdt(unsigned mjd, unsigned hms_bcd) {
  return join({{0x70, 0x70, 0x05}, u16(mjd), {static_cast<uint8_t>(hms_bcd >> 16)}, u16(hms_bcd & 0xFFFF)});
}

inline Bytes tot(unsigned mjd, unsigned hms_bcd, const Bytes& descriptors) {
  const auto length = static_cast<uint8_t>(5 + 2 + descriptors.size() + 4);
  return support::with_crc(join({{0x73, 0x70, length},
                                 u16(mjd),
                                 {static_cast<uint8_t>(hms_bcd >> 16)},
                                 u16(hms_bcd & 0xFFFF),
                                 loop12(descriptors)}));
}

struct Programme_event {
  int id;
  unsigned hms_bcd;
  unsigned duration_bcd = 0x003000;
  Bytes descriptors = {};
  unsigned running = 0;
  unsigned free_ca = 0;
  unsigned mjd = 60000;  // 2023-02-25
};

inline Bytes u24(unsigned value) {
  return join({{static_cast<uint8_t>(value >> 16)}, u16(value & 0xFFFF)});
}

inline Bytes eit(int service_id, int table_id, const std::vector<Programme_event>& events, uint8_t number = 0,
                 uint8_t last = 0) {
  Bytes body = join({u16(TS_ID), u16(0x20), {last, 0x5F}});
  for (const Programme_event& e : events) {
    const unsigned status = e.running << 13 | e.free_ca << 12 | static_cast<unsigned>(e.descriptors.size());
    body = join({body, u16(static_cast<unsigned>(e.id)), u16(e.mjd), u24(e.hms_bcd), u24(e.duration_bcd), u16(status),
                 e.descriptors});
  }
  return support::long_section(static_cast<uint8_t>(table_id), static_cast<uint16_t>(service_id), 0, body, number,
                               last);
}

// Sets a byte and makes the CRC right again.
inline Bytes with_byte(Bytes section, size_t at, uint8_t value) {
  section[at] = value;
  section.resize(section.size() - 4);
  return support::with_crc(section);
}

// --- The parser on an empty database ---------------------------------------------------------------------------------

using Filter = std::pair<int, int>;  // PID and table id

class Parser_test : public testing::Test {
 protected:
  const support::Verbosity quiet{-1};
  support::Temp_dir dir;
  Sdbl db{dir.file("dvb.db").c_str()};
  Section_filter filter{"/nonexistent/demux0"};
  Siparse parser{&filter, 0, CONN, TYPE, &db};

  Parser_test() { db.create_temp_tables(0); }

  // The section stands alone in a block of its own size, so that a memory checker sees every read outside.
  int scan(const Bytes& section, int pid, SCAN_STATE state = SCAN_PAT) {
    std::vector<char> block(section.begin(), section.end());
    return parser.scan_assembled_section(block.data(), pid, FREQ, nullptr, state);
  }

  std::vector<Filter> filters() {
    std::vector<Filter> all;
    for (const dvb_filter_desc* f : *filter.flist())
      if (f->state != FILTER_FREE)
        all.emplace_back(f->pid, f->filter[0]);
    return all;
  }
  bool all_filters_have_freq() {
    return std::all_of(filter.flist()->begin(), filter.flist()->end(),
                       [](auto* f) { return f->state == FILTER_FREE || f->freq == FREQ; });
  }

  std::vector<std::string> rows(const std::string& sql) { return db_support::rows(db, sql); }
  std::string text(const std::string& sql) {
    const std::vector<std::string> all = rows(sql);
    return all.empty() ? "no row" : all[0];
  }

  // One descriptor by hand, as an object of the class D.
  template <typename D>
  void parse(const Bytes& raw, int context) {
    D d(raw.data());
    ASSERT_TRUE(d.isValid());
    parser.parse_descriptor_info(&d, context);
  }
  template <typename D>
  std::string trace_of(const Bytes& raw, int context, int level = 4) {
    return at_level(level, [&] { parse<D>(raw, context); });
  }
};

// The line that begins every descriptor's trace.
inline std::string parsing(int tag, int context) {
  char line[80];
  std::snprintf(line, sizeof line, "Parsing descriptor %x, dec %d, oid %d\n", static_cast<unsigned>(tag), tag, context);
  return line;
}

}  // namespace si_support
