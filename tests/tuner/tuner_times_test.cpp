// How long a tuner waits, and when it asks the device: to the millisecond, on a device whose waits take no time.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/database.h"
#include "support/messages.h"
#include "tuner/fake_frontend.h"
#include "tuner/tuner.h"

using support::Texts;
using testing::ElementsAre;

namespace {

constexpr int FREQ = 506000000;
constexpr int OTHER_FREQ = 514000000;

Texts operator*(const Texts& part, int times) {
  Texts all;
  for (int i = 0; i < times; ++i)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// Without a sleep, which would count as one of the library's.
template <typename Condition>
void until(Condition condition) {
  while (!condition())
    std::this_thread::yield();
}

class Tuner_times_test : public testing::Test {
 protected:
  Tuner_times_test() {
    EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
    frontend.take_calls();
  }
  ~Tuner_times_test() override {
    const support::Stderr_capture capture;  // the pass that ends the monitor fails at the closed device
    tuner.reset();
  }

  // What the monitor did after its wait, and the wait that follows.
  Texts pass(short events = 0) {
    frontend.take_monitor_calls();
    frontend.pass(events);
    return frontend.take_monitor_calls();
  }

  Fake_frontend frontend;
  support::Database db;
  std::unique_ptr<Tuner> tuner = std::make_unique<Tuner>(frontend.path(), &db.sdbl(), 0, 0);
};

const Texts LOOK_WITHOUT_LOCK = {"FE_GET_FRONTEND", "FE_READ_STATUS"};
const Texts LOOK_WITH_LOCK = {"FE_GET_FRONTEND", "FE_READ_STATUS", "FE_READ_SIGNAL_STRENGTH"};
const Texts TUNE = {"FE_SET_FRONTEND"};
const Texts SLEEP = {"sleep 50"};
const Texts READINGS = {"FE_READ_STATUS", "FE_READ_SIGNAL_STRENGTH", "FE_READ_BER"};

TEST_F(Tuner_times_test, a_tuning_with_lock_does_not_wait) {
  EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
  EXPECT_EQ(frontend.take_calls(), TUNE + LOOK_WITH_LOCK);
}

TEST_F(Tuner_times_test, quirk_a_tuning_without_lock_waits_150_ms_of_which_the_last_50_are_for_nothing) {
  frontend.status = 0;
  EXPECT_EQ(tuner->tunetofreq(OTHER_FREQ), 0);
  EXPECT_EQ(frontend.take_calls(), TUNE + (LOOK_WITHOUT_LOCK + SLEEP) * 3);
}

TEST_F(Tuner_times_test, a_lock_that_takes_time_is_seen_after_50_or_100_ms) {
  for (const int sleeps : {1, 2}) {
    frontend.status = 0;
    int slept = 0;
    frontend.after_sleep = [&] { frontend.status = ++slept == sleeps ? 0x1F : 0; };
    EXPECT_EQ(tuner->tunetofreq(OTHER_FREQ), OTHER_FREQ);
    EXPECT_EQ(frontend.take_calls(), TUNE + (LOOK_WITHOUT_LOCK + SLEEP) * sleeps + LOOK_WITH_LOCK);
  }
}

TEST_F(Tuner_times_test, a_test_of_quality_takes_100_ms_and_ten_make_a_second) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(tuner->wait_signal_quality(3, 0, 20, 50), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "......");
  EXPECT_EQ(frontend.take_calls(), Texts({"sleep 100"}) * 30);
  frontend.pass();
  EXPECT_EQ(tuner->wait_signal_quality(3, 101, 20, 50), 1);
  EXPECT_THAT(frontend.take_calls(), ElementsAre("sleep 100", "FE_READ_SNR", "FE_READ_STATUS"));
}

TEST_F(Tuner_times_test, a_pass_of_the_monitor_waits_200_ms_and_reads_three_values) {
  frontend.pass();
  EXPECT_EQ(pass(), READINGS + Texts{"wait 200"});
}

TEST_F(Tuner_times_test, an_event_of_the_device_ends_the_wait_and_is_taken) {
  frontend.pass();
  EXPECT_EQ(pass(POLLIN), Texts{"FE_GET_EVENT"} + READINGS + Texts{"wait 200"});
}

TEST_F(Tuner_times_test, a_device_that_lets_no_poll_wait_is_still_asked_five_times_a_second_only) {
  frontend.pass();
  EXPECT_EQ(pass(POLLERR), Texts{"sleep 200"} + READINGS + Texts{"wait 200"});
}

TEST_F(Tuner_times_test, a_frequency_that_the_frontend_does_not_receive_is_looked_at_every_10_ms) {
  frontend.pass();
  EXPECT_EQ(tuner->fe_strength(), 100.0F);
  (void)tuner->tunetofreq(100000000);
  frontend.take_monitor_calls();
  frontend.end_wait();
  until([&] { return tuner->fe_strength() == 0 && tuner->fe_ber() == 0; });
  until([&] { return frontend.monitor_calls() >= 6; });
  const Texts calls = frontend.take_monitor_calls();
  EXPECT_EQ(calls, READINGS + Texts{"sleep 10"} * static_cast<int>(calls.size() - READINGS.size()));
  EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
  frontend.pass();
  EXPECT_EQ(tuner->fe_strength(), 100.0F);
}

TEST_F(Tuner_times_test, the_statistics_count_exactly_what_the_passes_took) {
  (void)tuner->reset_signal_monitor_loop();
  EXPECT_EQ(support::messages_at(3, [&] { frontend.pass(); }),
            "Locked 200, not_locked 0, working 0.00 %, quality_sum 100\n");
  EXPECT_EQ(support::messages_at(3, [&] { frontend.pass(POLLIN); }),
            "Locked 200, not_locked 0, working 0.00 %, quality_sum 200\n");
  frontend.status = 0;
  EXPECT_EQ(support::messages_at(3, [&] { frontend.pass(); }),
            "WARNING: FE quality lost\nLocked 200, not_locked 200, working 100.00 %, quality_sum 300\n");
  EXPECT_EQ(support::messages_at(3, [&] { frontend.pass(); }),
            "Locked 200, not_locked 400, working 50.00 %, quality_sum 400\n");
}

// Events.

void tell(unsigned event, void*) {
  const std::string line = "event " + std::to_string(event) + "\n";
  (void)!write(2, line.data(), line.size());
}

TEST_F(Tuner_times_test, the_message_about_the_quality_comes_before_its_event) {
  tuner->set_stb_event_callback(tell);
  (void)tuner->reset_signal_monitor_loop();
  frontend.pass();
  frontend.status = 0;
  EXPECT_EQ(support::messages_at(1, [&] { frontend.pass(); }), "WARNING: FE quality lost\nevent 0\n");
  frontend.status = 0x1F;
  EXPECT_EQ(support::messages_at(1, [&] { frontend.pass(); }), "WARNING: FE quality OK\nevent 1\n");
}

std::atomic<bool> in_event;
std::atomic<bool> event_may_end;
std::atomic<bool> event_over;

void long_event(unsigned, void*) {
  in_event = true;
  while (!event_may_end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  event_over = true;
}

class Tuner_events_test : public Tuner_times_test {
 protected:
  // The monitor is in the callback from now on, until event_may_end.
  void begin_event() {
    in_event = event_may_end = event_over = false;
    tuner->set_stb_event_callback(long_event);
    (void)tuner->reset_signal_monitor_loop();
    frontend.status = 0;
    frontend.end_wait();
    until([] { return in_event.load(); });
  }
};

TEST_F(Tuner_events_test, disabling_does_not_wait_for_the_event_under_way) {
  begin_event();
  tuner->disable_tunerevents();
  EXPECT_FALSE(event_over);
  event_may_end = true;
  until([] { return event_over.load(); });
}

TEST_F(Tuner_events_test, destruction_waits_for_the_event_under_way) {
  begin_event();
  bool over_at_end = false;
  std::thread destroyer([&] {
    tuner.reset();
    over_at_end = event_over;
  });
  // Time enough for a destructor that does not wait.
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
  until([=] { return std::chrono::steady_clock::now() >= end; });
  event_may_end = true;
  destroyer.join();
  EXPECT_TRUE(over_at_end);
}

}  // namespace
