// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/ids.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

namespace {

using mux_support::hex;
using mux_support::one_service;
using mux_support::Packet;
using mux_support::packets_of;
using mux_support::Section_seen;
using mux_support::sections_of;
using mux_support::stream_of;
using support::Bytes;

// Two services with all kinds of tables and this list of faults; 2 seconds, SDT at 0.4 s, so five SDTs.
Bytes faulty(const std::string& faults) {
  return stream_of(
      R"({"duration": 2, "bit_rate": 1000000, "payload_rate": 0, "transport_stream_id": 1, "original_network_id": 5,
     "intervals": {"sdt_actual": 0.4, "eit_pf_actual": 0.5, "eit_schedule_actual": 0.5, "nit_actual": 0.5, "tdt": 0.5,
                   "tot": 0.5, "sdt_other": 0.5, "nit_other": 0.5},
     "services": [
       {"service_id": 101, "name": "A", "provider": "P", "streams": [{"type": 2, "component_tag": 1}],
        "events": [{"start": "now", "duration": "1h", "name": "E", "text": ")" +
      std::string(200, 't') + R"("}]},
       {"service_id": 102, "name": "B", "provider": "P"}],
     "network": {"name": "N", "transport_streams": [{"transport_stream_id": 1}]},
     "other_networks": [{"network_id": 9, "name": "O"}],
     "other_transport_streams": [{"transport_stream_id": 2, "services": [{"service_id": 900, "name": "O"}]}],
     "cat": {"ca": [{"system_id": 1, "pid": 99}]},
     "faults": [)" +
      faults + "]}");
}

std::vector<Section_seen> sdts(const std::string& faults) {
  return sections_of(faulty(faults), pid::SDT, table::SDT_ACTUAL);
}

size_t wrong_crcs(const std::vector<Section_seen>& sections) {
  return static_cast<size_t>(
      std::count_if(sections.begin(), sections.end(), [](const auto& section) { return !section.crc_right(); }));
}

TEST(MuxFault, none_without_being_asked) {
  const auto sections = sdts("");
  EXPECT_EQ(sections.size(), 5u);
  EXPECT_EQ(wrong_crcs(sections_of(faulty(""))), sections_of(faulty(""), pid::TIME, table::TDT).size())
      << "only the TDT has no CRC";
}

TEST(MuxFault, wrong_crc_hits_its_table_alone) {
  const Bytes stream = faulty(R"({"fault": "wrong_crc", "table": "sdt_actual"})");
  EXPECT_EQ(wrong_crcs(sections_of(stream, pid::SDT, table::SDT_ACTUAL)), 5u);
  EXPECT_EQ(wrong_crcs(sections_of(stream, pid::SDT, table::SDT_OTHER)), 0u);
  EXPECT_EQ(wrong_crcs(sections_of(stream, pid::PAT, table::PAT)), 0u);
  // Apart from the CRC the section is the right one.
  Bytes right = sdts("")[0].bytes;
  right.back() = static_cast<uint8_t>(right.back() ^ 0x55);
  EXPECT_EQ(sections_of(stream, pid::SDT, table::SDT_ACTUAL)[0].bytes, right);
}

TEST(MuxFault, transmissions_can_be_chosen) {
  const auto pattern = [](const std::string& keys) {
    std::string text;
    for (const auto& section : sdts(R"({"fault": "wrong_crc", "table": "sdt_actual")" + keys + "}"))
      text += section.crc_right() ? '.' : 'X';
    return text;
  };
  EXPECT_EQ(pattern(""), "XXXXX");
  EXPECT_EQ(pattern(R"(, "first": 2)"), "XX...");
  EXPECT_EQ(pattern(R"(, "every": 2)"), "X.X.X");
  EXPECT_EQ(pattern(R"(, "from": 1)"), "...XX");
  EXPECT_EQ(pattern(R"(, "from": 0.3, "to": 1)"), ".XX..");
  EXPECT_EQ(pattern(R"(, "section": 1)"), ".....");
  EXPECT_EQ(pattern(R"(, "section": 0)"), "XXXXX");
}

TEST(MuxFault, section_of_a_schedule_is_chosen_by_its_broadcast_number) {
  // The event is in the seventh segment of three hours, which begins with section 48.
  const auto numbers = [](const std::string& section) {
    std::set<unsigned> seen;
    for (const auto& eit : sections_of(
             faulty(R"({"fault": "drop", "table": "eit_schedule_actual", "section": )" + section + "}"), 18, 0x50))
      seen.insert(eit.number());
    return seen;
  };
  EXPECT_EQ(numbers("48"), (std::set<unsigned>{0, 8, 16, 24, 32, 40}));
  EXPECT_EQ(numbers("6"), (std::set<unsigned>{0, 8, 16, 24, 32, 40, 48}));
}

TEST(MuxFault, one_service_network_or_stream_can_be_chosen) {
  const Bytes pmt = faulty(R"({"fault": "wrong_crc", "table": "pmt", "service_id": 102})");
  EXPECT_EQ(wrong_crcs(sections_of(pmt, 256, table::PMT)), 0u);
  EXPECT_EQ(wrong_crcs(sections_of(pmt, 272, table::PMT)), sections_of(pmt, 272, table::PMT).size());
  const Bytes network = faulty(R"({"fault": "drop", "tables": ["nit_actual", "nit_other"], "network_id": 9})");
  EXPECT_EQ(sections_of(network, pid::NIT, table::NIT_ACTUAL).size(), 4u);
  EXPECT_EQ(sections_of(network, pid::NIT, table::NIT_OTHER).size(), 0u);
  const Bytes other = faulty(R"({"fault": "drop", "tables": ["sdt_actual", "sdt_other"], "transport_stream_id": 2})");
  EXPECT_EQ(sections_of(other, pid::SDT, table::SDT_ACTUAL).size(), 5u);
  EXPECT_EQ(sections_of(other, pid::SDT, table::SDT_OTHER).size(), 0u);
}

TEST(MuxFault, missing_tables_are_not_there_and_the_rest_is) {
  const Bytes stream = faulty(R"({"fault": "missing", "tables": ["pat", "tdt", "eit"]})");
  std::set<unsigned> table_ids;
  for (const auto& section : sections_of(stream))
    table_ids.insert(section.table_id());
  EXPECT_EQ(table_ids, (std::set<unsigned>{table::CAT, table::PMT, table::NIT_ACTUAL, table::NIT_OTHER,
                                           table::SDT_ACTUAL, table::SDT_OTHER, table::TOT}));
  EXPECT_EQ(sections_of(faulty(R"({"fault": "missing", "table": "all"})")).size(), 0u);
}

TEST(MuxFault, silence_begins_at_its_time) {
  const auto sections = sdts(R"({"fault": "silence", "table": "sdt_actual", "from": 0.7})");
  EXPECT_EQ(sections.size(), 2u);
  EXPECT_LT(static_cast<double>(sections.back().packet) * 1504 / 1000000, 0.7);
}

TEST(MuxFault, cut_sections_end_too_early) {
  const Bytes stream = faulty(R"({"fault": "cut", "table": "sdt_actual", "bytes": 20})");
  size_t starts = 0;
  for (const Packet& packet : packets_of(stream)) {
    if (packet.pid != pid::SDT || !packet.start || packet.payload[1] != table::SDT_ACTUAL)
      continue;
    ++starts;
    EXPECT_EQ(Bytes(packet.payload.begin() + 1 + 20, packet.payload.end()), Bytes(163, 0xFF));
  }
  EXPECT_EQ(starts, 5u);
  const Bytes event = faulty(R"({"fault": "cut", "table": "eit_pf_actual", "section": 0, "bytes": 100})");
  for (const auto& section : sections_of(event, pid::EIT, table::EIT_PRESENT_FOLLOWING))
    EXPECT_EQ(section.number(), 1u) << "the present event needs two packets and gets one";
}

TEST(MuxFault, wrong_section_length) {
  const Bytes right = sdts("")[0].bytes;
  const auto longer = sdts(R"({"fault": "wrong_section_length", "table": "sdt_actual", "change": 5})");
  ASSERT_EQ(longer.size(), 5u);
  EXPECT_EQ(longer[0].bytes.size(), right.size() + 5);
  EXPECT_FALSE(longer[0].crc_right());
  EXPECT_EQ(longer[0].bytes[2], right[2] + 5);
  EXPECT_EQ(Bytes(longer[0].bytes.begin() + 3, longer[0].bytes.begin() + static_cast<std::ptrdiff_t>(right.size())),
            Bytes(right.begin() + 3, right.end()));
  const auto shorter =
      sdts(R"({"fault": "wrong_section_length", "table": "sdt_actual", "change": -5, "crc": "right"})");
  ASSERT_EQ(shorter.size(), 5u);
  EXPECT_EQ(shorter[0].bytes.size(), right.size() - 5);
  EXPECT_TRUE(shorter[0].crc_right());
}

// The two length bytes at `at` of the first section of a table, with and without the fault.
void expect_loop(uint16_t pid, unsigned table_id, const std::string& table, const std::string& loop, size_t at) {
  const auto wrong = sections_of(faulty(R"({"fault": "wrong_loop_length", "table": ")" + table + R"(", "loop": ")" +
                                        loop + R"(", "change": 300})"),
                                 pid, table_id);
  const auto right = sections_of(faulty(""), pid, table_id);
  ASSERT_FALSE(wrong.empty()) << table;
  ASSERT_EQ(wrong.size(), right.size()) << table;
  const auto length = [&](const Section_seen& section) {
    return (section.bytes[at] & 15) << 8 | section.bytes[at + 1];
  };
  EXPECT_EQ(length(wrong[0]), length(right[0]) + 300) << table << " " << loop;
  EXPECT_TRUE(wrong[0].crc_right());
  Bytes repaired = wrong[0].bytes;
  repaired[at] = right[0].bytes[at];
  repaired[at + 1] = right[0].bytes[at + 1];
  repaired.resize(repaired.size() - 4);
  EXPECT_EQ(repaired, Bytes(right[0].bytes.begin(), right[0].bytes.end() - 4)) << "nothing else changes";
}

