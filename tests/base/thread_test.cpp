// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cinttypes>
#include <typeinfo>

#include "kelvo/main_thread.h"
#include "support/messages.h"
#include "tuner/monitor_thread.h"

namespace {

// Works for a flag that its owner clears, as the library's own threads do.
class Polling_thread : public COrbelThreadKelvo {
 public:
  explicit Polling_thread(std::atomic<bool>* running) : COrbelThreadKelvo(running) {}

  std::vector<std::string> calls;  // read after Stop()
  void* argument = nullptr;
  void* seen_owner = nullptr;
  pthread_t seen_thread{};
  std::atomic<bool> executing{false};

  void Setup() override { calls.emplace_back("Setup"); }
  void Execute(void* arg) override {
    calls.emplace_back("Execute");
    argument = arg;
    seen_owner = owner();
    seen_thread = pthread_self();
    executing = true;
    const auto* running = static_cast<std::atomic<bool>*>(owner());
    while (*running)
      sched_yield();
    COrbelThreadKelvo::Execute(arg);
  }
};

std::string first_line(int rc, unsigned thread, int from, int to) {
  char text[200];
  std::snprintf(text, sizeof text, "rc %d, Changing thread %x priority from %d to %d\n", rc, thread, from, to);
  return text;
}

}  // namespace

TEST(Thread, runs_setup_then_execute_with_the_start_argument_on_its_own_thread) {
  std::atomic<bool> running{true};
  Polling_thread thread(&running);
  int argument = 0;
  ASSERT_EQ(thread.Start(&argument), 0);
  while (!thread.executing)
    sched_yield();
  running = false;
  EXPECT_EQ(thread.Stop(), 0);
  EXPECT_EQ(thread.calls, (std::vector<std::string>{"Setup", "Execute"}));
  EXPECT_EQ(thread.argument, &argument);
  EXPECT_EQ(thread.seen_owner, &running);
  EXPECT_TRUE(pthread_equal(thread.seen_thread, thread.getThreadId()));
  EXPECT_FALSE(pthread_equal(pthread_self(), thread.getThreadId()));
}

TEST(Thread, entry_point_and_run_call_setup_and_execute_on_the_calling_thread) {
  std::atomic<bool> running{false};
  Polling_thread thread(&running);
  int of_start = 0;
  ASSERT_EQ(thread.Start(&of_start), 0);
  EXPECT_EQ(thread.Stop(), 0);
  const auto expect_both = [&](const void* argument) {
    EXPECT_EQ(thread.calls, (std::vector<std::string>{"Setup", "Execute"}));
    EXPECT_EQ(thread.argument, argument);
    EXPECT_TRUE(pthread_equal(thread.seen_thread, pthread_self()));
    thread.calls.clear();
    thread.argument = nullptr;
  };
  thread.calls.clear();
  EXPECT_EQ(COrbelThreadKelvo::EntryPoint(static_cast<COrbelThreadKelvo*>(&thread)), nullptr);
  expect_both(&of_start);
  int of_run = 0;
  EXPECT_EQ(thread.Run(&of_run), 0);
  expect_both(&of_run);
  thread.Setup();
  thread.Execute(nullptr);
  expect_both(nullptr);
}

// "blocked" and "open" of what a thread's mask does with these.
std::string mask_of(std::initializer_list<int> signals) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  std::string text;
  for (const int signal : signals)
    text += sigismember(&mask, signal) == 1 ? "blocked " : "open ";
  return text;
}

TEST(Thread, takes_no_signal_from_its_first_moment_and_its_creator_those_that_it_took) {
  struct Masked : COrbelThreadKelvo {
    using COrbelThreadKelvo::COrbelThreadKelvo;
    std::string asynchronous, faults;
    void Setup() override {
      asynchronous = mask_of({SIGUSR1, SIGALRM, SIGTERM, SIGINT, SIGCHLD, SIGPIPE, SIGRTMIN, SIGRTMAX});
      faults = mask_of({SIGSEGV, SIGBUS, SIGFPE, SIGILL});
    }
  };
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGUSR2);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &own, &before);
  Masked thread(nullptr);
  ASSERT_EQ(thread.Start(nullptr), 0);
  EXPECT_EQ(mask_of({SIGUSR1, SIGUSR2, SIGTERM}), "open blocked open ");
  EXPECT_EQ(thread.Stop(), 0);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(thread.asynchronous, "blocked blocked blocked blocked blocked blocked blocked blocked ");
  EXPECT_EQ(thread.faults, "open open open open ");
}

