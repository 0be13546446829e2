// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The facade with a tuner of the software adapter.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>

#include "kelvo/kelvo_run.h"

namespace {

std::string thread_name() {
  char name[16]{};
  (void)prctl(PR_GET_NAME, name);
  return name;
}

// Events have no data; one test runs at a time.
Protocol* event_protocol = nullptr;

void on_event(unsigned event, void* data) {
  event_protocol->add("event " + std::to_string(event) + (data != nullptr ? " with data" : ""));
}

class Kelvo_device_test : public Kelvo_run {
 protected:
  void SetUp() override {
    Kelvo_run::SetUp();
    event_protocol = &protocol_;
  }
  template <typename Condition>
  static bool wait_for(Condition condition) {
    return support::wait_for(condition, std::chrono::minutes(7));
  }
  // Tuned, and the monitor has read this tuning.
  void tune() {
    EXPECT_EQ(kelvo_->tune_to_freq(FREQ, nullptr, nullptr), -1);
    EXPECT_TRUE(wait_for([&] { return kelvo_->fe_ber() == 100.0F; }));
  }
  static void set_status(unsigned bits) { support::softdvb_control("adapter 0 status = " + std::to_string(bits)); }
};

// The numbers of the files that are open.
std::set<int> handles() {
  std::set<int> open;
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int handle = std::stoi(file.path().filename());
    if (fcntl(handle, F_GETFD) >= 0)  // not the one that lists them
      open.insert(handle);
  }
  return open;
}

std::set<std::string> thread_ids() {
  std::set<std::string> ids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    ids.insert(task.path().filename());
  return ids;
}

// The threads of this process but those in `before`, with their names, and whether they take SIGUSR1 and SIGTERM.
std::multimap<std::string, bool> threads_that_take_signals(const std::set<std::string>& before) {
  std::multimap<std::string, bool> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    std::string name;
    uint64_t blocked = 0;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:\t"))
        name = line.substr(6);
      if (line.starts_with("SigBlk:\t"))
        blocked = std::stoull(line.substr(8), nullptr, 16);
    }
    const uint64_t wanted = uint64_t{1} << (SIGUSR1 - 1) | uint64_t{1} << (SIGTERM - 1);
    if (before.count(task.path().filename()) == 0 && name != "softdvb")
      threads.emplace(name, (blocked & wanted) != wanted);
  }
  return threads;
}

}  // namespace

TEST_F(Kelvo_device_test, worker_and_monitor_take_no_signals) {
  std::thread([] {}).join();  // ThreadSanitizer begins one of its own with the first
  const std::set<std::string> before = thread_ids();
  make_and_ask("a");
  const auto threads = threads_that_take_signals(before);
  EXPECT_EQ(threads.size(), 2U) << "worker and monitor";
  EXPECT_EQ(threads.count("kelvo_th"), 1U);
  for (const auto& [name, takes] : threads)
    EXPECT_FALSE(takes) << name;
}

TEST_F(Kelvo_device_test, handles_are_not_handed_on_to_programs_that_the_host_starts) {
  const std::set<int> before = handles();
  silence({SDT});
  make();
  EXPECT_EQ(request("a"), -1);
  EXPECT_TRUE(wait_for_sql("SELECT count(*) = 3 FROM kanalid_scan_0"));  // with filters, and what they have open
  size_t own = 0;
  for (const int handle : handles()) {
    if (before.count(handle) != 0)
      continue;
    ++own;
    EXPECT_NE(fcntl(handle, F_GETFD) & FD_CLOEXEC, 0)
        << std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(handle));
  }
  EXPECT_GE(own, 4U) << "frontend, demultiplexer, and what wakes their threads";
}

