// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/sysmacros.h>
#include <sys/wait.h>

#include "softdvb/session.h"

// Run with an RTL2832 and a MN88472 on one adapter, the counting stream on 506 MHz in DVB-T and on 522 MHz in DVB-T2.
// One frontend can be in use at a time; who wants the other one is kept waiting for 5 s.
using namespace device;

static const std::string BUSY = "waits 4900 secondfrontend: open = EBUSY, ";

TEST(Two_frontends, are_files_of_one_adapter_with_one_demultiplexer) {
  EXPECT_THAT(
      "nodes = demux0 dvr0 frontend0 frontend1, reader: info = Realtek RTL2832 (DVB-T); T 174000000-862000000, "
      "reader: systems = T, reader: close, secondreader: info = Panasonic MN88472; T 174000000-862000000, "
      "secondreader: systems = T T2 C",
      plays());
  struct stat second {};
  ASSERT_EQ(stat("/dev/dvb/adapter0/frontend1", &second), 0);
  EXPECT_TRUE(S_ISCHR(second.st_mode));
  EXPECT_EQ(minor(second.st_rdev), 0x13U);  // number 1, type 3
}

TEST(Two_frontends, feed_the_demultiplexer_in_turn) {
  EXPECT_THAT(
      "seek T2 522000000 = EINVAL, seek T 506000000, wait 1000, status = 1f, filter 256, await, close, frontend: close, "
      "secondfrontend: seek T2 522000000, wait 2000, secondfrontend: status = 1f, other: filter 256, other: await, "
      "secondfrontend: seek T 506000000, wait 1000, secondfrontend: status = 1f, third: filter 256, third: await",
      plays());
}

TEST(Two_frontends, keep_each_other_out) {
  expect_plays({
      {"a writer", "frontend: open, " + BUSY + "frontend: close, secondfrontend: open"},
      {"a reader", "reader: open, " + BUSY + "reader: close, secondfrontend: open"},
      {"readers, too", "secondfrontend: open, waits 4900 reader: open = EBUSY, secondreader: open"},
      {"one that is about to sleep", "frontend: open, frontend: close, waits 400 secondfrontend: open"},
      {"another program's", "control adapter 0 busy, " + BUSY + "control adapter 0 free, secondfrontend: open"},
  });
}

TEST(Two_frontends, are_waited_for) {
  Fd first(open_frontend());
  ASSERT_GE(first, 0);
  std::thread closes([&first] {
    usleep(2000000);
    EXPECT_EQ(first.reset(), 0);
  });
  const double begun = now_s();
  EXPECT_GE(Fd(open_frontend(O_RDWR, 1)), 0);
  EXPECT_GE(now_s() - begun, 2);
  closes.join();
}

TEST(Two_frontends, are_free_again_when_their_program_has_died) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    (void)open_frontend();
    (void)!write(ready[1], "x", 1);
    while (true)
      pause();
  }
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(result(open_frontend(O_RDWR, 1)), -EBUSY);
  EXPECT_EQ(kill(child, SIGKILL), 0);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_GE(Fd(open_frontend(O_RDWR, 1)), 0);
}

TEST(Two_frontends, go_and_come_back_together) {
  const std::string rest = "secondfrontend: status = ENODEV, secondfrontend2: open = ENOENT, reader: open = ENOENT, ";
  EXPECT_THAT("secondfrontend: open, control adapter 0 unplug, nodes = ENOENT, " + rest +
                  "control adapter 0 plug, nodes = demux0 dvr0 frontend0 frontend1, secondfrontend2: open, "
                  "secondfrontend2: seek T2 522000000, wait 2000, secondfrontend2: status = 1f",
              plays());
}
