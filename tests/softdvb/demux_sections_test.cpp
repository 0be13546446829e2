// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/device_support.h"

using namespace device;

class Demux_sections : public testing::Test {
 protected:
  Fd fd{open_demux()};
  Ts_writer ts;

  void SetUp() override { ASSERT_EQ(set_filter(fd, all_of(PID)), 0); }

  std::vector<Bytes> received() {
    send(ts);
    ts.bytes.clear();
    std::vector<Bytes> all;
    for (Bytes s; !(s = read_bytes(fd)).empty();)
      all.push_back(s);
    return all;
  }
};

using Sections = std::vector<Bytes>;

TEST_F(Demux_sections, several_in_a_packet) {
  ts.packed(PID, {section_of(20, 1), section_of(30, 2), section_of(40, 3)});
  EXPECT_EQ(received(), (Sections{section_of(20, 1), section_of(30, 2), section_of(40, 3)}));
}

TEST_F(Demux_sections, one_ends_and_the_next_begins_in_a_packet) {
  ts.packed(PID, {section_of(300, 1), section_of(300, 2)});
  EXPECT_EQ(received(), (Sections{section_of(300, 1), section_of(300, 2)}));
}

TEST_F(Demux_sections, one_begins_without_start_indicator_after_another) {
  Bytes both = support::join({{0}, section_of(150, 1), section_of(150, 2)});
  ts.packet(PID, true, Bytes(both.begin(), both.begin() + 184));
  ts.packet(PID, false, Bytes(both.begin() + 184, both.end()));
  EXPECT_EQ(received(), (Sections{section_of(150, 1), section_of(150, 2)}));
}

TEST_F(Demux_sections, in_packets_of_nine_bytes) {
  ts.packed(PID, {section_of(100, 1), section_of(50, 2)}, 9);
  EXPECT_EQ(received(), (Sections{section_of(100, 1), section_of(50, 2)}));
}

TEST_F(Demux_sections, a_gap_inside_costs_that_section_only) {
  ts.section(PID, section_of(500, 1));
  ts.drop_last();
  ts.section(PID, section_of(500, 2));
  EXPECT_EQ(received(), (Sections{section_of(500, 2)}));
  Ts_writer cut;
  cut.section(PID, section_of(500, 3));
  cut.bytes.erase(cut.bytes.begin() + 188, cut.bytes.begin() + 376);
  cut.section(PID, section_of(500, 4));
  ts.bytes = cut.bytes;
  EXPECT_EQ(received(), (Sections{section_of(500, 4)}));
}

TEST_F(Demux_sections, a_gap_in_the_counter_alone_costs_the_section_too) {
  const Bytes s = section_of(300, 1);
  ts.packet(PID, true, support::join({{0}, Bytes(s.begin(), s.begin() + 183)}));
  ts.skip_counter(PID);
  ts.packet(PID, false, Bytes(s.begin() + 183, s.end()));
  ts.section(PID, section_of(500, 2));
  EXPECT_EQ(received(), (Sections{section_of(500, 2)}));
}

TEST_F(Demux_sections, a_gap_before_a_start_costs_nothing) {
  ts.section(PID, section_of(100, 1)).skip_counter(PID, 5).section(PID, section_of(100, 2));
  EXPECT_EQ(received(), (Sections{section_of(100, 1), section_of(100, 2)}));
}

TEST_F(Demux_sections, a_duplicate_packet_doubles_a_whole_section) {
  ts.section(PID, section_of(100, 1)).repeat_last();
  EXPECT_EQ(received(), (Sections{section_of(100, 1), section_of(100, 1)}));
}

TEST_F(Demux_sections, a_duplicate_packet_inside_loses_the_section) {
  const Bytes s = section_of(300, 1);
  const Bytes first = support::join({{0}, Bytes(s.begin(), s.begin() + 100)});
  ts.packet(PID, true, first, true);
  ts.packet(PID, false, Bytes(s.begin() + 100, s.begin() + 200), true).repeat_last();
  ts.packet(PID, false, Bytes(s.begin() + 200, s.end()), true);
  ts.section(PID, section_of(50, 2));
  EXPECT_EQ(received(), (Sections{section_of(50, 2)}));
}

