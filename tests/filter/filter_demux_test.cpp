// Filters on a device: opening, programming, starting, stopping.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/ids.h"
#include "filter/fake_demux.h"
#include "filter/filter_support.h"

using testing::ElementsAre;
using testing::HasSubstr;
using Call = Fake_demux::Call;

namespace {

constexpr int FREQ = 506000000;

class FilterDemux : public testing::Test {
 protected:
  Fake_demux demux;
  Section_filter filter{demux.path()};

  void want(int pid, int tid = 2) { filter.addfilter(pid, tid, FREQ); }
  int fd(size_t index) { return slot(filter, index)->fd; }
  int state(size_t index) { return slot(filter, index)->state; }
  // Makes the slot's timer run out.
  void expire(size_t index) {
    const itimerspec soon{{0, 0}, {0, 1}};
    timer_settime(slot(filter, index)->timer, 0, &soon, nullptr);
  }
  long remaining(size_t index) {
    itimerspec left{};
    timer_gettime(slot(filter, index)->timer, &left);
    return left.it_value.tv_sec;
  }
};

TEST_F(FilterDemux, a_wanted_filter_is_opened_programmed_and_started) {
  want(0x123, 0x42);
  const int highest = filter.recalculate_filters();
  EXPECT_EQ(highest, fd(0));
  EXPECT_EQ(state(0), FILTER_RUNNING);
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_SET_FILTER}, Call{fd(0), DMX_START}));
  const dmx_sct_filter_params& params = demux.last_filter();
  EXPECT_EQ(params.pid, 0x123);
  EXPECT_EQ(params.filter.filter[0], 0x42);
  EXPECT_EQ(params.filter.mask[0], 0xFF);
  for (int i = 0; i < 16; ++i)
    EXPECT_EQ(params.filter.mode[i], 0);
  EXPECT_EQ(params.timeout, 0u);
  EXPECT_EQ(params.flags, static_cast<unsigned>(DMX_CHECK_CRC));
  EXPECT_EQ(fcntl(fd(0), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
}

TEST_F(FilterDemux, flags_and_all_sixteen_bytes_reach_the_device) {
  unsigned char bytes[16];
  unsigned char mask[16];
  for (unsigned char i = 0; i < 16; ++i) {
    bytes[i] = static_cast<unsigned char>(0x10 + i);
    mask[i] = static_cast<unsigned char>(0xE0 + i);
  }
  const struct {
    const char* what;
    int flags;
    unsigned expected;
  } cases[] = {
      {"none", 0, 0},
      {"one shot", FILTER_FLAG_ONESHOT, DMX_ONESHOT},
      {"software check asks nothing of the device", FILTER_FLAG_SOFT_CRC, 0},
      {"all", 7, DMX_ONESHOT | DMX_CHECK_CRC},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    filter.remove_all();
    filter.addfilter(20, FREQ, bytes, mask, 16, c.flags, 2);
    filter.recalculate_filters();
    EXPECT_EQ(demux.last_filter().flags, c.expected);
    EXPECT_EQ(std::vector<int>(demux.last_filter().filter.filter, demux.last_filter().filter.filter + 16),
              std::vector<int>(bytes, bytes + 16));
    EXPECT_EQ(std::vector<int>(demux.last_filter().filter.mask, demux.last_filter().filter.mask + 16),
              std::vector<int>(mask, mask + 16));
  }
}

TEST_F(FilterDemux, starting_traces_at_4_and_eit_has_a_token_of_its_own) {
  want(0x123, 0x42);
  EXPECT_EQ(messages_at(3, [&] { filter.recalculate_filters(); }), "");
  want(0x100, 0x02);
  std::string text = messages_at(4, [&] { filter.recalculate_filters(); });
  EXPECT_EQ(text, "setting HW for filter pid 256, fdes " + std::to_string(fd(1)) + "\nFilter TID is 2");
  want(pid::EIT, table::EIT_SCHEDULE_FIRST);
  EXPECT_EQ(messages_at(3, [&] { filter.recalculate_filters(); }), "");
  want(pid::EIT, table::EIT_PRESENT_FOLLOWING);
  text = messages_at(4, [&] { filter.recalculate_filters(); });
  EXPECT_EQ(text, "setting HW for filter pid 18, fdes " + std::to_string(fd(3)) + "\nFilter TID is 4e +Fo012.4E." +
                      std::to_string(fd(3)));
}

TEST_F(FilterDemux, failing_ioctls_are_printed_and_the_filter_runs_all_the_same) {
  want(0x100);
  demux.fail_ioctl(DMX_SET_FILTER, EINVAL);
  EXPECT_EQ(messages_at(0, [&] { filter.recalculate_filters(); }), "ERROR: ioctl DMX_SET_FILTER failed");
  EXPECT_EQ(state(0), FILTER_RUNNING);
  want(0x101);
  demux.fail_ioctl(DMX_START, EINVAL);
  EXPECT_EQ(messages_at(0, [&] { filter.recalculate_filters(); }), "ERROR: ioctl DMX_START FILTER failed");
  EXPECT_EQ(state(1), FILTER_RUNNING);
  want(0x102);
  EXPECT_EQ(messages_at(-1, [&] { filter.recalculate_filters(); }), "");
  want(0x103);
  demux.fail_ioctl(DMX_SET_FILTER, EINVAL);
  EXPECT_EQ(messages_at(-1, [&] { filter.recalculate_filters(); }), "");
  EXPECT_EQ(state(3), FILTER_RUNNING);
}

TEST_F(FilterDemux, a_timer_runs_once_for_the_filters_time) {
  const unsigned char byte = 2;
  filter.addfilter(0x100, FREQ, &byte, &byte, 1, 0, 30);
  filter.recalculate_filters();
  itimerspec left{};
  timer_gettime(slot(filter, 0)->timer, &left);
  EXPECT_GE(left.it_value.tv_sec, 20);
  EXPECT_LE(left.it_value.tv_sec, 30);
  EXPECT_EQ(left.it_interval.tv_sec, 0);
  EXPECT_EQ(left.it_interval.tv_nsec, 0);
}

TEST_F(FilterDemux, a_timer_that_cannot_be_set_is_told_at_every_level_and_the_filter_runs_all_the_same) {
  want(0x100);
  const timer_t good = slot(filter, 0)->timer;
  slot(filter, 0)->timer = no_such_timer();
  const std::string once = "fail to set timer: Invalid argument\n";
  EXPECT_EQ(messages_at(-1, [&] { filter.recalculate_filters(); }), once + once) << "disarming and arming";
  EXPECT_EQ(state(0), FILTER_RUNNING);
  slot(filter, 0)->timer = good;
}

TEST_F(FilterDemux, a_ninth_filter_waits_until_a_handle_is_free) {
  for (int i = 0; i < 9; ++i)
    want(0x100 + i);
  messages_at(0, [&] { filter.recalculate_filters(); });
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ(state(i), FILTER_RUNNING) << i;
  EXPECT_EQ(state(8), FILTER_WANTED);
  EXPECT_EQ(fd(8), -1);
  EXPECT_EQ(slot(filter, 8)->open_retries, 0);
  EXPECT_EQ(messages_at(2, [&] { filter.recalculate_filters(); }), "") << "waits without a message";

  const int freed = fd(3);
  filter.removefilter(0x103, 2);
  EXPECT_EQ(fd(3), freed) << "kept until the next call";
  demux.take_calls();
  const int highest = filter.recalculate_filters();
  EXPECT_EQ(highest, std::max(fd(7), fd(8)));
  EXPECT_EQ(fd(3), -1);
  EXPECT_EQ(state(8), FILTER_RUNNING);
  EXPECT_TRUE(demux.is_mine(fd(8)));
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(8), DMX_SET_FILTER}, Call{fd(8), DMX_START}));
}

