// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Filters on a device: opening, programming, starting, stopping.
#include <sys/resource.h>

#include <numeric>

#include "filter/filter_support.h"

namespace {

using Ints = std::vector<int>;

class Filter_demux : public Demux_test {
 protected:
  void set_timer(size_t index, time_t seconds, long nanoseconds) {
    const itimerspec value{{0, 0}, {seconds, nanoseconds}};
    timer_settime(at(index)->timer, 0, &value, nullptr);
  }
  // Makes the slot's timer run out.
  void expire(size_t index) { set_timer(index, 0, 1); }
  itimerspec left(size_t index) {
    itimerspec value{};
    timer_gettime(at(index)->timer, &value);
    return value;
  }
  long remaining(size_t index) { return left(index).it_value.tv_sec; }
  // Gives slot 0 a timer that does not exist while `action` runs at verbosity -1.
  template <typename Action>
  std::string printed_without_timer(Action action) {
    const timer_t good = std::exchange(at(0)->timer, no_such_timer());
    const std::string text = messages_at(-1, action);
    at(0)->timer = good;
    return text;
  }
  void want_for(int pid, int seconds) {
    const unsigned char byte = 2;
    filter.addfilter(pid, FREQ, &byte, &byte, 1, 0, seconds);
  }
  std::string check_feeds(int level) {
    return messages_at(level, [this] { filter.check_feed_activation(); });
  }
};

TEST_F(Filter_demux, a_wanted_filter_is_opened_programmed_and_started) {
  want(0x123, table::SDT_ACTUAL);
  const int highest = filter.recalculate_filters();
  EXPECT_EQ(highest, fd(0));
  EXPECT_EQ(list(), "running 123:42");
  EXPECT_EQ(calls(), "set 0, start 0");
  const dmx_sct_filter_params& params = demux.last_filter();
  EXPECT_EQ((Ints{params.pid, params.filter.filter[0], params.filter.mask[0]}), (Ints{0x123, table::SDT_ACTUAL, 0xFF}));
  EXPECT_EQ(Ints(params.filter.mode, params.filter.mode + 16), Ints(16, 0));
  EXPECT_EQ(params.timeout, 0u);
  EXPECT_EQ(params.flags, static_cast<unsigned>(DMX_CHECK_CRC));
  EXPECT_EQ(fcntl(fd(0), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
}

TEST_F(Filter_demux, flags_and_all_sixteen_bytes_reach_the_device) {
  std::array<unsigned char, 16> bytes, mask;
  std::iota(bytes.begin(), bytes.end(), 0x10);
  std::iota(mask.begin(), mask.end(), 0xE0);
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
    filter.addfilter(pid::TIME, FREQ, bytes.data(), mask.data(), 16, c.flags, 2);
    filter.recalculate_filters();
    EXPECT_EQ(demux.last_filter().flags, c.expected);
    const dmx_filter_t& seen = demux.last_filter().filter;
    EXPECT_TRUE(std::ranges::equal(seen.filter, bytes));
    EXPECT_TRUE(std::ranges::equal(seen.mask, mask));
  }
}

TEST_F(Filter_demux, starting_traces_at_4_and_eit_has_a_token_of_its_own) {
  want(0x123, table::SDT_ACTUAL);
  EXPECT_EQ(recalculate(3), "");
  want(0x100, table::PMT);
  std::string text = recalculate(4);
  EXPECT_EQ(text, "setting HW for filter pid 256, fdes " + fd_text(1) + "\nFilter TID is 2");
  want(pid::EIT, table::EIT_SCHEDULE_FIRST);
  EXPECT_EQ(recalculate(3), "");
  want(pid::EIT, table::EIT_PRESENT_FOLLOWING);
  text = recalculate(4);
  EXPECT_EQ(text, "setting HW for filter pid 18, fdes " + fd_text(3) + "\nFilter TID is 4e +Fo012.4E." + fd_text(3));
}

TEST_F(Filter_demux, failing_ioctls_are_printed_and_the_filter_runs_all_the_same) {
  for (const auto& [request, text] : {std::pair{DMX_SET_FILTER, "ERROR: ioctl DMX_SET_FILTER failed"},
                                      {DMX_START, "ERROR: ioctl DMX_START FILTER failed"}}) {
    demux.fail_ioctl(request, EINVAL);
    want(0x100);
    EXPECT_EQ(recalculate(0), text);
    want(0x101);
    EXPECT_EQ(recalculate(-1), "") << text;
    EXPECT_EQ(list(), "running 100:2, running 101:2") << text;
    filter.remove_all();
  }
}

TEST_F(Filter_demux, a_timer_runs_once_for_the_filters_time_and_afresh_in_a_slot_used_again) {
  want_for(0x100, 30);
  filter.recalculate_filters();
  EXPECT_GE(remaining(0), 20);
  EXPECT_LE(remaining(0), 30);
  EXPECT_EQ(std::pair(left(0).it_interval.tv_sec, left(0).it_interval.tv_nsec), std::pair(0L, 0L));
  expire(0);
  filter.removefilter(0x100, 2);
  want_for(0x200, 30);
  filter.recalculate_filters();
  EXPECT_GE(remaining(0), 28);
}

TEST_F(Filter_demux, a_timer_that_fails_is_told_at_every_level_and_the_filter_runs_and_its_feed_counts_as_silent) {
  want(0x100);
  const std::string once = "fail to set timer: Invalid argument\n";
  EXPECT_EQ(printed_without_timer([&] { filter.recalculate_filters(); }), once + once) << "disarming and arming";
  EXPECT_EQ(state(0), FILTER_RUNNING);
  calls();
  filter.recalculate_filters();
  set_timer(0, 30, 0);
  EXPECT_EQ(printed_without_timer([&] { filter.check_feed_activation(); }), "feed activation: : Invalid argument\n");
  EXPECT_EQ(calls(), "start 0");
}

TEST_F(Filter_demux, a_ninth_filter_waits_until_a_handle_is_free) {
  want_each(9);
  recalculate(0);
  EXPECT_EQ(list(),
            "running 100:2, running 101:2, running 102:2, running 103:2, running 104:2, running 105:2, "
            "running 106:2, running 107:2, wanted 108:2");
  EXPECT_EQ((Ints{fd(8), at(8)->open_retries}), (Ints{-1, 0}));
  EXPECT_EQ(recalculate(2), "") << "waits without a message";

  const int freed = fd(3);
  filter.removefilter(0x103, 2);
  EXPECT_EQ(fd(3), freed) << "kept until the next call";
  calls();
  const int highest = filter.recalculate_filters();
  EXPECT_EQ(highest, std::max(fd(7), fd(8)));
  EXPECT_EQ(fd(3), -1);
  EXPECT_EQ(state(8), FILTER_RUNNING);
  EXPECT_TRUE(demux.is_mine(fd(8)));
  EXPECT_EQ(calls(), "set 8, start 8");
}

TEST_F(Filter_demux, with_eight_handles_open_those_of_all_free_slots_are_closed_and_counted_off) {
  run_each(8);
  Ints freed;
  for (int i : {1, 4, 6}) {
    freed.push_back(fd(static_cast<size_t>(i)));
    filter.removefilter(0x100 + i, 2);
  }
  run(0x200);  // takes slot 1 and its handle
  EXPECT_EQ((Ints{fd(1), fd(4), fd(6), state(1)}), (Ints{freed[0], -1, -1, FILTER_RUNNING}));
  EXPECT_FALSE(demux.is_mine(freed[1]) || demux.is_mine(freed[2]));
  want_each(3, 0x300);
  filter.recalculate_filters();
  EXPECT_EQ((Ints{state(4), state(6), state(8)}), (Ints{FILTER_RUNNING, FILTER_RUNNING, FILTER_WANTED}))
      << "eight again";
}

TEST_F(Filter_demux, the_highest_handle_need_not_be_the_last_slots) {
  run_each(8);
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

TEST_F(Filter_demux, a_handle_that_does_not_close_is_an_error_and_gone_all_the_same) {
  run_each(8);
  for (const auto& [level, text] : {std::pair{0, "ERROR: Filter demux close failed\n"}, std::pair{-1, ""}}) {
    filter.removefilter(at(0)->pid, 2);
    const auto close_and_recalculate = [&] {  // within the capture, which would take the number
      close(fd(0));
      filter.recalculate_filters();
    };
    EXPECT_EQ(messages_at(level, close_and_recalculate), text);
    EXPECT_EQ(fd(0), -1);
    want(0x200);
    EXPECT_EQ(recalculate(1), "");
    EXPECT_EQ(state(0), FILTER_RUNNING) << "its place was free";
  }
}

TEST_F(Filter_demux, below_eight_handles_a_free_slot_keeps_its_handle_for_the_next_filter) {
  run_each(2);
  const int kept = fd(0);
  filter.removefilter(0x100, 2);
  filter.recalculate_filters();
  calls();
  EXPECT_EQ(messages_at(4, [&] { want(0x200, table::SDT_ACTUAL); }), "") << "a reused slot is not announced";
  filter.recalculate_filters();
  EXPECT_EQ(fd(0), kept);
  EXPECT_EQ(calls(), "set 0, start 0");
  EXPECT_EQ(demux.last_filter().pid, 0x200);
}

TEST_F(Filter_demux, eight_stopped_filters_start_again_on_their_own_handles) {
  run_each(8);
  filter.stop_filters();
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_EQ(support::count_of(list(), "running "), 8U) << list();
}

TEST_F(Filter_demux, a_handle_that_select_cannot_hold_is_a_failed_open) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = FD_SETSIZE + 100;
  if (limit.rlim_max < limit.rlim_cur || setrlimit(RLIMIT_NOFILE, &limit) != 0)
    GTEST_SKIP() << "cannot open that many files here";
  Ints fillers;
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
  EXPECT_EQ((Ints{at(0)->open_retries, fd(0)}), (Ints{1, -1}));
}

// --- Freeing ---------------------------------------------------------------------------------------------------------

TEST_F(Filter_demux, a_removal_stops_a_running_or_stopped_filter_and_keeps_the_handle) {
  run();
  calls();
  EXPECT_EQ(remove(3, 0x100), "Removing filter pid 100 tid 2\n-Fi100.002." + fd_text(0));
  EXPECT_EQ(calls(), "stop 0");
  EXPECT_GE(fcntl(fd(0), F_GETFD), 0);
  run();
  filter.stop_filters();
  calls();
  filter.removefilter(0x100, 2);
  EXPECT_EQ(calls(), "stop 0");
  filter.start_filters();
  EXPECT_EQ(list(), "free -1:2");
}

TEST_F(Filter_demux, set_dvbfilter_reuse_clears_the_slot_but_for_handle_bytes_flags_timeout_and_restarts) {
  run(0x100, table::SDT_ACTUAL);
  dvb_filter_desc* f = at(0);
  const int handle = f->fd;
  f->captured = 5;
  f->open_retries = 2;
  f->restarts = 7;
  filter.set_dvbfilter_reuse(f);
  EXPECT_EQ(list(), "free -1:42");
  EXPECT_EQ((Ints{f->captured, f->freq, f->open_retries}), (Ints{0, 0, 0}));
  EXPECT_EQ((Ints{f->fd, f->mask[0], f->flags, f->timeout_s, f->restarts}),
            (Ints{handle, 0xFF, FILTER_FLAG_HW_CRC, 2, 7}));
}

TEST_F(Filter_demux, a_free_slot_and_a_wanted_filter_that_never_ran_are_freed_without_an_ioctl) {
  run();
  filter.set_dvbfilter_reuse(at(0));
  calls();
  filter.set_dvbfilter_reuse(at(0));
  filter.remove_all();
  EXPECT_EQ(calls(), "");
  want_each(2);
  filter.removefilter(0x101, 2);
  EXPECT_EQ(calls(), "");
}

// A filter of its own on a device, with `count` filters running.
class Filter_end : public testing::Test {
 protected:
  std::unique_ptr<Section_filter> running(int count) const {
    auto filter = std::make_unique<Section_filter>(demux.path());
    for (int i = 0; i < count; ++i)
      filter->addfilter(0x100 + i, 2, FREQ);
    filter->recalculate_filters();
    return filter;
  }
  Fake_demux demux;
};

TEST_F(Filter_end, stops_the_filters_and_closes_all_handles) {
  auto filter = running(3);
  const Ints handles{slot(*filter, 0)->fd, slot(*filter, 1)->fd, slot(*filter, 2)->fd};
  filter->removefilter(0x101, 2);
  demux.take_calls();
  filter.reset();
  EXPECT_EQ(demux.take_calls(), (std::vector<Fake_demux::Call>{{handles[0], DMX_STOP}, {handles[2], DMX_STOP}}));
  for (int handle : handles)
    EXPECT_FALSE(demux.is_mine(handle));
}

TEST_F(Filter_end, tells_at_3_that_all_filters_are_gone_and_deletes_the_timers) {
  const std::string before = listed_timers();
  for (const auto& [level, text] : {std::pair{3, "Removed all filters\n"}, std::pair{2, ""}}) {
    auto filter = running(2);
    filter->removefilter(0x101, 2);
    EXPECT_EQ(messages_at(level, [&] { filter.reset(); }), text);
  }
  EXPECT_EQ(listed_timers(), before);
}

TEST_F(Filter_end, a_handle_that_does_not_close_is_an_error) {
  for (const auto& [level, text] :
       {std::pair{0, "ERROR: Filter close failed, Bad file descriptor \n"}, std::pair{-1, ""}}) {
    auto filter = running(1);
    filter->remove_all();
    const auto close_and_end = [&] {  // within the capture, which would take the number
      close(slot(*filter, 0)->fd);
      filter.reset();
    };
    EXPECT_EQ(messages_at(level, close_and_end), text);
  }
}

// --- Stop, start, restart --------------------------------------------------------------------------------------------

TEST_F(Filter_demux, stop_and_start_keep_the_filters) {
  run_each(2);
  want(0x102);
  calls();
  EXPECT_EQ(messages_at(4, [&] { filter.stop_filters(); }), "");
  EXPECT_EQ(list(), "stopped 100:2, stopped 101:2, wanted 102:2");
  EXPECT_EQ(calls(), "stop 0, stop 1");
  filter.start_filters();
  EXPECT_EQ(calls(), "") << "programmed by the next recalculation only";
  EXPECT_EQ(list(), "wanted 100:2, wanted 101:2, wanted 102:2");
  filter.recalculate_filters();
  EXPECT_EQ(list(), "running 100:2, running 101:2, running 102:2");
}

TEST_F(Filter_demux, a_failing_stop_is_printed_and_the_filter_goes_on_or_is_freed_all_the_same) {
  run();
  demux.fail_ioctl(DMX_STOP, EIO);
  const std::string failed =
      "ERROR: Filter stop failed for demux file nr " + fd_text(0) + ", error Input/output error \n";
  EXPECT_THAT([&] { filter.stop_filters(); }, support::prints_only_from(0, failed));
  EXPECT_EQ(list(), "running 100:2");
  EXPECT_EQ(remove(0, 0x100), failed);
  EXPECT_EQ(list(), "free -1:2");
  run();
  EXPECT_EQ(remove(-1, 0x100), "");
  EXPECT_EQ(list(), "free -1:2");
  demux.fail_ioctl(0, 0);
}

TEST_F(Filter_demux, quirk_restart_all_leaves_the_filters_stopped) {
  run();
  want(0x101);
  calls();
  EXPECT_EQ(messages_at(1, [&] { filter.restart_all_filters(); }), "WARNING: Restarting filter for PID 100\n");
  EXPECT_EQ(calls(), "start 0");
  EXPECT_EQ(list(), "stopped 100:2, wanted 101:2") << "only running ones";
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_EQ(state(0), FILTER_RUNNING);
}

TEST_F(Filter_demux, a_filter_whose_restart_fails_stays_running) {
  run();
  demux.fail_ioctl(DMX_START, EINVAL);
  EXPECT_THAT([&] { filter.restart_all_filters(); },
              support::prints_only_from(
                  0, "ERROR: Filter start failed for demux file nr " + fd_text(0) + ", error Invalid argument \n"));
  EXPECT_EQ(state(0), FILTER_RUNNING);
}

// --- Silent feeds ----------------------------------------------------------------------------------------------------

TEST_F(Filter_demux, a_silent_feed_is_started_and_armed_again_within_the_last_second_of_its_timer_and_not_before) {
  run();
  EXPECT_EQ(remaining(0), 1) << "armed with 2 s";
  calls();
  // What a look does when the timer has this time left.
  const auto look = [&](time_t seconds, long nanoseconds) {
    set_timer(0, seconds, nanoseconds);
    EXPECT_EQ(check_feeds(2), "");
    return calls();
  };
  EXPECT_EQ(look(30, 0), "");
  EXPECT_EQ(look(1, 999000000), "");
  EXPECT_EQ(look(0, 999000000), "start 0");
  EXPECT_EQ(remaining(0), 1) << "armed again";
  EXPECT_EQ(look(20, 0), "");
  EXPECT_EQ(look(0, 1), "start 0");
  EXPECT_EQ((Ints{at(0)->restarts, state(0)}), (Ints{2, FILTER_RUNNING}));
}

TEST_F(Filter_demux, only_silent_running_filters_on_pid_21_and_above_are_started_again) {
  for (int pid : {pid::NIT, pid::LAST_RESERVED + 1, 0x21, 0x100, 0x101})
    run(pid);
  for (size_t i = 0; i < 5; ++i)
    expire(i);
  at(3)->captured = 1;
  at(4)->state = FILTER_STOPPED;
  calls();
  filter.check_feed_activation();
  EXPECT_EQ(calls(), "start 2");
}

TEST_F(Filter_demux, quirk_a_silent_feed_below_pid_21_is_never_started_again) {
  run(pid::NIT, table::NIT_ACTUAL);
  calls();
  for (int i = 0; i < 3; ++i) {
    expire(0);
    filter.check_feed_activation();
  }
  EXPECT_EQ(calls(), "");
  EXPECT_EQ(at(0)->restarts, 0);
}

TEST_F(Filter_demux, quirk_restarts_are_totalled_only_while_they_are_printed) {
  run();
  const auto restart_at = [&](int level) {
    expire(0);
    return check_feeds(level);
  };
  const std::string begin = "##Restart " + std::string(demux.path());
  EXPECT_EQ(restart_at(2), "");
  EXPECT_EQ(restart_at(3), begin + " 2 times: pid 100  tid 2. Started 1, restarted 0, captured 0\n");
  EXPECT_EQ(restart_at(3), begin + " 3 times: pid 100  tid 2. Started 1, restarted 1, captured 0\n");
  EXPECT_EQ(restart_at(2), "");
  EXPECT_EQ(restart_at(3), begin + " 5 times: pid 100  tid 2. Started 1, restarted 2, captured 0\n");
}

TEST_F(Filter_demux, a_failing_restart_is_printed) {
  run();
  expire(0);
  demux.fail_ioctl(DMX_START, EINVAL);
  EXPECT_EQ(check_feeds(0), "ERROR: ioctl DMX_START FILTER failed");
  EXPECT_EQ(remaining(0), 1) << "armed again";
  expire(0);
  EXPECT_EQ(check_feeds(-1), "");
  EXPECT_EQ(at(0)->restarts, 2);
}

}  // namespace
