// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The list of filters, without a device that could be opened.

#include <numeric>

#include "filter/filter_support.h"

namespace {

constexpr char NO_DEVICE[] = "/nonexistent/dvb/adapter0/demux0";
using Ints = std::vector<int>;

class Filter_list : public Filter_test {
 protected:
  Filter_list() : Filter_test(NO_DEVICE) {}
  std::string add(int level, int pid, int tid) {
    return messages_at(level, [=, this] { EXPECT_EQ(filter.addfilter(pid, tid, FREQ), 0); });
  }
  // The bytes and the mask of a slot.
  Ints bytes(size_t index) { return {at(index)->filter, at(index)->filter + FILTER_LENGTH}; }
  Ints mask(size_t index) { return {at(index)->mask, at(index)->mask + FILTER_LENGTH}; }
  // Flags, time-out, frequency, handle; then what is counted: sections, failed opens, restarts.
  Ints rest(size_t index) {
    const dvb_filter_desc& f = *at(index);
    return {f.flags, f.timeout_s, f.freq, f.fd, f.captured, f.open_retries, f.restarts};
  }
};
class Filter_open : public Filter_list {};
class Filter_query : public Filter_list {};
class Filter_removal : public Filter_list {};

// `first` and those that follow it, as far as `count`; then zeroes.
Ints rising(int first, int count) {
  Ints all(FILTER_LENGTH, 0);
  std::iota(all.begin(), all.begin() + count, first);
  return all;
}

TEST_F(Filter_list, starts_empty) {
  EXPECT_TRUE(filter.flist()->empty());
  EXPECT_EQ(filter.pid_in_list(0), 0);
  EXPECT_EQ(filter.recalculate_filters(), 0);
}

TEST_F(Filter_list, addfilter_for_a_table_fills_in_the_parsers_defaults) {
  EXPECT_EQ(add(0, 0x100, table::SDT_ACTUAL), "");
  EXPECT_EQ(list(), "wanted 100:42");
  EXPECT_EQ(bytes(0), rising(0x42, 1));
  EXPECT_EQ(mask(0), rising(0xFF, 1));
  EXPECT_EQ(rest(0), (Ints{FILTER_FLAG_HW_CRC, 2, FREQ, -1, 0, 0, 0}));
}

TEST_F(Filter_list, length_20_keeps_the_first_16_bytes_and_warns) {
  unsigned char wide[20];
  unsigned char wide_mask[20];
  std::iota(wide, wide + 20, 0x40);
  std::iota(wide_mask, wide_mask + 20, 0x80);
  EXPECT_EQ(messages_at(1, [&] { filter.addfilter(pid::NIT, FREQ, wide, wide_mask, 20, FILTER_FLAG_ONESHOT, 5); }),
            "WARNING: Filter length too long 20 > 16, remaining discarded\n");
  EXPECT_EQ(bytes(0), rising(0x40, 16));
  EXPECT_EQ(mask(0), rising(0x80, 16));
  EXPECT_EQ(rest(0), (Ints{FILTER_FLAG_ONESHOT, 5, FREQ, -1, 0, 0, 0}));
  EXPECT_EQ(messages_at(0, [&] { filter.addfilter(pid::NIT, FREQ, wide, wide_mask, 17, 0, 5); }), "");
}

TEST_F(Filter_list, length_16_and_0_are_taken_without_a_warning) {
  const unsigned char three[16] = {1, 2, 3};
  for (const auto& [length, taken] : {std::pair{16, 3}, std::pair{0, 0}, std::pair{-3, 0}}) {
    filter.remove_all();
    EXPECT_EQ(messages_at(2, [&, length = length] { filter.addfilter(pid::NIT, FREQ, three, three, length, 0, 5); }),
              "");
    EXPECT_EQ(bytes(0), rising(1, taken)) << length;
  }
}

TEST_F(Filter_list, a_new_slot_is_announced_at_3_and_its_token_at_4_and_a_reused_one_is_not) {
  EXPECT_EQ(add(2, 1, 0x01), "");
  EXPECT_EQ(add(3, pid::EIT, table::EIT_PRESENT_FOLLOWING),
            "Adding new filter for pid 18 to list, filter list size 2, nr_opened 0\n");
  EXPECT_EQ(add(4, 0x123, table::PMT),
            "Adding new filter for pid 291 to list, filter list size 3, nr_opened 0\n+Fl123.002");
  filter.removefilter(1, 0x01);
  EXPECT_EQ(add(4, 3, table::NIT_ACTUAL), "");
  EXPECT_EQ(list(), "wanted 3:40, wanted 12:4e, wanted 123:2");
}

TEST_F(Filter_list, a_reused_slot_keeps_nothing_of_a_longer_filter_and_its_counters_are_new) {
  const unsigned char sixteen[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  filter.addfilter(pid::NIT, FREQ, sixteen, sixteen, 16, FILTER_FLAG_ONESHOT, 5);
  at(0)->captured = 7;
  at(0)->restarts = 3;
  filter.remove_all();
  at(0)->captured = 7;
  want(17, table::SDT_ACTUAL, 7);
  EXPECT_EQ(bytes(0), rising(0x42, 1));
  EXPECT_EQ(mask(0), rising(0xFF, 1));
  EXPECT_EQ(rest(0), (Ints{FILTER_FLAG_HW_CRC, 2, 7, -1, 0, 0, 0}));
}

TEST_F(Filter_list, the_first_free_slot_is_reused_and_the_same_filter_twice_takes_two) {
  want_each(4, 1);
  filter.removefilter(3, 2);
  filter.removefilter(2, 2);
  want(9, 9);
  EXPECT_EQ(list(), "wanted 1:2, wanted 9:9, free -1:2, wanted 4:2");
  want(9, 9);
  EXPECT_EQ(list(), "wanted 1:2, wanted 9:9, wanted 9:9, wanted 4:2");
}

// --- Removal ---------------------------------------------------------------------------------------------------------

TEST_F(Filter_removal, of_one_filter_is_silent_below_3_and_of_none_an_error) {
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(filter.removefilter(pid::NIT, table::NIT_ACTUAL), 0); }),
            "ERROR: Removed 0 instances of pid 10, Tid 40\n");
  EXPECT_EQ(remove(-1, pid::NIT, table::NIT_ACTUAL), "");
  want(pid::NIT, table::NIT_ACTUAL);
  want(pid::NIT, table::NIT_OTHER);
  EXPECT_EQ(remove(2, pid::NIT, table::NIT_OTHER), "");
  EXPECT_EQ(remove(3, pid::NIT, table::NIT_ACTUAL), "Removing filter pid 10 tid 40\n-Fi010.040.-1");
  EXPECT_EQ(list(), "free -1:40, free -1:41");
  EXPECT_EQ(at(0)->freq, 0);
}

