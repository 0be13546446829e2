// The signal monitor of a tuner on the software adapter.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tuner/tuner.h"
#include "tuner/tuner_support.h"

namespace {

std::mutex events_lock;
std::string events;

void on_event(unsigned event, void* data) {
  const std::lock_guard<std::mutex> lock(events_lock);
  events += std::to_string(event) + (data == nullptr ? " " : "! ");
}

std::string seen_events() {
  const std::lock_guard<std::mutex> lock(events_lock);
  return events;
}

// Bit errors of a quality: the scale has no odd ones between 2 and 88.
constexpr unsigned QUALITY_12 = 25000;
constexpr unsigned QUALITY_10 = 30000;
constexpr unsigned QUALITY_8 = 35000;

// A line of statistics.
struct Pass {
  int locked = -1;
  int not_locked = -1;
  float working = -1;
  int sum = -1;
};

std::vector<Pass> passes_of(const std::string& text) {
  std::vector<Pass> all;
  for (size_t at = text.find("Locked "); at != std::string::npos; at = text.find("Locked ", at + 1)) {
    Pass pass;
    if (std::sscanf(text.c_str() + at, "Locked %d, not_locked %d, working %f %%, quality_sum %d", &pass.locked,
                    &pass.not_locked, &pass.working, &pass.sum) == 4)
      all.push_back(pass);
  }
  return all;
}

class Monitor_test : public Tuner_test {
 protected:
  void SetUp() override {
    Tuner_test::SetUp();
    events.clear();
  }

  void set_quality(unsigned errors, float quality) {
    signal("ber", errors);
    EXPECT_TRUE(wait_for([&] { return tuner_->fe_ber() == quality; }));
    after_monitor_pass();
    after_monitor_pass();
  }
};

}  // namespace

TEST_F(Monitor_test, keeps_strength_and_ber_fresh) {
  signal("strength", 88);
  signal("ber", 4);
  EXPECT_TRUE(wait_for([&] { return tuner_->fe_strength() == 60.0F && tuner_->fe_ber() == 88.0F; }));
}

TEST_F(Monitor_test, no_event_is_sent_before_the_first_reset_though_the_loss_is_printed) {
  tuner_->set_stb_event_callback(on_event);
  const support::Verbosity verbosity(1);
  const support::Stderr_capture capture;
  signal("status", 0);
  EXPECT_TRUE(wait_for([&] { return capture.text().find("WARNING: FE quality lost\n") != std::string::npos; }));
  signal("status", 0x1F);
  EXPECT_TRUE(wait_for([&] { return capture.text().find("WARNING: FE quality OK\n") != std::string::npos; }));
  EXPECT_EQ("", seen_events());
}

TEST_F(Monitor_test, loss_and_return_are_sent_once_each_with_null_data) {
  tuner_->set_stb_event_callback(on_event);
  EXPECT_EQ(1, tuner_->reset_signal_monitor_loop());
  after_monitor_pass();
  signal("status", 0x0F);
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 "; }));
  after_monitor_pass();
  after_monitor_pass();
  signal("status", 0x1F);
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 1 "; }));
  after_monitor_pass();
  EXPECT_EQ("0 1 ", seen_events());
}

TEST_F(Monitor_test, quirk_quality_is_lost_below_10_and_regained_only_above) {
  tuner_->set_stb_event_callback(on_event);
  (void)tuner_->reset_signal_monitor_loop();
  set_quality(QUALITY_10, 10);
  EXPECT_EQ("", seen_events());
  set_quality(QUALITY_8, 8);
  EXPECT_EQ("0 ", seen_events());
  set_quality(QUALITY_10, 10);
  EXPECT_EQ("0 ", seen_events());
  set_quality(QUALITY_12, 12);
  EXPECT_EQ("0 1 ", seen_events());
  set_quality(QUALITY_10, 10);
  EXPECT_EQ("0 1 ", seen_events());
}

TEST_F(Monitor_test, messages_appear_at_verbosity_1_only) {
  const support::Stderr_capture capture;
  set_quality(QUALITY_8, 8);
  set_quality(QUALITY_12, 12);
  EXPECT_EQ(std::string::npos, capture.text().find("WARNING: FE quality"));
}

