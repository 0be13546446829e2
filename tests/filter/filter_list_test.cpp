// The list of filters, without a device that could be opened.
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/ids.h"
#include "filter/filter_support.h"

using testing::ElementsAre;

namespace {

constexpr char NO_DEVICE[] = "/nonexistent/dvb/adapter0/demux0";
constexpr int FREQ = 506000000;

class FilterList : public testing::Test {
 protected:
  Section_filter filter{NO_DEVICE};
};
class FilterOpen : public FilterList {};
class FilterQuery : public FilterList {};
class FilterRemoval : public FilterList {};

TEST_F(FilterList, starts_empty) {
  EXPECT_TRUE(filter.flist()->empty());
  EXPECT_EQ(filter.pid_in_list(0), 0);
  EXPECT_EQ(filter.recalculate_filters(), 0);
}

TEST_F(FilterList, addfilter_for_a_table_fills_in_the_parsers_defaults) {
  EXPECT_EQ(filter.addfilter(0x100, 0x42, FREQ), 0);
  const dvb_filter_desc* f = slot(filter, 0);
  EXPECT_EQ(f->pid, 0x100);
  EXPECT_EQ(f->state, FILTER_WANTED);
  EXPECT_EQ(f->filter[0], 0x42);
  EXPECT_EQ(f->mask[0], 0xFF);
  for (int i = 1; i < FILTER_LENGTH; ++i) {
    EXPECT_EQ(f->filter[i], 0) << i;
    EXPECT_EQ(f->mask[i], 0) << i;
  }
  EXPECT_EQ(f->flags, FILTER_FLAG_HW_CRC);
  EXPECT_EQ(f->timeout_s, 2);
  EXPECT_EQ(f->freq, FREQ);
  EXPECT_EQ(f->fd, -1);
  EXPECT_EQ(f->captured, 0);
  EXPECT_EQ(f->open_retries, 0);
  EXPECT_EQ(f->restarts, 0);
}

TEST_F(FilterList, length_20_keeps_the_first_16_bytes_and_warns) {
  unsigned char bytes[20];
  unsigned char mask[20];
  for (unsigned char i = 0; i < 20; ++i) {
    bytes[i] = static_cast<unsigned char>(0x40 + i);
    mask[i] = static_cast<unsigned char>(0x80 + i);
  }
  EXPECT_EQ(messages_at(1, [&] { filter.addfilter(16, FREQ, bytes, mask, 20, FILTER_FLAG_ONESHOT, 5); }),
            "WARNING: Filter length too long 20 > 16, remaining discarded\n");
  const dvb_filter_desc* f = slot(filter, 0);
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(f->filter[i], 0x40 + i);
    EXPECT_EQ(f->mask[i], 0x80 + i);
  }
  EXPECT_EQ(f->timeout_s, 5);
  EXPECT_EQ(f->flags, FILTER_FLAG_ONESHOT);
  EXPECT_EQ(messages_at(0, [&] { filter.addfilter(16, FREQ, bytes, mask, 17, 0, 5); }), "");
}

TEST_F(FilterList, length_16_and_0_are_taken_without_a_warning) {
  const unsigned char bytes[16] = {1, 2, 3};
  EXPECT_EQ(messages_at(2,
                        [&] {
                          filter.addfilter(16, FREQ, bytes, bytes, 16, 0, 5);
                          filter.addfilter(17, FREQ, bytes, bytes, 0, 0, 5);
                          filter.addfilter(18, FREQ, bytes, bytes, -3, 0, 5);
                        }),
            "");
  EXPECT_EQ(slot(filter, 1)->filter[0], 0);
  EXPECT_EQ(slot(filter, 2)->filter[0], 0);
}

TEST_F(FilterList, a_new_slot_is_announced_at_3_and_its_token_at_4) {
  EXPECT_EQ(messages_at(2, [&] { filter.addfilter(1, 0x01, FREQ); }), "");
  EXPECT_EQ(messages_at(3, [&] { filter.addfilter(pid::EIT, table::EIT_PRESENT_FOLLOWING, FREQ); }),
            "Adding new filter for pid 18 to list, filter list size 2, nr_opened 0\n");
  EXPECT_EQ(messages_at(4, [&] { filter.addfilter(0x123, table::PMT, FREQ); }),
            "Adding new filter for pid 291 to list, filter list size 3, nr_opened 0\n+Fl123.002");
}