TEST_F(Kelvo_device_test, monitor_s_operations_reach_the_tuner) {
  const support::Verbosity verbosity(1);
  make();
  tune();
  const auto lost = [&] { return support::count_of(capture_.text(), "FE quality lost\n"); };

  kelvo_->set_stb_event_callback(on_event);
  EXPECT_EQ(kelvo_->reset_signal_monitor(), 1);
  const size_t before = lost();
  set_status(0x0F);
  EXPECT_TRUE(protocol_.wait_for("event 0"));
  set_status(0x1F);
  EXPECT_TRUE(protocol_.wait_for("event 1"));

  kelvo_->disable_tunerevents();
  set_status(0x0F);
  EXPECT_TRUE(wait_for([&] { return lost() == before + 2; })) << capture_.text();
  EXPECT_EQ(protocol_.text({"event"}), "event 0\nevent 1\n");
}

TEST_F(Kelvo_device_test, readings_are_the_tuner_s) {
  make();
  EXPECT_EQ(kelvo_->tune_to_freq(FREQ, nullptr, nullptr), -1);
  EXPECT_EQ(kelvo_->fe_freq(), FREQ);
  EXPECT_EQ(kelvo_->fe_status(), 0x1F);
  support::softdvb_control("adapter 0 strength = 88");
  support::softdvb_control("adapter 0 ber = 4");
  EXPECT_TRUE(wait_for([&] { return kelvo_->fe_strength() == 60.0F && kelvo_->fe_ber() == 88.0F; }));
  EXPECT_NEAR(kelvo_->fe_snr(), 17.0757F, 0.0001F);
  kelvo_->set_tuner(false);
  EXPECT_EQ(
      std::tuple(kelvo_->fe_freq(), kelvo_->fe_status(), kelvo_->fe_strength(), kelvo_->fe_snr(), kelvo_->fe_ber()),
      std::tuple(0, 32, -24.0F, 1.0F, 0.1F));
}

TEST_F(Kelvo_device_test, new_tuner_has_forgotten_frequency_and_events) {
  make();
  EXPECT_EQ(kelvo_->tune_to_freq(FREQ, nullptr, nullptr), -1);
  kelvo_->set_stb_event_callback(on_event);
  EXPECT_EQ(kelvo_->reset_signal_monitor(), 1);
  EXPECT_TRUE(wait_for([&] { return kelvo_->fe_ber() == 100.0F; }));
  kelvo_->set_tuner(false);
  kelvo_->set_tuner(true);
  EXPECT_EQ(kelvo_->fe_freq(), 474000000);
  tune();
  set_status(0x0F);
  std::this_thread::sleep_for(std::chrono::seconds(10));
  EXPECT_EQ(protocol_.text({"event"}), "");
}

TEST_F(Kelvo_device_test, callbacks_come_from_the_worker_with_what_the_host_gave) {
  make();
  std::vector<std::string> threads;
  for (const char* line : {"done a 0", "change 8", "end 506000000 -1 PAT complete merged 34"})
    protocol_.on(line, [&] { threads.push_back(thread_name()); });
  EXPECT_TRUE(kelvo_->get_msg_state());
  ask("a");
  EXPECT_TRUE(wait_for([&] { return kelvo_->get_msg_state(); }));
  EXPECT_TRUE(kelvo_->export_db("", false));
  EXPECT_TRUE(protocol_.wait_for("change 8"));
  kelvo_.reset();
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT complete merged 34\ndone a 0\nchange 8\n");
  EXPECT_EQ(threads, (std::vector<std::string>{"kelvo_th", "kelvo_th", "kelvo_th"}));
}

TEST_F(Kelvo_device_test, request_without_a_callback_is_answered_all_the_same) {
  int data = 0;
  make();
  EXPECT_EQ(kelvo_->tune_to_freq(FREQ, &data, nullptr), -1);
  EXPECT_TRUE(wait_for_sql("SELECT count(*) = 3 FROM kanalid"));
  EXPECT_TRUE(wait_for([&] { return kelvo_->get_msg_state(); }));
}

#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
TEST_F(Kelvo_device_test, thread_that_cannot_be_created_is_told_by_start) {
  COrbelThreadKelvo thread(nullptr);
  support::softdvb_control("fault pthread_create=EAGAIN");
  EXPECT_EQ(thread.Start(nullptr), EAGAIN);
}
#endif
