// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/session.h"

using namespace device;

TEST(Demux_ready, tells_of_sections_and_errors) {
  expect_plays({
      {"a queued section and a part of one",
       "filter 256, ready, send 100#1, ready = data, read 3 = 3, ready = data, "
       "read = 97, ready"},
      {"nothing once stopped", "filter 256, send 100#1, stop, ready"},
      {"an overflow is an error", "filter 256, send 4096#1, send 4096#1, ready = error"},
  });
}

TEST(Demux_poll, shows_only_what_was_asked_for) {
  const Fd fd(listening());
  send_section(section_of(100));
  pollfd p{fd, POLLPRI, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1);
  EXPECT_EQ(p.revents, POLLPRI);
  p.events = POLLOUT;
  EXPECT_EQ(poll(&p, 1, 5), 0);
  EXPECT_EQ(p.revents, 0);
}

TEST(Demux_poll, shows_an_overflow_without_being_asked) {
  const Fd fd(listening());
  send_section(section_of(4096));
  send_section(section_of(4096));
  pollfd p{fd, 0, 0};
  EXPECT_EQ(poll(&p, 1, 5), 1);
  EXPECT_EQ(p.revents, POLLERR);
}

TEST(Demux_poll, wakes_when_a_section_comes_and_tells_other_descriptors_too) {
  const Fd fd(listening());
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  pollfd p[2] = {{fd, POLLIN, 0}, {pipe_ends[0], POLLIN, 0}};
  EXPECT_EQ(poll(p, 2, 5), 0);
  EXPECT_EQ(write(pipe_ends[1], "x", 1), 1);
  EXPECT_EQ(poll(p, 2, 1000), 1);
  EXPECT_EQ(p[0].revents, 0);
  EXPECT_EQ(p[1].revents, POLLIN);
  send_section(section_of(100));
  EXPECT_EQ(poll(p, 2, 1000), 2);
  EXPECT_EQ(p[0].revents, POLLIN);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST(Demux_overflow, breaks_the_queue_until_it_was_read) {
  // A section, and half of it read; then more than fits.
  const std::string inside = "send 100#1, read 3 = 3, send 4096#2, send 4096#3, read = EOVERFLOW, ";
  expect_plays({
      {"81 sections of 100 bytes fit",
       "filter 256, " + counting("send 100#", 81) + counting("read = 100#", 81) + "read = EAGAIN"},
      {"the 82nd breaks the queue",
       "filter 256, " + counting("send 100#", 82) + "read = EOVERFLOW, read = EAGAIN, send 100#99, read = 100#99"},
      {"8191 bytes fit",
       "filter 256, send 4096#1, send 4095#2, read = 4096#1, read = 4095#2, "
       "send 4096#1, send 4096#2, read = EOVERFLOW"},
      {"further sections are dropped until it is read",
       "filter 256, send 4096#1, send 4096#1, send 4096#1, "
       "send 20#1, read = EOVERFLOW, read = EAGAIN"},
      {"the position inside a section stays", "filter 256, " + inside + "send 150#4, read = 97, read = 53"},
      {"a start cures the position", "filter 256, " + inside + "start, send 150#4, read = 150#4"},
      {"so does one after a stop", "filter 256, " + inside + "start, send 150#4, read = 150#4, " + inside +
                                       "stop, start, send 150#4, read = 150#4"},
      {"a stop forgets it", "filter 256, send 4096#1, send 4096#1, stop, start, read = EAGAIN"},
      {"so does a new filter", "filter 256, send 4096#1, send 4096#1, filter 256, read = EAGAIN"},
  });
}

TEST(Demux_buffer, holds_one_byte_less_than_its_size) {
  expect_plays({
      {"49 sections of 100 bytes in 5000", "buffer 5000, filter 256, " + counting("send 100#", 49) +
                                               "read = 100#0, filter 256, " + counting("send 100#", 50) +
                                               "read = EOVERFLOW"},
      {"199 in 20000", "filter 256 idle, buffer 20000, start, " + counting("send 100#", 199) +
                           "ready = data, send 100#1, ready = error"},
      {"sizes that are taken and refused",
       "buffer 0 = EINVAL, buffer 1, buffer 67108864, filter 256, "
       "buffer 8192 = EBUSY, buffer 67108864, stop, buffer 101, start, "
       "send 100#1, read = 100#1, filter 257, send 101#1 257, read = EOVERFLOW"},
  });
}

TEST(Demux_start, begins_with_an_empty_queue) {
  expect_plays({
      {"the filter survives a stop but not the queue",
       "filter 256, send 100#1, stop, stop, send 100#2, read = EAGAIN, "
       "start, read = EAGAIN, send 100#3, read = 100#3"},
      {"a neighbour's queue is left alone", "filter 256, send 60#1, other: filter 256, other: stop, read = 60#1"},
      {"another filter replaces a running one and stops it",
       "filter 256, send 100#1, filter 257 idle, read = EAGAIN, send 100#2, send 100#3 257, read = EAGAIN, start, "
       "send 100#4, send 100#5 257, read = 100#5, read = EAGAIN"},
      {"so does one with a bad PID", "filter 256, filter 12288 idle, send 100#1, read = EAGAIN, start = EINVAL"},
  });
}

TEST(Demux_start, on_a_running_filter_begins_anew) {
  const Fd fd(listening());
  send_section(section_of(100, 1));
  Ts_writer ts;
  ts.section(PID, section_of(300, 2));
  const Bytes all = ts.bytes;
  ts.bytes = Bytes(all.begin(), all.begin() + 188);
  send(ts);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  ts.bytes = Bytes(all.begin() + 188, all.end());
  send(ts);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(100, 3));
  EXPECT_EQ(read_bytes(fd), section_of(100, 3));
}

TEST(Demux_oneshot, gives_one_section_a_start) {
  expect_plays({
      {"one section",
       "filter 256 oneshot, send 100#1, send 100#2, read = 100#1, ready, send 100#3, read = EAGAIN, "
       "start, send 100#4, send 100#5, read = 100#4, read = EAGAIN"},
      // The first filter of a PID, without CRC check here, decides for all until it is given back.
      {"keeps its feed until it is stopped",
       "filter 256 oneshot, send 100#1, other: filter 256 crc, send 100#2!, "
       "other: read = 100#2!, other: stop, stop, other: start, send 100#2!, "
       "other: read = EAGAIN"},
  });
}

TEST(Demux_timeout, runs_out_after_its_time) {
  const Fd fd(open_demux());
  dmx_sct_filter_params p = all_of(PID);
  p.timeout = 300;
  pollfd wait{fd, POLLIN, 0};
  expect_lasts(0.3, 3.0, [&] {
    ASSERT_EQ(set_filter(fd, p), 0);
    EXPECT_EQ(poll(&wait, 1, 5000), 1);
  });
  EXPECT_EQ(wait.revents, POLLIN | POLLERR);
}

TEST(Demux_timeout, ends_the_filter_unless_a_section_matches) {
  expect_plays({
      {"it is an error once",
       "filter 256 timeout:300, wait 1000, ready = error, read = ETIMEDOUT, read = EAGAIN, ready"},
      {"the filter is dead until a start",
       "filter 256 timeout:100, wait 400, read = ETIMEDOUT, send 100#1, "
       "read = EAGAIN, start, send 100#2, read = 100#2"},
      {"the first section that matches ends it",
       "filter 256 timeout:2000 table:66, send 100#1, read = 100#1, "
       "wait 4000, ready, send 100#2, read = 100#2"},
      {"one that does not match does not", "filter 256 timeout:500 table:70, send 100#1, wait 1500, read = ETIMEDOUT"},
  });
}
