#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "support/softdvb.h"

// Run with --time x50 --now 1000000000: fifty virtual seconds a second.
static constexpr double SPEED = 50;

static double on(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Runs `wait`, which lasts `seconds` virtual ones, and checks both by the virtual clock.
static void expect_lasts(double seconds, const std::function<void()>& wait) {
  const double begin = on(CLOCK_MONOTONIC);
  wait();
  const double passed = on(CLOCK_MONOTONIC) - begin;
  EXPECT_GE(passed, seconds * 0.99);
  EXPECT_LT(passed, seconds + 10);  // 200 ms of a busy machine
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
  expect_lasts(2, [] { EXPECT_EQ(0u, sleep(2)); });
  expect_lasts(2, [] { usleep(2000000); });
  expect_lasts(2, [] {
    const timespec t{2, 0};
    EXPECT_EQ(0, nanosleep(&t, nullptr));
  });
  expect_lasts(2, [] { std::this_thread::sleep_for(std::chrono::seconds(2)); });
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC})
    expect_lasts(2, [clock] {
      const timespec t = after(clock, 2);
      EXPECT_EQ(0, clock_nanosleep(clock, TIMER_ABSTIME, &t, nullptr));
    });
}

TEST(Virtual_time, waiting_for_descriptors) {
  expect_lasts(2, [] { EXPECT_EQ(0, poll(nullptr, 0, 2000)); });
  expect_lasts(2, [] {
    timeval t{0, 2000000};  // not normalised
    EXPECT_EQ(0, select(0, nullptr, nullptr, nullptr, &t));
    EXPECT_EQ(0, t.tv_sec);
  });
  expect_lasts(2, [] {
    const timespec t{2, 0};
    EXPECT_EQ(0, pselect(0, nullptr, nullptr, nullptr, &t, nullptr));
  });
}

TEST(Virtual_time, waiting_for_threads) {
  std::mutex mutex;
  std::condition_variable condition;
  expect_lasts(2, [&] {
    std::unique_lock lock(mutex);
    EXPECT_EQ(std::cv_status::timeout, condition.wait_for(lock, std::chrono::seconds(2)));
  });
  expect_lasts(2, [&] {
    std::unique_lock lock(mutex);
    EXPECT_EQ(std::cv_status::timeout,
              condition.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(2)));
  });
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, clock);
    pthread_cond_t c;
    pthread_cond_init(&c, &attributes);
    expect_lasts(2, [&] {
      const timespec t = after(clock, 2);
      pthread_mutex_lock(&m);
      EXPECT_EQ(ETIMEDOUT, pthread_cond_timedwait(&c, &m, &t));
      pthread_mutex_unlock(&m);
    });
    pthread_cond_destroy(&c);
  }
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  expect_lasts(2, [&] {
    const timespec t = after(CLOCK_REALTIME, 2);
    EXPECT_EQ(-1, sem_timedwait(&semaphore, &t));
    EXPECT_EQ(ETIMEDOUT, errno);
  });
}

TEST(Virtual_time, timers_are_polled) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  ASSERT_EQ(0, timer_create(CLOCK_REALTIME, &none, &timer));
  const itimerspec wanted{{1, 0}, {40, 0}};
  ASSERT_EQ(0, timer_settime(timer, 0, &wanted, nullptr));
  itimerspec left{};
  ASSERT_EQ(0, timer_gettime(timer, &left));
  EXPECT_GE(left.it_value.tv_sec, 30);
  EXPECT_LE(left.it_value.tv_sec, 40);
  EXPECT_EQ(1, left.it_interval.tv_sec);
  sleep(10);
  ASSERT_EQ(0, timer_gettime(timer, &left));
  EXPECT_LT(left.it_value.tv_sec, 30);
  sleep(31);
  ASSERT_EQ(0, timer_gettime(timer, &left));
  EXPECT_EQ(0, left.it_value.tv_sec);
  const itimerspec disarmed{};
  itimerspec before{};
  ASSERT_EQ(0, timer_settime(timer, 0, &disarmed, &before));
  EXPECT_EQ(1, before.it_interval.tv_sec);
  ASSERT_EQ(0, timer_gettime(timer, &left));
  EXPECT_EQ(0, left.it_interval.tv_sec);
  EXPECT_EQ(0, timer_delete(timer));
}

