// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/session.h"

using namespace device;
using support::join;

static Bytes part(const Bytes& bytes, size_t from, size_t to) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

static void inject(const Bytes& packets) {
  support::softdvb_inject(0, packets);
}

using Sections = std::vector<Bytes>;

struct Stream {
  const char* legend;
  std::function<void(Ts_writer&)> write;
  const char* received;
};

TEST(Demux_sections, that_are_whole_come) {
  const Bytes a = section_of(300, 1);
  const Bytes b = section_of(100, 2);
  const Bytes both = join({{0}, section_of(150, 1), section_of(150, 2)});
  const Stream STREAMS[] = {
      {"several in a packet",
       [](Ts_writer& ts) {
         ts.packed(PID, {section_of(20, 1), section_of(30, 2), section_of(40, 3)});
       },
       "20#1 30#2 40#3"},
      {"one ends and the next begins in a packet",
       [&](Ts_writer& ts) {
         ts.packed(PID, {a, section_of(300, 2)});
       },
       "300#1 300#2"},
      {"one begins without start indicator after another",
       [&](Ts_writer& ts) { ts.packet(PID, true, part(both, 0, 184)).packet(PID, false, part(both, 184, 301)); },
       "150#1 150#2"},
      {"in packets of nine bytes",
       [&](Ts_writer& ts) {
         ts.packed(PID, {section_of(100, 1), section_of(50, 2)}, 9);
       },
       "100#1 50#2"},
      {"a lost last packet costs that section only",
       [&](Ts_writer& ts) { ts.section(PID, section_of(500, 1)).drop_last().section(PID, section_of(500, 2)); },
       "500#2"},
      {"so does one lost inside",
       [&](Ts_writer& ts) {
         ts.section(PID, section_of(500, 3));
         ts.bytes.erase(ts.bytes.begin() + 188, ts.bytes.begin() + 376);
         ts.section(PID, section_of(500, 4));
       },
       "500#4"},
      {"and a gap in the counter alone",
       [&](Ts_writer& ts) {
         ts.packet(PID, true, join({{0}, part(a, 0, 183)})).skip_counter(PID);
         ts.packet(PID, false, part(a, 183, 300)).section(PID, section_of(500, 2));
       },
       "500#2"},
      {"a gap before a start costs nothing",
       [&](Ts_writer& ts) { ts.section(PID, section_of(100, 1)).skip_counter(PID, 5).section(PID, b); }, "100#1 100#2"},
      {"a duplicate packet doubles a whole section", [&](Ts_writer& ts) { ts.section(PID, b).repeat_last(); },
       "100#2 100#2"},
      {"a duplicate packet inside loses the section",
       [&](Ts_writer& ts) {
         ts.packet(PID, true, join({{0}, part(a, 0, 100)}), true);
         ts.packet(PID, false, part(a, 100, 200), true).repeat_last();
         ts.packet(PID, false, part(a, 200, 300), true).section(PID, b);
       },
       "100#2"},
      {"adaptation fields do no harm",
       [&](Ts_writer& ts) {
         ts.packet(PID, true, join({{0}, part(a, 0, 100)}), true).adaptation_only(PID);
         ts.packet(PID, false, part(a, 100, 283), true).packet(PID, false, part(a, 283, 300), true);
       },
       "300#1"},
      {"errors and scrambling are not looked at",
       [&](Ts_writer& ts) { ts.section(PID, section_of(100, 1)).set_bits(1, 0x80).section(PID, b).set_bits(3, 0xC0); },
       "100#1 100#2"},
      {"a pointer beyond the packet costs the packet",
       [&](Ts_writer& ts) {
         ts.packet(PID, true, join({{184}, section_of(100, 1)})).section(PID, b);
       },
       "100#2"},
      {"one cut off by the next start is dropped",
       [&](Ts_writer& ts) {
         ts.packet(PID, true, join({{0}, part(a, 0, 183)})).section(PID, b);
       },
       "100#2"},
      {"stuffing is never delivered",
       [&](Ts_writer& ts) { ts.packet(PID, true, {}).packet(PID, false, {}).packet(PID, true, {0}).section(PID, b); },
       "100#2"},
      {"those of other PIDs do not come",
       [&](Ts_writer& ts) { ts.section(PID + 1, section_of(100, 1)).section(PID, b).null_packets(3); }, "100#2"}};
  for (const Stream& c : STREAMS) {
    const Fd fd(listening());
    Ts_writer ts;
    c.write(ts);
    send(ts);
    EXPECT_EQ(received(fd), c.received) << c.legend;
  }
}

