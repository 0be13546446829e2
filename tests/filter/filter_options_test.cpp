// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What profiles ask of filters: a larger buffer, losses that are counted, a device that may go.
#include <poll.h>

#include "filter/filter_support.h"
#include "filter/section_filter_parts.h"

using support::Bytes;
using support::Texts;
using testing::HasSubstr;

namespace {

constexpr int LONG_MS = 900000;  // an end by time-out would be one of the test's
constexpr int SHORT_MS = 20;
const Bytes PMT = support::long_section(table::PMT, 1, 3, support::join({support::u16(0xE101), support::loop12({})}));

Bytes with_wrong_crc() {
  Bytes section = PMT;
  section.back() ^= 1;
  return section;
}

class Options_test : public Demux_test {
 protected:
  Section_filter::Parts& parts() { return filter.parts(); }
  void configure(const Filter_options& options) { parts().configure(options); }

  unsigned read(size_t index = 0) { return filter.get_section_data(at(index), buffer); }
  // A pass of a scan loop that has data on slot 0.
  unsigned deliver(const Bytes& bytes) {
    filter.recalculate_filters();
    demux.put(bytes);
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    return read();
  }
  // The same with what is there already.
  void wait_and_read() {
    filter.recalculate_filters();
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    EXPECT_EQ(read(), 0U);
  }
  // What it prints when nothing comes of it.
  std::string refused(int level, const Bytes& bytes) {
    return messages_at(level, [&] { EXPECT_EQ(deliver(bytes), 0U); });
  }
  // "PID overflows crc_errors" of each that lost any.
  Texts lost() {
    std::vector<Lost_sections> all{{7, 7, 7}};
    parts().lost(&all);
    Texts texts;
    for (const Lost_sections& l : all)
      texts.push_back(std::to_string(l.pid) + " " + std::to_string(l.overflows) + " " + std::to_string(l.crc_errors));
    return texts;
  }
  // Until what began before has had a turn of TURN_MS.
  static void let_turns_end() { std::this_thread::sleep_for(std::chrono::milliseconds(TURN_MS + 1)); }
  static constexpr int TURN_MS = 5;
  static constexpr int FOR_EVER_MS = 100000000;
  char buffer[SECTION_BUF_SIZE];
};

// --- The buffer ------------------------------------------------------------------------------------------------------

TEST_F(Options_test, the_buffer_is_set_once_a_handle_and_before_its_first_filter) {
  configure({.buffer_bytes = 262144});
  run();
  EXPECT_EQ(calls(), "buffer 0, set 0, start 0");
  EXPECT_EQ(demux.last_buffer(), 262144U);
  filter.remove_all();
  run(0x101);
  EXPECT_EQ(calls(), "stop 0, set 0, start 0") << "the handle has it already";
}

TEST_F(Options_test, without_a_size_the_kernels_buffer_stays) {
  run();
  EXPECT_EQ(calls(), "set 0, start 0");
}

TEST_F(Options_test, a_refused_buffer_is_warned_of_once_and_the_filters_run) {
  configure({.buffer_bytes = 1000});
  demux.fail_ioctl(DMX_SET_BUFFER_SIZE, ENOMEM);
  want_each(2);
  EXPECT_EQ(recalculate(1),
            std::string("WARNING: ") + demux.path() + ": no buffer of 1000 bytes: " + std::strerror(ENOMEM) + "\n");
  EXPECT_EQ(list(), "running 100:2, running 101:2");
  want(0x102);
  EXPECT_EQ(recalculate(1), "");
}

// --- Timers ----------------------------------------------------------------------------------------------------------

TEST(Filter_options_end, of_a_watched_device_leaves_no_timer_of_slots_without_handle) {
  const std::string before = listed_timers();
  {
    Section_filter filter("/nonexistent/demux0");
    filter.parts().configure({.watch_device = true});
    filter.addfilter(0x100, 2, FREQ);
    if (listed_timers() == before)
      GTEST_SKIP() << "this kernel does not list timers";
  }
  EXPECT_EQ(listed_timers(), before);
}

// --- Turns -----------------------------------------------------------------------------------------------------------

TEST_F(Options_test, pmts_hand_their_handles_on_and_other_tables_keep_theirs) {
  configure({.pmt_turn_ms = TURN_MS, .pmt_patience_ms = FOR_EVER_MS});
  want(pid::SDT, table::SDT_ACTUAL);
  want_each(7);
  filter.recalculate_filters();  // nobody waits yet, however slowly they start
  want_each(2, 0x107);
  const std::string first =
      "running 11:42, running 100:2, running 101:2, running 102:2, running 103:2, running 104:2, running 105:2, "
      "running 106:2, wanted 107:2, wanted 108:2";
  ASSERT_EQ(list(), first);
  let_turns_end();
  calls();
  filter.recalculate_filters();
  EXPECT_EQ(calls(), "stop 1, set 1, start 1, stop 2, set 2, start 2");
  EXPECT_EQ(demux.last_filter().pid, 0x108);
  EXPECT_EQ(list(),
            "running 11:42, running 107:2, running 108:2, running 102:2, running 103:2, running 104:2, running 105:2, "
            "running 106:2, wanted 100:2, wanted 101:2");
  let_turns_end();
  filter.recalculate_filters();
  EXPECT_EQ(list(),
            "running 11:42, running 107:2, running 108:2, running 100:2, running 101:2, running 104:2, running 105:2, "
            "running 106:2, wanted 102:2, wanted 103:2")
      << "whoever has had the longest turn goes, whoever has listened least comes";
}

TEST_F(Options_test, a_table_that_has_no_turns_gets_a_handle_of_a_pmt) {
  configure({.pmt_turn_ms = TURN_MS, .pmt_patience_ms = FOR_EVER_MS});
  run_each(8);
  let_turns_end();
  want(pid::SDT, table::SDT_ACTUAL);
  filter.recalculate_filters();
  let_turns_end();
  filter.recalculate_filters();
  EXPECT_EQ(at(0)->pid, pid::SDT);
  EXPECT_EQ(at(1)->pid, 0x100) << "which takes the next one's";
}

TEST_F(Options_test, without_turns_who_has_a_handle_keeps_it) {
  run_each(9);
  let_turns_end();
  filter.recalculate_filters();
  EXPECT_EQ(state(8), FILTER_WANTED);
  EXPECT_EQ(parts().take_given_up(), std::vector<int>{});
}

TEST_F(Options_test, pmts_that_do_not_come_are_given_up_and_others_are_waited_for) {
  configure({.pmt_turn_ms = TURN_MS, .pmt_patience_ms = TURN_MS});
  want(pid::SDT, table::SDT_ACTUAL);
  want_each(7);
  filter.recalculate_filters();
  want(0x107);
  ASSERT_EQ(state(8), FILTER_WANTED);
  let_turns_end();
  EXPECT_EQ(messages_at(2, [this] { filter.recalculate_filters(); }).substr(0, 31), "No PMT on PID 256: given up\nNo ");
  EXPECT_EQ(parts().take_given_up(), (std::vector<int>{0x100, 0x101, 0x102, 0x103, 0x104, 0x105, 0x106}));
  EXPECT_EQ(parts().take_given_up(), std::vector<int>{}) << "each is told once";
  EXPECT_EQ(state(8), FILTER_RUNNING) << "with a handle that has become free";
  EXPECT_EQ(state(0), FILTER_RUNNING);
}

TEST_F(Options_test, pmts_are_waited_for_anew_after_a_sign_of_life_and_only_with_a_handle) {
  Filter_turns turns;
  turns.configure({.pmt_turn_ms = 1000, .pmt_patience_ms = 5000});
  dvb_filter_desc pmt{};
  pmt.filter[0] = table::PMT;
  turns.began(&pmt, 10000);
  EXPECT_FALSE(turns.is_hopeless(&pmt, 14999));
  EXPECT_TRUE(turns.is_hopeless(&pmt, 15000));
  turns.note_sign_of_life(14000);
  EXPECT_FALSE(turns.is_hopeless(&pmt, 18999));
  turns.ended(&pmt, 16000);
  EXPECT_EQ(turns.listened_ms(&pmt), 2000);
  turns.began(&pmt, 30000);
  EXPECT_FALSE(turns.is_hopeless(&pmt, 32999));
  EXPECT_TRUE(turns.is_hopeless(&pmt, 33000));
}

// --- Losses ----------------------------------------------------------------------------------------------------------

TEST_F(Options_test, overflows_wrong_crcs_and_wrong_lengths_are_counted_by_pid) {
  configure({.check_crc = true});
  run(0x200);
  EXPECT_EQ(deliver(PMT), PMT.size());
  EXPECT_EQ(lost(), Texts{});
  EXPECT_EQ(refused(-1, with_wrong_crc()), "");
  EXPECT_EQ(refused(-1, Bytes(PMT.begin(), PMT.end() - 1)), "");
  demux.fail_read(EOVERFLOW, 1);
  EXPECT_EQ(refused(-1, PMT), "");
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1) << "what overflowed here stays in the pipe";
  EXPECT_EQ(read(), PMT.size());
  filter.remove_all();
  run(0x100);
  EXPECT_EQ(refused(-1, with_wrong_crc()), "");
  EXPECT_EQ(lost(), (Texts{"256 0 1", "512 1 2"}));
  EXPECT_EQ(parts().losses(0x200), 3);
  EXPECT_EQ(parts().losses(0x300), 0);
}

