// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/timex.h>

#include "softdvb/device_support.h"

// Run with --time x50 --now 1000000000: fifty virtual seconds a second.
using device::result;

static constexpr double SPEED = 50;
static constexpr clockid_t CLOCKS[] = {CLOCK_REALTIME, CLOCK_MONOTONIC};

static timespec after(clockid_t clock, time_t seconds) {
  timespec t{};
  clock_gettime(clock, &t);
  t.tv_sec += seconds;
  return t;
}

static double on(clockid_t clock) {
  const timespec t = after(clock, 0);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

static void expect_seconds(double seconds, const std::function<void()>& wait) {
  device::expect_lasts(seconds * 0.99, seconds + 10, wait);
}

TEST(Virtual_time, begins_where_it_was_told) {
  EXPECT_GE(time(nullptr), 1000000000);
  EXPECT_LT(time(nullptr), 1000000000 + 600);
}

TEST(Virtual_time, all_clocks_agree) {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  const double by_clock = on(CLOCK_REALTIME);
  EXPECT_NEAR(static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6, by_clock, 5);
  EXPECT_NEAR(static_cast<double>(time(nullptr)), by_clock, 5);
  const auto chrono = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(std::chrono::duration<double>(chrono).count(), by_clock, 5);
}

TEST(Virtual_time, runs_faster_than_the_processor_clock_says) {
  const double cpu = on(CLOCK_PROCESS_CPUTIME_ID);
  const double begin = on(CLOCK_MONOTONIC);
  while (on(CLOCK_PROCESS_CPUTIME_ID) - cpu < 0.02) {
  }
  EXPECT_GE(on(CLOCK_MONOTONIC) - begin, 0.02 * SPEED * 0.9);
}

TEST(Virtual_time, sleeping) {
  const timespec two{2, 0};
  expect_seconds(2, [] { EXPECT_EQ(sleep(2), 0u); });
  expect_seconds(2, [] { usleep(2000000); });
  expect_seconds(2, [&] { EXPECT_EQ(nanosleep(&two, nullptr), 0); });
  expect_seconds(2, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); });
  for (const clockid_t clock : CLOCKS)
    expect_seconds(2, [clock] {
      const timespec t = after(clock, 2);
      EXPECT_EQ(clock_nanosleep(clock, TIMER_ABSTIME, &t, nullptr), 0);
    });
}

TEST(Virtual_time, waiting_for_descriptors) {
  const timespec two{2, 0};
  expect_seconds(2, [] { EXPECT_EQ(poll(nullptr, 0, 2000), 0); });
  expect_seconds(2, [&] { EXPECT_EQ(pselect(0, nullptr, nullptr, nullptr, &two, nullptr), 0); });
  expect_seconds(2, [] {
    timeval t{0, 2000000};  // not normalised
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &t), 0);
    EXPECT_EQ(t.tv_sec, 0);
  });
}

TEST(Virtual_time, waiting_for_threads) {
  constexpr auto TWO = std::chrono::seconds(2);
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable condition;
  expect_seconds(2, [&] { EXPECT_EQ(condition.wait_for(lock, TWO), std::cv_status::timeout); });
  expect_seconds(2, [&] {
    EXPECT_EQ(condition.wait_until(lock, std::chrono::system_clock::now() + TWO), std::cv_status::timeout);
  });
  for (const clockid_t clock : CLOCKS) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, clock);
    pthread_cond_t c;
    pthread_cond_init(&c, &attributes);
    pthread_mutex_lock(&m);
    expect_seconds(2, [&] {
      const timespec t = after(clock, 2);
      EXPECT_EQ(pthread_cond_timedwait(&c, &m, &t), ETIMEDOUT);
    });
    pthread_mutex_unlock(&m);
    pthread_cond_destroy(&c);
  }
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  expect_seconds(2, [&] {
    const timespec t = after(CLOCK_REALTIME, 2);
    EXPECT_EQ(result(sem_timedwait(&semaphore, &t)), -ETIMEDOUT);
  });
}

// Sets a new timer that can only be asked.
static timer_t timer_on(clockid_t clock, const itimerspec& wanted, int flags = 0) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  EXPECT_EQ(timer_create(clock, &none, &timer), 0);
  EXPECT_EQ(timer_settime(timer, flags, &wanted, nullptr), 0);
  return timer;
}

static itimerspec left_of(timer_t timer) {
  itimerspec left{};
  EXPECT_EQ(timer_gettime(timer, &left), 0);
  return left;
}

