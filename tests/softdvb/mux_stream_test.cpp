// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <cmath>

#include "base/ids.h"
#include "softdvb/mux/stream.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

namespace {

using namespace mux_support;
using Lines = std::vector<std::string>;

constexpr double BIT_RATE = 3000000;

double seconds(size_t packets, double bit_rate = BIT_RATE) {
  return static_cast<double>(packets) * 188 * 8 / bit_rate;
}

// A multiplex that has every table, 12 services, two days of schedule.
std::string full_multiplex(const std::string& whole_keys = "") {
  std::string services;
  for (int i = 0; i < 12; ++i)
    services += std::string(i == 0 ? "" : ",") + R"({"service_id": )" + std::to_string(101 + i) +
                R"(, "name": "N", "provider": "P", "lcn": )" + std::to_string(i + 1) +
                R"(, "streams": [{"type": "mpeg2-video"}, {"type": "mpeg2-audio", "languages": ["est"]}],
                   "schedule": {"days": 2, "programmes": [{"duration": "40m", "name": "Programme", "text": "Text"},
                                                          {"duration": "2h", "name": "Film"}]}})";
  const std::string other = R"({"service_id": 900, "name": "O", "provider": "P",
                                "schedule": {"days": 1, "programmes": [{"duration": "2h", "name": "Film"}]}})";
  return R"({"duration": 60, "bit_rate": 3000000, "transport_stream_id": 1, "original_network_id": 5, "services": [)" +
         services + R"(], "other_transport_streams": [{"transport_stream_id": 2, "services": [)" + other +
         R"(]}], "network": {"name": "N", "transport_streams": [{"transport_stream_id": 1}]}, "cat": {},
             "other_networks": [{"network_id": 9, "name": "O"}])" +
         whole_keys + "}";
}

// The longest time between the ends of two transmissions of the same section, played in a loop.
std::map<std::string, double> longest_gaps(const Bytes& stream) {
  std::map<std::string, std::vector<size_t>> ends;
  for (const Section_seen& section : sections_of(stream)) {
    std::string name = std::to_string(section.pid) + " " + section.hex(0, 1);
    if (section.table_id() != table::TDT && section.table_id() != table::TOT)
      name += " " + section.hex(3, 2) + section.hex(6, 1);
    ends[name].push_back(section.packet);
  }
  std::map<std::string, double> gaps;
  for (const auto& [name, packets] : ends) {
    size_t longest = packets.front() + stream.size() / 188 - packets.back();
    for (size_t i = 1; i < packets.size(); ++i)
      longest = std::max(longest, packets[i] - packets[i - 1]);
    gaps[name] = seconds(longest);
  }
  return gaps;
}

// Sections whose names begin with this, and how long they may stay away.
struct Limit {
  const char* sections;
  double seconds;
};

void expect_within(const std::vector<Limit>& limits, const std::map<std::string, double>& gaps) {
  for (const Limit& limit : limits) {
    double longest = 0;
    for (const auto& [name, gap] : gaps)
      if (name.rfind(limit.sections, 0) == 0)
        longest = std::max(longest, gap);
    EXPECT_GT(longest, 0) << "no section " << limit.sections;
    EXPECT_LE(longest, limit.seconds) << limit.sections;
  }
}

// The limits of ETSI TR 101 211, 4.4.
TEST(Mux_stream, default_intervals_keep_the_limits) {
  const auto gaps = longest_gaps(stream_of(full_multiplex()));
  expect_within({{"0 00", 0.1},
                 {"256 02", 0.1},
                 {"272 02", 0.1},
                 {"432 02", 0.1},
                 {"1 01", 0.5},
                 {"16 40", 10},
                 {"16 41", 10},
                 {"17 42", 2},
                 {"17 46", 10},
                 {"18 4e", 2},
                 {"18 4f", 10},
                 {"18 50", 30},
                 {"18 60", 60},
                 {"20 70", 30},
                 {"20 73", 30}},
                gaps);
  // 18:00 is in segment 6; what begins within 24 hours, to segment 13, is the first day.
  for (const auto& [name, gap] : gaps)
    EXPECT_TRUE(name.rfind("18 50", 0) != 0 || std::stoi(name.substr(10), nullptr, 16) >= 14 * 8 || gap <= 10) << name;
}

