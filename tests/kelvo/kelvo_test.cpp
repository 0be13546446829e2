// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The facade without devices; what needs a stream is in tests/scan.
#include "kelvo/kelvo.h"

#include "support/messages.h"
#include "support/support.h"
#include "support/text.h"

using support::count_of;
using support::messages_at;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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

template <typename Condition>
bool soon(Condition condition) {
  return support::wait_for(condition, std::chrono::minutes(1));
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

  std::unique_ptr<Kelvo> make(bool tuner, Kelvo::change_callback_t callback = changed) {
    return std::make_unique<Kelvo>(ADAPTER, CONNECTOR, TYPE, &database_, tuner, callback);
  }
  std::unique_ptr<Kelvo> make_quietly(bool tuner = false) {
    std::unique_ptr<Kelvo> kelvo;
    (void)messages_at(-1, [&] { kelvo = make(tuner); });
    return kelvo;
  }

  support::Temp_dir folder_;
  Sdbl database_{folder_.file("dvb.db").c_str()};
};

}  // namespace

TEST_F(Kelvo_test, without_tuner_readings_are_those_of_no_signal) {
  const auto kelvo = make_quietly();
  EXPECT_EQ(std::tuple(kelvo->fe_freq(), kelvo->fe_status(), kelvo->fe_strength(), kelvo->fe_snr(), kelvo->fe_ber()),
            std::tuple(0, 32, -24.0F, 1.0F, 0.1F));
}

TEST_F(Kelvo_test, without_tuner_the_monitor_s_operations_do_nothing) {
  const auto kelvo = make_quietly();
  const auto monitor = [&] {
    kelvo->set_stb_event_callback([](unsigned, void*) { ADD_FAILURE(); });
    kelvo->set_stb_event_callback(nullptr);
    kelvo->disable_tunerevents();
    EXPECT_EQ(kelvo->reset_signal_monitor(), 0);
  };
  EXPECT_THAT(monitor, support::prints_at(4, Not(HasSubstr("Resetting"))));
}

TEST_F(Kelvo_test, without_tuner_the_constructor_says_so_at_every_verbosity) {
  for (const int level : {-1, 0, 1, 3}) {
    std::unique_ptr<Kelvo> kelvo;
    EXPECT_THAT([&] { kelvo = make(false, nullptr); },
                support::prints_at(level, "Tuner disconnected, passive stream scan\n"));
  }
}

TEST_F(Kelvo_test, constructor_starts_the_worker_and_reports_priority_10_at_verbosity_4) {
  EXPECT_THAT(messages_at(4, [&] { make(false, nullptr); }),
              AllOf(StartsWith("Tuner disconnected, passive stream scan\n"),
                    HasSubstr("sql_exec: CREATE TEMP TABLE 'kanalid_scan_3' "),
                    testing::ContainsRegex("rc 0, Changing thread [0-9a-f]+ priority from -?[0-9]+ to 10\n"),
                    HasSubstr(" rc = 0 After change 0\n")));
}

TEST_F(Kelvo_test, worker_has_three_silent_timers_of_the_real_time_clock_and_deletes_them) {
  const auto timers = [] { return support::read_file("/proc/self/timers"); };
  if (access("/proc/self/timers", R_OK) != 0)
    GTEST_SKIP() << "the kernel does not list timers";
  const std::string before = timers();
  const auto more = [&](const char* part) { return count_of(timers(), part) - count_of(before, part); };
  auto kelvo = make_quietly();
  EXPECT_TRUE(soon([&] { return more("ClockID: ") == 3; })) << timers();
  EXPECT_EQ(more("ClockID: 0\n"), 3U);
  EXPECT_EQ(more("notify: none/"), 3U);
  kelvo.reset();
  EXPECT_EQ(timers(), before);
}

TEST_F(Kelvo_test, missing_frontend_is_printed_and_tuning_fails) {
  const auto kelvo = make_quietly(true);
  EXPECT_EQ(kelvo->fe_freq(), 0);
  EXPECT_EQ(kelvo->fe_status(), 0);
  int data = 0;
  (void)messages_at(-1, [&] { EXPECT_EQ(kelvo->tune_to_freq(506000000, &data, done), 0); });
  EXPECT_TRUE(kelvo->get_msg_state());
  const auto tune = [&] { EXPECT_EQ(kelvo->tune_to_freq(506000000, -1, &data, done), 0); };
  EXPECT_THAT(tune, support::prints_at(4, HasSubstr("dvb_tuner returned 0\n")));
  EXPECT_THAT(tune, support::prints_at(3, Not(HasSubstr("dvb_tuner"))));
  EXPECT_EQ(answers, 0);
}

