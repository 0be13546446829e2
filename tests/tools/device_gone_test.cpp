// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/guide_fixture.h"

// What the commands say of an adapter that is pulled out while they use it, or that another program has.

namespace {

using support::Running_command;
using testing::_;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;

using Device_gone = Guide_fixture;
using Device_busy = Guide_fixture;

TEST_F(Device_gone, ends_a_scan_which_keeps_what_was_found) {
  device_ = "box";  // quick to answer
  Running_command running(controlled(network("x1"), {"scan", "--freq", "506000000", "--freq", "530000000", "--freq",
                                                     "538000000", "--lock-time", "60"}));
  ASSERT_TRUE(running.wait_for_err("[1/3] 506.000 MHz: locked, 2 services")) << running.err();
  control("adapter 0 unplug");
  const Command_result result = running.wait();
  EXPECT_THAT(result, ends(1,
                           AllOf(HasSubstr("530.000 MHz        -  -              -     -         -      -  not "
                                           "scanned: the adapter is gone\n"),
                                 HasSubstr("538.000 MHz        -  -              -     -         -      -  not "
                                           "scanned: the adapter is gone\n"),
                                 HasSubstr("\n1 of 3 frequencies with a multiplex, 2 services: 2 new, ")),
                           HasSubstr("\nkelvo: adapter 0 is gone; what was found is kept\n")));
  EXPECT_EQ(value(db_, "SELECT count(*) FROM kanalid WHERE scan_state = 1;"), "2");
}

TEST_F(Device_gone, leaves_its_frequencies_to_the_other_adapters) {
  const Words options = joined({network("x1"), {"--adapter", "1"}, two_muxes()});
  Running_command running(controlled(options, {"scan", "--adapter", "0", "--adapter", "1", "--freq", "530000000",
                                               "--freq", "506000000", "--freq", "514000000", "--lock-time", "2"}));
  ASSERT_TRUE(running.wait_for_err("MHz: locked, ")) << running.err();
  control("adapter 0 unplug");
  const Command_result result = running.wait();
  EXPECT_THAT(result, ends(1, HasSubstr("\n2 of 3 frequencies with a multiplex, 3 services: 3 new, "),
                           HasSubstr("\nkelvo: adapter 0 is gone; what was found is kept\n")));
}

// What is found is stored behind the scan: without channels there are no events before.
TEST_F(Device_gone, ends_the_collection_of_a_guide) {
  Running_command running(
      controlled(joined({network("x1"), {"--section", "18/0x50=silence"}}), {"epg", "update", "--freq", "506000000"}));
  ASSERT_TRUE(support::wait_for(
      [&] {
        const std::string events =
            std::filesystem::exists(guide_) ? value(guide_, "SELECT count(*) FROM epglist;") : "no file";
        return events[0] >= '1' && events[0] <= '9';
      },
      std::chrono::seconds(30)))
      << running.err();
  control("adapter 0 unplug");
  EXPECT_THAT(running.wait(), ends(1, HasSubstr(": the adapter is gone\n"),
                                   HasSubstr("kelvo: adapter 0 is gone; what was collected is kept\n")));
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(Device_gone, is_waited_for_by_a_watch_which_goes_on) {
  scan(network());
  Running_command running(controlled(network("x4"), {"watch", "1"}));
  ASSERT_TRUE(running.wait_for_out(" guide ")) << running.out();
  control("adapter 0 unplug");
  ASSERT_TRUE(running.wait_for_out("waiting for adapter 0\n")) << running.out();
  control("adapter 0 plug");
  ASSERT_TRUE(running.wait_for_out("adapter 0 is back\n")) << running.out();
  ASSERT_TRUE(running.wait_for_out("quality back\n")) << running.out();
  const Command_result result = ended_by(SIGINT, running);
  EXPECT_THAT(result, ends(0, _, ""));
  EXPECT_THAT(timed_lines_of(result.out),
              AllOf(Contains("adapter 0 is gone").Times(1), Contains("waiting for adapter 0").Times(1),
                    Contains("adapter 0 is back").Times(1)));
}

TEST_F(Device_gone, ends_a_measurement) {
  Running_command running(controlled(network("x1"), {"signal", "--freq", "506000000"}));
  ASSERT_TRUE(running.wait_for_out("  strength ")) << running.out();
  control("adapter 0 unplug");
  EXPECT_THAT(running.wait(), ends(1, _, "kelvo: adapter 0 is gone\n"));
}

// Another user's program: nothing tells before the frontend is opened for writing, behind the look at the database.
TEST_F(Device_busy, is_one_line_and_nothing_is_made) {
  for (const Words& command : {Words{"scan", "--freq", "506000000"}, Words{"epg", "update", "--freq", "506000000"},
                               Words{"signal", "--freq", "506000000"}}) {
    EXPECT_EQ(run(joined({network(), {"--busy"}}), command), fails("/dev/dvb/adapter0/frontend0" + BUSY_DEVICE));
    EXPECT_TRUE(folder_is_empty()) << command.front();
  }
}

}  // namespace
