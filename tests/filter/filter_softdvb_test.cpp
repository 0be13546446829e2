// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Section_filter on the software adapter, which behaves as Linux's demultiplexer does.

#include "filter/filter_support.h"
#include "support/softdvb.h"
#include "support/ts_writer.h"

using support::Bytes;
using testing::HasSubstr;

namespace {

constexpr char DEVICE[] = "/dev/dvb/adapter0/demux0";

using Sections = std::vector<Bytes>;

Bytes pmt(int program, size_t filler = 0) {
  return support::long_section(table::PMT, static_cast<uint16_t>(program), 0,
                               support::join({support::u16(0xE101), support::loop12(Bytes(filler, 0))}));
}

class Filter_softdvb : public Filter_test {
 protected:
  Filter_softdvb() : Filter_test(DEVICE) {}
  char buffer[SECTION_BUF_SIZE];

  // One section as transport packets of its PID.
  void on_air(int pid, const Bytes& section) {
    packets_.bytes.clear();
    packets_.section(pid, section);
    support::softdvb_inject(0, packets_.bytes);
  }

  void start(int pid = 0x100, int tid = table::PMT) {
    want(pid, tid);
    pass();
  }
  // One pass of a scan loop: what each filter of the list has read, in its order.
  Sections pass(int timeout_ms = 0) {
    filter.recalculate_filters();
    filter.wait_for_data(timeout_ms);
    Sections all;
    for (dvb_filter_desc* f : *filter.flist()) {
      const unsigned size = filter.get_section_data(f, buffer);
      if (size != 0)
        all.emplace_back(buffer, buffer + size);
    }
    return all;
  }

 private:
  support::Ts_writer packets_;
};

TEST_F(Filter_softdvb, sections_of_the_pid_and_table_arrive_one_a_read) {
  want(0x100, table::PMT);
  EXPECT_EQ(pass(), Sections());
  on_air(0x100, pmt(1));
  on_air(0x100, pmt(2, 300));
  on_air(0x101, pmt(3));
  on_air(0x100, support::long_section(0x03, 1, 0, {}));
  EXPECT_EQ(pass(1000), Sections{pmt(1)});
  EXPECT_EQ(pass(1000), Sections{pmt(2, 300)});
  EXPECT_EQ(pass(), Sections());
  EXPECT_EQ(at(0)->captured, 2);
}

TEST_F(Filter_softdvb, eight_filters_run_and_the_ninth_gets_its_section_after_a_removal) {
  want_each(9);
  pass();
  for (int i = 0; i < 9; ++i)
    on_air(0x100 + i, pmt(i));
  EXPECT_EQ(pass(1000).size(), 8u);
  EXPECT_EQ(state(8), FILTER_WANTED);
  filter.removefilter(0x104, table::PMT);
  pass();
  EXPECT_EQ(state(8), FILTER_RUNNING);
  on_air(0x108, pmt(8));
  EXPECT_EQ(pass(1000), Sections{pmt(8)});
}

TEST_F(Filter_softdvb, a_reused_handle_delivers_nothing_of_the_filter_before) {
  start();
  const int handle = at(0)->fd;
  on_air(0x100, pmt(1));
  filter.removefilter(0x100, table::PMT);
  want(0x200, table::PMT);
  EXPECT_EQ(pass(), Sections());
  EXPECT_EQ(at(0)->fd, handle);
  on_air(0x100, pmt(1));
  on_air(0x200, pmt(2));
  EXPECT_EQ(pass(1000), Sections{pmt(2)});
}

TEST_F(Filter_softdvb, the_demultiplexer_drops_wrong_crcs_unless_they_are_checked_here) {
  Bytes wrong = pmt(1);
  wrong.back() ^= 1;
  want(0x100, table::PMT);
  const unsigned char tid = 2;
  const unsigned char mask = 0xFF;
  filter.addfilter(0x200, FREQ, &tid, &mask, 1, FILTER_FLAG_SOFT_CRC, 2);
  pass();
  on_air(0x100, wrong);
  on_air(0x200, wrong);
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(pass(1000), Sections()); }),
              testing::StartsWith("ERROR: *** Received section pid 200 type 2 len 13 CRC failed, "));
  EXPECT_EQ(at(0)->captured, 0);
  EXPECT_EQ(at(1)->captured, 1);
  on_air(0x200, pmt(2));
  EXPECT_EQ(pass(1000), Sections{pmt(2)});
}

TEST_F(Filter_softdvb, after_an_overflow_new_sections_arrive_on_the_same_filter) {
  start();
  for (int i = 0; i < 20; ++i)
    on_air(0x100, pmt(i, 1000));
  EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(pass(1000), Sections()); }),
            "WARNING: Resetting dmxdev kernel ringbuffer, overflow\n");
  EXPECT_EQ(state(0), FILTER_RUNNING);
  EXPECT_EQ(pass(), Sections()) << "everything queued is gone";
  on_air(0x100, pmt(99));
  EXPECT_EQ(pass(1000), Sections{pmt(99)});
}