TEST_F(Kelvo_test, set_scan_tells_old_and_new_state_and_a_repetition_changes_nothing) {
  const auto kelvo = make_quietly();
  // After a change the worker has its say as well.
  const auto set = [&](bool on, int level, const std::string& worker = "") {
    const support::Verbosity verbosity(level);
    const support::Stderr_capture capture;
    kelvo->set_scan(on);
    EXPECT_TRUE(soon([&] { return capture.text().find(worker) != std::string::npos; }));
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
  const auto kelvo = make_quietly();
  const support::Verbosity verbosity(1);
  const support::Stderr_capture capture;
  kelvo->set_scan(true);
  EXPECT_TRUE(soon([&] { return capture.text().find("WARNING: Starting kelvo PAT/PMT") != std::string::npos; }));
  kelvo->set_scan(false);
  EXPECT_TRUE(soon([&] { return capture.text().find("WARNING: Stopping kelvo scanner\n") != std::string::npos; }));
}

TEST_F(Kelvo_test, export_is_in_progress_until_the_worker_has_run_it) {
  const auto kelvo = make_quietly();
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
  const auto kelvo = make(false, hold);
  EXPECT_TRUE(kelvo->export_db("", true));
  ASSERT_TRUE(soon([] { return held.load(); }));
  EXPECT_EQ(last_change, DB_EXPORTED);
  EXPECT_FALSE(kelvo->export_db_in_progress()) << "the export is over when the callback says so";

  // The worker is in the callback: what is asked for now has to wait.
  EXPECT_TRUE(kelvo->export_db("", false));
  int data = 0;
  EXPECT_EQ(kelvo->tune_to_freq(506000000, &data, done), -1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(kelvo->export_db_in_progress());
  EXPECT_TRUE(kelvo->get_msg_state()) << "the request has not been picked up";
  EXPECT_EQ(last_change.exchange(0), DB_EXPORTED);

  let_go = true;
  EXPECT_TRUE(soon([&] { return !kelvo->export_db_in_progress() && last_change == DB_EXPORTED; }));
  EXPECT_FALSE(kelvo->get_msg_state());
  EXPECT_EQ(answers, 0);
}

TEST_F(Kelvo_test, export_without_a_change_callback_runs_all_the_same) {
  const support::Verbosity quiet(-1);
  const auto kelvo = make(false, nullptr);
  EXPECT_TRUE(kelvo->export_db("", true));
  EXPECT_TRUE(soon([&] { return !kelvo->export_db_in_progress(); }));
}

TEST_F(Kelvo_test, export_of_the_channel_list_is_done_on_return_and_throws_when_it_cannot) {
  const auto kelvo = make_quietly();
  const std::string file = folder_.file("copy.db");
  kelvo->export_channel_db(file.c_str());
  EXPECT_EQ(support::read_file(file).substr(0, 15), "SQLite format 3");
  std::filesystem::create_directory(folder_.file("dvb.db_exp"));  // in the place of the temporary file
  EXPECT_THROW(kelvo->export_channel_db(file.c_str()), no_file_error);
}

TEST_F(Kelvo_test, verbosity_is_0_at_the_start_and_one_for_all) {
  EXPECT_EQ(verbosity_at_start, 0);
  make_quietly()->set_verbosity(2);
  EXPECT_EQ(verbosity_kelvo, 2);
}

TEST_F(Kelvo_test, at_the_start_a_clock_past_1999_is_valid_and_no_request_is_unanswered) {
  const auto kelvo = make_quietly();
  EXPECT_TRUE(kelvo->time_valid());
  EXPECT_TRUE(kelvo->get_msg_state());
}

TEST_F(Kelvo_test, without_tuner_every_request_is_accepted_and_never_tuned_already) {
  const auto kelvo = make_quietly();
  const support::Verbosity verbosity(1);
  const support::Stderr_capture capture;
  EXPECT_EQ(kelvo->tune_to_freq(474000000, 5, nullptr, done), -1);
  EXPECT_TRUE(soon([&] { return capture.text().find("Loop init, local channel is 5\n") != std::string::npos; }));
  EXPECT_TRUE(soon([&] { return !kelvo->get_msg_state(); }));
  EXPECT_EQ(answers, 0);
}

// Neither a request nor the end waits for the end of a pass of a second. Eight times, because a busy machine may be
// late for one of them.
TEST_F(Kelvo_test, request_and_destruction_are_picked_up_at_once) {
  const support::Verbosity quiet(-1);
  std::chrono::steady_clock::duration picked_up{};
  std::chrono::steady_clock::duration destroyed{};
  for (int i = 0; i < 8; ++i) {
    for (const bool request : {true, false}) {
      auto kelvo = make_quietly();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // into the wait
      const auto from = std::chrono::steady_clock::now();
      int data = 0;
      if (request) {
        EXPECT_EQ(kelvo->tune_to_freq(506000000, &data, done), -1);
        EXPECT_TRUE(soon([&] { return !kelvo->get_msg_state(); }));
      } else {
        kelvo.reset();
      }
      (request ? picked_up : destroyed) += std::chrono::steady_clock::now() - from;
    }
  }
  EXPECT_LT(picked_up, std::chrono::seconds(4));
  EXPECT_LT(destroyed, std::chrono::seconds(4));
}

TEST_F(Kelvo_test, set_tuner_makes_and_deletes_and_repeats_nothing) {
  const auto kelvo = make_quietly();
  const auto set = [&](bool on, int level) { return messages_at(level, [&] { kelvo->set_tuner(on); }); };
  EXPECT_EQ(set(false, 3), "");
  EXPECT_THAT(set(true, 3), StartsWith("reconnecting tuner\nERROR: Failed to  open /dev/dvb/adapter3/frontend0\n"));
  EXPECT_THAT(set(true, 3), Not(HasSubstr("connecting")));
  (void)messages_at(-1, [&] { EXPECT_EQ(kelvo->fe_status(), 0); });
  EXPECT_EQ(set(false, 3), "Disconnecting tuner\n");
  EXPECT_THAT(set(true, 2), Not(HasSubstr("reconnecting")));
  EXPECT_THAT(set(false, 2), Not(HasSubstr("Disconnecting")));
  EXPECT_EQ(kelvo->fe_status(), 32);
}

TEST_F(Kelvo_test, tuner_may_be_taken_away_under_threads_that_read_it) {
  const auto kelvo = make_quietly(true);
  const support::Verbosity quiet(-1);
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
  const auto kelvo = make_quietly();
  EXPECT_TRUE(soon([] {
    for (int tid = getpid(); tid < getpid() + 5000; ++tid) {
      if (support::read_file("/proc/self/task/" + std::to_string(tid) + "/comm") == "kelvo_th\n")
        return true;
    }
    return false;
  }));
}
