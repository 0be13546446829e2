// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/ids.h"
#include "db/db_support.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/siparse.h"
#include "support/messages.h"
#include "support/support.h"
#include "support/text.h"

namespace si_support {

using support::bytes;
using support::Bytes;
using support::join;
using support::loop12;
using support::Texts;
using support::u16;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

inline constexpr int FREQ = 506000000;
inline constexpr int CONN = 3;
inline constexpr int TYPE = 1;
inline constexpr int TS_ID = 0x1001;

// What `action` prints at `level`.
template <typename Action>
std::string at_level(int level, Action&& action) {
  return support::messages_at(level, std::forward<Action>(action));
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
  char text[160];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Whether each of the parts stands first behind where the one before does.
inline bool in_order(const std::string& text, const std::vector<std::string>& parts) {
  std::vector<size_t> places;
  for (const std::string& part : parts)
    places.push_back(text.find(part));
  return places.back() != std::string::npos && std::is_sorted(places.begin(), places.end(), std::less_equal<>());
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
  return support::long_section(table::PAT, TS_ID, 0, body, number, last, current);
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
  return support::long_section(table::PMT, static_cast<uint16_t>(program), version, body, 0, last);
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
  return support::long_section(table::NIT_ACTUAL, static_cast<uint16_t>(network_id), 0,
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
  return support::long_section(table::SDT_ACTUAL, TS_ID, 0, body);
}

// Sets a byte and makes the CRC right again.
inline Bytes with_byte(Bytes section, size_t at, uint8_t value) {
  section[at] = value;
  section.resize(section.size() - 4);
  return support::with_crc(section);
}

// The same, to be current only later.
inline Bytes next_of(const Bytes& section) {
  return with_byte(section, 5, section[5] & 0xFE);
}

// --- Descriptors -----------------------------------------------------------------------------------------------------

inline Bytes descriptor(int tag, const Bytes& body) {
  return support::descriptor(static_cast<uint8_t>(tag), body);
}

inline Bytes sized(const std::string& text) {
  return join({{static_cast<uint8_t>(text.size())}, bytes(text)});
}

inline Bytes service_descriptor(uint8_t type, const std::string& provider, const std::string& name) {
  return descriptor(tag::SERVICE, join({{type}, sized(provider), sized(name)}));
}

// In one language, or more when joined.
inline Bytes names_in(const std::string& language, const std::string& provider, const std::string& name) {
  return join({bytes(language), sized(provider), sized(name)});
}
inline Bytes service_names(const Bytes& names) {
  return descriptor(tag::MULTILINGUAL_SERVICE_NAME, names);
}

inline Bytes ca(unsigned system, unsigned pid) {
  return descriptor(tag::CA, join({u16(system), u16(0xE000 | pid)}));
}

inline Bytes languages(const std::vector<std::pair<std::string, uint8_t>>& all) {
  Bytes body;
  for (const auto& [language, type] : all)
    body = join({body, bytes(language), {type}});
  return descriptor(tag::ISO_639_LANGUAGE, body);
}

struct Subtitles {
  std::string language;
  uint8_t type;
  unsigned composition = 0;
  unsigned ancillary = 0;
};
inline Bytes subtitling(const std::vector<Subtitles>& all) {
  Bytes body;
  for (const Subtitles& s : all)
    body = join({body, bytes(s.language), {s.type}, u16(s.composition), u16(s.ancillary)});
  return descriptor(tag::SUBTITLING, body);
}

inline Bytes network_name(const std::string& name) {
  return descriptor(tag::NETWORK_NAME, bytes(name));
}

// Services with what follows their ids: visibility and number.
inline Bytes lcn(const std::vector<std::pair<int, unsigned>>& entries) {
  Bytes body;
  for (const auto& [service, number] : entries)
    body = join({body, u16(static_cast<unsigned>(service)), u16(number)});
  return descriptor(tag::LOGICAL_CHANNEL, body);
}

inline Bytes short_event(const std::string& language, const std::string& name, const std::string& text) {
  return descriptor(tag::SHORT_EVENT, join({bytes(language), sized(name), sized(text)}));
}

// --- Tables of the time and the guide --------------------------------------------------------------------------------

inline Bytes tdt(unsigned mjd, unsigned hms_bcd) {
  return join({{table::TDT, 0x70, 0x05}, u16(mjd), {static_cast<uint8_t>(hms_bcd >> 16)}, u16(hms_bcd & 0xFFFF)});
}

inline Bytes tot(unsigned mjd, unsigned hms_bcd, const Bytes& descriptors) {
  const auto length = static_cast<uint8_t>(5 + 2 + descriptors.size() + 4);
  return support::with_crc(join({{table::TOT, 0x70, length},
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

// --- The parser on an empty database ---------------------------------------------------------------------------------

using Filter = std::pair<int, int>;  // PID and table id

inline const Filter PAT{pid::PAT, table::PAT}, CAT{pid::CAT, table::CAT}, NIT{pid::NIT, table::NIT_ACTUAL},
    SDT{pid::SDT, table::SDT_ACTUAL}, PRESENT{pid::EIT, table::EIT_PRESENT_FOLLOWING}, TDT{pid::TIME, table::TDT},
    TOT{pid::TIME, table::TOT};

inline Filter pmt_on(int pid) {
  return {pid, table::PMT};
}

// Where a table belongs; 0x100 for PMTs.
inline int pid_of(const Bytes& section) {
  const int id = section.empty() ? 0 : section[0];
  return id < table::PMT                     ? id
         : id == table::PMT                  ? 0x100
         : id < table::SDT_ACTUAL            ? pid::NIT
         : id < table::EIT_PRESENT_FOLLOWING ? pid::SDT
         : id < table::TDT                   ? pid::EIT
                                             : pid::TIME;
}

// The section stands alone in a block of its own size, so that a memory checker sees every read outside.
inline int scan_with(Siparse& parser, const Bytes& section, int pid, SCAN_STATE state = SCAN_PAT) {
  std::vector<char> block(section.begin(), section.end());
  return parser.scan_assembled_section(block.data(), pid, FREQ, nullptr, state);
}

class Parser_test : public testing::Test {
 protected:
  const support::Verbosity quiet{-1};
  support::Temp_dir dir;
  Sdbl db{dir.file("dvb.db").c_str()};
  Section_filter filter{"/nonexistent/demux0"};
  Siparse parser{&filter, 0, CONN, TYPE, &db};

  Parser_test() { db.create_temp_tables(0); }

  int scan(const Bytes& section, int pid, SCAN_STATE state = SCAN_PAT) {
    return scan_with(parser, section, pid, state);
  }
  int scan(const Bytes& section) { return scan(section, pid_of(section)); }
  // What scanning it prints at `level`.
  template <typename... Where>
  std::string scan_at(int level, const Bytes& section, Where... where) {
    return at_level(level, [&] { scan(section, where...); });
  }

  void open(const Filter& f) { filter.addfilter(f.first, f.second, FREQ); }
  bool is_open(const Filter& f) { return filter.pid_tid_in_list(f.first, f.second) == 1; }
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

  Texts rows(const std::string& sql) { return db_support::rows(db, sql); }
  std::string text(const std::string& sql) {
    const Texts all = rows(sql);
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
  return formatted("Parsing descriptor %x, dec %d, oid %d\n", static_cast<unsigned>(tag), tag, context);
}

}  // namespace si_support
