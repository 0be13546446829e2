// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/tuner_slot.h"

#include "support/support.h"
#include "support/test.h"
#include "support/verbosity.h"

namespace {

class Tuner_slots : public testing::Test {
 protected:
  // Of a device that there is not.
  std::unique_ptr<Tuner> tuner() const {
    return std::make_unique<Tuner>(folder_.file("frontend0").c_str(), nullptr, 3, 1);
  }

  support::Verbosity quiet_{-1};
  support::Stderr_capture capture_;
  support::Temp_dir folder_;
};

}  // namespace

TEST_F(Tuner_slots, empty_one_has_no_tuner_to_use_or_to_take) {
  Tuner_slot slot(nullptr);
  EXPECT_TRUE(slot.empty());
  EXPECT_FALSE(Tuner_slot::Use(slot));
  EXPECT_EQ(slot.take(), nullptr);
}

TEST_F(Tuner_slots, tuner_that_is_there_stays_when_another_one_is_put_in) {
  Tuner_slot slot(nullptr);
  std::unique_ptr<Tuner> first = tuner();
  Tuner* const kept = first.get();
  EXPECT_TRUE(slot.put(first));
  std::unique_ptr<Tuner> second = tuner();
  EXPECT_FALSE(slot.put(second));
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(slot.take().get(), kept);
}

TEST_F(Tuner_slots, taking_waits_until_nobody_uses_the_tuner) {
  Tuner_slot slot(tuner());
  std::atomic<bool> taken{false};
  std::thread taker;
  {
    const Tuner_slot::Use one(slot);
    {
      const Tuner_slot::Use two(slot);
      taker = std::thread([&] {
        (void)slot.take();
        taken = true;
      });
      while (!slot.empty())
        std::this_thread::yield();
      EXPECT_FALSE(Tuner_slot::Use(slot)) << "nobody new finds it";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(taken);
  }
  taker.join();
  EXPECT_TRUE(taken);
}