TEST_F(Filter_removal, quirk_two_filters_of_one_pid_and_table_go_together_with_an_error) {
  want(0x100);
  want(0x100);
  EXPECT_EQ(remove(0, 0x100), "ERROR: Removed 2 instances of pid 100, Tid 2\n");
  EXPECT_EQ(filter.pid_in_list(0x100), 0);
}

TEST_F(Filter_removal, by_range_of_pids) {
  for (int pid : {pid::NIT - 1, pid::NIT, pid::EIT, pid::TIME, pid::TIME + 1})
    want(pid, table::SDT_ACTUAL);
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_pid_range(pid::TIME + 1, pid::LAST); }), "");
  EXPECT_EQ(messages_at(3, [&] { filter.remove_filter_pid_range(pid::TIME, pid::TIME); }), "-Fpr014.042.-1");
  EXPECT_EQ(messages_at(4, [&] { EXPECT_EQ(filter.remove_filter_pid_range(pid::NIT, pid::EIT), 0); }),
            "Removing filters from pid 10-12 :-Fpr010.042.-1-Fpr012.042.-1\n");
  EXPECT_EQ(list(), "wanted f:42, free -1:42, free -1:42, free -1:42, free -1:42");
}

// What ends at the end of a scan: all but the guide and the clock. A NIT may be on any PID, also a reserved one.
TEST_F(Filter_removal, by_range_of_pids_takes_every_pid_of_the_range_and_no_other) {
  for (int pid = pid::PAT; pid <= pid::LAST_RESERVED + 1; ++pid)
    filter.addfilter(pid, table::NIT_ACTUAL, 0);
  filter.addfilter(pid::LAST, table::PMT, 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::PAT, pid::EIT - 1), 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::EIT + 1, pid::TIME - 1), 0);
  EXPECT_EQ(filter.remove_filter_pid_range(pid::TIME + 1, pid::LAST), 0);
  Ints left;
  for (int pid = pid::PAT; pid <= pid::LAST; ++pid) {
    if (filter.pid_in_list(pid) != 0)
      left.push_back(pid);
  }
  EXPECT_EQ(left, (Ints{pid::EIT, pid::TIME}));
}

