// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The facade without devices; what needs a stream is in tests/scan.
#include "kelvo/kelvo.h"

#include "support/messages.h"
#include "support/support.h"

namespace {

const int verbosity_at_start = verbosity_kelvo;

std::atomic<int> last_change{0};
std::atomic<int> answers{0};

void changed(int code) {
  last_change = code;
}

void done(void* /*data*/, int /*result*/) {
  ++answers;
}

// Keeps the worker in its callback until it is let go.
std::atomic<bool> held{false};
std::atomic<bool> let_go{false};

void hold(int code) {
  last_change = code;
  held = true;
  while (!let_go)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  held = false;
}

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++found;
  return found;
}

template <typename Condition>
bool soon(Condition condition) {
  for (int i = 0; i < 60000; ++i) {
    if (condition())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

constexpr int ADAPTER = 3;
constexpr int CONNECTOR = 3;
constexpr int TYPE = 1;

class Kelvo_test : public testing::Test {
 protected:
  void SetUp() override {
    if (access("/dev/dvb/adapter3", F_OK) == 0)
      GTEST_SKIP() << "this machine has an adapter 3, which the test would use";
    last_change = 0;
    answers = 0;
    held = false;
    let_go = false;
  }
  ~Kelvo_test() override { verbosity_kelvo = 0; }

  std::unique_ptr<Kelvo> make(bool tuner) {
    std::unique_ptr<Kelvo> kelvo;
    (void)support::messages_at(
        -1, [&] { kelvo = std::make_unique<Kelvo>(ADAPTER, CONNECTOR, TYPE, &database_, tuner, changed); });
    return kelvo;
  }

  support::Temp_dir folder_;
  Sdbl database_{folder_.file("dvb.db").c_str()};
};

}  // namespace

TEST_F(Kelvo_test, without_tuner_readings_are_those_of_no_signal) {
  const auto kelvo = make(false);
  EXPECT_EQ(kelvo->fe_status(), 32);
  EXPECT_EQ(kelvo->fe_freq(), 0);
  EXPECT_EQ(kelvo->fe_strength(), -24.0F);
  EXPECT_EQ(kelvo->fe_snr(), 1.0F);
  EXPECT_EQ(kelvo->fe_ber(), 0.1F);
}

TEST_F(Kelvo_test, without_tuner_the_monitor_s_operations_do_nothing) {
  const auto kelvo = make(false);
  const std::string text = support::messages_at(4, [&] {
    kelvo->set_stb_event_callback([](unsigned, void*) { ADD_FAILURE(); });
    kelvo->set_stb_event_callback(nullptr);
    kelvo->disable_tunerevents();
    EXPECT_EQ(kelvo->reset_signal_monitor(), 0);
  });
  EXPECT_EQ(text.find("Resetting"), std::string::npos) << text;
}

TEST_F(Kelvo_test, without_tuner_the_constructor_says_so_at_every_verbosity) {
  for (const int level : {-1, 0, 1}) {
    verbosity_kelvo = level;
    std::unique_ptr<Kelvo> kelvo;
    EXPECT_EQ(support::stderr_of(
                  [&] { kelvo = std::make_unique<Kelvo>(ADAPTER, CONNECTOR, TYPE, &database_, false, nullptr); }),
              "Tuner disconnected, passive stream scan\n");
  }
}

TEST_F(Kelvo_test, constructor_starts_the_worker_and_reports_priority_10_at_verbosity_4) {
  std::unique_ptr<Kelvo> kelvo;
  const std::string text = support::messages_at(
      4, [&] { kelvo = std::make_unique<Kelvo>(ADAPTER, CONNECTOR, TYPE, &database_, false, nullptr); });
  EXPECT_THAT(text, testing::StartsWith("Tuner disconnected, passive stream scan\n"));
  EXPECT_THAT(text, testing::HasSubstr("sql_exec: CREATE TEMP TABLE 'kanalid_scan_3' "));
  EXPECT_THAT(text, testing::ContainsRegex("rc 0, Changing thread [0-9a-f]+ priority from -?[0-9]+ to 10\n"));
  EXPECT_THAT(text, testing::HasSubstr(" rc = 0 After change 0\n"));
  verbosity_kelvo = 3;
  kelvo.reset();
  EXPECT_EQ(support::stderr_of(
                [&] { kelvo = std::make_unique<Kelvo>(ADAPTER, CONNECTOR, TYPE, &database_, false, nullptr); }),
            "Tuner disconnected, passive stream scan\n");
}

TEST_F(Kelvo_test, worker_has_three_silent_timers_of_the_real_time_clock_and_deletes_them) {
  const auto timers = [] { return support::read_file("/proc/self/timers"); };
  if (access("/proc/self/timers", R_OK) != 0)
    GTEST_SKIP() << "the kernel does not list timers";
  const std::string before = timers();
  const size_t others = count(before, "ID: ") - count(before, "ClockID: ");
  auto kelvo = make(false);
  EXPECT_TRUE(soon([&] { return count(timers(), "ClockID: ") == others + 3; })) << timers();
  const std::string during = timers();
  EXPECT_EQ(count(during, "ClockID: 0\n") - count(before, "ClockID: 0\n"), 3U);
  EXPECT_EQ(count(during, "notify: none/") - count(before, "notify: none/"), 3U);
  kelvo.reset();
  EXPECT_EQ(timers(), before);
}

TEST_F(Kelvo_test, missing_frontend_is_printed_and_tuning_fails) {
  const auto kelvo = make(true);
  EXPECT_EQ(kelvo->fe_freq(), 0);
  EXPECT_EQ(kelvo->fe_status(), 0);
  verbosity_kelvo = -1;
  int data = 0;
  EXPECT_EQ(kelvo->tune_to_freq(506000000, &data, done), 0);
  EXPECT_TRUE(kelvo->get_msg_state());
  const std::string text =
      support::messages_at(4, [&] { EXPECT_EQ(kelvo->tune_to_freq(506000000, -1, &data, done), 0); });
  EXPECT_NE(std::string::npos, text.find("dvb_tuner returned 0\n"));
  const std::string below =
      support::messages_at(3, [&] { EXPECT_EQ(kelvo->tune_to_freq(506000000, -1, &data, done), 0); });
  EXPECT_EQ(below.find("dvb_tuner"), std::string::npos);
  EXPECT_EQ(answers, 0);
}

TEST_F(Kelvo_test, set_scan_tells_old_and_new_state_and_a_repetition_changes_nothing) {
  const auto kelvo = make(false);
  // After a change the worker has its say as well.
  const auto set = [&](bool on, int level, const std::string& worker = "") {
    verbosity_kelvo = level;
    const support::Stderr_capture capture;
    kelvo->set_scan(on);
    EXPECT_TRUE(soon([&] { return capture.text().find(worker) != std::string::npos; }));
    verbosity_kelvo = 0;
    return capture.text();
  };
  const std::string starting = "WARNING: Starting kelvo PAT/PMT";
  const std::string stopping = "WARNING: Stopping kelvo scanner\n";
  EXPECT_EQ(set(true, 3, starting), "WARNING: #### Scan state from false to true.  Done\n" + starting);
  EXPECT_EQ(set(true, 3), "WARNING: #### Scan state from true to true. Same state, unchanged\n");
  EXPECT_EQ(set(true, 2), "WARNING: #### Scan state from true to true. ");
  EXPECT_EQ(set(true, 1), "WARNING: #### Scan state from true to true. ");
  EXPECT_EQ(set(true, 0), "");
  EXPECT_EQ(set(false, 3, stopping), "WARNING: #### Scan state from true to false.  Done\n" + stopping);
  EXPECT_EQ(set(true, 2, starting), "WARNING: #### Scan state from false to true. " + starting);
}

TEST_F(Kelvo_test, worker_tells_at_verbosity_1_that_it_starts_and_stops) {
  const auto kelvo = make(false);
  verbosity_kelvo = 1;
  const support::Stderr_capture capture;
  kelvo->set_scan(true);
  EXPECT_TRUE(soon([&] { return capture.text().find("WARNING: Starting kelvo PAT/PMT") != std::string::npos; }));
  kelvo->set_scan(false);
  EXPECT_TRUE(soon([&] { return capture.text().find("WARNING: Stopping kelvo scanner\n") != std::string::npos; }));
}

TEST_F(Kelvo_test, export_is_in_progress_until_the_worker_has_run_it) {
  const auto kelvo = make(false);
  EXPECT_FALSE(kelvo->export_db_in_progress());
  const support::Stderr_capture capture;
  // Without a name nothing is written, but the request runs its course.
  EXPECT_TRUE(kelvo->export_db("", true));
  EXPECT_TRUE(soon([&] { return !kelvo->export_db_in_progress() && last_change == DB_EXPORTED; }));
  EXPECT_TRUE(kelvo->export_db("", false));
  EXPECT_TRUE(soon([&] { return !kelvo->export_db_in_progress(); }));
  EXPECT_EQ(capture.text(), "ERROR: Backup file name not set!ERROR: Backup file name not set!");
}

TEST_F(Kelvo_test, export_and_request_wait_for_the_worker_and_say_so) {
  const support::Verbosity quiet(-1);
  const support::Stderr_capture capture;
  Kelvo kelvo(ADAPTER, CONNECTOR, TYPE, &database_, false, hold);
  EXPECT_TRUE(kelvo.export_db("", true));
  ASSERT_TRUE(soon([] { return held.load(); }));
  EXPECT_EQ(last_change, DB_EXPORTED);
  EXPECT_FALSE(kelvo.export_db_in_progress()) << "the export is over when the callback says so";

  // The worker is in the callback: what is asked for now has to wait.
  EXPECT_TRUE(kelvo.export_db("", false));
  int data = 0;
  EXPECT_EQ(kelvo.tune_to_freq(506000000, &data, done), -1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(kelvo.export_db_in_progress());
  EXPECT_TRUE(kelvo.get_msg_state()) << "the request has not been picked up";
  EXPECT_EQ(last_change.exchange(0), DB_EXPORTED);

  let_go = true;
  EXPECT_TRUE(soon([&] { return !kelvo.export_db_in_progress() && last_change == DB_EXPORTED; }));
  EXPECT_FALSE(kelvo.get_msg_state());
  EXPECT_EQ(answers, 0);
}

TEST_F(Kelvo_test, export_without_a_change_callback_runs_all_the_same) {
  const support::Verbosity quiet(-1);
  Kelvo kelvo(ADAPTER, CONNECTOR, TYPE, &database_, false, nullptr);
  EXPECT_TRUE(kelvo.export_db("", true));
  EXPECT_TRUE(soon([&] { return !kelvo.export_db_in_progress(); }));
}

TEST_F(Kelvo_test, export_of_the_channel_list_is_done_on_return_and_throws_when_it_cannot) {
  const auto kelvo = make(false);
  const std::string file = folder_.file("copy.db");
  kelvo->export_channel_db(file.c_str());
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(support::read_file(file).substr(0, 15), "SQLite format 3");
}

TEST_F(Kelvo_test, verbosity_is_0_at_the_start_and_one_for_all) {
  EXPECT_EQ(verbosity_at_start, 0);
  const auto kelvo = make(false);
  kelvo->set_verbosity(2);
  EXPECT_EQ(verbosity_kelvo, 2);
}

TEST_F(Kelvo_test, clock_past_1999_is_valid_at_the_start) {
  const auto kelvo = make(false);
  EXPECT_TRUE(kelvo->time_valid());
}

TEST_F(Kelvo_test, request_state_is_answered_before_any_request) {
  const auto kelvo = make(false);
  EXPECT_TRUE(kelvo->get_msg_state());
}

TEST_F(Kelvo_test, without_tuner_every_request_is_accepted_and_never_tuned_already) {
  const auto kelvo = make(false);
  verbosity_kelvo = 1;
  const support::Stderr_capture capture;
  EXPECT_EQ(kelvo->tune_to_freq(474000000, 5, nullptr, done), -1);
  EXPECT_TRUE(soon([&] { return capture.text().find("Loop init, local channel is 5\n") != std::string::npos; }));
  EXPECT_TRUE(soon([&] { return !kelvo->get_msg_state(); }));
  verbosity_kelvo = -1;
  EXPECT_EQ(answers, 0);
}

// The worker's wait of a second is ended. Eight times, because a busy machine may be late for one of them.
TEST_F(Kelvo_test, request_is_picked_up_at_once) {
  const support::Verbosity quiet(-1);
  std::chrono::steady_clock::duration waited{};
  for (int i = 0; i < 8; ++i) {
    const auto kelvo = make(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // into the wait
    const auto from = std::chrono::steady_clock::now();
    int data = 0;
    EXPECT_EQ(kelvo->tune_to_freq(506000000, &data, done), -1);
    EXPECT_TRUE(soon([&] { return !kelvo->get_msg_state(); }));
    waited += std::chrono::steady_clock::now() - from;
  }
  EXPECT_LT(waited, std::chrono::seconds(4));
}

TEST_F(Kelvo_test, destruction_does_not_wait_for_the_end_of_a_pass) {
  std::chrono::steady_clock::duration waited{};
  for (int i = 0; i < 8; ++i) {
    auto kelvo = make(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto from = std::chrono::steady_clock::now();
    kelvo.reset();
    waited += std::chrono::steady_clock::now() - from;
  }
  EXPECT_LT(waited, std::chrono::seconds(4));
}

TEST_F(Kelvo_test, set_tuner_makes_and_deletes_and_repeats_nothing) {
  const auto kelvo = make(false);
  verbosity_kelvo = 3;
  EXPECT_EQ(support::stderr_of([&] { kelvo->set_tuner(false); }), "");
  const std::string connected = support::stderr_of([&] { kelvo->set_tuner(true); });
  EXPECT_EQ(connected.find("reconnecting tuner\nERROR: Failed to  open /dev/dvb/adapter3/frontend0\n"), 0U)
      << connected;
  EXPECT_EQ(support::stderr_of([&] { kelvo->set_tuner(true); }).find("connecting"), std::string::npos);
  verbosity_kelvo = -1;
  EXPECT_EQ(kelvo->fe_status(), 0);
  verbosity_kelvo = 3;
  EXPECT_EQ(support::stderr_of([&] { kelvo->set_tuner(false); }), "Disconnecting tuner\n");
  verbosity_kelvo = 2;
  EXPECT_EQ(support::stderr_of([&] { kelvo->set_tuner(true); }).find("reconnecting"), std::string::npos);
  EXPECT_EQ(support::stderr_of([&] { kelvo->set_tuner(false); }).find("Disconnecting"), std::string::npos);
  EXPECT_EQ(kelvo->fe_status(), 32);
}

TEST_F(Kelvo_test, tuner_may_be_taken_away_under_threads_that_read_it) {
  const auto kelvo = make(true);
  verbosity_kelvo = -1;
  const support::Stderr_capture capture;  // each connection prints why there is no device
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      (void)kelvo->fe_freq();
      (void)kelvo->fe_status();
      (void)kelvo->fe_snr();
      (void)kelvo->fe_strength();
      (void)kelvo->tune_to_freq(506000000, 1, nullptr, done);
    }
  });
  for (int i = 0; i < 20; ++i) {
    kelvo->set_tuner(false);
    kelvo->set_tuner(true);
  }
  stop = true;
  reader.join();
  EXPECT_EQ(kelvo->fe_freq(), 0);
}

TEST_F(Kelvo_test, worker_carries_its_name) {
  const auto kelvo = make(false);
  EXPECT_TRUE(soon([] {
    for (int tid = getpid(); tid < getpid() + 5000; ++tid) {
      if (support::read_file("/proc/self/task/" + std::to_string(tid) + "/comm") == "kelvo_th\n")
        return true;
    }
    return false;
  }));
}
