// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdarg>

#include <dvbsi++/ca_section.h>

#include "base/ids.h"
#include "filter/section_filter.h"
#include "si/siparse.h"
#include "support/database.h"
#include "support/messages.h"
#include "support/support.h"
#include "support/text.h"

namespace si_support {

using support::bytes;
using support::Bytes;
using support::join;
using support::loop12;
using support::messages_at;
using support::prints_only_from;
using support::Texts;
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

[[gnu::format(printf, 1, 2)]] inline std::string formatted(const char* format, ...) {
  va_list values;
  va_start(values, format);
  char text[160];
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}

// --- Sections --------------------------------------------------------------------------------------------------------

// Numbers of one, two and three bytes.
template <typename Number>
Bytes u8(Number value) {
  return {static_cast<uint8_t>(value)};
}
template <typename Number>
Bytes u16(Number value) {
  return support::u16(static_cast<unsigned>(value));
}
inline Bytes u24(unsigned value) {
  return join({u8(value >> 16), u16(value)});
}

// What `bytes_of` makes of each entry, joined.
template <typename Entries, typename Bytes_of>
Bytes each(const Entries& entries, Bytes_of bytes_of) {
  Bytes all;
  for (const auto& entry : entries)
    all = join({all, bytes_of(entry)});
  return all;
}

inline Bytes section(int table_id, int extension, const Bytes& body, uint8_t number = 0, uint8_t last = 0,
                     uint8_t version = 0) {
  return support::long_section(static_cast<uint8_t>(table_id), static_cast<uint16_t>(extension), version, body, number,
                               last);
}

struct Program {
  int number;
  int pid;
};

inline Bytes pat(const std::vector<Program>& programs, uint8_t number = 0, uint8_t last = 0) {
  const auto entry = [](const Program& p) { return join({u16(p.number), u16(0xE000 | p.pid)}); };
  return section(table::PAT, TS_ID, each(programs, entry), number, last);
}

struct Stream {
  uint8_t type;
  int pid;
  Bytes descriptors = {};
};

inline Bytes pmt(int program, int pcr_pid, const std::vector<Stream>& streams, const Bytes& program_loop = {},
                 uint8_t version = 0, uint8_t last = 0) {
  const auto entry = [](const Stream& s) { return join({{s.type}, u16(0xE000 | s.pid), loop12(s.descriptors)}); };
  return section(table::PMT, program, join({u16(0xE000 | pcr_pid), loop12(program_loop), each(streams, entry)}), 0,
                 last, version);
}

inline Bytes cat(const Bytes& loop) {
  return section(table::CAT, 0xFFFF, loop);
}

struct Multiplex {
  int ts_id;
  int orig_network_id;
  Bytes descriptors = {};
};

inline Bytes nit(int network_id, const Bytes& network_loop, const std::vector<Multiplex>& multiplexes,
                 uint8_t number = 0, uint8_t last = 0) {
  const auto entry = [](const Multiplex& m) {
    return join({u16(m.ts_id), u16(m.orig_network_id), loop12(m.descriptors)});
  };
  return section(table::NIT_ACTUAL, network_id, join({loop12(network_loop), loop12(each(multiplexes, entry))}), number,
                 last);
}

// The loop of a service or an event, with the running status and "free CA" before it.
inline Bytes status_loop(unsigned running, unsigned free_ca, const Bytes& loop) {
  return join({u16(running << 13 | free_ca << 12 | loop.size()), loop});
}

struct Service {
  int id;
  Bytes descriptors = {};
  unsigned running = 4;
  unsigned free_ca = 0;
};

inline Bytes sdt(const std::vector<Service>& services) {
  const auto entry = [](const Service& s) {
    return join({u16(s.id), {0xFF}, status_loop(s.running, s.free_ca, s.descriptors)});
  };
  return section(table::SDT_ACTUAL, TS_ID, join({u16(0x20), {0xFF}, each(services, entry)}));
}

inline Bytes tdt(unsigned mjd, unsigned hms_bcd) {
  return join({{table::TDT, 0x70, 5}, u16(mjd), u24(hms_bcd)});
}

inline Bytes tot(unsigned mjd, unsigned hms_bcd, const Bytes& loop) {
  return support::with_crc(
      join({{table::TOT, 0x70}, u8(5 + 2 + loop.size() + 4), u16(mjd), u24(hms_bcd), loop12(loop)}));
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

inline Bytes eit(int service_id, int table_id, const std::vector<Programme_event>& events, uint8_t number = 0,
                 uint8_t last = 0) {
  const auto entry = [](const Programme_event& e) {
    return join(
        {u16(e.id), u16(e.mjd), u24(e.hms_bcd), u24(e.duration_bcd), status_loop(e.running, e.free_ca, e.descriptors)});
  };
  return section(table_id, service_id,
                 join({u16(TS_ID), u16(0x20), {last, table::EIT_SCHEDULE_LAST}, each(events, entry)}), number, last);
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
  return join({u8(text.size()), bytes(text)});
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
  const auto entry = [](const auto& language) { return join({bytes(language.first), {language.second}}); };
  return descriptor(tag::ISO_639_LANGUAGE, each(all, entry));
}

struct Subtitles {
  std::string language;
  uint8_t type;
  unsigned composition = 0;
  unsigned ancillary = 0;
};
inline Bytes subtitling(const std::vector<Subtitles>& all) {
  const auto entry = [](const Subtitles& s) {
    return join({bytes(s.language), {s.type}, u16(s.composition), u16(s.ancillary)});
  };
  return descriptor(tag::SUBTITLING, each(all, entry));
}

inline Bytes network_name(const std::string& name) {
  return descriptor(tag::NETWORK_NAME, bytes(name));
}

// Services with what follows their ids: visibility and number.
inline Bytes lcn(const std::vector<std::pair<int, unsigned>>& entries) {
  const auto entry = [](const auto& e) { return join({u16(e.first), u16(e.second)}); };
  return descriptor(tag::LOGICAL_CHANNEL, each(entries, entry));
}

inline Bytes short_event(const std::string& language, const std::string& name, const std::string& text) {
  return descriptor(tag::SHORT_EVENT, join({bytes(language), sized(name), sized(text)}));
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

struct Parser_bench : support::Database {
  const support::Verbosity quiet{-1};
  Sdbl& db = sdbl();
  Section_filter filter{"/nonexistent/demux0"};
  Siparse parser{&filter, 0, CONN, TYPE, &db};

  Parser_bench() { db.create_temp_tables(0); }

  int scan(const Bytes& section, int pid, SCAN_STATE state = SCAN_PAT) {
    return scan_with(parser, section, pid, state);
  }
  int scan(const Bytes& section) { return scan(section, pid_of(section)); }
  void scan_each(const std::vector<Bytes>& sections) {
    for (const Bytes& section : sections)
      scan(section);
  }
  // What scanning it prints at `level`.
  template <typename... Where>
  std::string scan_at(int level, const Bytes& section, Where... where) {
    return messages_at(level, [&] { scan(section, where...); });
  }

  // A service in the database, of television unless told otherwise.
  void insert(int program, int pmt_pid, int pcr_pid, const char* name = "", int serv_type = 1) {
    db.sql_cache(true, 0,
                 "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, serv_type, serv_name) "
                 "VALUES ($type, $conn, $freq, $pat_prnr, $pmt_pid, $pcr_pid, $serv_type, @name)",
                 TYPE, CONN, FREQ, program, pmt_pid, pcr_pid, serv_type, name);
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

  // One descriptor by hand, as an object of its tag's class: a CAT holds any.
  void parse(const Bytes& raw, int context) {
    const ConditionalAccessSection holder(cat(raw).data());
    ASSERT_EQ(holder.getDescriptors()->size(), 1U);
    parser.parse_descriptor_info(holder.getDescriptors()->front(), context);
  }
  std::string trace_of(const Bytes& raw, int context, int level = 4) {
    return messages_at(level, [&] { parse(raw, context); });
  }
};

class Parser_test : public testing::Test, protected Parser_bench {};

// The line that begins every descriptor's trace.
inline std::string parsing(int tag, int context) {
  return formatted("Parsing descriptor %x, dec %d, oid %d\n", static_cast<unsigned>(tag), tag, context);
}

// Every service as "id/channel table/last_table active/done events".
inline Texts shown(const std::vector<EIT_progress>& progress) {
  Texts all;
  for (const EIT_progress& p : progress)
    all.push_back(formatted("%d/%d %x/%x %d/%d %d", p.service_id, p.channel, static_cast<unsigned>(p.table),
                            static_cast<unsigned>(p.last_table), p.active, p.done, p.events));
  return all;
}

}  // namespace si_support