TEST(Demux_sections, of_a_filter_started_in_the_middle_begin_with_the_next) {
  const Fd fd(listening());
  const Bytes all = Ts_writer().section(PID, section_of(300, 1)).section(PID, section_of(50, 2)).bytes;
  inject(part(all, 0, 188));
  EXPECT_EQ(received(fd), "");
  const Fd late(listening());
  // The new filter takes the section that was arriving from its neighbour as well.
  inject(part(all, 188, 376));
  EXPECT_EQ(received(fd), "");
  EXPECT_EQ(read_size(late), -EAGAIN);
  inject(part(all, 376, 564));
  EXPECT_EQ(received(fd), "50#2");
  EXPECT_EQ(received(late), "50#2");
}

TEST(Demux_sections, closing_a_neighbour_loses_the_arriving_one_but_not_the_queue) {
  const Fd fd(listening());
  Fd other(listening());
  const Fd elsewhere(listening(PID + 1));
  Ts_writer ts;
  ts.section(PID, section_of(60, 1)).section(PID, section_of(300, 2)).section(PID + 1, section_of(300, 3));
  const Bytes all = ts.bytes;  // one packet, then two of each
  inject(join({part(all, 0, 376), part(all, 564, 752)}));
  other.reset();
  inject(join({part(all, 376, 564), part(all, 752, 940)}));
  EXPECT_EQ(received(fd), "60#1");
  EXPECT_EQ(received(elsewhere), "300#3");
}

TEST(Demux_crc, is_looked_at_on_demand) {
  expect_plays({
      {"wrong sections are dropped only on demand",
       "filter 256 crc, b: filter 257, send 100#1!, send 100#1! 257, "
       "read = EAGAIN, b: read = 100#1!, send 100#1, read = 100#1"},
      {"the first filter of a PID decides for all",
       "filter 256, b: filter 256 crc, send 100#1!, read = 100#1!, b: read = 100#1!, stop, send 100#1!, "
       "b: read = 100#1!, b: stop, b: start, start, send 100#1!, read = EAGAIN, b: read = EAGAIN"},
  });
}

TEST(Demux_crc, is_never_looked_at_in_short_sections) {
  const Fd fd(listening(pid::TIME, DMX_IMMEDIATE_START | DMX_CHECK_CRC));
  const Bytes tot_with_wrong_crc = short_section(table::TOT, 26, 0xAA);
  for (const Bytes& section : {short_section(table::TDT, 8), tot_with_wrong_crc}) {
    send_section(section, pid::TIME);
    EXPECT_EQ(read_bytes(fd), section);
  }
}

struct Filter_byte {
  int at;
  uint8_t value;
  uint8_t mask;
  uint8_t mode = 0;
};

static bool passes(const std::vector<Filter_byte>& filter, const Bytes& section) {
  dmx_sct_filter_params p = all_of(PID);
  for (const Filter_byte& byte : filter) {
    p.filter.filter[byte.at] = byte.value;
    p.filter.mask[byte.at] = byte.mask;
    p.filter.mode[byte.at] = byte.mode;
  }
  const Fd fd(open_demux());
  EXPECT_EQ(set_filter(fd, p), 0);
  send_section(section);
  return read_size(fd) == static_cast<long>(section.size());
}

TEST(Demux_match, bytes_behind_the_length_are_at_one_less) {
  const Bytes s = section_of(40);
  for (int i = 0; i < 16; ++i) {
    const uint8_t there = s[static_cast<size_t>(i == 0 ? 0 : i + 2)];
    EXPECT_TRUE(passes({{i, there, 0xFF}}, s)) << i;
    EXPECT_FALSE(passes({{i, static_cast<uint8_t>(there ^ 1), 0xFF}}, s)) << i;
  }
}