TEST(Thread, base_class_does_nothing_and_ends) {
  COrbelThreadKelvo thread(nullptr);
  ASSERT_EQ(thread.Start(nullptr), 0);
  EXPECT_EQ(thread.Stop(), 0);
}

TEST(Thread, stop_joins_without_telling_the_thread_to_end) {
  std::atomic<bool> running{true};
  Polling_thread thread(&running);
  ASSERT_EQ(thread.Start(nullptr), 0);
  std::atomic<bool> joined{false};
  std::thread stopper([&] {
    thread.Stop();
    joined = true;
  });
  while (!thread.executing)
    sched_yield();
  for (int i = 0; i < 1000; ++i)
    sched_yield();
  EXPECT_FALSE(joined);  // the flag is still set
  running = false;       // which the owner clears first
  stopper.join();
  EXPECT_TRUE(joined);
}

#ifndef __SANITIZE_THREAD__  // whose runtime would call it a mistake of the test
TEST(Thread, stop_returns_what_joining_returned) {
  class Self_joining : public COrbelThreadKelvo {
   public:
    using COrbelThreadKelvo::COrbelThreadKelvo;
    int result = -1;

   protected:
    void Execute(void* started) override {
      while (!*static_cast<std::atomic<bool>*>(started))  // until the id is stored
        sched_yield();
      result = Stop();
    }
  };
  Self_joining thread(nullptr);
  std::atomic<bool> started{false};
  ASSERT_EQ(thread.Start(&started), 0);
  started = true;
  EXPECT_EQ(thread.Stop(), 0);
  EXPECT_EQ(thread.result, EDEADLK);
}
#endif

TEST(Thread, quirk_set_prio_leaves_the_thread_under_normal_scheduling_at_0) {
  std::atomic<bool> running{true};
  Polling_thread thread(&running);
  ASSERT_EQ(thread.Start(nullptr), 0);
  thread.SetPrio(10);
  int policy = -1;
  sched_param parameters{};
  parameters.sched_priority = -1;
  EXPECT_EQ(pthread_getschedparam(thread.getThreadId(), &policy, &parameters), 0);
  EXPECT_EQ(policy, SCHED_OTHER);
  EXPECT_EQ(parameters.sched_priority, 0);
  running = false;
  thread.Stop();
}

TEST(Thread, quirk_set_prio_prints_the_wrapper_s_address_as_the_old_priority) {
  std::atomic<bool> running{true};
  Polling_thread thread(&running);
  ASSERT_EQ(thread.Start(nullptr), 0);
  const support::Verbosity verbosity(4);
  const std::string text = support::stderr_of([&] { thread.SetPrio(10); });
  running = false;
  thread.Stop();
  const auto address = static_cast<int>(reinterpret_cast<uintptr_t>(static_cast<COrbelThreadKelvo*>(&thread)));
  EXPECT_EQ(text, first_line(0, static_cast<unsigned>(thread.getThreadId()), address, 10) + " rc = 0 After change 0\n");
}

TEST(Thread, set_prio_passes_any_number_on_to_the_message_of_verbosity_4_only) {
  std::atomic<bool> running{true};
  Polling_thread thread(&running);
  ASSERT_EQ(thread.Start(nullptr), 0);
  EXPECT_THAT(support::messages_at(4, [&] { thread.SetPrio(-5); }),
              testing::HasSubstr(" to -5\n rc = 0 After change 0\n"));
  EXPECT_EQ(support::messages_at(3, [&] { thread.SetPrio(10); }), "");
  running = false;
  thread.Stop();
}

TEST(Thread, type_information_is_kept_for_all_three_classes) {
  KelvoMainThread worker(nullptr);
  TunerMonitorThread monitor(nullptr);
  COrbelThreadKelvo* base = &worker;
  EXPECT_EQ(typeid(KelvoMainThread), typeid(*base));
  base = &monitor;
  EXPECT_EQ(typeid(TunerMonitorThread), typeid(*base));
  EXPECT_NE(typeid(COrbelThreadKelvo), typeid(*base));
}

// Interface: the fields and a table of virtual functions, nothing else.
static_assert(sizeof(KelvoMainThread) == sizeof(COrbelThreadKelvo));
static_assert(sizeof(TunerMonitorThread) == sizeof(COrbelThreadKelvo));
static_assert(sizeof(COrbelThreadKelvo) == 3 * sizeof(void*) + sizeof(pthread_t));