TEST_F(FilterList, a_reused_slot_is_not_announced_and_its_counters_are_new) {
  filter.addfilter(1, 0x01, FREQ);
  filter.addfilter(2, table::PMT, FREQ);
  slot(filter, 0)->restarts = 3;
  filter.removefilter(1, 0x01);
  EXPECT_EQ(messages_at(4, [&] { filter.addfilter(3, 0x40, 7); }), "");
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_WANTED, 3, 0x40), Slot(FILTER_WANTED, 2, 0x02)));
  EXPECT_EQ(slot(filter, 0)->restarts, 0);
  EXPECT_EQ(slot(filter, 0)->freq, 7);
}

TEST_F(FilterList, a_reused_slot_keeps_nothing_of_a_longer_filter) {
  const unsigned char bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  filter.addfilter(16, FREQ, bytes, bytes, 16, FILTER_FLAG_ONESHOT, 5);
  slot(filter, 0)->captured = 7;
  filter.remove_all();
  slot(filter, 0)->captured = 7;
  filter.addfilter(17, 0x42, FREQ);
  const dvb_filter_desc* f = slot(filter, 0);
  for (int i = 1; i < FILTER_LENGTH; ++i)
    EXPECT_EQ(f->filter[i] | f->mask[i], 0) << i;
  EXPECT_EQ(f->flags, FILTER_FLAG_HW_CRC);
  EXPECT_EQ(f->timeout_s, 2);
  EXPECT_EQ(f->captured, 0);
}

TEST_F(FilterList, the_first_free_slot_is_reused) {
  for (int pid = 1; pid <= 4; ++pid)
    filter.addfilter(pid, 2, FREQ);
  filter.removefilter(3, 2);
  filter.removefilter(2, 2);
  filter.addfilter(9, 9, FREQ);
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_WANTED, 1, 2), Slot(FILTER_WANTED, 9, 9), Slot(FILTER_FREE, -1, 2),
                                         Slot(FILTER_WANTED, 4, 2)));
}

TEST_F(FilterList, the_same_filter_twice_takes_two_slots) {
  filter.addfilter(0x100, 2, FREQ);
  filter.addfilter(0x100, 2, FREQ);
  EXPECT_EQ(filter.flist()->size(), 2u);
}

// --- Removal ---------------------------------------------------------------------------------------------------------

TEST_F(FilterRemoval, of_a_filter_that_is_not_there_prints_a_count_of_0) {
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(filter.removefilter(pid::NIT, table::NIT_ACTUAL), 0); }),
            "ERROR: Removed 0 instances of pid 10, Tid 40\n");
  EXPECT_EQ(messages_at(-1, [&] { filter.removefilter(pid::NIT, table::NIT_ACTUAL); }), "");
}

TEST_F(FilterRemoval, removefilter_of_one_filter_is_silent_below_3) {
  filter.addfilter(pid::NIT, table::NIT_ACTUAL, FREQ);
  filter.addfilter(pid::NIT, table::NIT_OTHER, FREQ);
  EXPECT_EQ(messages_at(2, [&] { filter.removefilter(pid::NIT, table::NIT_OTHER); }), "");
  EXPECT_EQ(messages_at(3, [&] { filter.removefilter(pid::NIT, table::NIT_ACTUAL); }),
            "Removing filter pid 10 tid 40\n-Fi010.040.-1");
  EXPECT_EQ(slot(filter, 0)->pid, -1);
  EXPECT_EQ(slot(filter, 0)->freq, 0);
  EXPECT_EQ(slot(filter, 0)->state, FILTER_FREE);
}

TEST_F(FilterRemoval, quirk_two_filters_of_one_pid_and_table_go_together_with_an_error) {
  filter.addfilter(0x100, 2, FREQ);
  filter.addfilter(0x100, 2, FREQ);
  EXPECT_EQ(messages_at(0, [&] { filter.removefilter(0x100, 2); }), "ERROR: Removed 2 instances of pid 100, Tid 2\n");
  EXPECT_EQ(filter.pid_in_list(0x100), 0);
}

