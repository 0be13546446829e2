// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/ids.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

using namespace mux_support;
using testing::MatchesRegex;

// Two services with all kinds of tables and this list of faults; 2 seconds, SDT at 0.4 s, so five SDTs.
static Bytes faulty(const std::string& faults) {
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

// One fault of the SDT with these further keys.
static std::string of_sdt(const std::string& fault, const std::string& keys = "") {
  return R"({"fault": ")" + fault + R"(", "table": "sdt_actual")" + keys + "}";
}

static std::vector<Section_seen> sdts(const std::string& faults) {
  return sections_of(faulty(faults), pid::SDT, table::SDT_ACTUAL);
}

// A letter for each section of a table: o, or X where its CRC is wrong.
static std::string pattern(const std::vector<Section_seen>& sections) {
  std::string letters;
  for (const Section_seen& section : sections)
    letters += section.crc_right() ? 'o' : 'X';
  return letters;
}

struct Fault_case {
  const char* legend;
  std::string faults;
  const char* pattern;
  uint16_t pid = pid::SDT;
  unsigned table_id = table::SDT_ACTUAL;
};

TEST(Mux_fault, hits_the_sections_that_are_chosen_and_no_others) {
  const std::string other_network = R"({"fault": "drop", "tables": ["nit_actual", "nit_other"], "network_id": 9})";
  const std::string other_stream =
      R"({"fault": "drop", "tables": ["sdt_actual", "sdt_other"], "transport_stream_id": 2})";
  const std::string other_service = R"({"fault": "wrong_crc", "table": "pmt", "service_id": 102})";
  const auto crc = [](const std::string& keys) { return of_sdt("wrong_crc", keys); };
  const Fault_case CASES[] = {
      {"none without being asked", "", "ooooo"},
      {"nor in the guide", "", "o{8}", pid::EIT, table::EIT_PRESENT_FOLLOWING},
      {"all of a table", crc(""), "XXXXX"},
      {"not another on its PID", crc(""), "o+", pid::SDT, table::SDT_OTHER},
      {"nor on another", crc(""), "o+", pid::PAT, table::PAT},
      {"the first two", crc(R"(, "first": 2)"), "XXooo"},
      {"every second", crc(R"(, "every": 2)"), "XoXoX"},
      {"every third", crc(R"(, "every": 3)"), "XooXo"},
      {"from a time on", crc(R"(, "from": 1)"), "oooXX"},
      {"for a time", crc(R"(, "from": 0.3, "to": 1)"), "oXXoo"},
      {"section 1", crc(R"(, "section": 1)"), "ooooo"},
      {"section 0", crc(R"(, "section": 0)"), "XXXXX"},
      {"not the service that is not chosen", other_service, "o+", 256, table::PMT},
      {"the service that is", other_service, "X+", 272, table::PMT},
      {"not the network that is not chosen", other_network, "oooo", pid::NIT, table::NIT_ACTUAL},
      {"the network that is", other_network, "", pid::NIT, table::NIT_OTHER},
      {"not the stream that is not chosen", other_stream, "ooooo"},
      {"the stream that is", other_stream, "", pid::SDT, table::SDT_OTHER},
      {"another PID, gone here", of_sdt("other_pid", R"(, "pid": 3000)"), ""},
      {"and come there", of_sdt("other_pid", R"(, "pid": 3000)"), "ooooo", 3000},
      {"the first one twice", of_sdt("duplicate", R"(, "first": 1)"), "oooooo"},
      {"its packet twice", of_sdt("duplicate_packet", R"(, "first": 1)"), "ooooo"},
      {"errors in its packets", of_sdt("transport_error", R"(, "first": 2)"), "ooo"},
      {"a length without its CRC", of_sdt("wrong_loop_length", R"(, "crc": "stale")"), "XXXXX"},
      {"bytes without their CRC", of_sdt("wrong_bytes", R"(, "offset": 8, "hex": "ab", "crc": "stale")"), "XXXXX"},
      {"two faults", of_sdt("wrong_version", R"(, "version": 3)") + "," + crc(R"(, "first": 1)"), "Xoooo"}};
  for (const Fault_case& c : CASES)
    EXPECT_THAT(pattern(sections_of(faulty(c.faults), c.pid, c.table_id)), MatchesRegex(c.pattern)) << c.legend;
}

TEST(Mux_fault, none_without_being_asked) {
  for (const Section_seen& section : sections_of(faulty("")))
    EXPECT_EQ(section.crc_right(), section.table_id() != table::TDT) << "only the TDT has no CRC";
}

TEST(Mux_fault, wrong_crc_changes_nothing_else) {
  Bytes right = sdts("")[0].bytes;
  right.back() = static_cast<uint8_t>(right.back() ^ 0x55);
  EXPECT_EQ(sdts(of_sdt("wrong_crc"))[0].bytes, right);
}

TEST(Mux_fault, section_of_a_schedule_is_chosen_by_its_broadcast_number) {
  // The event is in the seventh segment of three hours, which begins with section 48.
  const auto numbers = [](const std::string& section) {
    std::set<unsigned> seen;
    for (const auto& eit :
         sections_of(faulty(R"({"fault": "drop", "table": "eit_schedule_actual", "section": )" + section + "}"),
                     pid::EIT, table::EIT_SCHEDULE_FIRST))
      seen.insert(eit.number());
    return seen;
  };
  EXPECT_EQ(numbers("48"), (std::set<unsigned>{0, 8, 16, 24, 32, 40}));
  EXPECT_EQ(numbers("6"), (std::set<unsigned>{0, 8, 16, 24, 32, 40, 48}));
}

TEST(Mux_fault, missing_tables_are_not_there_and_the_rest_is) {
  std::set<unsigned> table_ids;
  for (const auto& section : sections_of(faulty(R"({"fault": "missing", "tables": ["pat", "tdt", "eit"]})")))
    table_ids.insert(section.table_id());
  EXPECT_EQ(table_ids, (std::set<unsigned>{table::CAT, table::PMT, table::NIT_ACTUAL, table::NIT_OTHER,
                                           table::SDT_ACTUAL, table::SDT_OTHER, table::TOT}));
  EXPECT_EQ(sections_of(faulty(R"({"fault": "missing", "table": "all"})")).size(), 0u);
}

TEST(Mux_fault, silence_begins_at_its_time) {
  const auto sections = sdts(of_sdt("silence", R"(, "from": 0.7)"));
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_LT(static_cast<double>(sections.back().packet) * 1504 / 1000000, 0.7);
}

TEST(Mux_fault, cut_sections_end_too_early) {
  size_t starts = 0;
  for (const Packet& packet : packets_of(faulty(of_sdt("cut", R"(, "bytes": 20)")))) {
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

TEST(Mux_fault, wrong_section_length) {
  const Section_seen right = sdts("")[0];
  const size_t size = right.bytes.size();
  const auto longer = sdts(of_sdt("wrong_section_length", R"(, "change": 5)"));
  EXPECT_EQ(pattern(longer), "XXXXX");
  ASSERT_EQ(longer[0].bytes.size(), size + 5);
  EXPECT_EQ(longer[0].bytes[2], right.bytes[2] + 5);
  EXPECT_EQ(longer[0].hex(3, size - 3), right.hex(3, size - 3));
  const auto shorter = sdts(of_sdt("wrong_section_length", R"(, "change": -5, "crc": "right")"));
  EXPECT_EQ(pattern(shorter), "ooooo");
  EXPECT_EQ(shorter[0].bytes.size(), size - 5);
}

// A length inside the first section of a table: where it is, and by how much it is changed.
struct Loop_case {
  const char* table;
  const char* loop;
  uint16_t pid;
  unsigned table_id;
  size_t at;
};

TEST(Mux_fault, wrong_loop_length_changes_nothing_else) {
  const Loop_case CASES[] = {
      {"pmt", "first", 256, table::PMT, 10},
      {"pmt", "inner", 256, table::PMT, 15},
      {"nit_actual", "first", pid::NIT, table::NIT_ACTUAL, 8},
      {"nit_actual", "inner", pid::NIT, table::NIT_ACTUAL, 10 + 3 + 2 + 4},
      {"nit_other", "first", pid::NIT, table::NIT_OTHER, 8},
      {"sdt_actual", "first", pid::SDT, table::SDT_ACTUAL, 14},
      {"eit_pf_actual", "first", pid::EIT, table::EIT_PRESENT_FOLLOWING, 24},
      {"sdt_actual", "descriptor", pid::SDT, table::SDT_ACTUAL, 17},
      {"cat", "descriptor", pid::CAT, table::CAT, 9},
      {"pmt", "descriptor", 256, table::PMT, 18},
      {"eit_pf_actual", "descriptor", pid::EIT, table::EIT_PRESENT_FOLLOWING, 27},
  };
  for (const Loop_case& c : CASES) {
    SCOPED_TRACE(std::string(c.table) + " " + c.loop);
    const bool in_descriptor = std::string(c.loop) == "descriptor";
    const int change = in_descriptor ? 3 : 300;
    const auto wrong =
        sections_of(faulty(R"({"fault": "wrong_loop_length", "table": ")" + std::string(c.table) + R"(", "loop": ")" +
                           c.loop + R"(", "change": )" + std::to_string(change) + "}"),
                    c.pid, c.table_id);
    const auto right = sections_of(faulty(""), c.pid, c.table_id);
    EXPECT_EQ(wrong.size(), right.size());
    EXPECT_TRUE(wrong.at(0).crc_right());
    Bytes expected = right.at(0).bytes;
    const int length =
        (in_descriptor ? expected.at(c.at) : (expected.at(c.at) & 15) << 8 | expected.at(c.at + 1)) + change;
    if (!in_descriptor)
      expected[c.at] = static_cast<uint8_t>((expected[c.at] & 0xF0) | length >> 8);
    expected[in_descriptor ? c.at : c.at + 1] = static_cast<uint8_t>(length);
    expected.resize(expected.size() - 4);
    EXPECT_EQ(Bytes(wrong[0].bytes.begin(), wrong[0].bytes.end() - 4), expected);
  }
}

TEST(Mux_fault, wrong_version_current_next_and_bytes) {
  const struct {
    const char* legend;
    std::string faults;
    size_t at;
    const char* bytes;
  } CASES[] = {{"version 21, current", of_sdt("wrong_version", R"(, "version": 21)"), 5, "eb"},
               {"not current", of_sdt("current_next_0"), 5, "c0"},
               {"bytes", of_sdt("wrong_bytes", R"(, "offset": 8, "hex": "abcd")"), 8, "abcdff"}};

  for (const auto& c : CASES) {
    const auto sections = sdts(c.faults);
    EXPECT_EQ(pattern(sections), "ooooo") << c.legend;
    for (const Section_seen& section : sections)
      EXPECT_EQ(section.hex(c.at, std::string(c.bytes).size() / 2), c.bytes) << c.legend;
  }
  const std::string two = of_sdt("wrong_version", R"(, "version": 3)") + "," + of_sdt("wrong_crc", R"(, "first": 1)");
  EXPECT_EQ(sdts(two)[0].version(), 3u) << "faults add up";
  // The time tables have neither version nor flag; they stay as they are.
  const Bytes stream = faulty(R"({"fault": "current_next_0", "table": "all"})");
  EXPECT_EQ(sections_of(stream, pid::TIME, table::TOT)[0].bytes,
            sections_of(faulty(""), pid::TIME, table::TOT)[0].bytes);
}

TEST(Mux_fault, other_pid_and_duplicate_leave_the_section_as_it_is) {
  const Bytes right = sdts("")[0].bytes;
  EXPECT_EQ(sections_of(faulty(of_sdt("other_pid", R"(, "pid": 3000)")), 3000, table::SDT_ACTUAL)[0].bytes, right);
  const auto twice = sdts(of_sdt("duplicate", R"(, "first": 1)"));
  EXPECT_EQ(twice[0].bytes, twice[1].bytes);
}

// Continuity counter steps of a PID, the first packet left out.
static std::vector<int> steps(const Bytes& stream, uint16_t pid) {
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

TEST(Mux_fault, duplicate_packet_repeats_the_counter) {
  const Bytes stream = faulty(of_sdt("duplicate_packet", R"(, "first": 1)"));
  const auto all = steps(stream, pid::SDT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 0), 1);
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), 1)), all.size() - 1);
  const auto packets = packets_of(stream);
  for (size_t i = 1; i < packets.size(); ++i)
    if (packets[i].pid == pid::SDT && packets[i - 1].pid == pid::SDT && packets[i].counter == packets[i - 1].counter) {
      EXPECT_EQ(packets[i].payload, packets[i - 1].payload);
    }
}

