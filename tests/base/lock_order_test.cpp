// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/lock_order.h"

#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "base/mutex.h"

#ifdef KELVO_CHECK_LOCKS

namespace {

using Guard = std::lock_guard<Mutex>;

struct Lock_order_test : testing::Test {
  Mutex exports{Lock_rank::EXPORTING, "exports"};
  Mutex writers{Lock_rank::WRITING, "writers"};
  Mutex cache{Lock_rank::DATABASE_LEAF, "cache"};
  Mutex failures{Lock_rank::DATABASE_LEAF, "failures"};
  Mutex device{Lock_rank::ALONE, "device"};
  Mutex requests{Lock_rank::ALONE, "requests"};
  const int connection = 0, other_connection = 0;
};

using Lock_order_death_test = Lock_order_test;

TEST_F(Lock_order_test, database_locks_nest_downwards_and_the_connection_s_in_itself) {
  const Guard a(exports), b(writers);
  lock_order::take(Lock_rank::CONNECTION, &connection, "connection");
  lock_order::take(Lock_rank::CONNECTION, &connection, "connection");
  { const Guard c(cache); }
  { const Guard d(failures); }
  lock_order::give(&connection);
  { const Guard e(cache); }
  lock_order::give(&connection);
}

TEST_F(Lock_order_test, what_one_thread_holds_does_not_matter_to_another) {
  const Guard a(device);
  std::thread([&] { const Guard b(writers); }).join();
}

TEST_F(Lock_order_test, locks_may_be_given_back_in_any_order) {
  writers.lock();
  cache.lock();
  writers.unlock();
  cache.unlock();
  const Guard alone(device);
}

TEST_F(Lock_order_death_test, upwards_is_refused_with_both_names) {
  const Guard a(cache);
  EXPECT_DEATH(writers.lock(),
               "^libkelvo\\+\\+: order of locks: writers \\(comes before that\\) while 'cache' is held\n");
}

TEST_F(Lock_order_death_test, locks_of_one_rank_do_not_nest) {
  const Guard a(cache);
  EXPECT_DEATH(failures.lock(), "failures \\(comes before that\\) while 'cache' is held");
}

TEST_F(Lock_order_death_test, two_connections_do_not_nest) {
  lock_order::take(Lock_rank::CONNECTION, &connection, "connection");
  EXPECT_DEATH(lock_order::take(Lock_rank::CONNECTION, &other_connection, "another"),
               "another \\(comes before that\\)");
  lock_order::give(&connection);
}

TEST_F(Lock_order_death_test, one_that_stands_alone_is_not_taken_under_another) {
  const Guard a(exports);
  EXPECT_DEATH(device.lock(), "device \\(is taken alone\\) while 'exports' is held");
}

TEST_F(Lock_order_death_test, nothing_is_taken_under_one_that_stands_alone) {
  const Guard a(device);
  EXPECT_DEATH(requests.lock(), "requests \\(is taken alone\\) while 'device' is held");
  EXPECT_DEATH(cache.lock(), "cache \\(comes before that\\) while 'device' is held");
}

TEST_F(Lock_order_death_test, the_same_one_twice_is_refused) {
  const Guard a(writers);
  EXPECT_DEATH(writers.lock(), "writers \\(taken a second time\\) while 'writers' is held");
}

TEST_F(Lock_order_death_test, hosts_are_called_without_locks) {
  lock_order::hold_none("change callback");
  const Guard a(device);
  EXPECT_DEATH(lock_order::hold_none("change callback"), "change callback \\(calls the host\\) while 'device' is held");
}

}  // namespace

#else

TEST(Lock_order_test, is_checked_in_builds_for_tests) {
  GTEST_SKIP() << "this build is without KELVO_CHECK_LOCKS";
}

#endif
