// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/database.h"
#include "support/messages.h"
#include "support/softdvb.h"
#include "support/text.h"
#include "tuner/tuner.h"

// A tuner on adapter 0 of the software adapter, locked on FREQ with a good signal, quiet at verbosity 0.
class Tuner_test : public testing::Test {
 protected:
  static constexpr int FREQ = 506000000;
  static constexpr char PATH[] = "/dev/dvb/adapter0/frontend0";

  void SetUp() override {
    ASSERT_TRUE(support::under_softdvb());
    const support::Stderr_capture capture;
    make_tuner();
    const int locked = tuner_->tunetofreq(FREQ);
    EXPECT_EQ(locked, FREQ) << capture.text();
    // The pass under way may have begun before the lock; the next one counts the quality as good.
    after_monitor_pass();
    after_monitor_pass();
    EXPECT_EQ(tuner_->fe_ber(), 100.0F);
  }
  void TearDown() override {
    const support::Stderr_capture capture;  // a pass of the monitor may fail while the device is closed
    tuner_.reset();
  }

  void make_tuner() { tuner_ = std::make_unique<Tuner>(PATH, &db_.sdbl(), 0, 0); }
  // What a new tuner prints in the place of the old one.
  std::string printed_by_constructor(int level) {
    tuner_.reset();
    return support::messages_at(level, [this] { make_tuner(); });
  }

  // Sets a reading, such as "ber", of what is received.
  static void signal(const std::string& reading, unsigned value) {
    support::softdvb_control("adapter 0 " + reading + " = " + std::to_string(value));
  }

  // Waits for the end of a pass of the monitor, so that for the next 200 ms only the test reads the device.
  void after_monitor_pass() {
    const support::Verbosity verbosity(3);
    const support::Stderr_capture capture;
    EXPECT_TRUE(support::wait_for([&] { return capture.text().find("quality_sum") != std::string::npos; }));
  }

  // What `action` prints at a level while the monitor sleeps.
  template <typename Action>
  std::string printed(int level, Action action) {
    after_monitor_pass();
    return support::messages_at(level, action);
  }

  support::Database db_;
  std::unique_ptr<Tuner> tuner_;
};
