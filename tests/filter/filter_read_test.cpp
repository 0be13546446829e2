// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Waiting for sections, reading them, and the CRC.

#include "filter/filter_support.h"

using support::Bytes;

namespace {

constexpr int PID = 0x100;
const Bytes TDT = {table::TDT, 0x70, 0x05, 0xD0, 0x7D, 0x12, 0x34, 0x56};
const Bytes PMT = support::long_section(table::PMT, 1, 3, support::join({support::u16(0xE101), support::loop12({})}));

class Filter_read : public Demux_test {
 protected:
  char buffer[SECTION_BUF_SIZE];

  dvb_filter_desc* start(int pid = PID, int tid = table::PMT, int flags = FILTER_FLAG_HW_CRC) {
    const unsigned char byte = static_cast<unsigned char>(tid);
    const unsigned char mask = 0xFF;
    filter.addfilter(pid, FREQ, &byte, &mask, 1, flags, 2);
    filter.recalculate_filters();
    return *std::find_if(filter.flist()->begin(), filter.flist()->end(), [=](auto* f) { return f->pid == pid; });
  }
  dvb_filter_desc* start_checked(int pid = PID, int tid = table::PMT) { return start(pid, tid, FILTER_FLAG_SOFT_CRC); }
  // A filter for which a PMT is ready.
  dvb_filter_desc* start_ready() {
    dvb_filter_desc* f = start();
    demux.put(PMT);
    EXPECT_EQ(filter.wait_for_data(1000), 1);
    return f;
  }
  // A pass up to the wait.
  int wait(int timeout_ms = 1000) {
    filter.recalculate_filters();
    return filter.wait_for_data(timeout_ms);
  }
  unsigned read(dvb_filter_desc* f) { return filter.get_section_data(f, buffer); }
  unsigned deliver(dvb_filter_desc* f, const Bytes& bytes) {
    demux.put(bytes);
    EXPECT_GT(wait(), 0);
    return read(f);
  }
  // Yields nothing and asks the device for nothing.
  void expect_no_read(dvb_filter_desc* f) {
    const int reads = demux.reads();
    EXPECT_EQ(read(f), 0u);
    EXPECT_EQ(demux.reads(), reads);
  }
  // What a reading prints that yields nothing.
  std::string refused(int level, dvb_filter_desc* f) {
    return messages_at(level, [=, this] { EXPECT_EQ(read(f), 0u); });
  }
  std::string refused(int level, dvb_filter_desc* f, const Bytes& bytes) {
    return messages_at(level, [&] { EXPECT_EQ(deliver(f, bytes), 0u); });
  }
};

TEST_F(Filter_read, a_good_section_arrives_byte_for_byte_and_the_rest_of_the_buffer_is_zero) {
  dvb_filter_desc* f = start();
  std::memset(buffer, 0x55, sizeof buffer);
  EXPECT_EQ(deliver(f, PMT), PMT.size());
  EXPECT_EQ(std::memcmp(buffer, PMT.data(), PMT.size()), 0);
  EXPECT_TRUE(std::all_of(buffer + PMT.size(), buffer + sizeof buffer, [](char c) { return c == 0; }));
  EXPECT_EQ(f->captured, 1);
}

TEST_F(Filter_read, the_longest_section_fits) {
  EXPECT_EQ(deliver(start(), support::long_section(table::PMT, 1, 0, Bytes(4096 - 12, 0xAB))), 4096u);
}

TEST_F(Filter_read, reading_traces_at_4) {
  dvb_filter_desc* f = start_ready();
  wait(0);
  char text[100];
  std::snprintf(text, sizeof text, "Reading data loop 2 from filter PID 100 TID 2 fileno %x nrbytes %zu\n",
                static_cast<unsigned>(f->fd), PMT.size());
  EXPECT_EQ(messages_at(4, [&] { read(f); }), text);
  demux.put(PMT);
  wait();
  EXPECT_EQ(messages_at(3, [&] { read(f); }), "");
}

TEST_F(Filter_read, nothing_to_read_is_a_time_out_also_without_filters) {
  EXPECT_EQ(filter.recalculate_filters(), 0);
  EXPECT_EQ(filter.wait_for_data(20), 0);
  start();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(filter.wait_for_data(50), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(45));
}

TEST_F(Filter_read, a_wait_of_more_than_a_second_is_passed_on_in_microseconds) {
  start();
  demux.put(PMT);
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(1500), 1) << "the system takes 1,500,000 microseconds";
}