TEST(Mux_stream, fast_intervals_are_fast) {
  expect_within({{"0 00", 0.025},
                 {"256 02", 0.025},
                 {"16 40", 0.12},
                 {"17 42", 0.12},
                 {"18 4e", 0.12},
                 {"18 50", 1.2},
                 {"20 73", 0.6}},
                longest_gaps(stream_of(full_multiplex(R"(, "fast": true, "duration": 10)"))));
}

TEST(Mux_stream, intervals_can_be_set) {
  const Bytes stream = stream_of(one_service("", R"(, "duration": 10, "intervals": {"pat": 2.5, "sdt_actual": 0.1})"));
  EXPECT_EQ(sections_of(stream, pid::PAT, table::PAT).size(), 4u);
  EXPECT_NEAR(static_cast<double>(sections_of(stream, pid::SDT, table::SDT_ACTUAL).size()), 100, 1);
}

TEST(Mux_stream, has_the_length_and_bit_rate_that_were_asked_for) {
  const Bytes stream = stream_of(full_multiplex());
  EXPECT_EQ(stream.size() % 188, 0u);
  EXPECT_NEAR(seconds(stream.size() / 188), 60, 0.02);
}

TEST(Mux_stream, null_packets_are_plain) {
  const Bytes stream = stream_of(one_service());
  Bytes plain(188, 0xFF);
  std::copy_n(Bytes{0x47, 0x1F, 0xFF, 0x10}.begin(), 4, plain.begin());
  size_t count = 0;
  for (auto at = stream.begin(); at != stream.end(); at += 188) {
    if (at[1] != 0x1F || at[2] != 0xFF)
      continue;
    ++count;
    EXPECT_EQ(Bytes(at, at + 188), plain);
  }
  EXPECT_GT(count, 1000u);
}

TEST(Mux_stream, same_input_gives_the_same_bytes) {
  EXPECT_EQ(stream_of(full_multiplex()), stream_of(full_multiplex()));
  EXPECT_NE(stream_of(full_multiplex()), softdvb_mux::make_stream(full_multiplex(), NOW + 1));
}

TEST(Mux_stream, a_fixed_now_wins_over_the_clock) {
  const std::string json = full_multiplex(R"(, "now": "2026-03-01T18:00:00Z")");
  EXPECT_EQ(softdvb_mux::make_stream(json, 1), stream_of(full_multiplex()));
}

// The packets twice over, as in a loop.
TEST(Mux_stream, counters_go_on_over_the_seam_of_a_loop) {
  Bytes stream = stream_of(full_multiplex(R"(, "duration": 7)"));
  const Bytes once = stream;
  stream.insert(stream.end(), once.begin(), once.end());
  std::map<uint16_t, int> last;
  size_t index = 0;
  for (const Packet& packet : packets_of(stream)) {
    ++index;
    if (packet.pid == pid::LAST)
      continue;
    const auto [before, is_first] = last.try_emplace(packet.pid, packet.counter);
    ASSERT_TRUE(is_first || packet.counter == ((before->second + (packet.has_payload ? 1 : 0)) & 15))
        << "PID " << packet.pid << ", packet " << index;
    before->second = packet.counter;
  }
  EXPECT_EQ(last.size(), 1u + 1 + 12 * 3 + 4) << "PAT, CAT, PMTs and two streams each, NIT, SDT, EIT, time";
}