TEST_F(Filter_removal, by_range_of_table_ids) {
  constexpr int FIRST = table::EIT_PRESENT_FOLLOWING, LAST = table::EIT_SCHEDULE_LAST;
  for (int tid : {FIRST - 1, FIRST, LAST, LAST + 1})
    want(pid::EIT, tid);
  want(pid::EIT + 1, table::EIT_SCHEDULE_FIRST);
  EXPECT_EQ(messages_at(4, [&] { EXPECT_EQ(filter.remove_filter_range(pid::EIT, FIRST, LAST), 0); }),
            "Removing filters from pid 12, tid 4e-5f :-Fr012.04E.-1-Fr012.05F.-1\n");
  EXPECT_EQ(messages_at(3, [&] { filter.remove_filter_range(pid::EIT, LAST + 1, LAST + 1); }), "-Fr012.060.-1");
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_range(pid::EIT, FIRST - 1, FIRST - 1); }), "");
  EXPECT_EQ(list(), "free -1:4d, free -1:4e, free -1:5f, free -1:60, wanted 13:50");
}

TEST_F(Filter_removal, quirk_by_frequency_prints_the_token_of_removefilter) {
  want(1, 1, 100);
  want(2, 2, 200);
  want(3, 3, 100);
  EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(filter.remove_filter_freq(100), 0); }),
            "Removing filter freq 100\n-Fi001.001.-1-Fi003.003.-1");
  EXPECT_EQ(messages_at(2, [&] { filter.remove_filter_freq(200); }), "");
  EXPECT_EQ(list(), "free -1:1, free -1:2, free -1:3");
}

TEST_F(Filter_removal, remove_all_frees_every_slot_and_free_slots_that_match_again_are_left_alone) {
  want_each(3, 1);
  EXPECT_EQ(messages_at(3, [&] { filter.remove_all(); }), "Removed all filters\n");
  EXPECT_EQ(list(), "free -1:2, free -1:2, free -1:2");
  EXPECT_EQ(messages_at(2, [&] { filter.remove_all(); }), "");
  filter.remove_filter_freq(0);  // the frequency of a free slot
  filter.remove_filter_pid_range(-1, pid::LAST);
  EXPECT_EQ(list(), "free -1:2, free -1:2, free -1:2");
}

// --- Asking ----------------------------------------------------------------------------------------------------------

TEST_F(Filter_query, pid_and_table_are_found_unless_free) {
  // Of the PID, of PID and table, and of others.
  const auto found = [&] {
    return Ints{filter.pid_in_list(pid::EIT), filter.pid_tid_in_list(pid::EIT, table::EIT_PRESENT_FOLLOWING),
                filter.pid_tid_in_list(pid::EIT, table::EIT_PRESENT_FOLLOWING_OTHER),
                filter.pid_tid_in_list(pid::EIT + 1, table::EIT_PRESENT_FOLLOWING), filter.pid_in_list(-1)};
  };
  want(pid::EIT, table::EIT_PRESENT_FOLLOWING);
  EXPECT_EQ(found(), (Ints{1, 1, 0, 0, 0}));
  at(0)->state = FILTER_STOPPED;
  EXPECT_EQ(found(), (Ints{1, 1, 0, 0, 0}));
  filter.remove_all();
  EXPECT_EQ(found(), Ints(5, 0));
}

TEST_F(Filter_query, eit_or_time_only) {
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 0) << "empty list";
  want(pid::EIT, table::EIT_PRESENT_FOLLOWING);
  want(pid::TIME, table::TOT);
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 1);
  want(pid::NIT, table::NIT_ACTUAL);
  for (const auto& [state, only] :
       {std::pair{FILTER_WANTED, 0}, std::pair{FILTER_RUNNING, 0}, std::pair{FILTER_STOPPED, 1}}) {
    at(2)->state = state;
    EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), only) << "a NIT that is " << state;
  }
  filter.remove_all();
  EXPECT_EQ(filter.eit_or_time_only_in_filter_list(), 1) << "free slots only";
}

TEST_F(Filter_query, eit_or_time_only_traces_at_4) {
  want(pid::EIT, table::EIT_PRESENT_FOLLOWING);
  want(pid::SDT, table::SDT_ACTUAL);
  want(pid::TIME, table::TOT);
  EXPECT_THAT([&] { filter.eit_or_time_only_in_filter_list(); },
              support::prints_only_from(4, "Filter list contains: 12.4e 11.42 14.73  Eit_or_time_only_in_list is 0\n"));
}