TEST_F(Filter_softdvb, stopped_filters_receive_nothing_and_start_again) {
  start();
  filter.stop_filters();
  on_air(0x100, pmt(1));
  EXPECT_EQ(pass(), Sections());
  filter.start_filters();
  EXPECT_EQ(pass(), Sections()) << "nothing of the time in between";
  on_air(0x100, pmt(2));
  EXPECT_EQ(pass(1000), Sections{pmt(2)});
}

TEST_F(Filter_softdvb, quirk_restart_all_silences_filters_until_they_are_started) {
  start();
  EXPECT_EQ(messages_at(1, [&] { filter.restart_all_filters(); }), "WARNING: Restarting filter for PID 100\n");
  on_air(0x100, pmt(1));
  EXPECT_EQ(pass(), Sections()) << "what arrives is not asked for";
  filter.start_filters();
  pass();
  on_air(0x100, pmt(2));
  EXPECT_EQ(pass(1000), Sections{pmt(2)});
}

TEST_F(Filter_softdvb, a_silent_feed_is_restarted_every_two_seconds_and_one_below_pid_21_never) {
  want(pid::NIT, table::NIT_ACTUAL);
  start();
  const auto begin = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::steady_clock::now() - begin; };
  const std::string all = messages_at(3, [&] {
    while (at(1)->restarts < 3 && elapsed() < std::chrono::minutes(2)) {
      filter.wait_for_data(100);
      filter.check_feed_activation();
    }
  });
  EXPECT_EQ(at(0)->restarts, 0);
  EXPECT_EQ(at(1)->restarts, 3);
  EXPECT_GT(elapsed(), std::chrono::seconds(3)) << "each period strikes in its last second";
  EXPECT_THAT(all, testing::StartsWith("##Restart /dev/dvb/adapter0/demux0 1 times: pid 100  tid 2. Started 2, "
                                       "restarted 0, captured 0\n"));
  on_air(0x100, pmt(1));
  EXPECT_EQ(pass(1000), Sections{pmt(1)});
  const int restarts = at(1)->restarts;
  for (int i = 0; i < 30; ++i) {
    filter.wait_for_data(100);
    filter.check_feed_activation();
  }
  EXPECT_EQ(at(1)->restarts, restarts) << "no longer silent";
}

TEST_F(Filter_softdvb, a_wait_may_last_longer_than_a_second) {
  start();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(filter.wait_for_data(1500), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1450));
}

TEST_F(Filter_softdvb, a_failing_wait_answers_minus_1_with_its_reason) {
  start();
  support::softdvb_control("fault select = ENOMEM*1");
  EXPECT_EQ(messages_at(4,
                        [&] {
                          EXPECT_EQ(filter.wait_for_data(100), -1);
                          EXPECT_EQ(errno, ENOMEM);
                        }),
            "");
  on_air(0x100, pmt(1));
  EXPECT_EQ(pass(1000), Sections{pmt(1)});
}

TEST_F(Filter_softdvb, a_wait_that_signals_end_goes_on_for_the_rest_of_its_time) {
  start();
  support::softdvb_control("fault select = EINTR*3");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(messages_at(4, [&] { EXPECT_EQ(filter.wait_for_data(500), 0); }), "");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(490));
  on_air(0x100, pmt(1));
  support::softdvb_control("fault select = EINTR*3");
  EXPECT_EQ(pass(1000), Sections{pmt(1)});
}

TEST_F(Filter_softdvb, a_busy_device_is_tried_again) {
  support::softdvb_control("fault open(demux0) = EBUSY*4");
  want(0x100, table::PMT);
  for (int i = 0; i < 4; ++i)
    EXPECT_THAT(messages_at(1, [&] { filter.recalculate_filters(); }),
                testing::EndsWith("fopen: Device or resource busy\n"));
  EXPECT_EQ(messages_at(1, [&] { filter.recalculate_filters(); }), "");
  EXPECT_EQ(state(0), FILTER_RUNNING);
}

TEST_F(Filter_softdvb, a_tdt_without_crc_passes_every_check) {
  const Bytes tdt = {table::TDT, 0x70, 0x05, 0xD0, 0x7D, 0x12, 0x34, 0x56};
  start(pid::TIME, table::TDT);
  on_air(pid::TIME, tdt);
  EXPECT_EQ(pass(1000), Sections{tdt});
}

TEST_F(Filter_softdvb, no_section_is_lost_while_other_pids_are_filtered) {
  want_each(4);
  pass();
  int seen = 0;
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 4; ++i)
      on_air(0x100 + i, pmt(round));
    seen += static_cast<int>(pass(1000).size());
    want(0x300, table::PMT);
    filter.recalculate_filters();
    filter.removefilter(0x300, table::PMT);
  }
  EXPECT_EQ(seen, 200);
}

}  // namespace