TEST_F(Monitor_test, disabled_events_are_not_sent_and_a_reset_enables_them_again) {
  tuner_->set_stb_event_callback(on_event);
  (void)tuner_->reset_signal_monitor_loop();
  tuner_->disable_tunerevents();
  set_quality(QUALITY_8, 8);
  EXPECT_EQ("", seen_events());
  (void)tuner_->reset_signal_monitor_loop();  // which counts the quality as good again
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 "; }));
}

TEST_F(Monitor_test, null_callback_is_skipped) {
  tuner_->set_stb_event_callback(on_event);
  tuner_->set_stb_event_callback(nullptr);
  (void)tuner_->reset_signal_monitor_loop();
  set_quality(QUALITY_8, 8);
  EXPECT_EQ("", seen_events());
}

TEST_F(Monitor_test, reset_starts_the_statistics_anew) {
  after_monitor_pass();
  after_monitor_pass();
  (void)tuner_->reset_signal_monitor_loop();
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 100\n") != std::string::npos; }))
      << capture.text();
  EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 200\n") != std::string::npos; }))
      << capture.text();
}

TEST_F(Monitor_test, statistics_are_a_line_a_pass_at_verbosity_3) {
  (void)tuner_->reset_signal_monitor_loop();
  {
    const support::Verbosity verbosity(3);
    const support::Stderr_capture capture;
    EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 100\n") != std::string::npos; }));
    const std::string text = capture.text();
    EXPECT_THAT(text, testing::ContainsRegex("Locked [0-9]+, not_locked 0, working [ 0-9]+\\.[0-9][0-9] %, quality_sum "
                                             "100\n"));
    const std::vector<Pass> passes = passes_of(text);
    ASSERT_FALSE(passes.empty());
    EXPECT_GE(passes.back().locked, 190);
  }
  const support::Verbosity verbosity(2);
  const support::Stderr_capture capture;
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ("", capture.text());
}

TEST_F(Monitor_test, quirk_working_is_a_ratio_of_the_times_with_and_without_lock) {
  (void)tuner_->reset_signal_monitor_loop();
  after_monitor_pass();
  signal("status", 0);
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 700\n") != std::string::npos; }));
  const std::string text = capture.text();
  int locked = -1;
  int not_locked = -1;
  float working = -1;
  ASSERT_EQ(3, std::sscanf(text.c_str() + text.rfind("Locked "), "Locked %d, not_locked %d, working %f %%", &locked,
                           &not_locked, &working))
      << text;
  ASSERT_GT(not_locked, 0);
  EXPECT_NEAR(static_cast<double>(locked) * 100 / not_locked, static_cast<double>(working), 0.01);
}

TEST_F(Monitor_test, any_lock_bit_counts_as_locked_time) {
  for (const unsigned bit : {1U, 2U, 4U, 8U, 16U}) {
    signal("status", bit);
    after_monitor_pass();
    (void)tuner_->reset_signal_monitor_loop();
    const support::Verbosity verbosity(3);
    const support::Stderr_capture capture;
    EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 200\n") != std::string::npos; }));
    const Pass last = passes_of(capture.text()).back();
    EXPECT_GT(last.locked, 0) << bit;
    EXPECT_EQ(0, last.not_locked) << bit;
  }
  signal("status", 0x80);  // none of the five
  after_monitor_pass();
  (void)tuner_->reset_signal_monitor_loop();
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  EXPECT_TRUE(wait_for([&] { return capture.text().find("quality_sum 200\n") != std::string::npos; }));
  EXPECT_EQ(0, passes_of(capture.text()).back().locked);
  EXPECT_GT(passes_of(capture.text()).back().not_locked, 0);
}

TEST_F(Monitor_test, working_stays_over_a_reset_until_there_is_time_without_lock_again) {
  signal("status", 0);
  after_monitor_pass();
  after_monitor_pass();
  signal("status", 0x1F);
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  EXPECT_TRUE(wait_for([&] { return passes_of(capture.text()).size() >= 3; }));
  (void)tuner_->reset_signal_monitor_loop();
  EXPECT_TRUE(wait_for([&] { return capture.text().find(" quality_sum 200\n") != std::string::npos; }));
  const std::vector<Pass> passes = passes_of(capture.text());
  size_t first = 1;  // pass after the reset
  while (first < passes.size() && passes[first].not_locked != 0)
    ++first;
  ASSERT_LT(first + 1, passes.size()) << capture.text();
  EXPECT_GT(passes[first - 1].not_locked, 0);
  EXPECT_GT(passes[first - 1].working, 0);
  EXPECT_EQ(passes[first - 1].working, passes[first].working);
  EXPECT_EQ(passes[first - 1].working, passes[first + 1].working);
}

