// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "dvbsi/malformed_cases.h"

#include <cstdio>

#include "dvbsi/read_all.h"
#include "dvbsi/samples.h"

namespace dvbsi_test {

using support::Bytes;
using support::bytes;
using support::descriptor;
using support::join;
using support::long_section;
using support::loop12;
using support::u16;

namespace {

Bytes in_cat(const Bytes& loop) {
  return long_section(0x01, 0xFFFF, 0, loop);
}

Bytes in_tot(const Bytes& loop, unsigned claimed) {
  const size_t length = 5 + 2 + loop.size() + 4;
  return support::with_crc(
      join({{0x73, 0x70, static_cast<uint8_t>(length)}, Bytes(5, 0), u16(0xF000u | claimed), loop}));
}

void add_loops_of_entries(std::vector<Malformed>& cases) {
  const Bytes good = descriptor(0x06, {1});
  for (const uint8_t table_id : Bytes{0x02, 0x40, 0x42, 0x4E}) {
    const std::string table = "table " + std::to_string(table_id) + ", last descriptor of an entry: ";
    for (const auto& [legend, last] :
         std::initializer_list<std::pair<const char*, Bytes>>{{"longer than its loop", {0x52, 5, 1}},
                                                              {"length of 255", {0x52, 255, 1}},
                                                              {"only its tag is there", {0x52}}})
      cases.push_back({table + legend, with_entry_loop(table_id, join({good, last})), Verdict::REFUSED, "[06]"});
  }
  cases.push_back({"a stream's descriptor ends inside the next stream",
                   with_entry_loop(0x02, {0x52, 4, 1}, {3, 0xE1, 0x02, 0xF0, 0x00}), Verdict::REFUSED, "[] []"});
}

void add_outer_loops(std::vector<Malformed>& cases) {
  const Bytes stream{2, 0xE1, 0x01, 0xF0, 0x00};
  const auto pmt = [](const Bytes& rest) { return long_section(0x02, 1, 0, join({u16(0xE100), rest})); };
  const auto parsed = [&cases](const char* legend, const Bytes& section, const char* text) {
    cases.push_back({legend, section, Verdict::PARSED, text});
  };
  parsed("program_info_length passes the PMT", pmt(join({u16(0xF0FF), descriptor(0x06, {1}), stream})), "");
  parsed("a descriptor passes program_info_length", pmt(join({loop12({0x06, 1, 1, 0x06, 9}), stream})), "06");
  parsed("ES_info_length passes the PMT", pmt(join({loop12({}), stream, {2, 0xE1, 0x02, 0xF0, 0x06}, stream})), "[]");
  parsed("ES_info_length passes the PMT, at its end", pmt(join({loop12({}), stream, {2, 0xE1, 0x02, 0xF0, 0x01}})),
         "[]");
  parsed("transport_stream_loop_length passes the NIT",
         long_section(0x40, 1, 0, join({loop12({}), u16(0xF007), {0, 1, 0, 2, 0xF0, 0x00}})), "");
  parsed("transport_descriptors_length passes its loop",
         long_section(0x40, 1, 0, join({loop12({}), loop12({0, 1, 0, 2, 0xF0, 0x05, 0x52, 1, 7})})), "");
  parsed("descriptors_loop_length passes the SDT",
         long_section(0x42, 1, 0, {0, 1, 0xFF, 0, 5, 0xFC, 0xF0, 0x04, 0x52, 1, 7}), "");
  parsed("descriptors_loop_length passes the EIT",
         long_section(0x4E, 1, 0, join({{0, 1, 0, 2, 0, 0x4E}, Bytes(10, 0), {0xF0, 0x04, 0x52, 1, 7}})), "");
  parsed("a descriptor passes the CAT", in_cat({0x06, 1, 1, 0x09, 9, 0, 0}), "06");
  parsed("the loop passes the TOT", in_tot({0x06, 1, 1}, 4), "");
}

void add_endless(std::vector<Malformed>& cases) {
  const auto refused = [&cases](const char* legend, const Bytes& broken, const std::string& kept) {
    const std::string loop = kept + (kept.empty() ? "06" : " 06");
    const Bytes bytes = join({broken, descriptor(0x06, {1})});
    for (const uint8_t table_id : Bytes{0x02, 0x40, 0x42, 0x4E})
      cases.push_back({legend, with_entry_loop(table_id, bytes), Verdict::REFUSED, "[" + loop + "]"});
    cases.push_back({legend, in_cat(bytes), Verdict::REFUSED, loop});
    cases.push_back({legend, in_tot(bytes, static_cast<unsigned>(bytes.size())), Verdict::REFUSED, loop});
    cases.push_back({legend, long_section(0x02, 1, 0, join({u16(0xE100), loop12(bytes)})), Verdict::REFUSED, loop});
    cases.push_back({legend, long_section(0x41, 1, 0, join({loop12(bytes), loop12({})})), Verdict::REFUSED, loop});
  };
  refused("mosaic without a body", descriptor(0x51, {}), "51");
  refused("multilingual component without a body", descriptor(0x5E, {}), "5e");
  refused("content identifier with a reserved location", descriptor(0x76, {0x02}), "76");
  refused("content identifier, second one with a reserved location", descriptor(0x76, {0x04, 1, 'x', 0x03}), "76");
  refused("content identifier, reserved location behind a reference", descriptor(0x76, {0x05, 0, 1, 0x06}), "76");
  refused("extension without a body", descriptor(0x7F, {}), "");
}

void add_inner_lengths(std::vector<Malformed>& cases) {
  const auto skipped = [&cases](const char* legend, const Bytes& broken, const char* kept) {
    cases.push_back({legend, with_entry_loop(0x4E, broken), Verdict::BODY_SKIPPED, std::string("[") + kept + "]"});
  };
  const auto items = [](const Bytes& loop) {
    return descriptor(0x4E, join({{0}, bytes("est"), {static_cast<uint8_t>(loop.size())}, loop, {0}}));
  };
  skipped("item text passes length_of_items", items({1, 'd', 9, 'i'}), "4e(0)");
  skipped("item description passes length_of_items", items({1, 'd', 1, 'i', 9, 'd'}), "4e(1)");
  skipped("no room for the length of the item text", items({0}), "4e(0)");
  skipped("network name passes the descriptor", descriptor(0x5B, {'e', 's', 't', 2, 'x'}), "5b(0)");
  skipped("network name entry cut", descriptor(0x5B, {'e', 's', 't', 0, 'e', 'n'}), "5b(1)");
  skipped("provider name passes the descriptor", descriptor(0x5D, {'e', 's', 't', 9, 'p'}), "5d(0)");
  skipped("service name passes the descriptor", descriptor(0x5D, {'e', 's', 't', 1, 'p', 2, 'n'}), "5d(0)");
  skipped("no length of the service name", descriptor(0x5D, {'e', 's', 't', 1, 'p'}), "5d(0)");
  cases.push_back({"text_length passes the extended event",
                   with_entry_loop(0x4E, descriptor(0x4E, {0, 'e', 's', 't', 0, 1})), Verdict::PARSED, "[]"});
}

// Kinds of which only the tag is used: their inner lengths may point anywhere.
void add_ignored(std::vector<Malformed>& cases) {
  const std::vector<Bytes> kept = {descriptor(0x07, {1}),          descriptor(0x45, {1, 9, 1}),
                                   descriptor(0x51, {0x80, 1}),    descriptor(0x53, {1, 2, 3}),
                                   descriptor(0x5C, {'e', 's'}),   descriptor(0x5E, {1, 'e', 's', 't', 9, 'x'}),
                                   descriptor(0x6C, {0, 1, 2}),    descriptor(0x76, {0x04, 9, 'x'}),
                                   descriptor(0x7F, {0x00, 0x7A}), descriptor(0x7F, {4, 0, 0, 0, 0, 0, 9}),
                                   descriptor(0x76, {0x05, 0x01})};
  for (const Bytes& d : kept) {
    char text[8];
    std::snprintf(text, sizeof text, "[%02x]", unsigned{d[0]});
    cases.push_back({"inner length of an ignored descriptor", with_entry_loop(0x42, d), Verdict::PARSED, text});
  }
  for (const Bytes& d : {descriptor(0x6D, {0, 0, 0, 0, 0, 0, 0, 0, 200}), descriptor(0x6E, {0, 0, 1, 2})})
    cases.push_back({"cut descriptor that is dropped", with_entry_loop(0x42, d), Verdict::PARSED, "[]"});
}

}  // namespace

std::vector<Malformed> malformed_cases() {
  std::vector<Malformed> cases;
  add_loops_of_entries(cases);
  add_outer_loops(cases);
  add_endless(cases);
  add_inner_lengths(cases);
  add_ignored(cases);
  return cases;
}

std::string outline(const uint8_t* section) {
  std::string text;
  bool in_loop = false;
  for (const char c : values(section)) {
    if (c == '<' || c == '>')
      in_loop = c == '<';
    else if (c == '[')
      text += text.empty() ? "[" : " [";
    else if (in_loop || c == ']')
      text += c;
  }
  return text;
}

}  // namespace dvbsi_test