TEST_F(Demux_sections, adaptation_fields_do_no_harm) {
  const Bytes s = section_of(300, 1);
  ts.packet(PID, true, support::join({{0}, Bytes(s.begin(), s.begin() + 100)}), true);
  ts.adaptation_only(PID);
  ts.packet(PID, false, Bytes(s.begin() + 100, s.begin() + 283), true);
  ts.packet(PID, false, Bytes(s.begin() + 283, s.end()), true);
  EXPECT_EQ(received(), (Sections{s}));
}

TEST_F(Demux_sections, errors_and_scrambling_are_not_looked_at) {
  ts.section(PID, section_of(100, 1)).set_bits(1, 0x80);
  ts.section(PID, section_of(100, 2)).set_bits(3, 0xC0);
  EXPECT_EQ(received(), (Sections{section_of(100, 1), section_of(100, 2)}));
}

TEST_F(Demux_sections, a_pointer_beyond_the_packet_costs_the_packet) {
  ts.packet(PID, true, support::join({{184}, section_of(100, 1)}));
  ts.section(PID, section_of(100, 2));
  EXPECT_EQ(received(), (Sections{section_of(100, 2)}));
}

TEST_F(Demux_sections, one_cut_off_by_the_next_start_is_dropped) {
  const Bytes s = section_of(300, 1);
  ts.packet(PID, true, support::join({{0}, Bytes(s.begin(), s.begin() + 183)}));
  ts.section(PID, section_of(100, 2));
  EXPECT_EQ(received(), (Sections{section_of(100, 2)}));
}

TEST_F(Demux_sections, stuffing_is_never_delivered) {
  ts.packet(PID, true, {});
  ts.packet(PID, false, {});
  ts.packet(PID, true, {0});
  ts.section(PID, section_of(100, 2));
  EXPECT_EQ(received(), (Sections{section_of(100, 2)}));
}

TEST_F(Demux_sections, starting_a_filter_in_the_middle_begins_with_the_next_section) {
  ts.section(PID, section_of(300, 1));
  const Bytes all = ts.bytes;
  ts.bytes = Bytes(all.begin(), all.begin() + 188);
  EXPECT_EQ(received(), Sections{});
  const Fd late(listening());
  ts.bytes = Bytes(all.begin() + 188, all.end());
  // The new filter takes the section that was arriving from its neighbour as well.
  EXPECT_EQ(received(), Sections{});
  EXPECT_EQ(read_size(late), -EAGAIN);
  ts.section(PID, section_of(50, 2));
  EXPECT_EQ(received(), (Sections{section_of(50, 2)}));
  EXPECT_EQ(read_size(late), 50);
}

TEST_F(Demux_sections, closing_a_neighbour_loses_the_arriving_section_but_not_the_queue) {
  Fd other(open_demux());
  Fd elsewhere(open_demux());
  ASSERT_EQ(set_filter(other, all_of(PID)), 0);
  ASSERT_EQ(set_filter(elsewhere, all_of(PID + 1)), 0);
  ts.section(PID, section_of(60, 1));
  send(ts);
  ts.bytes.clear();
  ts.section(PID, section_of(300, 2)).section(PID + 1, section_of(300, 3));
  const Bytes all = ts.bytes;  // two packets of each
  ts.bytes = Bytes(all.begin(), all.begin() + 188);
  ts.bytes.insert(ts.bytes.end(), all.begin() + 376, all.begin() + 564);
  send(ts);
  other.reset();
  ts.bytes = Bytes(all.begin() + 188, all.begin() + 376);
  ts.bytes.insert(ts.bytes.end(), all.begin() + 564, all.end());
  EXPECT_EQ(received(), (Sections{section_of(60, 1)}));
  EXPECT_EQ(read_bytes(elsewhere), section_of(300, 3));
}

TEST_F(Demux_sections, of_other_pids_do_not_come) {
  ts.section(PID + 1, section_of(100, 1)).section(PID, section_of(100, 2)).null_packets(3);
  EXPECT_EQ(received(), (Sections{section_of(100, 2)}));
}

