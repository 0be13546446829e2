// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A Kelvo of any_linux whose device goes away and comes back.
#include "kelvo/kelvo_run.h"

namespace {

class Device_gone : public Kelvo_run {
 protected:
  void SetUp() override {
    Kelvo_run::SetUp();
    kelvo_ = std::make_unique<Kelvo>(0, CONNECTOR, TYPE, database_.get(), true, nullptr, Receiver_profile::any_linux());
    kelvo_->set_scan_listener(
        [](void* data, const Scan_end& end) { protocol(data).add("end " + std::to_string(end.outcome)); }, &protocol_);
    kelvo_->set_device_listener(
        [](void* data, const Device_event& event) {
          protocol(data).add((event.kind == DEVICE_GONE ? "gone " : "back ") + std::to_string(event.adapter) + " " +
                             std::to_string(event.freq));
        },
        &protocol_);
  }
  static Protocol& protocol(void* data) { return *static_cast<Protocol*>(data); }
  // Pulled out before all the scan's tables have come.
  void unplug_in_a_scan() {
    silence({SDT});
    EXPECT_EQ(request("a"), -1);
    support::softdvb_control("adapter 0 unplug");
  }
};

}  // namespace

TEST_F(Device_gone, ends_the_scan_and_is_told) {
  unplug_in_a_scan();
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  EXPECT_EQ(protocol_.text(), "end 5\ngone 0 506000000\ndone a -1\n");
  EXPECT_TRUE(kelvo_->get_msg_state());
  EXPECT_EQ(kelvo_->frontend_state().error, ENODEV);
}

TEST_F(Device_gone, refuses_requests_with_its_reason) {
  unplug_in_a_scan();
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  EXPECT_EQ(request("b"), 0);
  const Tuning_result tuning = kelvo_->last_tuning();
  EXPECT_EQ(tuning.outcome, TUNING_NO_DEVICE);
  EXPECT_EQ(tuning.error, ENODEV);
  EXPECT_EQ(protocol_.count("done b 0") + protocol_.count("done b -1"), 0U);
}

TEST_F(Device_gone, goes_on_with_what_was_tuned_when_it_is_back) {
  unplug_in_a_scan();
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  support::softdvb_control("clear sections");
  support::softdvb_control("adapter 0 plug");
  EXPECT_TRUE(protocol_.wait_for("back 0 506000000"));
  EXPECT_TRUE(protocol_.wait_for("end 0"));
  EXPECT_EQ(protocol_.text(), "end 5\ngone 0 506000000\ndone a -1\nback 0 506000000\nend 0\n") << "answered once";
  EXPECT_EQ(kelvo_->frontend_state().error, 0);
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 3);
  ask("b");
}

// Whoever notices first that the device is back.
TEST_F(Device_gone, answers_a_request_that_comes_as_soon_as_it_is_back) {
  unplug_in_a_scan();
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  support::softdvb_control("clear sections");
  support::softdvb_control("adapter 0 plug");
  ask("b");
  EXPECT_EQ(protocol_.count("done b 0"), 1U);
}

TEST_F(Device_gone, is_told_in_the_guide_s_phase_too) {
  ask("a");
  support::softdvb_control("adapter 0 unplug");
  EXPECT_TRUE(protocol_.wait_for("gone 0 506000000"));
  EXPECT_EQ(protocol_.text(), "end 0\ndone a 0\ngone 0 506000000\n");
}

TEST_F(Device_gone, does_not_keep_a_kelvo_from_ending) {
  unplug_in_a_scan();
  EXPECT_TRUE(protocol_.wait_for("gone 0 506000000"));
  kelvo_.reset();
  EXPECT_EQ(protocol_.count("back 0 506000000"), 0U);
}