TEST_F(FilterDemux, with_eight_handles_open_those_of_all_free_slots_are_closed_and_counted_off) {
  for (int i = 0; i < 8; ++i)
    want(0x100 + i);
  filter.recalculate_filters();
  std::vector<int> freed;
  for (int i : {1, 4, 6}) {
    freed.push_back(fd(static_cast<size_t>(i)));
    filter.removefilter(0x100 + i, 2);
  }
  want(0x200);  // takes slot 1 and its handle
  filter.recalculate_filters();
  EXPECT_EQ(fd(1), freed[0]);
  EXPECT_EQ(state(1), FILTER_RUNNING);
  EXPECT_EQ(fd(4), -1);
  EXPECT_EQ(fd(6), -1);
  EXPECT_FALSE(demux.is_mine(freed[1]) || demux.is_mine(freed[2]));
  for (int i = 0; i < 3; ++i)
    want(0x300 + i);
  filter.recalculate_filters();
  EXPECT_EQ(state(4), FILTER_RUNNING);
  EXPECT_EQ(state(6), FILTER_RUNNING);
  EXPECT_EQ(state(8), FILTER_WANTED) << "eight again";
}

TEST_F(FilterDemux, the_highest_handle_need_not_be_the_last_slots) {
  for (int i = 0; i < 8; ++i)
    want(0x100 + i);
  filter.recalculate_filters();
  filter.removefilter(0x100, 2);
  filter.recalculate_filters();
  const int filler = dup(0);  // takes the number that is free now
  want(0x200);
  const int highest = filter.recalculate_filters();
  EXPECT_EQ(highest, fd(0));
  EXPECT_GT(fd(0), fd(7));
  close(filler);
  filter.removefilter(0x200, 2);
  EXPECT_EQ(filter.recalculate_filters(), fd(7)) << "of running filters only";
}