TEST_F(Filter_read, each_ready_handle_is_read_once_per_wait_and_one_that_is_not_ready_never) {
  dvb_filter_desc* f = start();
  filter.wait_for_data(0);
  expect_no_read(f);
  EXPECT_GT(deliver(f, PMT), 0u);
  demux.put(PMT);
  expect_no_read(f);
  wait();
  EXPECT_GT(read(f), 0u);
}

TEST_F(Filter_read, a_filter_that_does_not_run_yields_0_without_a_read) {
  dvb_filter_desc* f = start_ready();
  for (int state : {FILTER_FREE, FILTER_WANTED, FILTER_STOPPED}) {
    SCOPED_TRACE(state);
    f->state = state;
    expect_no_read(f);
  }
  f->state = FILTER_RUNNING;
}

TEST_F(Filter_read, a_filter_freed_after_the_wait_is_not_read) {
  dvb_filter_desc* f = start_ready();
  filter.remove_all();
  expect_no_read(f);
  // The slot serves another filter at once; the old wait says nothing about it.
  want(0x200);
  f->state = FILTER_RUNNING;
  expect_no_read(f);
}

TEST_F(Filter_read, a_filter_freed_by_another_thread_during_the_wait_is_not_waited_for_again) {
  start();
  std::thread remover([&] { filter.remove_all(); });
  EXPECT_EQ(filter.wait_for_data(50), 0);
  remover.join();
  EXPECT_EQ(filter.recalculate_filters(), 0);
  EXPECT_EQ(filter.wait_for_data(0), 0);
}

TEST_F(Filter_read, waiting_goes_on_after_a_handle_of_the_set_was_closed) {
  for (int i = 0; i < 8; ++i)
    start(0x100 + i);
  filter.remove_all();
  filter.recalculate_filters();  // closes all eight
  dvb_filter_desc* f = start(0x300);
  EXPECT_GT(deliver(f, PMT), 0u);
}

TEST_F(Filter_read, an_overflow_is_a_warning_and_the_filter_goes_on) {
  dvb_filter_desc* f = start_ready();
  demux.fail_read(EOVERFLOW);
  calls();
  EXPECT_EQ(refused(1, f), "WARNING: Resetting dmxdev kernel ringbuffer, overflow\n");
  wait();
  EXPECT_EQ(refused(0, f), "");
  EXPECT_EQ(calls(), "") << "neither stopped nor started";
  EXPECT_EQ(std::pair(f->state, f->captured), std::pair(int{FILTER_RUNNING}, 0));
  demux.fail_read(0);
  wait();
  EXPECT_GT(read(f), 0u);
}

TEST_F(Filter_read, another_read_error_is_printed_with_its_reason) {
  dvb_filter_desc* f = start_ready();
  demux.fail_read(EIO);
  const std::string reason = "read @ get_section_data:: Input/output error\n";
  EXPECT_EQ(refused(0, f), "ERROR: Reading 4K into char buffer from " + fd_text(0) + ", errno 5 " + reason);
  wait();
  EXPECT_EQ(refused(-1, f), reason);
  EXPECT_EQ(f->state, FILTER_RUNNING);
  demux.fail_read(0);
}

TEST_F(Filter_read, a_length_other_than_the_headers_is_refused) {
  dvb_filter_desc* f = start();
  const std::pair<Bytes, const char*> cases[] = {
      {support::join({PMT, {0}}), "type 2 incorrect length 17 vs header 16"},
      {Bytes(PMT.begin(), PMT.end() - 1), "type 2 incorrect length 15 vs header 16"},
      {{0x02, 0xB0}, "type 2 incorrect length 2 vs header 3"},
      {{0x02, 0x30, 0x04, 1, 2, 3, 4}, "type 2 incorrect length 7 vs header 7"},  // they agree, but are too few
      {{0x82, 0x00, 0x00}, "type 82 incorrect length 3 vs header 3"},
  };
  for (const auto& [bytes, numbers] : cases) {
    EXPECT_EQ(refused(0, f, bytes), std::string("ERROR: Received section pid 100 ") + numbers + "\n");
    EXPECT_EQ(refused(-1, f, bytes), "") << numbers;
  }
  EXPECT_EQ(f->captured, 0);
}

TEST(Filter_read_end, an_empty_read_is_a_length_error) {
  auto demux = std::make_unique<Fake_demux>();
  Section_filter filter(demux->path());
  filter.addfilter(PID, 2, FREQ);
  filter.recalculate_filters();
  demux->put(PMT);
  filter.wait_for_data(1000);
  char buffer[SECTION_BUF_SIZE];
  EXPECT_GT(filter.get_section_data(slot(filter, 0), buffer), 0u);
  demux.reset();  // nobody can write any more: ready, and read gives 0
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(1000), 1);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(filter.get_section_data(slot(filter, 0), buffer), 0u); }),
            "ERROR: Received section pid 100 type 0 incorrect length 0 vs header 3\n");
  messages_at(-1, [&] { filter.remove_all(); });
}