TEST_F(FilterRemoval, by_range_of_pids) {
  for (int pid : {0x0F, 0x10, 0x12, 0x14, 0x15})
    filter.addfilter(pid, 0x42, FREQ);
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_pid_range(0x15, 0x1FFF); }), "");
  EXPECT_EQ(messages_at(3, [&] { filter.remove_filter_pid_range(0x14, 0x14); }), "-Fpr014.042.-1");
  EXPECT_EQ(messages_at(4, [&] { EXPECT_EQ(filter.remove_filter_pid_range(0x10, 0x12), 0); }),
            "Removing filters from pid 10-12 :-Fpr010.042.-1-Fpr012.042.-1\n");
  EXPECT_EQ(filter.pid_in_list(0x0F), 1);
  EXPECT_EQ(
      filter.pid_in_list(0x10) + filter.pid_in_list(pid::EIT) + filter.pid_in_list(0x14) + filter.pid_in_list(0x15), 0);
}

// What ends at the end of a scan: all but the guide and the clock. A NIT may be on any PID, also a reserved one.
TEST_F(FilterRemoval, by_range_of_pids_takes_every_pid_of_the_range_and_no_other) {
  for (int pid = pid::PAT; pid <= pid::LAST_RESERVED + 1; ++pid)
    filter.addfilter(pid, table::NIT_ACTUAL, 0);
  filter.addfilter(pid::LAST, table::PMT, 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::PAT, pid::EIT - 1), 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::EIT + 1, pid::TIME - 1), 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::TIME + 1, pid::LAST), 0);
  std::vector<int> left;
  for (int pid = pid::PAT; pid <= pid::LAST; ++pid) {
    if (filter.pid_in_list(pid) != 0)
      left.push_back(pid);
  }
  EXPECT_EQ(left, (std::vector<int>{pid::EIT, pid::TIME}));
}

TEST_F(FilterRemoval, by_range_of_table_ids) {
  for (int tid : {0x4D, 0x4E, 0x5F, 0x60})
    filter.addfilter(0x12, tid, FREQ);
  filter.addfilter(0x13, table::EIT_SCHEDULE_FIRST, FREQ);
  EXPECT_EQ(messages_at(4, [&] { EXPECT_EQ(filter.remove_filter_range(0x12, 0x4E, 0x5F), 0); }),
            "Removing filters from pid 12, tid 4e-5f :-Fr012.04E.-1-Fr012.05F.-1\n");
  EXPECT_EQ(messages_at(3, [&] { filter.remove_filter_range(0x12, 0x60, 0x60); }), "-Fr012.060.-1");
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_range(0x12, 0x4D, 0x4D); }), "");
  EXPECT_EQ(filter.pid_tid_in_list(0x13, table::EIT_SCHEDULE_FIRST), 1);
  EXPECT_EQ(filter.pid_in_list(pid::EIT), 0);
}

TEST_F(FilterRemoval, quirk_by_frequency_prints_the_token_of_removefilter) {
  filter.addfilter(1, 1, 100);
  filter.addfilter(2, 2, 200);
  filter.addfilter(3, 3, 100);
  EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(filter.remove_filter_freq(100), 0); }),
            "Removing filter freq 100\n-Fi001.001.-1-Fi003.003.-1");
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_freq(200); }), "");
  EXPECT_EQ(filter.pid_in_list(2), 0);
}

TEST_F(FilterRemoval, remove_all_frees_every_slot) {
  for (int pid = 1; pid <= 3; ++pid)
    filter.addfilter(pid, 2, FREQ);
  EXPECT_EQ(messages_at(3, [&] { filter.remove_all(); }), "Removed all filters\n");
  EXPECT_THAT(slots(filter), testing::Each(Slot(FILTER_FREE, -1, 2)));
  EXPECT_EQ(filter.flist()->size(), 3u);
  EXPECT_EQ(messages_at(2, [&] { filter.remove_all(); }), "");
}