TEST_F(FilterDemux, a_handle_that_does_not_close_is_an_error_and_gone_all_the_same) {
  for (int i = 0; i < 8; ++i)
    want(0x100 + i);
  filter.recalculate_filters();
  for (const auto& [level, text] : {std::pair{0, "ERROR: Filter demux close failed\n"}, std::pair{-1, ""}}) {
    const int handle = fd(0);
    filter.removefilter(slot(filter, 0)->pid, 2);
    EXPECT_EQ(messages_at(level,
                          [&] {
                            close(handle);
                            filter.recalculate_filters();
                          }),
              text);
    EXPECT_EQ(fd(0), -1);
    want(0x200);
    EXPECT_EQ(messages_at(1, [&] { filter.recalculate_filters(); }), "");
    EXPECT_EQ(state(0), FILTER_RUNNING) << "its place was free";
  }
}

TEST_F(FilterDemux, below_eight_handles_a_free_slot_keeps_its_handle_for_the_next_filter) {
  want(0x100);
  want(0x101);
  filter.recalculate_filters();
  const int kept = fd(0);
  filter.removefilter(0x100, 2);
  filter.recalculate_filters();
  EXPECT_EQ(fd(0), kept);
  demux.take_calls();
  EXPECT_EQ(messages_at(4, [&] { want(0x200, 0x42); }), "") << "a reused slot is not announced";
  filter.recalculate_filters();
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{kept, DMX_SET_FILTER}, Call{kept, DMX_START}));
  EXPECT_EQ(demux.last_filter().pid, 0x200);
}

TEST_F(FilterDemux, eight_stopped_filters_start_again_on_their_own_handles) {
  for (int i = 0; i < 8; ++i)
    want(0x100 + i);
  filter.recalculate_filters();
  filter.stop_filters();
  filter.start_filters();
  filter.recalculate_filters();
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ(state(i), FILTER_RUNNING) << i;
}

TEST_F(FilterDemux, a_handle_that_select_cannot_hold_is_a_failed_open) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = FD_SETSIZE + 100;
  if (limit.rlim_max < limit.rlim_cur || setrlimit(RLIMIT_NOFILE, &limit) != 0)
    GTEST_SKIP() << "cannot open that many files here";
  std::vector<int> fillers;
  for (int next; (next = dup(0)) >= 0 && next < FD_SETSIZE - 1;)
    fillers.push_back(next);
  fillers.push_back(FD_SETSIZE - 1);
  want(0x100);
  const std::string text = messages_at(1, [&] { EXPECT_EQ(filter.recalculate_filters(), 0); });
  for (int filler : fillers)
    close(filler);
  limit.rlim_cur = before;
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(text, "WARNING: Failed to  open " + std::string(demux.path()) +
                      ", balance 0 for pid 100 tid 2, retcode -1\nfopen: Too many open files\n");
  EXPECT_EQ(slot(filter, 0)->open_retries, 1);
  EXPECT_EQ(fd(0), -1);
}

// --- Freeing ---------------------------------------------------------------------------------------------------------

TEST_F(FilterDemux, a_removal_stops_the_filter_and_keeps_the_handle) {
  want(0x100);
  filter.recalculate_filters();
  demux.take_calls();
  EXPECT_EQ(messages_at(3, [&] { filter.removefilter(0x100, 2); }),
            "Removing filter pid 100 tid 2\n-Fi100.002." + std::to_string(fd(0)));
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_STOP}));
  EXPECT_GE(fcntl(fd(0), F_GETFD), 0);
}