TEST(Virtual_time, timers_with_an_absolute_time) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
    timer_t timer{};
    ASSERT_EQ(0, timer_create(clock, &none, &timer));
    const itimerspec wanted{{0, 0}, after(clock, 100)};
    ASSERT_EQ(0, timer_settime(timer, TIMER_ABSTIME, &wanted, nullptr));
    itimerspec left{};
    ASSERT_EQ(0, timer_gettime(timer, &left));
    EXPECT_GE(left.it_value.tv_sec, 80);
    EXPECT_LE(left.it_value.tv_sec, 100);
    timer_delete(timer);
  }
}

TEST(Virtual_time, timers_of_the_processor_clock_are_left_alone) {
  sigevent none{};
  none.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  ASSERT_EQ(0, timer_create(CLOCK_PROCESS_CPUTIME_ID, &none, &timer));
  const itimerspec wanted{{0, 0}, {40, 0}};
  ASSERT_EQ(0, timer_settime(timer, 0, &wanted, nullptr));
  sleep(20);
  itimerspec left{};
  ASSERT_EQ(0, timer_gettime(timer, &left));
  EXPECT_GE(left.it_value.tv_sec, 39);
  timer_delete(timer);
}

static volatile sig_atomic_t alarms = 0;

TEST(Virtual_time, alarms) {
  struct sigaction action {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  sigaction(SIGALRM, &action, nullptr);
  EXPECT_EQ(0u, alarm(100));
  const unsigned left = alarm(3);
  EXPECT_GE(left, 80u);
  EXPECT_LE(left, 100u);
  expect_lasts(3, [] { pause(); });
  EXPECT_EQ(1, alarms);
}

TEST(Virtual_time, timer_descriptors) {
  const int fd = timerfd_create(CLOCK_MONOTONIC, 0);
  const itimerspec wanted{{0, 0}, {3, 0}};
  ASSERT_EQ(0, timerfd_settime(fd, 0, &wanted, nullptr));
  expect_lasts(3, [fd] {
    uint64_t times = 0;
    EXPECT_EQ(static_cast<ssize_t>(sizeof times), read(fd, &times, sizeof times));
  });
  close(fd);
}

TEST(Virtual_time, children_have_the_same) {
  const time_t before = time(nullptr);
  FILE* date = popen("date +%s", "r");
  ASSERT_NE(nullptr, date);
  long long seen = 0;
  EXPECT_EQ(1, fscanf(date, "%lld", &seen));
  pclose(date);
  EXPECT_GE(seen, before);
  EXPECT_LE(seen, time(nullptr));
}

TEST(Clock, is_never_set) {
  const double before = on(CLOCK_REALTIME);
  const timeval tv{1700000000, 0};
  EXPECT_EQ(0, settimeofday(&tv, nullptr));
  const timespec ts{1700000000, 0};
  EXPECT_EQ(0, clock_settime(CLOCK_REALTIME, &ts));
  const timeval by{1, 0};
  EXPECT_EQ(0, adjtime(&by, nullptr));
  timex change{};
  change.modes = ADJ_TICK;
  change.tick = 9900;
  EXPECT_GE(adjtimex(&change), 0);
  EXPECT_LT(on(CLOCK_REALTIME) - before, 60);
}

TEST(Clock, refuses_what_the_kernel_refuses) {
  const timeval tv{1700000000, 1000000};
  EXPECT_EQ(-1, settimeofday(&tv, nullptr));
  EXPECT_EQ(EINVAL, errno);
  const timeval before_1970{-1, 0};
  errno = 0;
  EXPECT_EQ(-1, settimeofday(&before_1970, nullptr));
  EXPECT_EQ(EINVAL, errno);
  const timespec ts_before_1970{-1, 0};
  errno = 0;
  EXPECT_EQ(-1, clock_settime(CLOCK_REALTIME, &ts_before_1970));
  EXPECT_EQ(EINVAL, errno);
  const timespec ts{1700000000, 0};
  EXPECT_EQ(-1, clock_settime(CLOCK_MONOTONIC, &ts));
  EXPECT_EQ(EINVAL, errno);
}