TEST_F(Monitor_test, both_ends_of_the_frontends_range_are_read) {
  constexpr float UNTUNED = 54.0F;  // what a reading of 0 is
  const support::Stderr_capture capture;
  for (const int freq : {470000000, 862000000}) {
    EXPECT_EQ(0, tuner_->tunetofreq(freq));
    EXPECT_TRUE(wait_for([&] { return tuner_->fe_strength() == UNTUNED; })) << freq;
    EXPECT_EQ(0, tuner_->tunetofreq(freq == 470000000 ? 469999999 : 862000001));
    EXPECT_TRUE(wait_for([&] { return tuner_->fe_strength() == 0 && tuner_->fe_ber() == 0; })) << freq;
  }
}

TEST_F(Monitor_test, frequency_out_of_range_reads_0_and_sends_no_event) {
  tuner_->set_stb_event_callback(on_event);
  (void)tuner_->reset_signal_monitor_loop();
  after_monitor_pass();
  {
    const support::Stderr_capture capture;
    EXPECT_EQ(0, tuner_->tunetofreq(100000000));
  }
  EXPECT_TRUE(wait_for([&] { return tuner_->fe_strength() == 0 && tuner_->fe_ber() == 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ("", seen_events());
  EXPECT_EQ(FREQ, tuner_->tunetofreq(FREQ));
  EXPECT_TRUE(wait_for([&] { return tuner_->fe_ber() == 100; })) << "the monitor goes on";
}

TEST_F(Monitor_test, event_that_cannot_be_read_is_a_warning) {
  support::softdvb_control("fault FE_GET_EVENT = EIO*1");
  const support::Verbosity verbosity(1);
  const support::Stderr_capture capture;
  (void)tuner_->tunetofreq(FREQ);  // makes events
  EXPECT_TRUE(wait_for([&] { return capture.text().find("WARNING: Failed to read fe event\n") != std::string::npos; }));
}

TEST_F(Monitor_test, event_that_cannot_be_read_is_not_told_at_verbosity_0) {
  after_monitor_pass();
  const support::Stderr_capture capture;
  support::softdvb_control("fault FE_GET_EVENT = EIO*5");
  (void)tuner_->tunetofreq(FREQ);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ("", capture.text());
}

TEST_F(Monitor_test, failing_poll_is_printed_and_the_pass_goes_on) {
  after_monitor_pass();
  const support::Stderr_capture capture;
  support::softdvb_control("fault poll = EINTR*1");
  EXPECT_TRUE(wait_for([&] {
    return capture.text().find("Lock poll thread: : Interrupted system call\n") != std::string::npos;
  })) << capture.text();
  after_monitor_pass();
}

TEST_F(Monitor_test, event_wakes_the_pass_early) {
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  // An undisturbed pass takes 200 ms at least; one that is shorter is enough, however busy the machine.
  const auto shortest_ms = [&] {
    const std::vector<Pass> passes = passes_of(capture.text());
    int shortest = 1000;
    for (size_t i = 1; i < passes.size(); ++i)
      shortest =
          std::min(shortest, passes[i].locked + passes[i].not_locked - passes[i - 1].locked - passes[i - 1].not_locked);
    return shortest;
  };
  for (int i = 0; i < 100 && shortest_ms() >= 150; ++i) {
    support::softdvb_control("adapter 0 tune 506000000");  // makes an event
    std::this_thread::sleep_for(std::chrono::milliseconds(130));
  }
  EXPECT_LT(shortest_ms(), 150);
}

TEST_F(Monitor_test, undisturbed_pass_takes_200_ms) {
  after_monitor_pass();
  after_monitor_pass();
  const support::Verbosity verbosity(3);
  const support::Stderr_capture capture;
  const auto shortest_ms = [&] {
    const std::vector<Pass> passes = passes_of(capture.text());
    int shortest = 1000;
    for (size_t i = 1; i < passes.size(); ++i)
      shortest = std::min(shortest, passes[i].locked - passes[i - 1].locked);
    return shortest;
  };
  EXPECT_TRUE(wait_for([&] { return passes_of(capture.text()).size() >= 4 && shortest_ms() < 350; }));
  EXPECT_GE(shortest_ms(), 190);
}

TEST_F(Monitor_test, wait_for_quality_answers_the_number_of_the_first_good_test) {
  signal("snr", 0x00FE);
  EXPECT_EQ(1, tuner_->wait_signal_quality(2, 101, 20, 50));
}

TEST_F(Monitor_test, quirk_wait_for_quality_compares_the_quality_as_if_it_counted_errors) {
  signal("snr", 0x00FE);
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 100, 20, 50)) << "a perfect signal is not below 100";
}

TEST_F(Monitor_test, wait_for_quality_wants_each_reading_beyond_its_limit) {
  signal("snr", 0x00FE);
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 101, 25, 50));
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 101, 20, 100));
}