TEST_F(FilterDemux, set_dvbfilter_reuse_clears_the_slot_but_for_handle_bytes_flags_timeout_and_restarts) {
  want(0x100, 0x42);
  filter.recalculate_filters();
  dvb_filter_desc* f = slot(filter, 0);
  const int handle = f->fd;
  f->captured = 5;
  f->open_retries = 2;
  f->restarts = 7;
  filter.set_dvbfilter_reuse(f);
  EXPECT_EQ(f->pid, -1);
  EXPECT_EQ(f->state, FILTER_FREE);
  EXPECT_EQ(f->captured, 0);
  EXPECT_EQ(f->freq, 0);
  EXPECT_EQ(f->open_retries, 0);
  EXPECT_EQ(f->fd, handle);
  EXPECT_EQ(f->filter[0], 0x42);
  EXPECT_EQ(f->mask[0], 0xFF);
  EXPECT_EQ(f->flags, FILTER_FLAG_HW_CRC);
  EXPECT_EQ(f->timeout_s, 2);
  EXPECT_EQ(f->restarts, 7);
}

TEST_F(FilterDemux, set_dvbfilter_reuse_on_a_free_slot_issues_no_ioctl) {
  want(0x100);
  filter.recalculate_filters();
  filter.set_dvbfilter_reuse(slot(filter, 0));
  demux.take_calls();
  filter.set_dvbfilter_reuse(slot(filter, 0));
  filter.remove_all();
  EXPECT_THAT(demux.take_calls(), ElementsAre());
}

TEST_F(FilterDemux, a_failing_stop_is_printed_and_the_slot_freed_all_the_same) {
  want(0x100);
  filter.recalculate_filters();
  demux.fail_ioctl(DMX_STOP, EIO);
  EXPECT_EQ(messages_at(0, [&] { filter.removefilter(0x100, 2); }),
            "ERROR: Filter stop failed for demux file nr " + std::to_string(fd(0)) + ", error Input/output error \n");
  EXPECT_EQ(state(0), FILTER_FREE);
  want(0x100);
  filter.recalculate_filters();
  EXPECT_EQ(messages_at(-1, [&] { filter.removefilter(0x100, 2); }), "");
  EXPECT_EQ(state(0), FILTER_FREE);
  demux.fail_ioctl(0, 0);
}

TEST_F(FilterDemux, a_stopped_filter_is_freed_like_a_running_one) {
  want(0x100);
  filter.recalculate_filters();
  filter.stop_filters();
  demux.take_calls();
  filter.removefilter(0x100, 2);
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_STOP}));
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_FREE, -1, 2)));
  filter.start_filters();
  EXPECT_EQ(state(0), FILTER_FREE);
}

TEST_F(FilterDemux, a_wanted_filter_that_never_ran_is_freed_without_an_ioctl) {
  want(0x100);
  filter.removefilter(0x100, 2);
  EXPECT_THAT(demux.take_calls(), ElementsAre());
}

TEST(FilterDestruction, stops_the_filters_and_closes_all_handles) {
  Fake_demux demux;
  std::vector<int> handles;
  {
    Section_filter filter(demux.path());
    for (int i = 0; i < 3; ++i)
      filter.addfilter(0x100 + i, 2, FREQ);
    filter.recalculate_filters();
    for (size_t i = 0; i < 3; ++i)
      handles.push_back(slot(filter, i)->fd);
    filter.removefilter(0x101, 2);
    demux.take_calls();
  }
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{handles[0], DMX_STOP}, Call{handles[2], DMX_STOP}));
  for (int handle : handles)
    EXPECT_FALSE(demux.is_mine(handle));
}

TEST(FilterDestruction, tells_at_3_that_all_filters_are_gone_and_deletes_the_timers) {
  Fake_demux demux;
  const std::string before = listed_timers();
  for (const auto& [level, text] : {std::pair{3, "Removed all filters\n"}, std::pair{2, ""}}) {
    auto filter = std::make_unique<Section_filter>(demux.path());
    filter->addfilter(0x100, 2, FREQ);
    filter->addfilter(0x101, 2, FREQ);
    filter->recalculate_filters();
    filter->removefilter(0x101, 2);
    EXPECT_EQ(messages_at(level, [&] { filter.reset(); }), text);
  }
  EXPECT_EQ(listed_timers(), before);
}