TEST_F(Filter_query, print_filter_list_counts_what_it_prints_and_totals_every_slot) {
  want(pid::NIT, table::NIT_ACTUAL);
  want(pid::SDT, table::SDT_ACTUAL);
  want(0x1FF, table::PMT);
  filter.removefilter(pid::NIT, table::NIT_ACTUAL);
  at(2)->state = FILTER_STOPPED;
  EXPECT_EQ(messages_at(-1, [&] { filter.print_filter_list(); }), "F0-S1-P11-T42 F1-S3-P1ff-T2 . Total 3\n");
  at(2)->state = FILTER_WANTED;
}

// --- A device that cannot be opened ----------------------------------------------------------------------------------

TEST_F(Filter_open, a_missing_device_is_retried_and_the_filter_dropped_at_the_fifth_failure) {
  want(0x110);
  const std::string failed =
      "WARNING: Failed to  open /nonexistent/dvb/adapter0/demux0, balance 0 for pid 110 tid 2, retcode -1\n"
      "fopen: No such file or directory\n";
  for (int attempt = 1; attempt <= 4; ++attempt) {
    EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(filter.recalculate_filters(), 0); }), failed);
    EXPECT_EQ((Ints{at(0)->open_retries, state(0)}), (Ints{attempt, FILTER_WANTED}));
  }
  EXPECT_EQ(recalculate(1), failed + "WARNING: Filter pid 110, tid 2 open retries > 4, removing filter\n");
  EXPECT_EQ((Ints{state(0), at(0)->fd}), (Ints{FILTER_FREE, -1}));
  EXPECT_EQ(recalculate(1), "");
}

TEST_F(Filter_open, the_next_filter_in_a_dropped_ones_slot_has_all_its_attempts) {
  for (int round = 0; round < 2; ++round) {
    want(0x110);
    for (int attempt = 1; attempt <= 5; ++attempt) {
      EXPECT_EQ(list(), "wanted 110:2") << attempt;
      EXPECT_EQ(recalculate(0), "fopen: No such file or directory\n") << "at every level";
    }
    EXPECT_EQ(list(), "free 110:2");
  }
}

TEST_F(Filter_open, a_filter_that_cannot_be_opened_does_not_hold_up_the_next) {
  want_each(2);
  recalculate(0);
  EXPECT_EQ((Ints{at(0)->open_retries, at(1)->open_retries}), (Ints{1, 1}));
}

TEST_F(Filter_open, quirk_a_dropped_filter_keeps_its_pid_in_the_slot) {
  want(0x110);
  for (int i = 0; i < 5; ++i)
    recalculate(0);
  EXPECT_EQ(list(), "free 110:2");
  EXPECT_EQ(filter.pid_in_list(0x110), 0);
  EXPECT_EQ(remove(0, 0x110), "") << "still counts as the one that is removed";
}

TEST_F(Filter_open, a_path_that_is_too_long_is_cut) {
  Section_filter too_long(std::string(300, 'x').c_str());
  too_long.addfilter(1, 1, FREQ);
  EXPECT_THAT(messages_at(1, [&] { too_long.recalculate_filters(); }),
              testing::HasSubstr("open " + std::string(255, 'x') + ", balance"));
}

// --- Timers ----------------------------------------------------------------------------------------------------------

size_t kernel_timers() {
  return support::count_of(listed_timers(), "ID: ") - support::count_of(listed_timers(), "ClockID: ");
}

TEST(Filter_destruction, quirk_the_timer_of_a_slot_without_handle_is_left) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  const size_t before = kernel_timers();
  {
    Section_filter filter(NO_DEVICE);
    filter.addfilter(1, 1, FREQ);
    EXPECT_EQ(kernel_timers(), before + 1);
  }
  EXPECT_EQ(kernel_timers(), before + 1);
}

TEST_F(Filter_list, a_timer_is_of_the_wall_clock_and_never_signals) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  want(1, 1);
  const std::string timers = listed_timers();
  EXPECT_THAT(timers, testing::HasSubstr("notify: none/"));
  EXPECT_THAT(timers, testing::HasSubstr("ClockID: " + std::to_string(CLOCK_REALTIME) + "\n"));
  EXPECT_THAT(timers, testing::Not(testing::ContainsRegex("notify: (signal|thread)")));
}

}  // namespace
