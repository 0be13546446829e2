// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/select.h>

#include "softdvb/device_support.h"

using namespace device;

// Select's three sets: read 1, write 2, except 4.
static int select_sets(int fd) {
  fd_set sets[3];
  for (fd_set& set : sets) {
    FD_ZERO(&set);
    FD_SET(fd, &set);
  }
  timeval none{};
  if (select(fd + 1, &sets[0], &sets[1], &sets[2], &none) < 0)
    return -errno;
  return (FD_ISSET(fd, &sets[0]) ? 1 : 0) | (FD_ISSET(fd, &sets[1]) ? 2 : 0) | (FD_ISSET(fd, &sets[2]) ? 4 : 0);
}

class Demux : public testing::Test {
 protected:
  Fd fd{open_demux()};

  void start(dmx_sct_filter_params p = all_of(PID)) { ASSERT_EQ(set_filter(fd, p), 0); }
};

using Demux_poll = Demux;
using Demux_overflow = Demux;
using Demux_buffer = Demux;
using Demux_start = Demux;
using Demux_oneshot = Demux;
using Demux_timeout = Demux;

TEST_F(Demux_poll, shows_a_queued_section_and_a_part_of_one) {
  start();
  EXPECT_EQ(ready(fd), 0);
  EXPECT_EQ(select_sets(fd), 0);
  send_section(section_of(100));
  EXPECT_EQ(ready(fd), READABLE);
  EXPECT_EQ(select_sets(fd), 1 | 4);
  read_size(fd, 3);
  EXPECT_EQ(ready(fd), READABLE);
  EXPECT_EQ(select_sets(fd), 1 | 4);
  read_size(fd);
  EXPECT_EQ(ready(fd), 0);
  EXPECT_EQ(select_sets(fd), 0);
}

TEST_F(Demux_poll, shows_only_what_was_asked_for) {
  start();
  send_section(section_of(100));
  pollfd p{fd, POLLPRI, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1);
  EXPECT_EQ(p.revents, POLLPRI);
  p.events = POLLOUT;
  EXPECT_EQ(poll(&p, 1, 5), 0);
  EXPECT_EQ(p.revents, 0);
}

TEST_F(Demux_poll, shows_nothing_once_stopped) {
  start();
  send_section(section_of(100));
  ioctl(fd, DMX_STOP);
  EXPECT_EQ(ready(fd), 0);
}

TEST_F(Demux_poll, shows_an_overflow_as_an_error) {
  start();
  send_section(section_of(4096));
  send_section(section_of(4096));
  EXPECT_EQ(ready(fd), READABLE | POLLERR);
  EXPECT_EQ(select_sets(fd), 1 | 2 | 4);
  pollfd p{fd, 0, 0};
  EXPECT_EQ(poll(&p, 1, 5), 1);
  EXPECT_EQ(p.revents, POLLERR);
}

