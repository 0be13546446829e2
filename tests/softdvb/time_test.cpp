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
using device::expect_lasts;

static constexpr double SPEED = 50;

static double on(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

static timespec after(clockid_t clock, time_t seconds) {
  timespec t{};
  clock_gettime(clock, &t);
  t.tv_sec += seconds;
  return t;
}

TEST(Virtual_time, begins_where_it_was_told) {
  EXPECT_GE(time(nullptr), 1000000000);
  EXPECT_LT(time(nullptr), 1000000000 + 600);
}

TEST(Virtual_time, all_clocks_agree) {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  const double by_timeval = static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  const double by_clock = on(CLOCK_REALTIME);
  EXPECT_NEAR(by_timeval, by_clock, 5);
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
  expect_lasts(2 * 0.99, 2 + 10, [] { EXPECT_EQ(sleep(2), 0u); });
  expect_lasts(2 * 0.99, 2 + 10, [] { usleep(2000000); });
  expect_lasts(2 * 0.99, 2 + 10, [] {
    const timespec t{2, 0};
    EXPECT_EQ(nanosleep(&t, nullptr), 0);
  });
  expect_lasts(2 * 0.99, 2 + 10, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); });
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC})
    expect_lasts(2 * 0.99, 2 + 10, [clock] {
      const timespec t = after(clock, 2);
      EXPECT_EQ(clock_nanosleep(clock, TIMER_ABSTIME, &t, nullptr), 0);
    });
}

TEST(Virtual_time, waiting_for_descriptors) {
  expect_lasts(2 * 0.99, 2 + 10, [] { EXPECT_EQ(poll(nullptr, 0, 2000), 0); });
  expect_lasts(2 * 0.99, 2 + 10, [] {
    timeval t{0, 2000000};  // not normalised
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &t), 0);
    EXPECT_EQ(t.tv_sec, 0);
  });
  expect_lasts(2 * 0.99, 2 + 10, [] {
    const timespec t{2, 0};
    EXPECT_EQ(pselect(0, nullptr, nullptr, nullptr, &t, nullptr), 0);
  });
}

TEST(Virtual_time, waiting_for_threads) {
  std::mutex mutex;
  std::condition_variable condition;
  expect_lasts(2 * 0.99, 2 + 10, [&] {
    std::unique_lock lock(mutex);
    EXPECT_EQ(condition.wait_for(lock, std::chrono::seconds(2)), std::cv_status::timeout);
  });
  expect_lasts(2 * 0.99, 2 + 10, [&] {
    std::unique_lock lock(mutex);
    EXPECT_EQ(condition.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(2)),
              std::cv_status::timeout);
  });
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, clock);
    pthread_cond_t c;
    pthread_cond_init(&c, &attributes);
    expect_lasts(2 * 0.99, 2 + 10, [&] {
      const timespec t = after(clock, 2);
      pthread_mutex_lock(&m);
      EXPECT_EQ(pthread_cond_timedwait(&c, &m, &t), ETIMEDOUT);
      pthread_mutex_unlock(&m);
    });
    pthread_cond_destroy(&c);
  }
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  expect_lasts(2 * 0.99, 2 + 10, [&] {
    const timespec t = after(CLOCK_REALTIME, 2);
    EXPECT_EQ(sem_timedwait(&semaphore, &t), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
  });
}

TEST(Virtual_time, timers_are_polled) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  ASSERT_EQ(timer_create(CLOCK_REALTIME, &none, &timer), 0);
  const itimerspec wanted{{1, 0}, {40, 0}};
  ASSERT_EQ(timer_settime(timer, 0, &wanted, nullptr), 0);
  itimerspec left{};
  ASSERT_EQ(timer_gettime(timer, &left), 0);
  EXPECT_GE(left.it_value.tv_sec, 30);
  EXPECT_LE(left.it_value.tv_sec, 40);
  EXPECT_EQ(left.it_interval.tv_sec, 1);
  sleep(10);
  ASSERT_EQ(timer_gettime(timer, &left), 0);
  EXPECT_LT(left.it_value.tv_sec, 30);
  sleep(31);
  ASSERT_EQ(timer_gettime(timer, &left), 0);
  EXPECT_EQ(left.it_value.tv_sec, 0);
  const itimerspec disarmed{};
  itimerspec before{};
  ASSERT_EQ(timer_settime(timer, 0, &disarmed, &before), 0);
  EXPECT_EQ(before.it_interval.tv_sec, 1);
  ASSERT_EQ(timer_gettime(timer, &left), 0);
  EXPECT_EQ(left.it_interval.tv_sec, 0);
  EXPECT_EQ(timer_delete(timer), 0);
}

TEST(Virtual_time, timers_with_an_absolute_time) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
    timer_t timer{};
    ASSERT_EQ(timer_create(clock, &none, &timer), 0);
    const itimerspec wanted{{0, 0}, after(clock, 100)};
    ASSERT_EQ(timer_settime(timer, TIMER_ABSTIME, &wanted, nullptr), 0);
    itimerspec left{};
    ASSERT_EQ(timer_gettime(timer, &left), 0);
    EXPECT_GE(left.it_value.tv_sec, 80);
    EXPECT_LE(left.it_value.tv_sec, 100);
    timer_delete(timer);
  }
}

TEST(Virtual_time, timers_of_the_processor_clock_are_left_alone) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  ASSERT_EQ(timer_create(CLOCK_PROCESS_CPUTIME_ID, &none, &timer), 0);
  const itimerspec wanted{{0, 0}, {40, 0}};
  ASSERT_EQ(timer_settime(timer, 0, &wanted, nullptr), 0);
  sleep(20);
  itimerspec left{};
  ASSERT_EQ(timer_gettime(timer, &left), 0);
  EXPECT_GE(left.it_value.tv_sec, 39);
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
  expect_lasts(3 * 0.99, 3 + 10, [] {
    alarm(3);
    pause();
  });
}

TEST(Virtual_time, timer_descriptors) {
  const int fd = timerfd_create(CLOCK_MONOTONIC, 0);
  const itimerspec wanted{{0, 0}, {3, 0}};
  expect_lasts(3 * 0.99, 3 + 10, [&] {
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
  const timeval tv{1700000000, 1000000};
  EXPECT_EQ(settimeofday(&tv, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  const timeval before_1970{-1, 0};
  errno = 0;
  EXPECT_EQ(settimeofday(&before_1970, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  const timespec ts_before_1970{-1, 0};
  errno = 0;
  EXPECT_EQ(clock_settime(CLOCK_REALTIME, &ts_before_1970), -1);
  EXPECT_EQ(errno, EINVAL);
  const timespec ts{1700000000, 0};
  EXPECT_EQ(clock_settime(CLOCK_MONOTONIC, &ts), -1);
  EXPECT_EQ(errno, EINVAL);
}