TEST(Demux_match, lets_through_what_the_filter_says) {
  constexpr uint8_t ACTUAL = table::SDT_ACTUAL;
  constexpr uint8_t OTHER = table::SDT_OTHER;
  const auto version = [](uint8_t table, uint8_t number) { return section_of(40, 1, table, number); };
  const struct {
    const char* legend;
    std::vector<Filter_byte> filter;
    Sections pass;
    Sections stay;
  } CASES[] = {
      {"extension, version and number",
       {{0, ACTUAL, 0xFF}, {1, 0x12, 0xFF}, {2, 0x34, 0xFF}, {3, 5 << 1, 0x3E}, {4, 0, 0xFF}},
       {section_of(40, 0x1234, ACTUAL, 5)},
       {section_of(40, 0x1234, ACTUAL, 6), section_of(40, 0x1235, ACTUAL, 5), section_of(40, 0x1234, OTHER, 5)}},
      {"bits outside the mask are ignored", {{0, 0x4F, 0xF0}}, {section_of(40, 1, ACTUAL)}, {section_of(40, 1, 0x52)}},
      {"not this version",
       {{0, ACTUAL, 0xFF}, {3, 5 << 1, 0x3E, 0x3E}},
       {version(ACTUAL, 4), version(ACTUAL, 6), version(ACTUAL, 7)},
       {version(ACTUAL, 5), version(OTHER, 6)}},
      {"negative bits in two bytes need one difference",
       {{0, ACTUAL, 0xFF, 0xFF}, {3, 5 << 1, 0x3E, 0x3E}},
       {version(OTHER, 5), version(ACTUAL, 6)},
       {version(ACTUAL, 5)}},
      {"mode bits outside the mask count for nothing",
       {{0, ACTUAL, 0xFF, 0x00}, {3, 0, 0x00, 0xFF}},
       {section_of(40, 1, ACTUAL)},
       {}},
      {"bytes behind a short section are those of the packet",
       {{0, table::TDT, 0xFF}, {8, 0xFF, 0xFF}},
       {short_section(table::TDT, 8)},
       {}},
      {"and no others", {{0, table::TDT, 0xFF}, {8, 0x00, 0xFF}}, {}, {short_section(table::TDT, 8)}}};
  for (const auto& c : CASES) {
    SCOPED_TRACE(c.legend);
    for (const Bytes& section : c.pass)
      EXPECT_TRUE(passes(c.filter, section)) << testing::PrintToString(section);
    for (const Bytes& section : c.stay)
      EXPECT_FALSE(passes(c.filter, section)) << testing::PrintToString(section);
  }
}

// Packets, for comparison.

static void pass_packets(int fd, int pid, dmx_output output) {
  dmx_pes_filter_params p{};
  p.pid = static_cast<uint16_t>(pid);
  p.input = DMX_IN_FRONTEND;
  p.output = output;
  p.pes_type = DMX_PES_OTHER;
  p.flags = DMX_IMMEDIATE_START;
  ASSERT_EQ(ioctl(fd, DMX_SET_PES_FILTER, &p), 0);
}

TEST(Demux_packets, come_as_a_stream_of_bytes) {
  const Fd fd(open_demux());
  pass_packets(fd, PID, DMX_OUT_TSDEMUX_TAP);
  Ts_writer ts;
  for (int i = 0; i < 3; ++i)
    ts.packet(PID, false, Bytes(184, static_cast<uint8_t>(i)));
  send(ts);
  EXPECT_EQ(read_bytes(fd), ts.bytes);
  send(ts);
  EXPECT_EQ(read_size(fd, 100), 100);
  EXPECT_EQ(read_size(fd), 464);
  EXPECT_EQ(set_filter(fd, all_of(PID)), 0);
  send_section(section_of(100));
  EXPECT_EQ(read_bytes(fd), section_of(100));
}

TEST(Demux_packets, of_several_filters_come_through_dvr) {
  const Fd dvr(open("/dev/dvb/adapter0/dvr0", O_RDONLY | O_NONBLOCK));
  ASSERT_GE(dvr, 0);
  EXPECT_EQ(result(open("/dev/dvb/adapter0/dvr0", O_RDONLY | O_NONBLOCK)), -EBUSY);
  EXPECT_EQ(ioctl(dvr, DMX_SET_BUFFER_SIZE, 188 * 100), 0);
  const Fd a(open_demux());
  const Fd b(open_demux());
  pass_packets(a, PID, DMX_OUT_TS_TAP);
  pass_packets(b, PID + 1, DMX_OUT_TS_TAP);
  Ts_writer ts;
  ts.packet(PID, false, {1}).packet(PID + 1, false, {2});
  const Bytes wanted = ts.bytes;
  ts.packet(PID + 2, false, {3});
  send(ts);
  EXPECT_EQ(read_bytes(dvr, 188 * 10), wanted);
  EXPECT_EQ(read_size(a), -EAGAIN);
  pass_packets(b, 0x2000, DMX_OUT_TS_TAP);
  send(ts);
  EXPECT_EQ(read_bytes(dvr, 188 * 10), ts.bytes);
}