// --- The CRC in software ---------------------------------------------------------------------------------------------

TEST_F(Filter_read, a_wrong_crc_is_counted_but_returns_0) {
  dvb_filter_desc* f = start_checked();
  Bytes section = PMT;
  section.back() ^= 1;
  const uint8_t* end = section.data() + section.size();
  char expected[200];
  std::snprintf(expected, sizeof expected,
                "ERROR: *** Received section pid 100 type 2 len 13 CRC failed, %x != 0, rdback %02x%02x%02x%02x\n",
                support::mpeg_crc32(section.data(), section.size()), end[-4], end[-3], end[-2], end[-1]);
  EXPECT_EQ(refused(0, f, section), expected);
  EXPECT_EQ(f->captured, 1);
  EXPECT_EQ(refused(-1, f, section), "");
  EXPECT_EQ(f->captured, 2);
}

TEST_F(Filter_read, a_right_crc_passes_and_without_the_flag_a_wrong_one_does) {
  EXPECT_EQ(deliver(start_checked(), PMT), PMT.size());
  filter.remove_all();
  Bytes section = PMT;
  section.back() ^= 1;
  EXPECT_EQ(deliver(start(), section), section.size());
}

TEST_F(Filter_read, a_tdt_passes_the_crc_check_and_a_tot_does_not) {
  dvb_filter_desc* f = start_checked(pid::TIME, table::TDT);
  EXPECT_EQ(deliver(f, TDT), 8u);
  Bytes tot = support::with_crc({table::TOT, 0x70, 0x0B, 0xD0, 0x7D, 0x12, 0x34, 0x56, 0xF0, 0x00});
  EXPECT_EQ(deliver(f, tot), tot.size());
  tot.back() ^= 0x10;
  EXPECT_EQ(refused(-1, f, tot), "");
  EXPECT_EQ(f->captured, 3);
}

TEST_F(Filter_read, only_a_tdt_of_5_bytes_on_its_own_pid_is_exempt) {
  EXPECT_EQ(refused(-1, start_checked(pid::TIME + 1, table::TDT), TDT), "");
  filter.remove_all();
  dvb_filter_desc* f = start_checked(pid::TIME, table::TDT);
  Bytes longer = support::join({TDT, {0x00}});
  longer[2] = 0x06;
  EXPECT_EQ(refused(-1, f, longer), "");
  Bytes other_table = TDT;
  other_table[0] = table::TOT;
  EXPECT_EQ(refused(-1, f, other_table), "");
  EXPECT_EQ(deliver(f, TDT), 8u);
}

TEST_F(Filter_read, quirk_a_table_id_above_7f_is_printed_sign_extended) {
  EXPECT_THAT(refused(0, start_checked(PID, 0x82), {0x82, 0x30, 0x05, 1, 2, 3, 4, 5}),
              testing::StartsWith("ERROR: *** Received section pid 100 type ffffff82 len 5 CRC failed, "));
}

TEST(Crc32, known_values) {
  const auto* digits = reinterpret_cast<const unsigned char*>("123456789");
  EXPECT_EQ(Section_filter::crc32_be(0xFFFFFFFF, digits, 9), 0x0376E6E7u) << "CRC-32/MPEG-2";
  EXPECT_EQ(Section_filter::crc32_le(0xFFFFFFFF, digits, 9), 0x340BC6D9u) << "CRC-32/JAMCRC";
}

TEST(Crc32, be_over_a_correct_section_gives_0_also_in_pieces_and_length_0_leaves_the_value) {
  for (const Bytes& section : {PMT, support::long_section(table::SDT_ACTUAL, 7, 1, Bytes(500, 0x5A))}) {
    const auto size = static_cast<unsigned>(section.size());
    EXPECT_EQ(Section_filter::crc32_be(0xFFFFFFFF, section.data(), size), 0u);
    const unsigned first = Section_filter::crc32_be(0xFFFFFFFF, section.data(), 5);
    EXPECT_EQ(Section_filter::crc32_be(first, section.data() + 5, size - 5), 0u);
  }
  EXPECT_EQ(Section_filter::crc32_be(0x12345678, PMT.data(), 0), 0x12345678u);
  EXPECT_EQ(Section_filter::crc32_le(0x12345678, PMT.data(), 0), 0x12345678u);
}

}  // namespace