TEST(MuxFault, wrong_loop_length) {
  expect_loop(256, table::PMT, "pmt", "first", 10);
  expect_loop(256, table::PMT, "pmt", "inner", 15);
  expect_loop(pid::NIT, table::NIT_ACTUAL, "nit_actual", "first", 8);
  expect_loop(pid::NIT, table::NIT_ACTUAL, "nit_actual", "inner", 10 + 3 + 2 + 4);
  expect_loop(pid::NIT, table::NIT_OTHER, "nit_other", "first", 8);
  expect_loop(pid::SDT, table::SDT_ACTUAL, "sdt_actual", "first", 14);
  expect_loop(pid::EIT, table::EIT_PRESENT_FOLLOWING, "eit_pf_actual", "first", 24);
  const auto stale = sdts(R"({"fault": "wrong_loop_length", "table": "sdt_actual", "crc": "stale"})");
  EXPECT_EQ(wrong_crcs(stale), 5u);
}

TEST(MuxFault, wrong_descriptor_length) {
  const auto length = [](const std::string& table, uint16_t pid, unsigned table_id, size_t at) {
    const auto sections = sections_of(
        faulty(R"({"fault": "wrong_loop_length", "table": ")" + table + R"(", "loop": "descriptor", "change": 3})"),
        pid, table_id);
    EXPECT_TRUE(sections.at(0).crc_right());
    return sections.at(0).bytes.at(at) - sections_of(faulty(""), pid, table_id).at(0).bytes.at(at);
  };
  EXPECT_EQ(length("sdt_actual", pid::SDT, table::SDT_ACTUAL, 17), 3);
  EXPECT_EQ(length("cat", pid::CAT, table::CAT, 9), 3);
  EXPECT_EQ(length("pmt", 256, table::PMT, 18), 3);
  EXPECT_EQ(length("eit_pf_actual", pid::EIT, table::EIT_PRESENT_FOLLOWING, 27), 3);
}