TEST_F(Options_test, forgetting_leaves_the_sum_of_all_losses) {
  run();
  demux.fail_read(EOVERFLOW);
  EXPECT_EQ(refused(-1, PMT), "");
  parts().forget_lost();
  EXPECT_EQ(lost(), Texts{});
  wait_and_read();
  EXPECT_EQ(lost(), Texts{"256 1 0"});
  EXPECT_EQ(parts().losses(0x100), 2);
  demux.fail_read(0);
}

TEST_F(Options_test, another_failure_of_reading_is_no_loss) {
  run();
  demux.fail_read(EIO);
  EXPECT_THAT(refused(0, PMT), HasSubstr("errno 5"));
  EXPECT_EQ(lost(), Texts{});
  demux.fail_read(0);
}

TEST_F(Options_test, filters_by_table_id_check_the_crc_here_with_one_warning_each) {
  configure({.check_crc = true});
  run();
  EXPECT_EQ(demux.last_filter().flags, 0U) << "the kernel does not check";
  EXPECT_EQ(refused(1, with_wrong_crc()), "WARNING: Section of PID 100, table 2 dropped, its CRC is wrong\n");
  EXPECT_EQ(refused(0, with_wrong_crc()), "");
  EXPECT_EQ(at(0)->captured, 2) << "the feed is alive";
}