TEST_F(Demux_poll, wakes_when_a_section_comes_and_tells_other_descriptors_too) {
  start();
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

TEST_F(Demux_overflow, keeps_81_sections_of_100_bytes) {
  start();
  for (uint16_t i = 0; i < 81; ++i)
    send_section(section_of(100, i));
  for (uint16_t i = 0; i < 81; ++i)
    ASSERT_EQ(read_bytes(fd), section_of(100, i)) << i;
}

TEST_F(Demux_overflow, the_82nd_section_breaks_the_queue) {
  start();
  for (uint16_t i = 0; i < 82; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(100, 99));
  EXPECT_EQ(read_bytes(fd), section_of(100, 99));
}

TEST_F(Demux_overflow, holds_8191_bytes) {
  start();
  send_section(section_of(4096, 1));
  send_section(section_of(4095, 2));
  EXPECT_EQ(read_size(fd), 4096);
  EXPECT_EQ(read_size(fd), 4095);
  send_section(section_of(4096, 1));
  send_section(section_of(4096, 2));
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
}

TEST_F(Demux_overflow, drops_further_sections_until_it_is_read) {
  start();
  for (int i = 0; i < 3; ++i)
    send_section(section_of(4096));
  send_section(section_of(20));
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_overflow, inside_a_section_leaves_the_position_there) {
  start();
  send_section(section_of(100, 1));
  EXPECT_EQ(read_size(fd, 3), 3);
  send_section(section_of(4096, 2));
  send_section(section_of(4096, 3));
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
  send_section(section_of(150, 4));
  EXPECT_EQ(read_size(fd), 97);
  EXPECT_EQ(read_size(fd), 53);
}

TEST_F(Demux_overflow, a_restart_cures_the_position) {
  start();
  for (const bool stop_first : {false, true}) {
    send_section(section_of(100, 1));
    EXPECT_EQ(read_size(fd, 3), 3);
    send_section(section_of(4096, 2));
    send_section(section_of(4096, 3));
    EXPECT_EQ(read_size(fd), -EOVERFLOW);
    if (stop_first) {
      ASSERT_EQ(ioctl(fd, DMX_STOP), 0);
    }
    ASSERT_EQ(ioctl(fd, DMX_START), 0);
    send_section(section_of(150, 4));
    EXPECT_EQ(read_bytes(fd), section_of(150, 4)) << stop_first;
  }
}

TEST_F(Demux_overflow, is_forgotten_by_a_stop_or_a_new_filter) {
  start();
  send_section(section_of(4096));
  send_section(section_of(4096));
  ioctl(fd, DMX_STOP);
  ioctl(fd, DMX_START);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(4096));
  send_section(section_of(4096));
  start();
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_buffer, holds_one_byte_less_than_its_size) {
  ASSERT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 5000), 0);
  start();
  for (uint16_t i = 0; i < 49; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(read_size(fd), 100);
  start();
  for (uint16_t i = 0; i < 50; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
}

TEST_F(Demux_buffer, holds_199_sections_in_20000_bytes) {
  start(all_of(PID, 0));
  ASSERT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 20000), 0);
  ioctl(fd, DMX_START);
  for (int i = 0; i < 199; ++i)
    send_section(section_of(100));
  EXPECT_EQ(ready(fd), READABLE);
  send_section(section_of(100));
  EXPECT_EQ(ready(fd), READABLE | POLLERR);
}

TEST_F(Demux_buffer, sizes_that_are_taken_and_refused) {
  EXPECT_EQ(result(ioctl(fd, DMX_SET_BUFFER_SIZE, 0)), -EINVAL);
  EXPECT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 1), 0);
  EXPECT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 64 << 20), 0);
  start();
  EXPECT_EQ(result(ioctl(fd, DMX_SET_BUFFER_SIZE, 8192)), -EBUSY);
  EXPECT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 64 << 20), 0);
  ioctl(fd, DMX_STOP);
  EXPECT_EQ(ioctl(fd, DMX_SET_BUFFER_SIZE, 101), 0);
  ioctl(fd, DMX_START);
  send_section(section_of(100));
  EXPECT_EQ(read_size(fd), 100);
  start(all_of(PID + 1));
  send_section(section_of(101), PID + 1);
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
}

TEST_F(Demux_start, the_filter_survives_a_stop_but_not_the_queue) {
  start();
  send_section(section_of(100, 1));
  EXPECT_EQ(ioctl(fd, DMX_STOP), 0);
  EXPECT_EQ(ioctl(fd, DMX_STOP), 0);
  send_section(section_of(100, 2));
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(100, 3));
  EXPECT_EQ(read_bytes(fd), section_of(100, 3));
}

TEST_F(Demux_start, on_a_running_filter_begins_anew) {
  start();
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

TEST_F(Demux_start, leaves_the_queue_of_a_neighbour_alone) {
  start();
  send_section(section_of(60, 1));
  const Fd other(listening());
  ASSERT_EQ(ioctl(other, DMX_STOP), 0);
  EXPECT_EQ(read_bytes(fd), section_of(60, 1));
}

TEST_F(Demux_start, set_filter_replaces_a_running_filter_and_stops_it) {
  start();
  send_section(section_of(100, 1));
  ASSERT_EQ(set_filter(fd, all_of(PID + 1, 0)), 0);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(100, 2));
  send_section(section_of(100, 3), PID + 1);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  send_section(section_of(100, 4));
  send_section(section_of(100, 5), PID + 1);
  EXPECT_EQ(read_bytes(fd), section_of(100, 5));
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_start, set_filter_with_a_bad_pid_has_replaced_the_filter) {
  start();
  EXPECT_EQ(set_filter(fd, all_of(0x3000, 0)), 0);
  send_section(section_of(100));
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(result(ioctl(fd, DMX_START)), -EINVAL);
}

