// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The machine's clock is out of reach of every test program.
#include <linux/capability.h>
#include <sys/time.h>
#include <sys/timex.h>

#include <gtest/gtest-spi.h>

#include "support/command.h"
#include "support/test.h"

extern "C" int stime(const time_t* t) noexcept;

namespace {

// Each sets a time that it is not.
const timeval TV{1, 0};
const timespec TS{1, 0};

timex change() {
  timex t{};
  t.modes = ADJ_TICK;
  t.tick = 9900;
  return t;
}

// Whether a set of /proc/PID/status ("CapEff:") holds the right to set the clock.
bool may_set(const std::string& status, const std::string& set) {
  const size_t at = status.find(set);
  EXPECT_NE(at, std::string::npos) << set;
  return at != std::string::npos &&
         (std::strtoull(status.c_str() + at + set.size(), nullptr, 16) >> CAP_SYS_TIME & 1) != 0;
}

}  // namespace

TEST(No_clock, every_call_that_sets_it_fails_the_test_and_is_refused) {
  static int result;
  const struct {
    const char* name;
    std::function<int()> call;
  } calls[] = {
      {"settimeofday", [] { return settimeofday(&TV, nullptr); }},
      {"clock_settime", [] { return clock_settime(CLOCK_REALTIME, &TS); }},
      {"stime", [] { return stime(&TS.tv_sec); }},
      {"adjtime", [] { return adjtime(&TV, nullptr); }},
      {"adjtimex",
       [] {
         timex t = change();
         return adjtimex(&t);
       }},
      {"ntp_adjtime",
       [] {
         timex t = change();
         return ntp_adjtime(&t);
       }},
      {"clock_adjtime",
       [] {
         timex t = change();
         return clock_adjtime(CLOCK_REALTIME, &t);
       }},
  };
  for (const auto& c : calls) {
    result = 0;
    EXPECT_NONFATAL_FAILURE(result = c.call(), std::string(c.name) + " would have set the machine's clock");
    EXPECT_EQ(result, -1) << c.name;
    EXPECT_EQ(errno, EPERM) << c.name;
  }
}

TEST(No_clock, questions_are_answered) {
  timex t{};
  EXPECT_GE(adjtimex(&t), 0);
  EXPECT_GT(t.tick, 0);
  t = {};
  EXPECT_GE(ntp_adjtime(&t), 0);
  t = {};
  EXPECT_GE(clock_adjtime(CLOCK_REALTIME, &t), 0);
  timeval left{-1, -1};
  EXPECT_EQ(adjtime(nullptr, &left), 0);
  EXPECT_GE(left.tv_usec, 0);
}

TEST(No_clock, neither_the_program_nor_its_children_have_the_right_to_set_it) {
  std::ifstream file("/proc/self/status");
  const std::string own{std::istreambuf_iterator<char>(file), {}};
  const std::string of_child = support::run_command({"cat", "/proc/self/status"}).out;
  for (const char* set : {"CapInh:", "CapPrm:", "CapEff:", "CapAmb:"}) {
    EXPECT_FALSE(may_set(own, set)) << set;
    EXPECT_FALSE(may_set(of_child, set)) << set;
  }
}
