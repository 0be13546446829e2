// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The signal monitor of a tuner, pass by pass, and the waits of both threads to the millisecond.
#include <linux/dvb/frontend.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tuner/fake_tuner.h"

using support::messages_at;

namespace {

std::string events;

void on_event(unsigned event, void* data) {
  events += std::to_string(event) + (data == nullptr ? " " : "! ");
}

// Bit errors of a quality: the scale has no odd ones between 2 and 88.
constexpr unsigned QUALITY_12 = 25000;
constexpr unsigned QUALITY_10 = 30000;
constexpr unsigned QUALITY_8 = 35000;

// The monitor of a tuner that is locked, after its first pass.
class Monitor_test : public Fake_tuner_test {
 protected:
  Monitor_test() {
    events.clear();
    frontend.pass();
  }
  // With events switched on.
  void listen(Tuner::event_callback_t callback = on_event) {
    tuner->set_stb_event_callback(callback);
    EXPECT_EQ(tuner->reset_signal_monitor_loop(), 1);
    frontend.pass();
  }
  void quality(unsigned errors, float expected) {
    frontend.ber = errors;
    frontend.pass();
    EXPECT_EQ(tuner->fe_ber(), expected);
  }
  // What the monitor did in a pass, and the wait that follows.
  Texts pass(short event = 0) {
    frontend.take_monitor_calls();
    frontend.pass(event);
    return frontend.take_monitor_calls();
  }
  // wait_signal_quality() for a quality below, a ratio and a strength above these; "....", say, into `dots`.
  int wait(int seconds, int max_ber, int min_snr, int min_strength) {
    testing::internal::CaptureStdout();
    const int result = tuner->wait_signal_quality(seconds, max_ber, min_snr, min_strength);
    dots = testing::internal::GetCapturedStdout();
    return result;
  }
  // What a pass prints.
  std::string printed(int level, short event = 0) {
    return messages_at(level, [=, this] { frontend.pass(event); });
  }
  std::string statistics() { return printed(3); }
  // The same at verbosity 1 with this status read.
  std::string printed_with(unsigned status) {
    frontend.status = status;
    return printed(1);
  }
  // The events told so far, after a pass with a quality.
  std::string told_after(unsigned errors, float expected) {
    quality(errors, expected);
    return events;
  }
  // Waits until the monitor has given up reading what is out of its range.
  void until_readings_are_0() {
    frontend.end_wait();
    until([&] { return tuner->fe_strength() == 0 && tuner->fe_ber() == 0; });
  }