TEST_F(Demux_oneshot, gives_one_section_a_start) {
  start(all_of(PID, DMX_IMMEDIATE_START | DMX_ONESHOT));
  send_section(section_of(100, 1));
  send_section(section_of(100, 2));
  EXPECT_EQ(read_bytes(fd), section_of(100, 1));
  EXPECT_EQ(ready(fd), 0);
  send_section(section_of(100, 3));
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  send_section(section_of(100, 4));
  send_section(section_of(100, 5));
  EXPECT_EQ(read_bytes(fd), section_of(100, 4));
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_oneshot, keeps_its_feed_until_it_is_stopped) {
  start(all_of(PID, DMX_IMMEDIATE_START | DMX_ONESHOT));  // without CRC check
  send_section(section_of(100, 1));
  const Fd other(listening(PID, DMX_IMMEDIATE_START | DMX_CHECK_CRC));
  Bytes wrong = section_of(100, 2);
  wrong.back() ^= 1;
  send_section(wrong);
  EXPECT_EQ(read_bytes(other), wrong);
  // Given back, the next filter decides.
  ASSERT_EQ(ioctl(other, DMX_STOP), 0);
  ASSERT_EQ(ioctl(fd, DMX_STOP), 0);
  ASSERT_EQ(ioctl(other, DMX_START), 0);
  send_section(wrong);
  EXPECT_EQ(read_size(other), -EAGAIN);
}

TEST_F(Demux_timeout, runs_out_after_its_time) {
  dmx_sct_filter_params p = all_of(PID);
  p.timeout = 300;
  pollfd wait{fd, POLLIN, 0};
  expect_lasts(0.3, 3.0, [&] {
    start(p);
    EXPECT_EQ(poll(&wait, 1, 5000), 1);
  });
  EXPECT_EQ(wait.revents, POLLIN | POLLERR);
  EXPECT_EQ(ready(fd), READABLE | POLLERR);
  EXPECT_EQ(select_sets(fd), 1 | 2 | 4);
  EXPECT_EQ(read_size(fd), -ETIMEDOUT);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(ready(fd), 0);
}

TEST_F(Demux_timeout, leaves_the_filter_dead_until_a_start) {
  dmx_sct_filter_params p = all_of(PID);
  p.timeout = 100;
  start(p);
  usleep(400000);
  EXPECT_EQ(read_size(fd), -ETIMEDOUT);
  send_section(section_of(100, 1));
  EXPECT_EQ(read_size(fd), -EAGAIN);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  send_section(section_of(100, 2));
  EXPECT_EQ(read_bytes(fd), section_of(100, 2));
}

TEST_F(Demux_timeout, ends_with_the_first_section_that_matches) {
  dmx_sct_filter_params p = table_of(PID, table::SDT_ACTUAL);
  p.timeout = 2000;
  start(p);
  send_section(section_of(100, 1, table::SDT_ACTUAL));
  EXPECT_EQ(read_size(fd), 100);
  usleep(4000000);
  EXPECT_EQ(ready(fd), 0);
  send_section(section_of(100, 2, table::SDT_ACTUAL));
  EXPECT_EQ(read_size(fd), 100);
}

TEST_F(Demux_timeout, is_not_stopped_by_sections_that_do_not_match) {
  dmx_sct_filter_params p = table_of(PID, table::SDT_ACTUAL);
  p.timeout = 500;
  start(p);
  send_section(section_of(100, 1, table::SDT_OTHER));
  usleep(1500000);
  EXPECT_EQ(read_size(fd), -ETIMEDOUT);
}