TEST(MuxFault, wrong_version_and_current_next) {
  for (const auto& section : sdts(R"({"fault": "wrong_version", "table": "sdt_actual", "version": 21})")) {
    EXPECT_EQ(section.version(), 21u);
    EXPECT_EQ(section.bytes[5] & 1, 1);
    EXPECT_TRUE(section.crc_right());
  }
  for (const auto& section : sdts(R"({"fault": "current_next_0", "table": "sdt_actual"})")) {
    EXPECT_EQ(section.bytes[5], 0xC0);
    EXPECT_TRUE(section.crc_right());
  }
  // The time tables have neither; they stay as they are.
  const Bytes stream = faulty(R"({"fault": "current_next_0", "table": "all"})");
  EXPECT_EQ(sections_of(stream, pid::TIME, table::TOT)[0].bytes,
            sections_of(faulty(""), pid::TIME, table::TOT)[0].bytes);
}

TEST(MuxFault, wrong_bytes) {
  const auto sections = sdts(R"({"fault": "wrong_bytes", "table": "sdt_actual", "offset": 8, "hex": "abcd"})");
  ASSERT_EQ(sections.size(), 5u);
  EXPECT_EQ(hex(Bytes(sections[0].bytes.begin() + 8, sections[0].bytes.begin() + 11)), "abcdff");
  EXPECT_TRUE(sections[0].crc_right());
  EXPECT_EQ(
      wrong_crcs(sdts(R"({"fault": "wrong_bytes", "table": "sdt_actual", "offset": 8, "hex": "ab", "crc": "stale"})")),
      5u);
}