// A reading that fails answers the last value, here 0 dB.
TEST_F(Monitor_test, wait_for_quality_counts_the_failing_tests_before_the_good_one) {
  signal("snr", 0x00FE);
  support::softdvb_control("fault FE_READ_SNR = EIO*3");
  const support::Stderr_capture capture;
  EXPECT_EQ(4, tuner_->wait_signal_quality(2, 101, 20, 50));
}

TEST_F(Monitor_test, wait_for_quality_wants_more_than_the_limits) {
  signal("snr", 0xFF00);  // 0 dB
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 101, 0, 99));
  EXPECT_EQ(1, tuner_->wait_signal_quality(1, 101, -1, 99));
}

TEST_F(Monitor_test, wait_for_quality_reads_the_snr_only_when_the_others_are_good) {
  after_monitor_pass();
  support::softdvb_control("fault FE_READ_SNR = EIO");
  const support::Stderr_capture capture;
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 100, -1, 50));
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 101, -1, 100));
  EXPECT_EQ("", capture.text());
  EXPECT_EQ(0, tuner_->wait_signal_quality(1, 101, 0, 50));
  std::string ten;
  for (int i = 0; i < 10; ++i)
    ten += "ERROR: FE_READ_STATUS failed for /dev/dvb/adapter0/frontend0 failed\n";
  EXPECT_EQ(ten, capture.text());
  support::softdvb_control("clear faults");
}

TEST_F(Monitor_test, wait_for_quality_on_a_bad_signal_takes_20_tests_and_writes_four_dots) {
  signal("status", 0);
  const int saved = dup(1);
  const std::string file = folder_.file("stdout");
  FILE* out = std::fopen(file.c_str(), "w");
  std::fflush(stdout);
  dup2(fileno(out), 1);
  timespec from{};
  clock_gettime(CLOCK_MONOTONIC, &from);
  const int result = tuner_->wait_signal_quality(2, 101, 10, 50);
  timespec to{};
  clock_gettime(CLOCK_MONOTONIC, &to);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::fclose(out);
  EXPECT_EQ(0, result);
  EXPECT_EQ("....", support::read_file(file));
  const double took =
      static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
  EXPECT_GE(took, 1.99);
}

namespace {

std::atomic<bool> event_arrived{false};
std::atomic<bool> event_may_end{false};

void slow_event(unsigned, void*) {
  event_arrived = true;
  while (!event_may_end)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

}  // namespace

TEST_F(Monitor_test, destruction_closes_the_device_before_it_waits_for_the_monitor) {
  tuner_->set_stb_event_callback(slow_event);
  (void)tuner_->reset_signal_monitor_loop();
  signal("status", 0);
  EXPECT_TRUE(wait_for([] { return event_arrived.load(); }));
  std::thread destroyer([this] { tuner_.reset(); });
  int device = -1;
  EXPECT_TRUE(wait_for([&] { return (device = open(PATH, O_RDWR)) >= 0; })) << "still the tuner's";
  event_may_end = true;
  destroyer.join();
  close(device);
}

TEST_F(Monitor_test, destruction_does_not_wait_longer_than_a_pass) {
  after_monitor_pass();
  timespec from{};
  clock_gettime(CLOCK_MONOTONIC, &from);
  const support::Stderr_capture capture;
  tuner_.reset();
  timespec to{};
  clock_gettime(CLOCK_MONOTONIC, &to);
  EXPECT_LT(static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9, 1.0);
}
