// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/session.h"

// Run with the counting stream on 506 MHz. What a program notices of a device that is pulled out, as on Linux 6.1.
using namespace device;

static const std::string UNPLUG = "control adapter 0 unplug, ";
static const std::string PLUG = "control adapter 0 plug, ";
static const std::string ALL_NODES = "nodes = demux0 dvr0 frontend0, ";

TEST(Plug, a_frontend_that_goes_answers_nothing_more) {
  EXPECT_THAT("reader: open, tune 506000000, wait 400, status = 1f, " + UNPLUG +
                  "status = ENODEV, info = ENODEV, tune 506000000 = ENODEV, event = ENODEV, tuning = ENODEV, "
                  "systems = ENODEV, frontend: ready, reader: status = ENODEV, reader: tune 506000000 = ENODEV, "
                  "reader: ready, frontend2: open = ENOENT, reader2: open = ENOENT",
              plays());
}

TEST(Plug, a_demultiplexer_that_goes_is_ready_for_ever_and_gives_nothing) {
  EXPECT_THAT("filter 256, send 100#1, other: filter 257, dvr: open, " + UNPLUG +
                  "ready = gone, read = 100#1, read = EAGAIN, read = EAGAIN, ready = gone, send 100#2, read = EAGAIN, "
                  "other: ready = gone, other: read = EAGAIN, other: stop, other: start, other: filter 300, "
                  "other: buffer 20000 = EBUSY, other: read = EAGAIN, dvr: ready = gone, dvr: read = ENODEV, "
                  "dvr2: open = ENODEV, more: open = ENODEV",
              plays());
}

TEST(Plug, the_files_go_with_the_last_handle) {
  EXPECT_THAT(ALL_NODES + "demux: open, frontend: open, " + UNPLUG +
                  "nodes = demux0 dvr0, frontend: close, nodes = demux0 dvr0, demux: close, nodes = ENOENT, "
                  "demux: open = ENOENT",
              plays());
}

TEST(Plug, what_is_plugged_in_again_is_another_device) {
  const std::string lock = "tune 506000000, wait 400, ";
  EXPECT_THAT(lock + "status = 1f, demux: filter 256, " + UNPLUG + PLUG + ALL_NODES +
                  "status = ENODEV, demux: ready = gone, frontend2: open, frontend2: status = 0, frontend2: " + lock +
                  "frontend2: status = 1f, status = ENODEV, new: filter 256, new: await, frontend: close, "
                  "frontend2: status = 1f",
              plays());
}

TEST(Plug, a_second_time_is_as_good_as_the_first) {
  const std::string round = UNPLUG + UNPLUG + "nodes = ENOENT, " + PLUG + PLUG + ALL_NODES;
  EXPECT_THAT(round + round + "tune 506000000, wait 400, status = 1f", plays());
}

TEST(Plug, a_read_that_waits_goes_on_to_wait) {
  const Fd fd(listening(PID, DMX_IMMEDIATE_START, O_RDONLY));
  std::atomic<long> outcome{0};
  std::thread reader([&] { outcome = read_size(fd); });
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  usleep(500000);
  support::softdvb_control("adapter 0 unplug");
  usleep(2000000);
  EXPECT_EQ(outcome, 0);
  for (int i = 0; i < 500 && outcome == 0; ++i) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    usleep(100000);
  }
  reader.join();
  EXPECT_EQ(outcome, -EINTR);
}

TEST(Plug, a_program_that_polls_is_woken) {
  const Fd fd(listening(0x700));
  std::thread other([] {
    usleep(1000000);
    support::softdvb_control("adapter 0 unplug");
  });
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 600000), 1);
  EXPECT_EQ(p.revents, POLLERR);
  other.join();
}