TEST(MuxFault, other_pid) {
  const Bytes stream = faulty(R"({"fault": "other_pid", "table": "sdt_actual", "pid": 3000})");
  EXPECT_EQ(sections_of(stream, pid::SDT, table::SDT_ACTUAL).size(), 0u);
  const auto moved = sections_of(stream, 3000, table::SDT_ACTUAL);
  ASSERT_EQ(moved.size(), 5u);
  EXPECT_EQ(moved[0].bytes, sdts("")[0].bytes);
}

TEST(MuxFault, duplicate_section) {
  const auto sections = sdts(R"({"fault": "duplicate", "table": "sdt_actual", "first": 1})");
  ASSERT_EQ(sections.size(), 6u);
  EXPECT_EQ(sections[0].bytes, sections[1].bytes);
  EXPECT_EQ(wrong_crcs(sections), 0u);
}

// Continuity counter steps of a PID, the first packet left out.
std::vector<int> steps(const Bytes& stream, uint16_t pid) {
  std::vector<int> result;
  int last = -1;
  for (const Packet& packet : packets_of(stream)) {
    if (packet.pid != pid || !packet.has_payload)
      continue;
    if (last >= 0)
      result.push_back((packet.counter - last) & 15);
    last = packet.counter;
  }
  return result;
}

TEST(MuxFault, duplicate_packet_repeats_the_counter) {
  const Bytes stream = faulty(R"({"fault": "duplicate_packet", "table": "sdt_actual", "first": 1})");
  const auto all = steps(stream, pid::SDT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 0), 1);
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), 1)), all.size() - 1);
  EXPECT_EQ(sections_of(stream, pid::SDT, table::SDT_ACTUAL).size(), 5u) << "a duplicate is no second section";
  const auto packets = packets_of(stream);
  for (size_t i = 1; i < packets.size(); ++i)
    if (packets[i].pid == pid::SDT && packets[i - 1].pid == pid::SDT && packets[i].counter == packets[i - 1].counter) {
      EXPECT_EQ(packets[i].payload, packets[i - 1].payload);
    }
}

TEST(MuxFault, discontinuity_skips_counter_values) {
  const auto all = steps(
      faulty(R"({"fault": "discontinuity", "table": "sdt_actual", "from": 0.3, "to": 0.9, "skip": 5})"), pid::SDT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 6), 2);
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), 1)), all.size() - 2);
}

TEST(MuxFault, lost_packet_leaves_a_gap_and_breaks_its_section) {
  const Bytes stream =
      faulty(R"({"fault": "lose_packet", "table": "eit_pf_actual", "section": 0, "packet": 1, "first": 1})");
  const auto all = steps(stream, pid::EIT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 2), 1);
  EXPECT_EQ(sections_of(faulty(""), pid::EIT, table::EIT_PRESENT_FOLLOWING).size(), 8u);
  EXPECT_EQ(sections_of(stream, pid::EIT, table::EIT_PRESENT_FOLLOWING).size(), 7u);
}

TEST(MuxFault, transport_error_marks_the_packets) {
  const Bytes stream = faulty(R"({"fault": "transport_error", "table": "sdt_actual", "first": 2})");
  size_t marked = 0;
  for (const Packet& packet : packets_of(stream)) {
    marked += packet.transport_error ? 1 : 0;
    EXPECT_TRUE(!packet.transport_error || packet.pid == pid::SDT);
  }
  EXPECT_EQ(marked, 2u);
  EXPECT_EQ(sections_of(stream, pid::SDT, table::SDT_ACTUAL).size(), 3u);
}

TEST(MuxFault, faults_add_up) {
  const auto sections = sdts(R"({"fault": "wrong_version", "table": "sdt_actual", "version": 3},
                                {"fault": "wrong_crc", "table": "sdt_actual", "first": 1})");
  ASSERT_EQ(sections.size(), 5u);
  EXPECT_EQ(sections[0].version(), 3u);
  EXPECT_EQ(wrong_crcs(sections), 1u);
  EXPECT_FALSE(sections[0].crc_right());
}

}  // namespace