TEST_F(FilterRemoval, free_slots_that_match_again_are_left_alone) {
  filter.addfilter(1, 1, FREQ);
  filter.remove_all();
  filter.remove_filter_freq(0);  // the frequency of a free slot
  filter.remove_filter_pid_range(-1, 8191);
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_FREE, -1, 1)));
}

// --- Asking ----------------------------------------------------------------------------------------------------------

TEST_F(FilterQuery, pid_and_table_are_found_unless_free) {
  filter.addfilter(pid::EIT, table::EIT_PRESENT_FOLLOWING, FREQ);
  EXPECT_EQ(filter.pid_in_list(pid::EIT), 1);
  EXPECT_EQ(filter.pid_tid_in_list(pid::EIT, table::EIT_PRESENT_FOLLOWING), 1);
  EXPECT_EQ(filter.pid_tid_in_list(pid::EIT, table::EIT_PRESENT_FOLLOWING_OTHER), 0);
  EXPECT_EQ(filter.pid_tid_in_list(0x13, 0x4E), 0);
  slot(filter, 0)->state = FILTER_STOPPED;
  EXPECT_EQ(filter.pid_in_list(pid::EIT), 1);
  filter.remove_all();
  EXPECT_EQ(filter.pid_in_list(pid::EIT), 0);
  EXPECT_EQ(filter.pid_in_list(-1), 0);
}

TEST_F(FilterQuery, eit_or_time_only) {
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 0) << "empty list";
  filter.addfilter(pid::EIT, table::EIT_PRESENT_FOLLOWING, FREQ);
  filter.addfilter(pid::TIME, table::TOT, FREQ);
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 1);
  filter.addfilter(pid::NIT, table::NIT_ACTUAL, FREQ);
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 0) << "a wanted NIT";
  slot(filter, 2)->state = FILTER_RUNNING;
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 0) << "a running NIT";
  slot(filter, 2)->state = FILTER_STOPPED;
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 1) << "a stopped NIT";
  filter.remove_all();
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 1) << "free slots only";
}

TEST_F(FilterQuery, eit_or_time_only_traces_at_4) {
  filter.addfilter(pid::EIT, table::EIT_PRESENT_FOLLOWING, FREQ);
  filter.addfilter(pid::SDT, table::SDT_ACTUAL, FREQ);
  filter.addfilter(pid::TIME, table::TOT, FREQ);
  EXPECT_EQ(messages_at(4, [&] { filter.eit_or_time_only_in_filter_list(); }),
            "Filter list contains: 12.4e 11.42 14.73  Eit_or_time_only_in_list is 0\n");
  EXPECT_EQ(messages_at(3, [&] { filter.eit_or_time_only_in_filter_list(); }), "");
}

TEST_F(FilterQuery, print_filter_list_counts_what_it_prints_and_totals_every_slot) {
  filter.addfilter(pid::NIT, table::NIT_ACTUAL, FREQ);
  filter.addfilter(pid::SDT, table::SDT_ACTUAL, FREQ);
  filter.addfilter(0x1FF, table::PMT, FREQ);
  filter.removefilter(pid::NIT, table::NIT_ACTUAL);
  slot(filter, 2)->state = FILTER_STOPPED;
  EXPECT_EQ(messages_at(-1, [&] { filter.print_filter_list(); }), "F0-S1-P11-T42 F1-S3-P1ff-T2 . Total 3\n");
  slot(filter, 2)->state = FILTER_WANTED;
}

// --- A device that cannot be opened ----------------------------------------------------------------------------------

TEST_F(FilterOpen, a_missing_device_is_retried_and_the_filter_dropped_at_the_fifth_failure) {
  filter.addfilter(0x110, table::PMT, FREQ);
  const std::string failed =
      "WARNING: Failed to  open /nonexistent/dvb/adapter0/demux0, balance 0 for pid 110 tid 2, retcode -1\n"
      "fopen: No such file or directory\n";
  for (int attempt = 1; attempt <= 4; ++attempt) {
    EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(filter.recalculate_filters(), 0); }), failed);
    EXPECT_EQ(slot(filter, 0)->open_retries, attempt);
    EXPECT_EQ(slot(filter, 0)->state, FILTER_WANTED);
  }
  EXPECT_EQ(messages_at(1, [&] { filter.recalculate_filters(); }),
            failed + "WARNING: Filter pid 110, tid 2 open retries > 4, removing filter\n");
  EXPECT_EQ(slot(filter, 0)->state, FILTER_FREE);
  EXPECT_EQ(slot(filter, 0)->fd, -1);
  EXPECT_EQ(messages_at(1, [&] { filter.recalculate_filters(); }), "");
}

