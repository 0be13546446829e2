// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A Kelvo whose profile watches the device, which goes and comes back.
#include "kelvo/kelvo_run.h"

namespace {

class Device_watch : public Kelvo_run {
 protected:
  void make_watching() {
    Receiver_profile profile;
    profile.watch_device = true;
    kelvo_ = std::make_unique<Kelvo>(0, CONNECTOR, TYPE, database_.get(), true, nullptr, profile);
    kelvo_->set_scan_listener(
        [](void* data, const Scan_end& end) {
          static_cast<Protocol*>(data)->add(end.outcome == SCAN_DEVICE_GONE ? "end gone" : "end");
        },
        &protocol_);
    kelvo_->set_device_listener(
        [](void* data, const Device_event& event) {
          static_cast<Protocol*>(data)->add((event.kind == DEVICE_GONE   ? "gone "
                                             : event.kind == DEVICE_BACK ? "back "
                                                                         : "other ") +
                                            std::to_string(event.freq));
        },
        &protocol_);
  }
};

TEST_F(Device_watch, a_demultiplexer_that_is_not_there_has_gone_once_until_it_can_be_opened) {
  make_watching();
  support::softdvb_control("fault open(demux0)=ENODEV");
  EXPECT_EQ(request("a"), -1);
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  std::this_thread::sleep_for(std::chrono::seconds(20));
  EXPECT_EQ(protocol_.text(), "end gone\ngone 506000000\ndone a -1\n") << "also after several tries to open it again";
  support::softdvb_control("clear faults");
  EXPECT_TRUE(protocol_.wait_for("back 506000000"));
  EXPECT_TRUE(protocol_.wait_for("end"));
  ask("b");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 3);
}

TEST_F(Device_watch, one_that_goes_during_a_scan_ends_it_and_what_was_under_way_begins_anew_when_it_is_back) {
  silence({SDT});
  make_watching();
  EXPECT_EQ(request("a"), -1);
  EXPECT_TRUE(wait_for_sql("SELECT count(*) = 3 FROM kanalid_scan_0"));
  support::softdvb_control("fault open(demux0)=ENODEV");
  support::softdvb_control("fault read(demux0)=ENODEV*1");
  // All others may have been read by now: this one is left.
  support::softdvb_control("clear sections");
  EXPECT_TRUE(protocol_.wait_for("done a -1"));
  EXPECT_EQ(protocol_.text(), "end gone\ngone 506000000\ndone a -1\n");
  support::softdvb_control("clear faults");
  EXPECT_TRUE(protocol_.wait_for("end"));
  EXPECT_EQ(protocol_.text({"gone", "back", "done"}), "gone 506000000\ndone a -1\nback 506000000\n");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 3);
}

}  // namespace
