// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <random>

#include "support/support.h"
#include "support/test.h"
#include "support/text.h"
#include "support/ts_writer.h"
#include "tools/play/continuity.h"
#include "tools/play/packet_queue.h"
#include "tools/play/service_filter.h"

// What `kelvo play` is made of, without devices.

namespace {

using support::Ts_writer;

constexpr size_t PACKET = 188;

template <typename Do>
void for_each_packet(const Bytes& bytes, const Do& each) {
  EXPECT_EQ(bytes.size() % PACKET, 0U);
  for (size_t at = 0; at + PACKET <= bytes.size(); at += PACKET) {
    EXPECT_EQ(bytes[at], 0x47);
    each(Transport_packet(&bytes[at]));
  }
}

// "GAPS/LOST/DAMAGED".
std::string counted(const Ts_writer& stream) {
  Continuity continuity;
  for_each_packet(stream.bytes, [&](const Transport_packet& packet) { (void)continuity.look(packet); });
  return std::to_string(continuity.gaps()) + "/" + std::to_string(continuity.lost()) + "/" +
         std::to_string(continuity.damaged());
}

Ts_writer many(int pid, int n) {
  Ts_writer out;
  for (int i = 0; i < n; ++i)
    out.packet(pid, false, {static_cast<uint8_t>(i)});
  return out;
}

TEST(Continuity, counts_what_is_missing_and_nothing_else) {
  const struct {
    const char* legend;
    Ts_writer stream;
    const char* expected;
  } cases[] = {
      {"in order, round and round", many(300, 100), "0/0/0"},
      {"three are missing", many(300, 3).skip_counter(300, 3).packet(300, false, {}), "1/3/0"},
      {"twice",
       many(300, 3)
           .skip_counter(300, 1)
           .packet(300, false, {})
           .packet(300, false, {})
           .skip_counter(300, 2)
           .packet(300, false, {}),
       "2/3/0"},
      {"a packet may come twice", many(300, 3).repeat_last().packet(300, false, {}), "0/0/0"},
      {"but not three times", many(300, 3).repeat_last().repeat_last().packet(300, false, {}), "1/15/0"},
      {"the same counter with something else is no repetition",
       many(300, 3).skip_counter(300, 15).packet(300, false, {99}), "1/15/0"},
      {"without payload nothing counts",
       many(300, 3).adaptation_only(300, 5).adaptation_only(300, 9).packet(300, false, {}), "0/0/0"},
      {"a jump that is announced",
       many(300, 3).skip_counter(300, 7).packet(300, false, {1, 2}, true).set_bits(5, 0x80).packet(300, false, {}),
       "0/0/0"},
      {"or announced by a packet without payload",
       many(300, 3).skip_counter(300, 7).adaptation_only(300, 5).set_bits(5, 0x80).packet(300, false, {}), "0/0/0"},
      {"null packets have no counter", many(0x1FFF, 2).skip_counter(0x1FFF, 5).packet(0x1FFF, false, {}), "0/0/0"},
      {"PIDs are on their own", many(300, 3).packet(301, false, {}).packet(300, false, {}).packet(301, false, {}),
       "0/0/0"},
      {"a damaged one has come", many(300, 3).packet(300, false, {}).set_bits(1, 0x80).packet(300, false, {}), "0/0/1"},
      {"one whose counter is damaged as well",
       many(300, 3)
           .skip_counter(300, 5)
           .packet(300, false, {})
           .set_bits(1, 0x80)
           .skip_counter(300, 10)
           .packet(300, false, {}),
       "0/0/1"},
      {"damaged ones behind a gap",
       many(300, 3).skip_counter(300, 2).packet(300, false, {}).set_bits(1, 0x80).packet(300, false, {}), "1/3/1"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(counted(c.stream), c.expected) << c.legend;
}

// A packet that comes twice may have another clock reference the second time.
TEST(Continuity, a_repeated_clock_may_differ) {
  for (const bool only_the_clock : {true, false}) {
    Ts_writer stream;
    stream.packet(300, false, Bytes(100, 1), true).set_bits(5, 0x10).repeat_last();
    stream.bytes[stream.bytes.size() - PACKET + (only_the_clock ? 8 : 150)] ^= 0x55;
    EXPECT_EQ(counted(stream), only_the_clock ? "0/0/0" : "1/15/0");
  }
}

// --- Sections ------------------------------------------------------------------------------------------------------

Bytes joined_bytes(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<Bytes> sections_in(const Bytes& stream, int pid) {
  std::vector<Bytes> out;
  Continuity continuity;
  Section_reader reader([&](std::span<const uint8_t> section) { out.emplace_back(section.begin(), section.end()); });
  for_each_packet(stream, [&](const Transport_packet& packet) {
    if (packet.pid() == pid)
      reader.packet(packet, continuity.look(packet));
  });
  return out;
}

Bytes long_table(size_t size, uint16_t number) {
  return support::long_section(0x42, number, 0, Bytes(size - 12, static_cast<uint8_t>(number)));
}

TEST(Section_reader, finds_sections_however_they_are_packed) {
  const std::vector<Bytes> sections{long_table(12, 1), long_table(183, 2), long_table(184, 3), long_table(4000, 4)};
  Ts_writer alone;
  for (const Bytes& section : sections)
    alone.section(17, section);
  EXPECT_EQ(sections_in(alone.bytes, 17), sections);
  for (const size_t room : {184, 100, 9})
    EXPECT_EQ(sections_in(Ts_writer().packed(17, sections, room).bytes, 17), sections) << room;
  EXPECT_EQ(sections_in(Ts_writer().section(17, sections[3]).repeat_last().section(17, sections[0]).bytes, 17),
            (std::vector<Bytes>{sections[3], sections[0]}));
}

TEST(Section_reader, gives_up_what_is_not_whole) {
  const Bytes good = long_table(500, 1);
  Bytes wrong = good;
  wrong[100] ^= 1;
  EXPECT_TRUE(sections_in(Ts_writer().section(17, wrong).bytes, 17).empty()) << "CRC";
  Ts_writer gap;
  gap.section(17, good).drop_last().section(17, good);
  EXPECT_EQ(sections_in(gap.bytes, 17).size(), 1U) << "the end is missing";
  EXPECT_TRUE(sections_in(Ts_writer().section(17, good).set_bits(1, 0x80).bytes, 17).empty()) << "damaged";
  EXPECT_TRUE(sections_in(Ts_writer().packet(17, true, Bytes(184, 0xB7)).bytes, 17).empty()) << "pointer";
}

TEST(Section_writer, writes_what_a_reader_reads) {
  Section_writer writer(17);
  Bytes packets;
  std::vector<Bytes> sections;
  for (const size_t size : {12, 182, 183, 184, 367, 368, 4096}) {
    sections.push_back(long_table(size, static_cast<uint16_t>(size)));
    writer.write(sections.back(), &packets);
  }
  EXPECT_EQ(sections_in(packets, 17), sections);
  Ts_writer counted_as;
  counted_as.bytes = packets;
  EXPECT_EQ(counted(counted_as), "0/0/0");
}

TEST(Finished_section, has_length_and_crc) {
  const Bytes section = long_table(300, 7);
  EXPECT_EQ(finished_section(Bytes(section.begin(), section.end() - 4)), section);
}

// --- Service ---------------------------------------------------------------------------------------------------------

using Programs = std::vector<std::pair<int, int>>;

Bytes two(int number) {
  return {static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
}
Bytes pat(const Programs& programs, uint8_t version = 0) {
  Bytes body;
  for (const auto& [program, pid] : programs)
    body = joined_bytes({body, two(program), two(0xE000 | pid)});
  return support::long_section(0, 7, version, body);
}
Bytes pmt(int program, int pcr_pid, const std::vector<int>& pids, uint8_t version = 0, const Bytes& descriptors = {}) {
  Bytes body = joined_bytes({two(0xE000 | pcr_pid), two(0xF000 | static_cast<int>(descriptors.size())), descriptors});
  for (const int pid : pids)
    body = joined_bytes({body, {0x1B}, two(0xE000 | pid), {0xF0, 0}});
  return support::long_section(2, static_cast<uint16_t>(program), version, body);
}
Bytes sdt(const std::vector<int>& services, uint8_t version = 0, uint8_t flags = 0xFF) {
  Bytes body{0, 9, 0xFF};
  for (const int service : services)
    body = joined_bytes({body, two(service), {flags, 0x80, 5, 0x48, 3, 1, 0, 0}});
  return support::long_section(0x42, 7, version, body);
}

// What comes out, a word a packet: "PAT", "PMT", "SDT", "EIT", the PID.
class Played {
 public:
  explicit Played(int service = 101) : filter(service) {}
  std::string packets(const Ts_writer& stream) {
    Bytes out;
    for_each_packet(stream.bytes,
                    [&](const Transport_packet& packet) { filter.packet(packet, continuity.look(packet), &out); });
    all.insert(all.end(), out.begin(), out.end());
    std::string text;
    for_each_packet(out, [&](const Transport_packet& packet) {
      const int pid = packet.pid();
      text += (text.empty() ? "" : " ") + (pid == 0       ? "PAT"
                                           : pid == 0x100 ? "PMT"
                                           : pid == 0x11  ? "SDT"
                                           : pid == 0x12  ? "EIT"
                                                          : std::to_string(pid));
    });
    return text;
  }
  std::string news() {
    std::string text;
    for (const std::string& one : filter.take_news())
      text += one + "\n";
    return text;
  }
  Service_filter filter;
  Continuity continuity;
  Bytes all;
};

constexpr int PMT_PID = 0x100;

// A multiplex that goes on from call to call.
class Service_stream : public testing::Test {
 protected:
  Ts_writer& next() {
    air.bytes.clear();
    return air;
  }
  // The usual beginning.
  std::string begin() {
    return played.packets(
        next().section(0, pat({{101, PMT_PID}, {102, 0x200}})).section(PMT_PID, pmt(101, 300, {300, 301})));
  }
  Ts_writer air;
  Played played;
};

TEST_F(Service_stream, begins_with_pat_and_pmt_and_has_nothing_of_other_services) {
  EXPECT_EQ(played.filter.waits_for(), "PAT");
  EXPECT_EQ(played.packets(next().packet(300, true, {}).section(0, pat({{0, 16}, {101, PMT_PID}, {102, 0x200}}))), "");
  EXPECT_EQ(played.filter.waits_for(), "PMT");
  EXPECT_EQ(played.packets(next()
                               .packet(300, true, {})
                               .section(PMT_PID, pmt(102, 400, {400}))
                               .section(PMT_PID, pmt(101, 302, {300, 301}))),
            "PAT PMT");
  EXPECT_EQ(played.packets(next()
                               .packet(300, true, {})
                               .packet(400, true, {})
                               .packet(302, true, {})
                               .packet(301, true, {})
                               .packet(16, true, {})
                               .packet(20, true, {})),
            "300 302 301 20");
  EXPECT_EQ(played.filter.wanted(), (std::set<int>{0, 0x11, 0x12, 0x14, PMT_PID, 300, 301, 302}));
  EXPECT_EQ(sections_in(played.all, 0), std::vector<Bytes>{pat({{101, PMT_PID}})});
  EXPECT_EQ(sections_in(played.all, PMT_PID), std::vector<Bytes>{pmt(101, 302, {300, 301})});
  EXPECT_EQ(played.news(), "");
}

TEST_F(Service_stream, passes_packets_on_as_they_are) {
  (void)begin();
  next().packet(300, true, {1, 2, 3}).packet(300, false, Bytes(184, 7)).set_bits(1, 0x80).adaptation_only(300, 77);
  const Bytes sent = air.bytes;
  played.all.clear();
  (void)played.packets(air);
  EXPECT_EQ(played.all, sent);
}

TEST_F(Service_stream, repeats_its_tables_as_often_as_the_multiplex) {
  (void)begin();
  EXPECT_EQ(played.packets(next()
                               .section(0, pat({{101, PMT_PID}, {102, 0x200}}))
                               .section(PMT_PID, pmt(101, 300, {300, 301}))
                               .section(0, pat({{101, PMT_PID}, {102, 0x200}}))),
            "PAT PMT PAT");
  Ts_writer all;
  all.bytes = played.all;
  EXPECT_EQ(counted(all), "0/0/0");
}

TEST_F(Service_stream, follows_its_streams) {
  (void)begin();
  EXPECT_EQ(played.packets(
                next().section(PMT_PID, pmt(101, 310, {300, 310, 311}, 1)).packet(310, true, {}).packet(301, true, {})),
            "PMT 310");
  EXPECT_EQ(played.news(), "the channel has changed: 2 new streams, 1 stream less, the clock on another PID\n");
  EXPECT_TRUE(played.filter.wanted().contains(311));
  EXPECT_FALSE(played.filter.wanted().contains(301));
}

TEST_F(Service_stream, follows_its_pmt_to_another_pid) {
  (void)begin();
  EXPECT_EQ(
      played.packets(next().section(0, pat({{101, 0x180}, {102, 0x200}}, 3)).section(0x180, pmt(101, 300, {300, 301}))),
      "PAT 384");
  const std::vector<Bytes> pats = sections_in(played.all, 0);
  EXPECT_EQ(pats.back(), pat({{101, 0x180}}, 1)) << "its own number goes on by one";
  EXPECT_EQ(played.news(), "");
}

TEST_F(Service_stream, others_that_come_and_go_change_nothing) {
  (void)begin();
  (void)played.packets(next().section(0, pat({{101, PMT_PID}, {103, 0x300}}, 9)));
  for (const Bytes& section : sections_in(played.all, 0))
    EXPECT_EQ(section, pat({{101, PMT_PID}}));
}

TEST_F(Service_stream, says_when_it_leaves_and_is_back) {
  (void)begin();
  EXPECT_EQ(played.packets(next().section(0, pat({{102, 0x200}}, 1)).section(0, pat({{102, 0x200}}, 1))), "");
  EXPECT_EQ(played.news(), "the channel has left the multiplex; waiting for it\n");
  EXPECT_EQ(played.packets(next().section(0, pat({{101, PMT_PID}}, 2)).section(PMT_PID, pmt(101, 300, {300, 301}))),
            "PAT PMT");
  EXPECT_EQ(played.news(), "the channel is back in the multiplex\n");
}

TEST_F(Service_stream, has_its_name_and_its_programmes_alone) {
  (void)begin();
  const Bytes mine = support::long_section(0x4E, 101, 4, Bytes(20, 1));
  EXPECT_EQ(played.packets(next()
                               .section(0x11, sdt({100, 101, 102}, 5))
                               .section(0x12, support::long_section(0x4E, 102, 4, Bytes(20, 2)))
                               .section(0x12, mine)
                               .section(0x12, support::long_section(0x50, 101, 4, Bytes(20, 2)))
                               .section(0x12, support::long_section(0x4F, 101, 4, Bytes(20, 2)))),
            "SDT EIT");
  EXPECT_EQ(sections_in(played.all, 0x12), std::vector<Bytes>{mine});
  EXPECT_EQ(sections_in(played.all, 0x11), std::vector<Bytes>{sdt({101}, 5, 0xFD)}) << "no schedule is there";
  // Another service's entry changes, then this one's.
  (void)played.packets(next().section(0x11, sdt({101, 103}, 6)).section(0x11, sdt({101, 103}, 7, 0xFE)));
  const std::vector<Bytes> sdts = sections_in(played.all, 0x11);
  ASSERT_EQ(sdts.size(), 3U);
  EXPECT_EQ(sdts[1], sdt({101}, 5, 0xFD));
  EXPECT_EQ(sdts[2], sdt({101}, 6, 0xFC));
}

// Its control words and the rights to them come along, and it is said once.
TEST_F(Service_stream, takes_its_keys_along_when_it_is_scrambled) {
  const Bytes ca{9, 4, 0x0B, 0, 0xE2, 0x58};  // PID 600
  (void)played.packets(next().section(0, pat({{101, PMT_PID}})).section(PMT_PID, pmt(101, 300, {300}, 0, ca)));
  EXPECT_EQ(played.packets(next()
                               .section(1, support::long_section(1, 0xFFFF, 0, {9, 4, 0x0B, 0, 0xE2, 0x59}))
                               .packet(600, true, {})
                               .packet(601, true, {})),
            "1 600 601");
  EXPECT_EQ(played.news(), "");
  (void)played.packets(next().packet(300, true, {}).set_bits(3, 0x80).packet(300, true, {}).set_bits(3, 0xC0));
  EXPECT_EQ(played.news(),
            "the channel is scrambled; it is written as it is, and only a player with its key shows it\n");
}

TEST_F(Service_stream, believes_no_table_that_cannot_be) {
  (void)begin();
  const Bytes beyond = support::long_section(2, 101, 1, {0xE1, 0x2C, 0xF0, 200, 1});
  const Bytes stream_beyond = support::long_section(2, 101, 1, {0xE1, 0x2C, 0xF0, 0, 0x1B, 0xE1, 0x2C, 0xF0, 9});
  EXPECT_EQ(played.packets(next().section(PMT_PID, beyond).section(PMT_PID, stream_beyond)), "");
  EXPECT_EQ(played.packets(next().section(PMT_PID, pmt(101, 0x1FFF, {0, 1, 16, 31, 0x1FFF}, 6))), "PMT");
  EXPECT_EQ(played.filter.wanted(), (std::set<int>{0, 0x11, 0x12, 0x14, PMT_PID}));
  EXPECT_EQ(played.news(), "the channel has changed: 2 streams less, the clock on another PID\n");
  for (const int pid : {17, 0x1FFF})
    (void)played.packets(next().section(0, pat({{101, pid}}, static_cast<uint8_t>(pid & 31))));
  EXPECT_EQ(played.filter.wanted(), (std::set<int>{0, 0x11, 0x12, 0x14}));
  EXPECT_EQ(played.news(), "the channel has left the multiplex; waiting for it\n");
}

TEST_F(Service_stream, stays_whole_whatever_comes) {
  std::mt19937 random(20261123);
  Ts_writer good;
  for (int i = 0; i < 6; ++i)
    good.section(0, pat({{101, PMT_PID}, {102, 0x200}}))
        .section(PMT_PID, pmt(101, 300, {300, 301}, 0, {9, 4, 0x0B, 0, 0xE2, 0x58}))
        .section(0x11, sdt({100, 101}))
        .section(0x12, support::long_section(0x4E, 101, 4, Bytes(900, 2)))
        .section(1, support::long_section(1, 0xFFFF, 0, {9, 4, 0x0B, 0, 0xE2, 0x59}))
        .packet(300, true, Bytes(184, 3));
  size_t written = 0;
  for (int round = 0; round < 300; ++round) {
    Ts_writer broken = good;
    for (int i = 0; i < 40; ++i) {
      const size_t at = random() % broken.bytes.size();
      if (at % PACKET != 0)
        broken.bytes[at] = static_cast<uint8_t>(random());
    }
    Played one;
    (void)one.packets(broken);
    written += one.all.size();
    for (const Bytes& section : sections_in(one.all, 0))
      EXPECT_EQ(section.size(), 16U);
  }
  EXPECT_GT(written, 300 * PACKET);
}

TEST(Packet_queue, drops_what_has_no_room_and_keeps_the_order) {
  Packet_queue queue(3 * PACKET);
  Bytes batch;
  const auto put = [&](uint8_t value, size_t packets) {
    batch.assign(packets * PACKET, value);
    const bool taken = queue.put(&batch);
    EXPECT_TRUE(batch.empty());
    return taken;
  };
  EXPECT_TRUE(put(1, 9)) << "one always has room";
  EXPECT_FALSE(put(2, 1));
  EXPECT_TRUE(queue.take(&batch));
  EXPECT_EQ(batch, Bytes(9 * PACKET, 1));
  EXPECT_TRUE(put(3, 2));
  EXPECT_TRUE(put(4, 1));
  EXPECT_FALSE(put(5, 1));
  EXPECT_EQ(queue.waiting(), 3 * PACKET);
  EXPECT_TRUE(queue.take(&batch));
  EXPECT_EQ(batch, Bytes(2 * PACKET, 3));
  EXPECT_TRUE(queue.take(&batch));
  EXPECT_EQ(batch, Bytes(PACKET, 4));
  EXPECT_FALSE(queue.take(&batch));
}

}  // namespace
