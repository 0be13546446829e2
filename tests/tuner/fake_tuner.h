// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/syscall.h>

#include "support/database.h"
#include "support/messages.h"
#include "support/text.h"
#include "tuner/fake_frontend.h"
#include "tuner/tuner.h"

using support::Texts;

// Lists of calls, one after the other and several times.
inline Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

inline Texts operator*(const Texts& part, size_t times) {
  Texts all;
  for (size_t i = 0; i < times; ++i)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Waits without a sleep, which would count as one of the library's, and by the machine's own clock. Fails the test
// when nothing comes of it.
template <typename Condition>
void until(Condition condition) {
  const auto now = [] {
    timespec time{};
    (void)syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
    return time.tv_sec;
  };
  const time_t begun = now();
  while (!condition()) {
    if (now() - begun > 30) {
      ADD_FAILURE() << "waited in vain";
      return;
    }
    std::this_thread::yield();
  }
}

// A tuner of connector 3 and type 1 on a fake device, locked on FREQ with a perfect signal.
class Fake_tuner_test : public testing::Test {
 protected:
  static constexpr int FREQ = 506000000;
  static constexpr int CONNECTOR = 3;
  static constexpr int TYPE = 1;

  Fake_tuner_test() {
    EXPECT_EQ(tuner->tunetofreq(FREQ), FREQ);
    frontend.take_calls();
  }
  ~Fake_tuner_test() override {
    const support::Stderr_capture capture;  // the pass that ends the monitor fails at the closed device
    frontend.after_sleep = nullptr;
    tuner.reset();
  }

  Fake_frontend frontend;
  support::Database db;
  std::unique_ptr<Tuner> tuner = std::make_unique<Tuner>(frontend.path(), &db.sdbl(), CONNECTOR, TYPE);
};