TEST_F(Options_test, a_tot_with_a_wrong_crc_is_not_believed_and_a_tdt_needs_none) {
  configure({.check_crc = true});
  run(pid::TIME, table::TOT);
  Bytes tot = support::with_crc({table::TOT, 0x70, 0x0B, 0xD0, 0x7D, 0x12, 0x34, 0x56, 0xF0, 0x00});
  EXPECT_EQ(deliver(tot), tot.size());
  tot.back() ^= 1;
  EXPECT_EQ(refused(-1, tot), "");
  filter.remove_all();
  run(pid::TIME, table::TDT);
  EXPECT_EQ(deliver({table::TDT, 0x70, 0x05, 0xD0, 0x7D, 0x12, 0x34, 0x56}), 8U);
}

// --- Interrupted calls -----------------------------------------------------------------------------------------------

TEST_F(Options_test, an_interrupted_call_is_made_again) {
  for (const unsigned long request :
       std::array<unsigned long, 4>{DMX_SET_BUFFER_SIZE, DMX_SET_FILTER, DMX_START, DMX_STOP}) {
    configure({.buffer_bytes = 65536});
    demux.fail_ioctl(request, EINTR, 3);
    want(0x100);
    const std::string printed = messages_at(1, [this] {
      filter.recalculate_filters();
      filter.stop_filters();
    });
    EXPECT_EQ(printed, "") << request;
    EXPECT_EQ(list(), "stopped 100:2");
    filter.remove_all();
  }
  demux.fail_ioctl(0, 0);
  run();
  demux.fail_read(EINTR, 3);
  EXPECT_EQ(deliver(PMT), PMT.size());
}

TEST_F(Options_test, a_call_that_is_interrupted_for_ever_fails_in_the_end) {
  run();
  demux.fail_read(EINTR);
  EXPECT_THAT(refused(0, PMT), HasSubstr("errno 4"));
  demux.fail_read(0);
  demux.fail_ioctl(DMX_STOP, EINTR);
  EXPECT_THAT(messages_at(0, [this] { filter.stop_filters(); }), HasSubstr("Filter stop failed"));
  EXPECT_EQ(list(), "running 100:2");
}

// --- A device that goes ----------------------------------------------------------------------------------------------

