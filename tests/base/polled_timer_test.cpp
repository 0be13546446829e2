// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Timers that are only looked at. Runs faster than the clock on the wall.
#include "base/polled_timer.h"

#include "support/messages.h"
#include "support/softdvb.h"

namespace {

using namespace std::chrono_literals;

// One that the system made, gone at the end of the test.
class Polled_timer_test : public testing::Test {
 protected:
  Polled_timer_test() { EXPECT_TRUE(support::under_softdvb()); }
  ~Polled_timer_test() override { polled_timer::remove(timer); }
  double left() const {
    timespec time{-1, -1};
    EXPECT_EQ(polled_timer::time_left(timer, &time), 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }
  const timer_t timer = polled_timer::create();
};

TEST_F(Polled_timer_test, has_no_time_left_until_it_is_armed_and_arming_again_begins_anew) {
  EXPECT_EQ(left(), 0);
  EXPECT_EQ(polled_timer::arm(timer, 10, 0), 0);
  EXPECT_LE(left(), 10);
  EXPECT_EQ(polled_timer::arm(timer, 3600, 0), 0);
  EXPECT_GT(left(), 3000);
  EXPECT_LE(left(), 3600);
}

TEST_F(Polled_timer_test, expires_for_good_without_an_interval_and_goes_on_with_one) {
  for (const int interval : {0, 3600}) {
    EXPECT_EQ(polled_timer::arm(timer, 1, interval), 0);
    std::this_thread::sleep_for(1100ms);
    EXPECT_LE(left(), interval);
    EXPECT_GE(left(), interval == 0 ? 0 : 3000);
  }
}

TEST(No_timer, fails_without_harm) {
  timespec left{1, 1};
  errno = 0;
  EXPECT_EQ(polled_timer::arm(polled_timer::none(), 1, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(polled_timer::time_left(polled_timer::none(), &left), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(std::pair(left.tv_sec, left.tv_nsec), std::pair(time_t{0}, 0L));
  polled_timer::remove(polled_timer::none());
}

TEST(No_timer, stands_for_one_that_the_system_does_not_make) {
  support::softdvb_control("fault timer_create = EAGAIN*1");
  errno = 0;
  EXPECT_EQ(polled_timer::create(), polled_timer::none());
  EXPECT_EQ(errno, EAGAIN);
}

TEST(Ticking_timer, rounds_down_so_that_it_is_over_in_its_last_second) {
  Polled_timer timer(30);
  EXPECT_TRUE(timer.expired()) << "not armed";
  timer.arm();
  EXPECT_FALSE(timer.expired());
  EXPECT_LE(timer.remaining(), 29);
  EXPECT_GE(timer.elapsed(), 1);
  std::this_thread::sleep_for(29100ms);
  EXPECT_TRUE(timer.expired());
  EXPECT_EQ(timer.elapsed(), 30);
}

TEST(Ticking_timer, goes_on_ticking_every_second_after_its_period) {
  Polled_timer timer(1);
  timer.arm();
  EXPECT_TRUE(timer.expired()) << "a second, rounded down";
  std::this_thread::sleep_for(5s);
  EXPECT_TRUE(timer.expired());
}

TEST(Ticking_timer, prints_what_fails) {
  support::softdvb_control("fault timer_create = EAGAIN*1");
  EXPECT_EQ(support::messages_at(0,
                                 [] {
                                   Polled_timer timer(10);
                                   timer.arm();
                                   EXPECT_TRUE(timer.expired());
                                 }),
            "timer_create: Resource temporarily unavailable\n");
  Polled_timer timer(10);
  support::softdvb_control("fault timer_settime = EINVAL*1");
  EXPECT_EQ(support::messages_at(0, [&] { timer.arm(); }), "timer_settime: Invalid argument\n");
  support::softdvb_control("fault timer_gettime = EINVAL*1");
  EXPECT_EQ(support::messages_at(0, [&] { EXPECT_TRUE(timer.expired()); }), "timer_gettime: Invalid argument\n");
}

}  // namespace