TEST(Mux_stream, sections_are_whole_at_both_ends) {
  const Bytes stream = stream_of(full_multiplex(R"(, "duration": 7)"));
  // Whatever begins also ends: a table that needs several packets is not cut off at the end.
  std::map<uint16_t, size_t> open;
  for (const Packet& packet : packets_of(stream)) {
    if (packet.pid == pid::LAST || !packet.has_payload || (packet.start && packet.payload[2] == 1))
      continue;
    if (packet.start) {
      EXPECT_EQ(open[packet.pid], 0u);
      const Bytes& p = packet.payload;
      open[packet.pid] = p[1] == 0xFF ? 0 : 3u + ((p[2] & 15u) << 8 | p[3]);
      open[packet.pid] -= std::min<size_t>(open[packet.pid], 183);
    } else {
      ASSERT_GT(open[packet.pid], 0u) << "stray packet on PID " << packet.pid;
      open[packet.pid] -= std::min<size_t>(open[packet.pid], 184);
    }
  }
  for (const auto& [pid, left] : open)
    EXPECT_EQ(left, 0u) << pid;
}

TEST(Mux_stream, pcrs_keep_pace_with_the_bit_rate) {
  const Bytes stream = stream_of(full_multiplex());
  std::map<uint16_t, uint64_t> last;
  std::map<uint16_t, size_t> count;
  size_t index = 0;
  for (const Packet& packet : packets_of(stream)) {
    const size_t here = index++;
    if (!packet.has_pcr)
      continue;
    EXPECT_EQ(packet.discontinuity, ++count[packet.pid] == 1) << "only the first PCR of a PID is marked";
    const double expected = static_cast<double>((here * 188 + 11) * 8) * 27000000 / BIT_RATE;
    ASSERT_NEAR(static_cast<double>(packet.pcr), expected, 1);
    const uint64_t before = last.try_emplace(packet.pid, packet.pcr).first->second;
    EXPECT_LE(static_cast<double>(packet.pcr - before) / 27000000, 0.04);
    last[packet.pid] = packet.pcr;
  }
  EXPECT_EQ(count.size(), 12u);
  for (const auto& [pid, number] : count)
    EXPECT_GT(number, 1500u);
}

TEST(Mux_stream, a_pcr_may_have_a_pid_of_its_own_or_be_missing) {
  const auto pids = [](const char* pcr_pid) {
    std::set<uint16_t> found;
    for (const Packet& packet :
         packets_of(stream_of(one_service(R"(, "streams": [{"type": 2}], "pcr_pid": )" + std::string(pcr_pid)))))
      if (packet.has_pcr)
        found.insert(packet.pid);
    return found;
  };
  EXPECT_EQ(pids("4000"), std::set<uint16_t>{4000});
  EXPECT_EQ(pids("8191"), std::set<uint16_t>{});
}

TEST(Mux_stream, payload_is_whole_pes_packets_at_its_rate) {
  const Bytes stream = stream_of(one_service(
      R"(, "streams": [{"type": "h264", "payload_rate": 30080}, {"type": "latm-aac", "payload_rate": 15040},
                       {"type": "ac3", "payload_rate": 15040}, {"type": "private-sections", "pid": 999}])",
      R"(, "duration": 16)"));
  std::map<uint16_t, size_t> count;
  std::map<uint16_t, std::string> head;
  for (const Packet& packet : packets_of(stream)) {
    if (packet.pid < 257 || packet.pid == pid::LAST || !packet.has_payload)
      continue;
    ++count[packet.pid];
    EXPECT_TRUE(packet.start);
    head[packet.pid] = hex(Bytes(packet.payload.begin(), packet.payload.begin() + 9));
    EXPECT_EQ(packet.payload.size(), 6u + packet.payload[5]) << "PES_packet_length";
  }
  EXPECT_EQ(head, (std::map<uint16_t, std::string>{
                      {257, "000001e000b2800000"}, {258, "000001c000b2800000"}, {259, "000001bd00b2800000"}}));
  EXPECT_NEAR(static_cast<double>(count[257]), 20 * 16, 16);
  EXPECT_NEAR(static_cast<double>(count[258]), 10 * 16, 16);
}