TEST(Mux_fault, discontinuity_skips_counter_values) {
  const auto all = steps(faulty(of_sdt("discontinuity", R"(, "from": 0.3, "to": 0.9, "skip": 5)")), pid::SDT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 6), 2);
  EXPECT_EQ(static_cast<size_t>(std::count(all.begin(), all.end(), 1)), all.size() - 2);
}

TEST(Mux_fault, lost_packet_leaves_a_gap_and_breaks_its_section) {
  const Bytes stream =
      faulty(R"({"fault": "lose_packet", "table": "eit_pf_actual", "section": 0, "packet": 1, "first": 1})");
  const auto all = steps(stream, pid::EIT);
  EXPECT_EQ(std::count(all.begin(), all.end(), 2), 1);
  EXPECT_EQ(sections_of(stream, pid::EIT, table::EIT_PRESENT_FOLLOWING).size(), 7u);
}

TEST(Mux_fault, transport_error_marks_the_packets) {
  size_t marked = 0;
  for (const Packet& packet : packets_of(faulty(of_sdt("transport_error", R"(, "first": 2)")))) {
    marked += packet.transport_error ? 1 : 0;
    EXPECT_TRUE(!packet.transport_error || packet.pid == pid::SDT);
  }
  EXPECT_EQ(marked, 2u);
}