  std::string dots;
};

const Texts READINGS = {"FE_READ_STATUS", "FE_READ_SIGNAL_STRENGTH", "FE_READ_BER"};
const Texts WAIT = {"wait 200"};

// --- Passes ----------------------------------------------------------------------------------------------------------

// An event wakes it early and is taken; a device that lets no poll wait is asked five times a second all the same.
TEST_F(Monitor_test, pass_takes_200_ms_and_reads_three_values_whatever_the_device_says) {
  EXPECT_EQ(pass(), READINGS + WAIT);
  EXPECT_EQ(pass(POLLIN), Texts{"FE_GET_EVENT"} + READINGS + WAIT);
  EXPECT_EQ(pass(POLLERR), Texts{"sleep 200"} + READINGS + WAIT);
}

TEST_F(Monitor_test, event_that_cannot_be_read_is_a_warning_and_not_told_at_verbosity_0) {
  frontend.failing = FE_GET_EVENT;
  EXPECT_EQ(printed(1, POLLIN), "WARNING: Failed to read fe event\n");
  EXPECT_EQ(printed(0, POLLIN), "");
}

TEST_F(Monitor_test, failing_poll_is_printed_and_the_pass_goes_on) {
  frontend.take_monitor_calls();
  EXPECT_EQ(printed(-1, -ENOMEM), "Lock poll thread: : Cannot allocate memory\n");
  EXPECT_EQ(frontend.take_monitor_calls(), READINGS + WAIT);
}

TEST_F(Monitor_test, poll_that_fails_time_after_time_is_made_five_times_a_second) {
  (void)printed(-1, -ENOMEM);
  EXPECT_EQ(pass(-ENOMEM), Texts{"sleep 200"} + READINGS + WAIT);
  EXPECT_EQ(pass(-ENOMEM), Texts{"sleep 200"} + READINGS + WAIT);
  EXPECT_EQ(pass(), READINGS + WAIT);
  EXPECT_EQ(pass(-ENOMEM), READINGS + WAIT) << "once is nothing";
}

TEST_F(Monitor_test, poll_that_a_signal_ended_goes_on_and_is_no_failure) {
  EXPECT_EQ(printed(4, -EINTR).find("Lock poll thread"), std::string::npos);
  frontend.pass();
  EXPECT_EQ(pass(), READINGS + WAIT);
}

TEST_F(Monitor_test, keeps_strength_and_ber_fresh) {
  frontend.strength = 88;
  frontend.ber = 4;
  frontend.pass();
  EXPECT_EQ(tuner->fe_strength(), 60.0F);
  EXPECT_EQ(tuner->fe_ber(), 88.0F);
}

TEST_F(Monitor_test, both_ends_of_the_frontends_range_are_read) {
  const support::Stderr_capture capture;
  for (const auto& [within, beyond] : {std::pair{470000000, 469999999}, std::pair{862000000, 862000001}}) {
    (void)tuner->tunetofreq(within);
    frontend.pass();
    EXPECT_EQ(tuner->fe_strength(), 100.0F) << within;
    (void)tuner->tunetofreq(beyond);
    until_readings_are_0();
    (void)tuner->tunetofreq(within);
  }
}

TEST_F(Monitor_test, frequency_out_of_range_reads_0_sends_no_event_and_is_looked_at_every_10_ms) {
  listen();
  (void)tuner->tunetofreq(100000000);
  frontend.take_monitor_calls();
  until_readings_are_0();
  until([&] { return frontend.monitor_calls() >= 6; });
  const Texts calls = frontend.take_monitor_calls();
  EXPECT_EQ(calls, READINGS + Texts{"sleep 10"} * (calls.size() - READINGS.size()));
  EXPECT_EQ(events, "");
  EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
  frontend.pass();
  EXPECT_EQ(tuner->fe_ber(), 100.0F) << "the monitor goes on";
}

// --- Events ----------------------------------------------------------------------------------------------------------

TEST_F(Monitor_test, no_event_is_sent_before_the_first_reset_though_the_loss_is_printed) {
  tuner->set_stb_event_callback(on_event);
  EXPECT_EQ(printed_with(0), "WARNING: FE quality lost\n");
  EXPECT_EQ(printed_with(0x1F), "WARNING: FE quality OK\n");
  EXPECT_EQ(events, "");
}

TEST_F(Monitor_test, loss_and_return_are_sent_once_each_with_null_data) {
  listen();
  for (const auto& [status, told] : {std::pair{0x0FU, "0 "}, {0x0FU, "0 "}, {0x1FU, "0 1 "}, {0x1FU, "0 1 "}}) {
    frontend.status = status;
    frontend.pass();
    EXPECT_EQ(events, told);
  }
}

TEST_F(Monitor_test, message_about_the_quality_comes_before_its_event) {
  listen([](unsigned event, void*) {
    const std::string line = "event " + std::to_string(event) + "\n";
    (void)!write(2, line.data(), line.size());
  });
  EXPECT_EQ(printed_with(0), "WARNING: FE quality lost\nevent 0\n");
  EXPECT_EQ(printed_with(0x1F), "WARNING: FE quality OK\nevent 1\n");
}

TEST_F(Monitor_test, quirk_quality_is_lost_below_10_and_regained_only_above) {
  listen();
  EXPECT_EQ(told_after(QUALITY_10, 10), "");
  EXPECT_EQ(told_after(QUALITY_8, 8), "0 ");
  EXPECT_EQ(told_after(QUALITY_10, 10), "0 ");
  EXPECT_EQ(told_after(QUALITY_12, 12), "0 1 ");
  EXPECT_EQ(told_after(QUALITY_10, 10), "0 1 ");
}

TEST_F(Monitor_test, messages_appear_at_verbosity_1_only) {
  EXPECT_EQ(messages_at(0, [&] { quality(QUALITY_8, 8); }), "");
  EXPECT_EQ(messages_at(0, [&] { quality(QUALITY_12, 12); }), "");
}

TEST_F(Monitor_test, no_event_is_sent_when_disabled_until_a_reset_or_without_a_callback) {
  listen();
  tuner->disable_tunerevents();
  EXPECT_EQ(told_after(QUALITY_8, 8), "");
  (void)tuner->reset_signal_monitor_loop();  // which counts the quality as good again
  frontend.pass();
  EXPECT_EQ(events, "0 ");
  listen(nullptr);
  EXPECT_EQ(told_after(QUALITY_8, 8), "0 ");
}

// --- Statistics ------------------------------------------------------------------------------------------------------

TEST_F(Monitor_test, statistics_are_a_line_a_pass_at_verbosity_3_and_a_reset_starts_them_anew) {
  const std::string first = "Locked 200, not_locked 0, working 0.00 %, quality_sum 100\n";
  (void)tuner->reset_signal_monitor_loop();
  EXPECT_EQ(statistics(), first);
  EXPECT_EQ(statistics(), "Locked 400, not_locked 0, working 0.00 %, quality_sum 200\n");
  (void)tuner->reset_signal_monitor_loop();
  EXPECT_EQ(statistics(), first);
  EXPECT_EQ(printed(2), "");
  (void)tuner->reset_signal_monitor_loop();
  EXPECT_EQ(printed(3, POLLIN), "Locked 0, not_locked 0, working 0.00 %, quality_sum 100\n")
      << "a pass that an event ends counts the time that it took";
}

TEST_F(Monitor_test, quirk_working_is_a_ratio_of_the_times_with_and_without_lock) {
  listen();
  frontend.status = 0;
  frontend.pass();
  EXPECT_EQ(statistics(), "Locked 200, not_locked 400, working 50.00 %, quality_sum 300\n");
}

TEST_F(Monitor_test, any_lock_bit_counts_as_locked_time) {
  for (const unsigned bit : {1U, 2U, 4U, 8U, 16U, 0x80U}) {  // the last is none of the five
    frontend.status = bit;
    (void)tuner->reset_signal_monitor_loop();
    EXPECT_THAT(statistics(), testing::ContainsRegex(bit != 0x80 ? "Locked [1-9][0-9]+, not_locked 0,"
                                                                 : "Locked 0, not_locked [1-9][0-9]+,"))
        << bit;
  }
}

TEST_F(Monitor_test, working_stays_over_a_reset_until_there_is_time_without_lock_again) {
  frontend.status = 0;
  frontend.pass();
  frontend.status = 0x1F;
  (void)tuner->reset_signal_monitor_loop();
  EXPECT_EQ(statistics(), "Locked 200, not_locked 0, working 100.00 %, quality_sum 100\n");
  EXPECT_EQ(statistics(), "Locked 400, not_locked 0, working 100.00 %, quality_sum 200\n");
}

// --- Tuning and testing the quality ----------------------------------------------------------------------------------

const Texts TUNE = {"FE_SET_FRONTEND"};
const Texts LOOK_WITHOUT_LOCK = {"FE_GET_FRONTEND", "FE_READ_STATUS"};
const Texts LOOK_WITH_LOCK = {"FE_GET_FRONTEND", "FE_READ_STATUS", "FE_READ_SIGNAL_STRENGTH"};
const Texts SLEEP = {"sleep 50"};
constexpr int OTHER_FREQ = 514000000;

TEST_F(Monitor_test, tuning_with_lock_does_not_wait) {
  EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
  EXPECT_EQ(frontend.take_calls(), TUNE + LOOK_WITH_LOCK);
}

TEST_F(Monitor_test, quirk_tuning_without_lock_waits_150_ms_of_which_the_last_50_are_for_nothing) {
  frontend.status = 0;
  EXPECT_EQ(tuner->tunetofreq(OTHER_FREQ), 0);
  EXPECT_EQ(frontend.take_calls(), TUNE + (LOOK_WITHOUT_LOCK + SLEEP) * 3);
}

TEST_F(Monitor_test, lock_that_takes_time_is_seen_after_50_or_100_ms) {
  for (const int sleeps : {1, 2}) {
    frontend.status = 0;
    int slept = 0;
    frontend.after_sleep = [&] { frontend.status = ++slept == sleeps ? 0x1F : 0; };
    EXPECT_EQ(tuner->tunetofreq(OTHER_FREQ), OTHER_FREQ);
    EXPECT_EQ(frontend.take_calls(), TUNE + (LOOK_WITHOUT_LOCK + SLEEP) * static_cast<size_t>(sleeps) + LOOK_WITH_LOCK);
  }
}

TEST_F(Monitor_test, wait_for_quality_answers_the_number_of_the_first_good_test) {
  EXPECT_EQ(wait(2, 101, 20, 50), 1);
  EXPECT_EQ(frontend.take_calls(), (Texts{"sleep 100", "FE_READ_SNR", "FE_READ_STATUS"}));
}

TEST_F(Monitor_test, quirk_wait_for_quality_compares_the_quality_as_if_it_counted_errors) {
  EXPECT_EQ(wait(1, 100, 20, 50), 0) << "a perfect signal is not below 100";
}

TEST_F(Monitor_test, wait_for_quality_wants_each_reading_beyond_its_limit) {
  EXPECT_EQ(wait(1, 101, 25, 50), 0);
  EXPECT_EQ(wait(1, 101, 20, 100), 0);
  frontend.snr = 0xFF00;  // 0 dB
  EXPECT_EQ(wait(1, 101, 0, 99), 0);
  EXPECT_EQ(wait(1, 101, -1, 99), 1);
}

// A reading that fails answers the last value, here 0 dB.
TEST_F(Monitor_test, wait_for_quality_counts_failing_tests_and_reads_the_snr_only_when_the_others_are_good) {
  const support::Stderr_capture capture;
  frontend.failing = FE_READ_SNR;
  EXPECT_EQ(wait(1, 100, -1, 50), 0);
  EXPECT_EQ(wait(1, 101, -1, 100), 0);
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(wait(1, 101, 0, 50), 0);
  EXPECT_EQ(support::lines_of(capture.text()),
            Texts{std::string("ERROR: FE_READ_STATUS failed for ") + frontend.path() + " failed"} * 10);
  int tests = 0;
  frontend.after_sleep = [&] { frontend.failing = ++tests < 4 ? FE_READ_SNR : 0; };
  EXPECT_EQ(wait(2, 101, 20, 50), 4);
}

TEST_F(Monitor_test, wait_for_quality_on_a_bad_signal_takes_20_tests_of_100_ms_and_writes_four_dots) {
  frontend.status = 0;
  EXPECT_EQ(wait(2, 101, 10, 50), 0);
  EXPECT_EQ(dots, "....");
  EXPECT_EQ(frontend.take_calls(), (Texts{"sleep 100", "FE_READ_SNR", "FE_READ_STATUS"} * 20));
}

// --- The end ---------------------------------------------------------------------------------------------------------

std::atomic<bool> in_event;
std::atomic<bool> event_may_end;
std::atomic<bool> event_over;

void long_event(unsigned, void*) {
  in_event = true;
  while (!event_may_end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  event_over = true;
}

class Long_event_test : public Monitor_test {
 protected:
  // The monitor is in the callback from now on, until event_may_end.
  Long_event_test() {
    in_event = event_may_end = event_over = false;
    listen(long_event);
    frontend.status = 0;
    frontend.end_wait();
    until([] { return in_event.load(); });
  }
};

TEST_F(Long_event_test, disabling_events_does_not_wait_for_the_one_under_way) {
  tuner->disable_tunerevents();
  EXPECT_FALSE(event_over);
  event_may_end = true;
  until([] { return event_over.load(); });
}

TEST_F(Long_event_test, destruction_closes_the_device_before_it_waits_for_the_event_under_way) {
  EXPECT_TRUE(frontend.is_open());
  bool over_at_end = false;
  std::thread destroyer([&] {
    tuner.reset();
    over_at_end = event_over;
  });
  until([&] { return !frontend.is_open(); });
  // Time enough for a destructor that does not wait.
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
  until([=] { return std::chrono::steady_clock::now() >= end; });
  event_may_end = true;
  destroyer.join();
  EXPECT_TRUE(over_at_end);
}

TEST_F(Monitor_test, destruction_ends_the_wait_of_the_monitor) {
  frontend.take_monitor_calls();
  const support::Stderr_capture capture;  // the readings of the pass that it was in fail
  tuner.reset();
  EXPECT_EQ(frontend.take_monitor_calls(), Texts());
}

// Who closes the device is told that the wait ended, and runs only when the monitor is in the next one: all threads
// share a processor, this one has the last turn, and of the monitor's 200 ms nothing is left.
TEST_F(Monitor_test, destruction_misses_no_end_of_a_wait) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
    ASSERT_EQ(sched_setaffinity(std::stoi(thread.path().filename()), sizeof one, &one), 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
  until([=] { return std::chrono::steady_clock::now() >= end; });
  const support::Stderr_capture capture;  // the readings of the pass that it was in fail
  errno = 0;
  (void)nice(19);
  ASSERT_EQ(errno, 0);
  tuner.reset();
  EXPECT_FALSE(frontend.is_open());
}

}  // namespace