TEST(Mux_stream, a_vanished_service_leaves_every_table) {
  const Bytes stream = stream_of(
      R"({"duration": 10, "bit_rate": 2000000, "transport_stream_id": 1, "original_network_id": 5,
          "version": 31, "services": [
            {"service_id": 101, "name": "A", "provider": "P"},
            {"service_id": 102, "name": "B", "provider": "P", "vanishes_at": 5, "streams": [{"type": 2}],
             "events": [{"start": "now", "duration": "1h", "name": "E"}]}]})");
  const auto lines = tables_by_libdvbpsi(stream);
  EXPECT_EQ(lines_with(lines, "PAT"), (Lines{"PAT ts 1 v31: 0>16 101>256 102>272", "PAT ts 1 v0: 0>16 101>256"}));
  EXPECT_EQ(lines_with(lines, "SDT"),
            (Lines{"SDT 0x42 ts 1 net 5 v31: 101 schedule 0 pf 0 running 4 ca 0 {48[0101500141]} 102 schedule 1 pf 1 "
                   "running 4 ca 0 {48[0101500142]}",
                   "SDT 0x42 ts 1 net 5 v0: 101 schedule 0 pf 0 running 4 ca 0 {48[0101500141]}"}));
  std::map<uint16_t, double> last;
  size_t index = 0;
  for (const Packet& packet : packets_of(stream)) {
    ++index;
    // Packets that bring the counter to its end come later and are empty.
    const bool stuffing = packet.has_payload && packet.start && packet.payload[1] == 0xFF;
    if ((packet.pid == 272 || packet.pid == pid::EIT || (packet.pid == 273 && packet.has_pcr)) && !stuffing)
      last[packet.pid] = seconds(index, 2000000);
  }
  EXPECT_EQ(last.size(), 3u);
  for (const auto& [pid, at] : last)
    EXPECT_LT(at, 5.1) << "PID " << pid;
}

TEST(Mux_stream, a_service_can_appear) {
  const auto lines =
      tables_by_libdvbpsi(stream_of(R"({"duration": 4, "transport_stream_id": 1, "original_network_id": 5, "services": [
            {"service_id": 101, "appears_at": 2, "name": "A", "provider": "P"}]})"),
                          {256});
  EXPECT_EQ(lines_with(lines, "PAT"), (Lines{"PAT ts 1 v0: 0>16", "PAT ts 1 v1: 0>16 101>256"}));
  EXPECT_EQ(lines_with(lines, "PMT"), (Lines{"PMT 101 v0 pcr 8191 {}:"}));
}

TEST(Mux_stream, a_pmt_changes_at_its_time) {
  const Bytes stream = stream_of(one_service(
      R"(, "pmt_version": 31, "streams": [{"type": 2}], "pmt_changes": [
           {"at": 2}, {"at": 4, "streams": [{"type": 27}, {"type": 3, "languages": ["est"]}], "pmt_version": 9}])",
      R"(, "duration": 6)"));
  EXPECT_EQ(lines_with(tables_by_libdvbpsi(stream, {256}), "PMT"),
            (Lines{"PMT 101 v31 pcr 257 {}: 0x02@257 {}", "PMT 101 v0 pcr 257 {}: 0x02@257 {}",
                   "PMT 101 v9 pcr 257 {}: 0x1b@257 {} 0x03@258 {0a[65737400]}"}));
  for (const Section_seen& section : sections_of(stream, 256, table::PMT)) {
    const double at = seconds(section.packet, 1000000);
    const unsigned version = section.version();
    EXPECT_GE(at, version == 31 ? 0 : version == 0 ? 2 : 4);
    EXPECT_LT(at, version == 9 ? 6 : version == 0 ? 4.05 : 2.05);
  }
}

TEST(Mux_stream, the_pmt_of_a_service_can_be_missing) {
  EXPECT_EQ(sections_of(stream_of(one_service(R"(, "pmt": false)")), 256, 2).size(), 0u);
}

}  // namespace
