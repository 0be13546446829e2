// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/wake_up.h"

#include <poll.h>
#include <sys/resource.h>

#include "support/test.h"

namespace {

bool readable(const Wake_up& wake_up) {
  pollfd entry{wake_up.handle(), POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(Wake_up_test, is_readable_from_a_wake_until_it_is_taken) {
  const Wake_up wake_up;
  ASSERT_GE(wake_up.handle(), 0);
  EXPECT_FALSE(readable(wake_up));
  wake_up.wake();
  wake_up.wake();
  EXPECT_TRUE(readable(wake_up));
  wake_up.take();
  EXPECT_FALSE(readable(wake_up));
  wake_up.take();  // does not wait
  wake_up.wake();
  EXPECT_TRUE(readable(wake_up));
}

TEST(Wake_up_test, without_a_handle_waking_does_nothing) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const Wake_up wake_up;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(wake_up.handle(), -1);
  wake_up.wake();
  wake_up.take();
}

}  // namespace
