// The facade with a tuner of the software adapter.
#include <errno.h>
#include <sys/prctl.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kelvo/kelvo.h"
#include "support/softdvb.h"
#include "support/support.h"

namespace {

constexpr int FREQ = 506000000;

std::mutex events_lock;
std::string events;

void on_event(unsigned event, void* /*data*/) {
  const std::lock_guard<std::mutex> lock(events_lock);
  events += std::to_string(event) + " ";
}

std::string seen_events() {
  const std::lock_guard<std::mutex> lock(events_lock);
  return events;
}

// What a callback was given, and the thread that it came from.
struct Call {
  std::string thread;
  void* data = nullptr;
  int value = 0;
};

std::mutex calls_lock;
std::vector<Call> answers;
std::vector<Call> changes;

std::string thread_name() {
  char name[16]{};
  (void)prctl(PR_GET_NAME, name);
  return name;
}

void on_answer(void* data, int result) {
  const std::lock_guard<std::mutex> lock(calls_lock);
  answers.push_back({thread_name(), data, result});
}

void on_change(int code) {
  const std::lock_guard<std::mutex> lock(calls_lock);
  changes.push_back({thread_name(), nullptr, code});
}

size_t count_of(const std::vector<Call>& calls) {
  const std::lock_guard<std::mutex> lock(calls_lock);
  return calls.size();
}

template <typename Condition>
bool wait_for(Condition condition) {
  for (int i = 0; i < 2000; ++i) {
    if (condition())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

class Kelvo_device_test : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    answers.clear();
    changes.clear();
  }
  void TearDown() override {
    support::softdvb_control("clear faults");
    verbosity_kelvo = 0;
  }

  static void set_status(unsigned bits) { support::softdvb_control("adapter 0 status = " + std::to_string(bits)); }

  support::Temp_dir folder_;
  Sdbl database_{folder_.file("dvb.db").c_str()};
};

}  // namespace

TEST_F(Kelvo_device_test, monitor_s_operations_reach_the_tuner) {
  const support::Stderr_capture capture;
  Kelvo kelvo(0, 0, 0, &database_, true, nullptr);
  verbosity_kelvo = 1;
  EXPECT_EQ(kelvo.tune_to_freq(FREQ, nullptr, nullptr), -1);
  EXPECT_TRUE(wait_for([&] { return kelvo.fe_ber() == 100.0F; }));
  const auto lost = [&] {
    const std::string text = capture.text();
    size_t count = 0;
    for (size_t at = text.find("FE quality lost\n"); at != std::string::npos;
         at = text.find("FE quality lost\n", at + 1))
      ++count;
    return count;
  };

  kelvo.set_stb_event_callback(on_event);
  EXPECT_EQ(kelvo.reset_signal_monitor(), 1);
  const size_t before = lost();
  set_status(0x0F);
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 "; })) << seen_events();
  set_status(0x1F);
  EXPECT_TRUE(wait_for([] { return seen_events() == "0 1 "; })) << seen_events();

  kelvo.disable_tunerevents();
  set_status(0x0F);
  EXPECT_TRUE(wait_for([&] { return lost() == before + 2; })) << capture.text();
  EXPECT_EQ(seen_events(), "0 1 ");
  verbosity_kelvo = -1;
}

TEST_F(Kelvo_device_test, readings_are_the_tuner_s) {
  const support::Stderr_capture capture;
  Kelvo kelvo(0, 0, 0, &database_, true, nullptr);
  EXPECT_EQ(kelvo.tune_to_freq(FREQ, nullptr, nullptr), -1);
  EXPECT_EQ(kelvo.fe_freq(), FREQ);
  EXPECT_EQ(kelvo.fe_status(), 0x1F);
  support::softdvb_control("adapter 0 strength = 88");
  support::softdvb_control("adapter 0 ber = 4");
  EXPECT_TRUE(wait_for([&] { return kelvo.fe_strength() == 60.0F && kelvo.fe_ber() == 88.0F; }));
  EXPECT_NEAR(17.0757F, kelvo.fe_snr(), 0.0001F);
  kelvo.set_tuner(false);
  EXPECT_EQ(kelvo.fe_freq(), 0);
  EXPECT_EQ(kelvo.fe_status(), 32);
  EXPECT_EQ(kelvo.fe_strength(), -24.0F);
  EXPECT_EQ(kelvo.fe_snr(), 1.0F);
  EXPECT_EQ(kelvo.fe_ber(), 0.1F);
}

TEST_F(Kelvo_device_test, callbacks_come_from_the_worker_with_what_the_host_gave) {
  const support::Stderr_capture capture;
  int data = 0;
  {
    Kelvo kelvo(0, 0, 0, &database_, true, on_change);
    EXPECT_TRUE(kelvo.get_msg_state());
    EXPECT_EQ(kelvo.tune_to_freq(FREQ, &data, on_answer), -1);
    EXPECT_TRUE(wait_for([] { return count_of(answers) == 1; }));
    EXPECT_TRUE(wait_for([&] { return kelvo.get_msg_state(); }));
    EXPECT_TRUE(kelvo.export_db("", false));
    EXPECT_TRUE(wait_for([] { return count_of(changes) == 1; }));
  }
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].thread, "kelvo_th");
  EXPECT_EQ(answers[0].data, &data);
  EXPECT_EQ(answers[0].value, 0);
  ASSERT_EQ(changes.size(), 1U);
  EXPECT_EQ(changes[0].thread, "kelvo_th");
  EXPECT_EQ(changes[0].value, DB_EXPORTED);
}

TEST_F(Kelvo_device_test, request_without_a_callback_is_answered_all_the_same) {
  const support::Stderr_capture capture;
  int data = 0;
  Kelvo kelvo(0, 0, 0, &database_, true, nullptr);
  EXPECT_EQ(kelvo.tune_to_freq(FREQ, &data, nullptr), -1);
  EXPECT_TRUE(wait_for([&] {
    int services = 0;
    return database_.sql_get_int(&services, 0, "SELECT count(*) FROM kanalid") == 0 && services == 3;
  }));
  EXPECT_TRUE(wait_for([&] { return kelvo.get_msg_state(); }));
}

#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
TEST_F(Kelvo_device_test, thread_that_cannot_be_created_is_told_by_start) {
  COrbelThreadKelvo thread(nullptr);
  support::softdvb_control("fault pthread_create=EAGAIN");
  EXPECT_EQ(thread.Start(nullptr), EAGAIN);
}
#endif