// CRC.

static Bytes damaged(Bytes section) {
  section.back() = static_cast<uint8_t>(section.back() ^ 0x55);
  return section;
}

class Demux_crc : public testing::Test {
 protected:
  static constexpr unsigned CHECK = DMX_IMMEDIATE_START | DMX_CHECK_CRC;
  Fd a{open_demux()};
  Fd b{open_demux()};
};

TEST_F(Demux_crc, wrong_sections_are_dropped_only_on_demand) {
  ASSERT_EQ(set_filter(a, all_of(PID, CHECK)), 0);
  ASSERT_EQ(set_filter(b, all_of(PID + 1)), 0);
  send_section(damaged(section_of(100)));
  send_section(damaged(section_of(100)), PID + 1);
  EXPECT_EQ(read_size(a), -EAGAIN);
  EXPECT_EQ(read_bytes(b), damaged(section_of(100)));
  send_section(section_of(100));
  EXPECT_EQ(read_size(a), 100);
}

TEST_F(Demux_crc, short_sections_are_never_checked) {
  ASSERT_EQ(set_filter(a, all_of(pid::TIME, CHECK)), 0);
  send_section(short_section(table::TDT, 8), pid::TIME);
  EXPECT_EQ(read_size(a), 8);
  const Bytes tot_with_wrong_crc = short_section(table::TOT, 26, 0xAA);
  send_section(tot_with_wrong_crc, pid::TIME);
  EXPECT_EQ(read_bytes(a), tot_with_wrong_crc);
}

TEST_F(Demux_crc, the_first_filter_of_a_pid_decides_for_all) {
  ASSERT_EQ(set_filter(a, all_of(PID)), 0);
  ASSERT_EQ(set_filter(b, all_of(PID, CHECK)), 0);
  send_section(damaged(section_of(100)));
  EXPECT_EQ(read_size(a), 100);
  EXPECT_EQ(read_size(b), 100);
  ioctl(a, DMX_STOP);
  send_section(damaged(section_of(100)));
  EXPECT_EQ(read_size(b), 100);
  ioctl(b, DMX_STOP);
  ioctl(b, DMX_START);
  ioctl(a, DMX_START);
  send_section(damaged(section_of(100)));
  EXPECT_EQ(read_size(a), -EAGAIN);
  EXPECT_EQ(read_size(b), -EAGAIN);
}

// Matching.

class Demux_match : public testing::Test {
 protected:
  Fd fd{open_demux()};
  dmx_sct_filter_params p = all_of(PID);

  bool passes(const Bytes& section) {
    EXPECT_EQ(set_filter(fd, p), 0);
    send_section(section);
    return read_size(fd) == static_cast<long>(section.size());
  }
  void byte(int at, uint8_t value, uint8_t mask, uint8_t mode = 0) {
    p.filter.filter[at] = value;
    p.filter.mask[at] = mask;
    p.filter.mode[at] = mode;
  }
};

TEST_F(Demux_match, bytes_behind_the_length_are_at_one_less) {
  Bytes s = section_of(40);
  for (int i = 0; i < 16; ++i) {
    p = all_of(PID);
    const uint8_t there = s[static_cast<size_t>(i == 0 ? 0 : i + 2)];
    byte(i, there, 0xFF);
    EXPECT_TRUE(passes(s)) << i;
    byte(i, static_cast<uint8_t>(there ^ 1), 0xFF);
    EXPECT_FALSE(passes(s)) << i;
  }
}

TEST_F(Demux_match, extension_version_and_number) {
  byte(0, table::SDT_ACTUAL, 0xFF);
  byte(1, 0x12, 0xFF);
  byte(2, 0x34, 0xFF);
  byte(3, 5 << 1, 0x3E);
  byte(4, 0, 0xFF);
  EXPECT_TRUE(passes(section_of(40, 0x1234, table::SDT_ACTUAL, 5)));
  EXPECT_FALSE(passes(section_of(40, 0x1234, table::SDT_ACTUAL, 6)));
  EXPECT_FALSE(passes(section_of(40, 0x1235, table::SDT_ACTUAL, 5)));
  EXPECT_FALSE(passes(section_of(40, 0x1234, table::SDT_OTHER, 5)));
}