TEST(FilterDestruction, a_handle_that_does_not_close_is_an_error) {
  Fake_demux demux;
  for (const auto& [level, text] :
       {std::pair{0, "ERROR: Filter close failed, Bad file descriptor \n"}, std::pair{-1, ""}}) {
    auto filter = std::make_unique<Section_filter>(demux.path());
    filter->addfilter(0x100, 2, FREQ);
    filter->recalculate_filters();
    filter->remove_all();
    EXPECT_EQ(messages_at(level,
                          [&] {
                            close(slot(*filter, 0)->fd);
                            filter.reset();
                          }),
              text);
  }
}

// --- Stop, start, restart --------------------------------------------------------------------------------------------

TEST_F(FilterDemux, stop_and_start_keep_the_filters) {
  want(0x100);
  want(0x101);
  filter.recalculate_filters();
  want(0x102);
  demux.take_calls();
  EXPECT_EQ(messages_at(4, [&] { filter.stop_filters(); }), "");
  EXPECT_THAT(slots(filter), ElementsAre(Slot(FILTER_STOPPED, 0x100, 2), Slot(FILTER_STOPPED, 0x101, 2),
                                         Slot(FILTER_WANTED, 0x102, 2)));
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_STOP}, Call{fd(1), DMX_STOP}));
  filter.start_filters();
  EXPECT_THAT(demux.take_calls(), ElementsAre()) << "programmed by the next recalculation only";
  EXPECT_THAT(slots(filter), testing::Each(testing::FieldsAre(FILTER_WANTED, testing::_, 2)));
  filter.recalculate_filters();
  EXPECT_THAT(slots(filter), testing::Each(testing::FieldsAre(FILTER_RUNNING, testing::_, 2)));
}

TEST_F(FilterDemux, a_filter_that_cannot_be_stopped_goes_on_running) {
  want(0x100);
  filter.recalculate_filters();
  demux.fail_ioctl(DMX_STOP, EIO);
  EXPECT_EQ(messages_at(0, [&] { filter.stop_filters(); }),
            "ERROR: Filter stop failed for demux file nr " + std::to_string(fd(0)) + ", error Input/output error \n");
  EXPECT_EQ(state(0), FILTER_RUNNING);
  EXPECT_EQ(messages_at(-1, [&] { filter.stop_filters(); }), "");
  demux.fail_ioctl(0, 0);
}

TEST_F(FilterDemux, quirk_restart_all_leaves_the_filters_stopped) {
  want(0x100);
  filter.recalculate_filters();
  want(0x101);
  demux.take_calls();
  EXPECT_EQ(messages_at(1, [&] { filter.restart_all_filters(); }), "WARNING: Restarting filter for PID 100\n");
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_START}));
  EXPECT_EQ(state(0), FILTER_STOPPED);
  EXPECT_EQ(state(1), FILTER_WANTED) << "only running ones";
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_EQ(state(0), FILTER_RUNNING);
}

TEST_F(FilterDemux, a_filter_whose_restart_fails_stays_running) {
  want(0x100);
  filter.recalculate_filters();
  demux.fail_ioctl(DMX_START, EINVAL);
  EXPECT_EQ(messages_at(0, [&] { filter.restart_all_filters(); }),
            "ERROR: Filter start failed for demux file nr " + std::to_string(fd(0)) + ", error Invalid argument \n");
  EXPECT_EQ(state(0), FILTER_RUNNING);
  EXPECT_EQ(messages_at(-1, [&] { filter.restart_all_filters(); }), "");
}

// --- Silent feeds ----------------------------------------------------------------------------------------------------

TEST_F(FilterDemux, a_silent_feed_is_started_again_when_its_timer_has_less_than_a_second_left) {
  want(0x100);
  filter.recalculate_filters();
  EXPECT_EQ(remaining(0), 1) << "armed with 2 s";
  demux.take_calls();
  filter.check_feed_activation();
  EXPECT_THAT(demux.take_calls(), ElementsAre()) << "too early";
  expire(0);
  EXPECT_EQ(messages_at(2, [&] { filter.check_feed_activation(); }), "");
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_START}));
  EXPECT_EQ(slot(filter, 0)->restarts, 1);
  EXPECT_EQ(state(0), FILTER_RUNNING);
  EXPECT_EQ(remaining(0), 1) << "armed again";
  expire(0);
  filter.check_feed_activation();
  EXPECT_EQ(slot(filter, 0)->restarts, 2);
}