TEST_F(FilterOpen, the_next_filter_in_a_dropped_ones_slot_has_all_its_attempts) {
  for (int round = 0; round < 2; ++round) {
    filter.addfilter(0x110, table::PMT, FREQ);
    EXPECT_EQ(filter.flist()->size(), 1u);
    for (int attempt = 1; attempt <= 5; ++attempt) {
      EXPECT_EQ(slot(filter, 0)->state, FILTER_WANTED) << attempt;
      EXPECT_EQ(messages_at(0, [&] { filter.recalculate_filters(); }), "fopen: No such file or directory\n");
    }
    EXPECT_EQ(slot(filter, 0)->state, FILTER_FREE);
  }
}

TEST_F(FilterOpen, the_reason_of_a_failed_open_is_printed_at_every_level) {
  filter.addfilter(0x110, table::PMT, FREQ);
  EXPECT_EQ(messages_at(0, [&] { filter.recalculate_filters(); }), "fopen: No such file or directory\n");
}

TEST_F(FilterOpen, a_filter_that_cannot_be_opened_does_not_hold_up_the_next) {
  filter.addfilter(0x110, table::PMT, FREQ);
  filter.addfilter(0x111, table::PMT, FREQ);
  messages_at(0, [&] { filter.recalculate_filters(); });
  EXPECT_EQ(slot(filter, 0)->open_retries, 1);
  EXPECT_EQ(slot(filter, 1)->open_retries, 1);
}

TEST_F(FilterOpen, quirk_a_dropped_filter_keeps_its_pid_in_the_slot) {
  filter.addfilter(0x110, table::PMT, FREQ);
  for (int i = 0; i < 5; ++i)
    messages_at(0, [&] { filter.recalculate_filters(); });
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_FREE, 0x110, 2)));
  EXPECT_EQ(filter.pid_in_list(0x110), 0);
  EXPECT_EQ(messages_at(0, [&] { filter.removefilter(0x110, 2); }), "") << "still counts as the one that is removed";
}

TEST_F(FilterOpen, a_path_that_is_too_long_is_cut) {
  Section_filter too_long(std::string(300, 'x').c_str());
  too_long.addfilter(1, 1, FREQ);
  EXPECT_THAT(messages_at(1, [&] { too_long.recalculate_filters(); }),
              testing::HasSubstr("open " + std::string(255, 'x') + ", balance"));
}

// --- Timers ----------------------------------------------------------------------------------------------------------

int kernel_timers() {
  std::ifstream timers("/proc/self/timers");
  int count = 0;
  for (std::string line; std::getline(timers, line);)
    count += line.rfind("ID:", 0) == 0;
  return count;
}

TEST(FilterDestruction, quirk_the_timer_of_a_slot_without_handle_is_left) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  const int before = kernel_timers();
  {
    Section_filter filter(NO_DEVICE);
    filter.addfilter(1, 1, FREQ);
    EXPECT_EQ(kernel_timers(), before + 1);
  }
  EXPECT_EQ(kernel_timers(), before + 1);
}

TEST_F(FilterList, a_timer_is_of_the_wall_clock_and_never_signals) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  filter.addfilter(1, 1, FREQ);
  const std::string timers = listed_timers();
  EXPECT_THAT(timers, testing::HasSubstr("notify: none/"));
  EXPECT_THAT(timers, testing::HasSubstr("ClockID: " + std::to_string(CLOCK_REALTIME) + "\n"));
  EXPECT_THAT(timers, testing::Not(testing::ContainsRegex("notify: (signal|thread)")));
}

}  // namespace