class Device_gone : public Options_test {
 protected:
  Device_gone() { configure({.watch_device = true}); }

  std::string gone(const std::string& how) const {
    return std::string("WARNING: ") + demux.path() + " is gone: " + how + "\n";
  }
  const std::string no_device = std::strerror(ENODEV);
  // From the moment that it has gone: nothing is printed, asked or read, everything is closed, and waits last.
  void expect_quiet() {
    EXPECT_TRUE(parts().device_gone());
    demux.take_calls();
    const int reads = demux.reads();
    EXPECT_EQ(messages_at(3,
                          [this] {
                            filter.check_feed_activation();
                            EXPECT_EQ(filter.recalculate_filters(), 0);
                            const auto begin = std::chrono::steady_clock::now();
                            EXPECT_EQ(filter.wait_for_data(SHORT_MS), 0);
                            EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(SHORT_MS));
                            for (dvb_filter_desc* f : *filter.flist()) {
                              EXPECT_EQ(filter.get_section_data(f, buffer), 0U);
                              EXPECT_EQ(f->fd, -1);
                            }
                            filter.stop_filters();
                          }),
              "");
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(demux.reads(), reads);
  }
};

TEST_F(Device_gone, a_read_that_finds_no_device_ends_it_all_with_one_warning) {
  run_each(2);
  demux.fail_read(ENODEV);
  demux.put(PMT);
  EXPECT_GE(filter.wait_for_data(LONG_MS), 1);
  EXPECT_EQ(messages_at(1,
                        [this] {
                          EXPECT_EQ(read(0), 0U);
                          EXPECT_EQ(read(1), 0U);
                        }),
            gone(no_device));
  expect_quiet();
  EXPECT_EQ(list(), "wanted 100:2, wanted 101:2");
  EXPECT_EQ(lost(), Texts{});
}

TEST_F(Device_gone, so_does_every_ioctl) {
  const auto recalculates = [this] { filter.recalculate_filters(); };
  const struct {
    unsigned long request;
    bool runs_before;
    std::function<void()> act;
    const char* said_before = "";
  } cases[] = {
      {DMX_SET_BUFFER_SIZE, false, recalculates},
      {DMX_SET_FILTER, false, recalculates},
      {DMX_START, false, recalculates},
      {DMX_STOP, true, [this] { filter.removefilter(0x100, 2); }},
      {DMX_STOP, true, [this] { filter.stop_filters(); }},
      {DMX_START, true, [this] { filter.restart_all_filters(); }, "WARNING: Restarting filter for PID 100\n"},
  };
  configure({.buffer_bytes = 65536, .watch_device = true});
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    filter.remove_all();
    parts().close_all();
    want(0x100);
    if (c.runs_before)
      filter.recalculate_filters();
    demux.fail_ioctl(c.request, ENODEV);
    EXPECT_EQ(messages_at(1, c.act), c.said_before + gone(no_device));
    demux.fail_ioctl(0, 0);
    expect_quiet();
  }
}

TEST_F(Device_gone, so_does_a_node_that_is_not_there_however_often_it_is_tried) {
  want_each(2);
  std::filesystem::remove(demux.path());
  EXPECT_EQ(recalculate(1), gone(std::strerror(ENOENT)));
  for (int i = 0; i < 2 * MAX_OPEN_RETRIES; ++i)
    EXPECT_EQ(recalculate(1), "");
  EXPECT_EQ(list(), "wanted 100:2, wanted 101:2");
  EXPECT_EQ(parts().dropped(), 0);
  EXPECT_TRUE(parts().device_gone());
}

TEST_F(Device_gone, so_does_a_handle_that_has_nothing_and_only_an_error) {
  for (const short bits : {short{POLLERR}, short{POLLHUP}, short{POLLERR | POLLHUP}}) {
    SCOPED_TRACE(bits);
    run();
    demux.put(PMT);
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    demux.answer_poll(bits);
    demux.fail_read(EAGAIN);
    EXPECT_EQ(messages_at(1, [this] { EXPECT_EQ(read(), 0U); }), gone("it has no more data"));
    expect_quiet();
    demux.fail_read(0);
    demux.answer_poll(0);
    filter.remove_all();
    parts().close_all();
  }
}

