// The signal monitor of a tuner on the software adapter.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

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
    int locked = -1;
    int not_locked = -1;
    float working = -1;
    int sum = -1;
    const std::string text = capture.text();
    ASSERT_EQ(
        4, std::sscanf(text.c_str() + text.find("Locked "), "Locked %d, not_locked %d, working %f %%, quality_sum %d\n",
                       &locked, &not_locked, &working, &sum))
        << text;
    EXPECT_GE(locked, 190);
    EXPECT_EQ(0, not_locked);
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
  tuner_->set_stb_event_callback(on_event);
  (void)tuner_->reset_signal_monitor_loop();
  after_monitor_pass();
  timespec from{};
  clock_gettime(CLOCK_MONOTONIC, &from);
  (void)tuner_->tunetofreq(514000000);  // the event of the tuning itself says that the lock is gone
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 "; }));
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