TEST_F(FilterDemux, only_silent_running_filters_on_pid_21_and_above_are_started_again) {
  const int pids[] = {0x10, 0x20, 0x21, 0x100, 0x101};
  for (int pid : pids)
    want(pid);
  filter.recalculate_filters();
  for (size_t i = 0; i < 5; ++i)
    expire(i);
  slot(filter, 3)->captured = 1;
  slot(filter, 4)->state = FILTER_STOPPED;
  demux.take_calls();
  filter.check_feed_activation();
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(2), DMX_START}));
}

TEST_F(FilterDemux, quirk_a_silent_feed_below_pid_21_is_never_started_again) {
  want(pid::NIT, table::NIT_ACTUAL);
  filter.recalculate_filters();
  demux.take_calls();
  for (int i = 0; i < 3; ++i) {
    expire(0);
    filter.check_feed_activation();
  }
  EXPECT_THAT(demux.take_calls(), ElementsAre());
  EXPECT_EQ(slot(filter, 0)->restarts, 0);
}

TEST_F(FilterDemux, quirk_restarts_are_totalled_only_while_they_are_printed) {
  want(0x100);
  filter.recalculate_filters();
  const auto restart_at = [&](int level) {
    expire(0);
    return messages_at(level, [&] { filter.check_feed_activation(); });
  };
  const std::string begin = "##Restart " + std::string(demux.path());
  EXPECT_EQ(restart_at(2), "");
  EXPECT_EQ(restart_at(3), begin + " 2 times: pid 100  tid 2. Started 1, restarted 0, captured 0\n");
  EXPECT_EQ(restart_at(3), begin + " 3 times: pid 100  tid 2. Started 1, restarted 1, captured 0\n");
  EXPECT_EQ(restart_at(2), "");
  EXPECT_EQ(restart_at(3), begin + " 5 times: pid 100  tid 2. Started 1, restarted 2, captured 0\n");
}

TEST_F(FilterDemux, a_failing_restart_is_printed) {
  want(0x100);
  filter.recalculate_filters();
  expire(0);
  demux.fail_ioctl(DMX_START, EINVAL);
  EXPECT_EQ(messages_at(0, [&] { filter.check_feed_activation(); }), "ERROR: ioctl DMX_START FILTER failed");
  EXPECT_EQ(remaining(0), 1) << "armed again";
  expire(0);
  EXPECT_EQ(messages_at(-1, [&] { filter.check_feed_activation(); }), "");
  EXPECT_EQ(slot(filter, 0)->restarts, 2);
}

TEST_F(FilterDemux, a_timer_that_cannot_be_read_is_told_and_counts_as_run_out) {
  want(0x100);
  filter.recalculate_filters();
  demux.take_calls();
  const timer_t good = slot(filter, 0)->timer;
  slot(filter, 0)->timer = no_such_timer();
  EXPECT_EQ(messages_at(-1, [&] { filter.check_feed_activation(); }), "feed activation: : Invalid argument\n");
  EXPECT_THAT(demux.take_calls(), ElementsAre(Call{fd(0), DMX_START}));
  slot(filter, 0)->timer = good;
}

TEST_F(FilterDemux, a_feed_is_started_again_within_the_last_second_and_not_before) {
  want(0x100);
  filter.recalculate_filters();
  demux.take_calls();
  const auto left = [&](time_t seconds, long nanoseconds) {
    const itimerspec value{{0, 0}, {seconds, nanoseconds}};
    timer_settime(slot(filter, 0)->timer, 0, &value, nullptr);
    filter.check_feed_activation();
    return demux.count(DMX_START);
  };
  EXPECT_EQ(left(30, 0), 0);
  EXPECT_EQ(left(0, 999000000), 1);
  EXPECT_EQ(left(20, 0), 1);
}

TEST_F(FilterDemux, a_reused_slot_gets_a_fresh_timer) {
  want(0x100);
  filter.recalculate_filters();
  expire(0);
  filter.removefilter(0x100, 2);
  const unsigned char byte = 2;
  filter.addfilter(0x200, FREQ, &byte, &byte, 1, 0, 30);
  filter.recalculate_filters();
  EXPECT_GE(remaining(0), 28);
}

}  // namespace
