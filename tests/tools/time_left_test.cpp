// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/time_left.h"

#include "support/test.h"

namespace {

using testing::AllOf;
using testing::DoubleNear;
using testing::Ge;
using testing::Le;

TEST(Time_left, says_nothing_before_the_first_frequency) {
  EXPECT_EQ(Time_left().left(10, {1.0}, 1), std::nullopt);
}

TEST(Time_left, follows_from_what_was_seen) {
  const struct {
    const char* legend;
    int full;   // frequencies with a multiplex, 10 s each
    int empty;  // 2 s each
    size_t waiting;
    std::vector<double> under_way;
    size_t adapters;
    double left;
  } cases[] = {
      // A share of 0.5 in 2 is added to what was found.
      {"half and half", 5, 5, 12, {}, 1, 12 * (5.5 / 12 * 10 + 6.5 / 12 * 2)},
      {"two adapters share it", 5, 5, 12, {}, 2, 6 * (5.5 / 12 * 10 + 6.5 / 12 * 2)},
      {"nothing is left", 5, 5, 0, {}, 1, 0},
      {"one has begun", 5, 5, 0, {1.0}, 1, 5.5 / 12 * 10 + 6.5 / 12 * 2 - 1},
      {"one is no empty one", 5, 5, 0, {3.0}, 1, 7},
      {"one takes longer than all", 5, 5, 0, {15.0}, 1, 0},
      {"one adapter has to wait for the other", 5, 5, 0, {3.0, 9.5}, 2, 7},
      {"empty ones only, until now", 0, 8, 10, {}, 1, 10 * (0.5 / 10 * 6 + 9.5 / 10 * 2)},
      {"full ones only, until now", 8, 0, 10, {}, 1, 10 * (8.5 / 10 * 10 + 1.5 / 10 * 3)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Time_left time;
    for (int i = 0; i < c.full; ++i)
      time.done(true, 10);
    for (int i = 0; i < c.empty; ++i)
      time.done(false, 2);
    EXPECT_THAT(time.left(c.waiting, c.under_way, c.adapters).value_or(-1), DoubleNear(c.left, 1e-9));
  }
}

// A band as it is: after a fifth of it, what is said is right within a factor of two until the end.
TEST(Time_left, holds_during_a_scan) {
  const std::set<int> multiplexes{3, 8, 9, 17, 22, 30, 31, 40};
  constexpr int CHANNELS = 49;
  const auto seconds_of = [&](int i) { return multiplexes.contains(i) ? 7.0 + i % 3 : 2.2; };
  Time_left time;
  for (int i = 0; i + 1 < CHANNELS; ++i) {
    time.done(multiplexes.contains(i), seconds_of(i));
    double left = 0;
    for (int j = i + 1; j < CHANNELS; ++j)
      left += seconds_of(j);
    if (i < CHANNELS / 5)
      continue;
    SCOPED_TRACE(i);
    EXPECT_THAT(time.left(static_cast<size_t>(CHANNELS - i - 1), {}, 1).value_or(0), AllOf(Ge(left / 2), Le(left * 2)));
  }
}

}  // namespace
