// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The guide's tables while its filter loses sections.
#include "filter/fake_demux.h"
#include "filter/section_filter_parts.h"
#include "si/recorded_clock.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"

using namespace si_support;

namespace {

constexpr int TABLE = table::EIT_SCHEDULE_FIRST;

// One service whose guide is read through a demultiplexer that can be made to fail.
class Lost_guide : public support::Database, public testing::Test {
 protected:
  Lost_guide() {
    run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, serv_type, serv_name) VALUES "
        "(1, 3, 506000000, 1, 256, 257, 1, 'First')");
    filter.parts().configure({.check_crc = true});
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.start_eit_scan(FREQ, SCAN_EIT);
    // Through present and following, which one service has in one section.
    for (int i = 0; i < 4; ++i)
      arrives(eit(1, table::EIT_PRESENT_FOLLOWING, {{1, 0x120000}}));
    EXPECT_EQ(parser.parts().guide().table(), TABLE);
  }

  // From the device to the parser, as the scan loop does it.
  void arrives(const Bytes& section) {
    filter.recalculate_filters();
    demux.put(section);
    ASSERT_EQ(filter.wait_for_data(60000), 1);
    char buffer[SECTION_BUF_SIZE];
    for (dvb_filter_desc* f : *filter.flist()) {
      const int pid = f->pid;
      const unsigned size = filter.get_section_data(f, buffer);
      if (size != 0)
        scan_with(parser, Bytes(buffer, buffer + size), pid, SCAN_EIT);
    }
  }
  void overflow() {
    demux.fail_read(EOVERFLOW, 1);
    filter.recalculate_filters();
    demux.put(section(0));
    ASSERT_EQ(filter.wait_for_data(60000), 1);
    char buffer[SECTION_BUF_SIZE];
    for (dvb_filter_desc* f : *filter.flist())
      EXPECT_EQ(filter.get_section_data(f, buffer), 0U);
    // What overflowed stays in the pipe.
    filter.recalculate_filters();
    ASSERT_EQ(filter.wait_for_data(60000), 1);
    for (dvb_filter_desc* f : *filter.flist())
      (void)filter.get_section_data(f, buffer);
  }
  // One of the two sections of the service's part of the first schedule table.
  static Bytes section(uint8_t number) {
    const unsigned hour = 0x130000 + number * 0x010000U;
    return eit(1, TABLE, {{10 + number, hour}}, number, 1);
  }
  Texts events() { return rows("SELECT ev_id FROM epglist ORDER BY ev_id"); }
  bool done() {
    std::vector<EIT_progress> progress;
    parser.get_eit_progress(&progress);
    return progress.size() == 1 && progress[0].table == TABLE && progress[0].done;
  }

  const support::Verbosity quiet{-1};
  Sdbl& db = sdbl();
  Fake_demux demux;
  Section_filter filter{demux.path()};
  Siparse parser{&filter, 0, CONN, TYPE, &db};
};

TEST_F(Lost_guide, without_the_policy_a_loss_changes_nothing) {
  for (int i = 0; i < 2; ++i)
    arrives(section(1));
  overflow();
  arrives(section(1));
  EXPECT_TRUE(done());
}

TEST_F(Lost_guide, after_an_overflow_the_last_section_has_to_come_twice_again_and_what_was_lost_is_stored) {
  parser.parts().set_repeat_lost(true);
  for (int i = 0; i < 2; ++i)
    arrives(section(1));
  overflow();  // of the first section
  arrives(section(1));
  EXPECT_FALSE(done());
  EXPECT_EQ(events(), (Texts{"1", "11"}));
  arrives(section(0));
  EXPECT_FALSE(done());
  arrives(section(1));
  EXPECT_TRUE(done());
  EXPECT_EQ(events(), (Texts{"1", "10", "11"}));
}

TEST_F(Lost_guide, so_it_has_after_a_wrong_crc_when_the_service_was_done_before) {
  parser.parts().set_repeat_lost(true);
  for (int i = 0; i < 3; ++i)
    arrives(section(1));
  EXPECT_TRUE(done());
  Bytes wrong = section(0);
  wrong.back() ^= 1;
  arrives(wrong);
  arrives(section(0));
  EXPECT_FALSE(done());
  EXPECT_EQ(events(), (Texts{"1", "10", "11"}));
  for (int i = 0; i < 2; ++i)
    arrives(section(1));
  EXPECT_TRUE(done());
}

TEST_F(Lost_guide, losses_on_other_pids_do_not_count) {
  parser.parts().set_repeat_lost(true);
  for (int i = 0; i < 2; ++i)
    arrives(section(1));
  filter.remove_all();
  filter.addfilter(pid::SDT, TABLE, FREQ);
  overflow();
  filter.remove_all();
  filter.addfilter(pid::EIT, TABLE, FREQ);
  arrives(section(1));
  EXPECT_TRUE(done());
  EXPECT_EQ(filter.parts().losses(pid::SDT), 1);
}

TEST_F(Lost_guide, losses_before_a_round_do_not_count_in_it) {
  parser.parts().set_repeat_lost(true);
  overflow();
  parser.reset_cache_list();
  parser.start_eit_scan(FREQ, SCAN_EIT);
  recorded_clock.take_armed();
  arrives(eit(1, table::EIT_PRESENT_FOLLOWING, {{1, 0x120000}}));
  EXPECT_EQ(recorded_clock.take_armed(), (std::vector<Seconds>{{0, 0}, {2, 0}})) << "the filter's own timer alone";
}

}  // namespace