TEST(Virtual_time, timers_are_polled) {
  const timer_t timer = timer_on(CLOCK_REALTIME, {{1, 0}, {40, 0}});
  EXPECT_GE(left_of(timer).it_value.tv_sec, 30);
  EXPECT_LE(left_of(timer).it_value.tv_sec, 40);
  EXPECT_EQ(left_of(timer).it_interval.tv_sec, 1);
  sleep(10);
  EXPECT_LT(left_of(timer).it_value.tv_sec, 30);
  sleep(31);
  EXPECT_EQ(left_of(timer).it_value.tv_sec, 0);
  const itimerspec disarmed{};
  itimerspec before{};
  EXPECT_EQ(timer_settime(timer, 0, &disarmed, &before), 0);
  EXPECT_EQ(before.it_interval.tv_sec, 1);
  EXPECT_EQ(left_of(timer).it_interval.tv_sec, 0);
  EXPECT_EQ(timer_delete(timer), 0);
}

TEST(Virtual_time, timers_with_an_absolute_time) {
  for (const clockid_t clock : CLOCKS) {
    const timer_t timer = timer_on(clock, {{0, 0}, after(clock, 100)}, TIMER_ABSTIME);
    EXPECT_GE(left_of(timer).it_value.tv_sec, 80);
    EXPECT_LE(left_of(timer).it_value.tv_sec, 100);
    timer_delete(timer);
  }
}

TEST(Virtual_time, timers_of_the_processor_clock_are_left_alone) {
  const timer_t timer = timer_on(CLOCK_PROCESS_CPUTIME_ID, {{0, 0}, {40, 0}});
  sleep(20);
  EXPECT_GE(left_of(timer).it_value.tv_sec, 39);
  timer_delete(timer);
}

static volatile sig_atomic_t alarms = 0;

TEST(Virtual_time, alarms) {
  struct sigaction action {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  sigaction(SIGALRM, &action, nullptr);
  EXPECT_EQ(alarm(100), 0u);
  const unsigned left = alarm(3);
  EXPECT_GE(left, 80u);
  EXPECT_LE(left, 100u);
  pause();
  EXPECT_EQ(alarms, 1);
  expect_seconds(3, [] {
    alarm(3);
    pause();
  });
}

TEST(Virtual_time, timer_descriptors) {
  const int fd = timerfd_create(CLOCK_MONOTONIC, 0);
  const itimerspec wanted{{0, 0}, {3, 0}};
  expect_seconds(3, [&] {
    ASSERT_EQ(timerfd_settime(fd, 0, &wanted, nullptr), 0);
    uint64_t times = 0;
    EXPECT_EQ(read(fd, &times, sizeof times), static_cast<ssize_t>(sizeof times));
  });
  close(fd);
}

TEST(Virtual_time, children_have_the_same) {
  const time_t before = time(nullptr);
  FILE* date = popen("date +%s", "r");
  ASSERT_NE(date, nullptr);
  long long seen = 0;
  EXPECT_EQ(fscanf(date, "%lld", &seen), 1);
  pclose(date);
  EXPECT_GE(seen, before);
  EXPECT_LE(seen, time(nullptr));
}

TEST(Clock, is_never_set) {
  const double before = on(CLOCK_REALTIME);
  const timeval tv{1700000000, 0};
  EXPECT_EQ(settimeofday(&tv, nullptr), 0);
  const timespec ts{1700000000, 0};
  EXPECT_EQ(clock_settime(CLOCK_REALTIME, &ts), 0);
  const timeval by{1, 0};
  EXPECT_EQ(adjtime(&by, nullptr), 0);
  timex change{};
  change.modes = ADJ_TICK;
  change.tick = 9900;
  EXPECT_GE(adjtimex(&change), 0);
  EXPECT_LT(on(CLOCK_REALTIME) - before, 60);
}

TEST(Clock, refuses_what_the_kernel_refuses) {
  for (const timeval wrong : {timeval{1700000000, 1000000}, timeval{-1, 0}})
    EXPECT_EQ(result(settimeofday(&wrong, nullptr)), -EINVAL) << wrong.tv_sec;
  const timespec before_1970{-1, 0};
  EXPECT_EQ(result(clock_settime(CLOCK_REALTIME, &before_1970)), -EINVAL);
  const timespec good{1700000000, 0};
  EXPECT_EQ(result(clock_settime(CLOCK_MONOTONIC, &good)), -EINVAL);
}