TEST_F(Demux_match, bits_outside_the_mask_are_ignored) {
  byte(0, 0x4F, 0xF0);
  EXPECT_TRUE(passes(section_of(40, 1, table::SDT_ACTUAL)));
  EXPECT_FALSE(passes(section_of(40, 1, 0x52)));
}

TEST_F(Demux_match, not_this_version) {
  byte(0, table::SDT_ACTUAL, 0xFF);
  byte(3, 5 << 1, 0x3E, 0x3E);
  EXPECT_FALSE(passes(section_of(40, 1, table::SDT_ACTUAL, 5)));
  for (const uint8_t version : {uint8_t{4}, uint8_t{6}, uint8_t{7}})
    EXPECT_TRUE(passes(section_of(40, 1, table::SDT_ACTUAL, version))) << int{version};
  EXPECT_FALSE(passes(section_of(40, 1, table::SDT_OTHER, 6)));
}

TEST_F(Demux_match, negative_bits_in_two_bytes_need_one_difference) {
  byte(0, table::SDT_ACTUAL, 0xFF, 0xFF);
  byte(3, 5 << 1, 0x3E, 0x3E);
  EXPECT_FALSE(passes(section_of(40, 1, table::SDT_ACTUAL, 5)));
  EXPECT_TRUE(passes(section_of(40, 1, table::SDT_OTHER, 5)));
  EXPECT_TRUE(passes(section_of(40, 1, table::SDT_ACTUAL, 6)));
}

TEST_F(Demux_match, mode_bits_outside_the_mask_count_for_nothing) {
  byte(0, table::SDT_ACTUAL, 0xFF, 0x00);
  byte(3, 0, 0x00, 0xFF);
  EXPECT_TRUE(passes(section_of(40, 1, table::SDT_ACTUAL)));
}

TEST_F(Demux_match, bytes_behind_a_short_section_are_those_of_the_packet) {
  byte(0, table::TDT, 0xFF);
  byte(8, 0xFF, 0xFF);
  EXPECT_TRUE(passes(short_section(table::TDT, 8)));
  byte(8, 0x00, 0xFF);
  EXPECT_FALSE(passes(short_section(table::TDT, 8)));
}

// Packets, for comparison.

TEST(Demux_packets, come_as_a_stream_of_bytes) {
  const Fd fd(open_demux());
  dmx_pes_filter_params p{};
  p.pid = PID;
  p.input = DMX_IN_FRONTEND;
  p.output = DMX_OUT_TSDEMUX_TAP;
  p.pes_type = DMX_PES_OTHER;
  p.flags = DMX_IMMEDIATE_START;
  ASSERT_EQ(ioctl(fd, DMX_SET_PES_FILTER, &p), 0);
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
  dmx_pes_filter_params p{};
  p.pid = PID;
  p.output = DMX_OUT_TS_TAP;
  p.pes_type = DMX_PES_OTHER;
  p.flags = DMX_IMMEDIATE_START;
  ASSERT_EQ(ioctl(a, DMX_SET_PES_FILTER, &p), 0);
  p.pid = PID + 1;
  ASSERT_EQ(ioctl(b, DMX_SET_PES_FILTER, &p), 0);
  Ts_writer ts;
  ts.packet(PID, false, {1}).packet(PID + 1, false, {2});
  const Bytes wanted = ts.bytes;
  ts.packet(PID + 2, false, {3});
  send(ts);
  EXPECT_EQ(read_bytes(dvr, 188 * 10), wanted);
  EXPECT_EQ(read_size(a), -EAGAIN);
  p.pid = 0x2000;
  ASSERT_EQ(ioctl(b, DMX_SET_PES_FILTER, &p), 0);
  send(ts);
  EXPECT_EQ(read_bytes(dvr, 188 * 10), ts.bytes);
}