TEST_F(Device_gone, so_does_one_that_is_ready_and_has_nothing_for_two_seconds_which_it_is_not_asked_all_the_time) {
  run();
  demux.put(PMT);
  demux.fail_read(EAGAIN);
  const auto begin = std::chrono::steady_clock::now();
  std::string said;
  while (!parts().device_gone() && std::chrono::steady_clock::now() - begin < std::chrono::minutes(2)) {
    filter.recalculate_filters();
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    said += messages_at(1, [this] { EXPECT_EQ(read(), 0U); });
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(said, gone("it says that there are data, and has none"));
  EXPECT_GE(demux.reads(), 20);
  EXPECT_LE(demux.reads(), 2000 / 50 + 2) << "with pauses in between";
  expect_quiet();
}

TEST_F(Device_gone, one_that_has_something_in_between_stays_and_a_wake_up_ends_the_pause) {
  run();
  demux.put(PMT);
  for (int i = 0; i < 19; ++i) {
    demux.fail_read(EAGAIN);
    filter.recalculate_filters();
    EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
    EXPECT_EQ(read(), 0U);
  }
  parts().wake();
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  demux.fail_read(0);
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  EXPECT_EQ(read(), PMT.size());
  EXPECT_FALSE(parts().device_gone());
}

TEST_F(Device_gone, an_overflow_with_its_error_bit_does_not_end_it) {
  run();
  demux.put(PMT);
  demux.answer_poll(POLLIN | POLLERR);
  demux.fail_read(EOVERFLOW, 1);
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  EXPECT_THAT(messages_at(1, [this] { EXPECT_EQ(read(), 0U); }), HasSubstr("overflow"));
  EXPECT_FALSE(parts().device_gone());
  demux.answer_poll(0);
  filter.recalculate_filters();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 1);
  EXPECT_EQ(read(), PMT.size());
}

TEST_F(Device_gone, a_wake_up_ends_the_wait_without_a_device) {
  run();
  parts().set_gone();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0) << "that it has gone is told";
  std::thread waker([this] { parts().wake(); });
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  waker.join();
}

TEST_F(Device_gone, what_ran_or_was_wanted_runs_again_on_the_device_that_is_back_and_what_was_stopped_does_not) {
  run(0x100);
  filter.stop_filters();
  run(0x101);
  parts().set_gone();
  want(0x102);
  EXPECT_EQ(recalculate(3), "");
  EXPECT_EQ(list(), "stopped 100:2, wanted 101:2, wanted 102:2");
  EXPECT_EQ(fd(0), -1);
  demux.take_calls();
  parts().close_all();
  EXPECT_FALSE(parts().device_gone());
  filter.recalculate_filters();
  EXPECT_EQ(list(), "stopped 100:2, running 101:2, running 102:2");
  EXPECT_EQ(calls(), "set 1, start 1, set 2, start 2");
  filter.start_filters();
  filter.recalculate_filters();
  EXPECT_EQ(calls(), "set 0, start 0");
  demux.put(PMT);
  EXPECT_GE(filter.wait_for_data(LONG_MS), 1);
}

TEST_F(Device_gone, whether_it_answers_is_asked_by_opening_it_for_a_moment) {
  const auto open_handles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  parts().set_gone();
  const auto before = open_handles();
  EXPECT_TRUE(parts().device_answers());
  EXPECT_EQ(open_handles(), before);
  EXPECT_TRUE(parts().device_gone());
  std::filesystem::remove(demux.path());
  EXPECT_EQ(messages_at(3, [this] { EXPECT_FALSE(parts().device_answers()); }), "");
}

TEST_F(Device_gone, filters_are_added_and_removed_meanwhile) {
  run();
  parts().set_gone();
  EXPECT_EQ(filter.wait_for_data(LONG_MS), 0);
  filter.remove_all();
  want(0x200);
  expect_quiet();
  EXPECT_EQ(list(), "wanted 200:2");
}

TEST_F(Options_test, a_device_that_is_not_watched_is_as_it_was) {
  run();
  demux.fail_read(ENODEV);
  EXPECT_THAT(refused(0, PMT), HasSubstr("errno 19"));
  demux.fail_read(EAGAIN);
  for (int i = 0; i < 30; ++i)
    EXPECT_THAT(messages_at(0, [this] { wait_and_read(); }), HasSubstr("errno 11"));
  EXPECT_FALSE(parts().device_gone());
  EXPECT_EQ(list(), "running 100:2");
  demux.fail_read(0);
}

}  // namespace
