#include <sys/select.h>

#include <gtest/gtest.h>

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

  void start(dmx_sct_filter_params p = all_of(PID)) { ASSERT_EQ(0, set_filter(fd, p)); }
};

using Demux_poll = Demux;
using Demux_overflow = Demux;
using Demux_buffer = Demux;
using Demux_start = Demux;
using Demux_oneshot = Demux;
using Demux_timeout = Demux;

TEST_F(Demux_poll, shows_a_queued_section_and_a_part_of_one) {
  start();
  EXPECT_EQ(0, ready(fd));
  EXPECT_EQ(0, select_sets(fd));
  send_section(section_of(100));
  EXPECT_EQ(READABLE, ready(fd));
  EXPECT_EQ(1 | 4, select_sets(fd));
  read_size(fd, 3);
  EXPECT_EQ(READABLE, ready(fd));
  EXPECT_EQ(1 | 4, select_sets(fd));
  read_size(fd);
  EXPECT_EQ(0, ready(fd));
  EXPECT_EQ(0, select_sets(fd));
}

TEST_F(Demux_poll, shows_only_what_was_asked_for) {
  start();
  send_section(section_of(100));
  pollfd p{fd, POLLPRI, 0};
  EXPECT_EQ(1, poll(&p, 1, 0));
  EXPECT_EQ(POLLPRI, p.revents);
  p.events = POLLOUT;
  EXPECT_EQ(0, poll(&p, 1, 5));
  EXPECT_EQ(0, p.revents);
}

TEST_F(Demux_poll, shows_nothing_once_stopped) {
  start();
  send_section(section_of(100));
  ioctl(fd, DMX_STOP);
  EXPECT_EQ(0, ready(fd));
}

TEST_F(Demux_poll, shows_an_overflow_as_an_error) {
  start();
  send_section(section_of(4096));
  send_section(section_of(4096));
  EXPECT_EQ(READABLE | POLLERR, ready(fd));
  EXPECT_EQ(1 | 2 | 4, select_sets(fd));
  pollfd p{fd, 0, 0};
  EXPECT_EQ(1, poll(&p, 1, 5));
  EXPECT_EQ(POLLERR, p.revents);
}

TEST_F(Demux_poll, wakes_when_a_section_comes_and_tells_other_descriptors_too) {
  start();
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  pollfd p[2] = {{fd, POLLIN, 0}, {pipe_ends[0], POLLIN, 0}};
  EXPECT_EQ(0, poll(p, 2, 5));
  EXPECT_EQ(1, write(pipe_ends[1], "x", 1));
  EXPECT_EQ(1, poll(p, 2, 1000));
  EXPECT_EQ(0, p[0].revents);
  EXPECT_EQ(POLLIN, p[1].revents);
  send_section(section_of(100));
  EXPECT_EQ(2, poll(p, 2, 1000));
  EXPECT_EQ(POLLIN, p[0].revents);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST_F(Demux_overflow, keeps_81_sections_of_100_bytes) {
  start();
  for (uint16_t i = 0; i < 81; ++i)
    send_section(section_of(100, i));
  for (uint16_t i = 0; i < 81; ++i)
    ASSERT_EQ(section_of(100, i), read_bytes(fd)) << i;
}

TEST_F(Demux_overflow, the_82nd_section_breaks_the_queue) {
  start();
  for (uint16_t i = 0; i < 82; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(100, 99));
  EXPECT_EQ(section_of(100, 99), read_bytes(fd));
}

TEST_F(Demux_overflow, holds_8191_bytes) {
  start();
  send_section(section_of(4096, 1));
  send_section(section_of(4095, 2));
  EXPECT_EQ(4096, read_size(fd));
  EXPECT_EQ(4095, read_size(fd));
  send_section(section_of(4096, 1));
  send_section(section_of(4096, 2));
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
}

TEST_F(Demux_overflow, drops_further_sections_until_it_is_read) {
  start();
  for (int i = 0; i < 3; ++i)
    send_section(section_of(4096));
  send_section(section_of(20));
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST_F(Demux_overflow, inside_a_section_leaves_the_position_there) {
  start();
  send_section(section_of(100, 1));
  EXPECT_EQ(3, read_size(fd, 3));
  send_section(section_of(4096, 2));
  send_section(section_of(4096, 3));
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
  send_section(section_of(150, 4));
  EXPECT_EQ(97, read_size(fd));
  EXPECT_EQ(53, read_size(fd));
}

TEST_F(Demux_overflow, a_restart_cures_the_position) {
  start();
  for (const bool stop_first : {false, true}) {
    send_section(section_of(100, 1));
    EXPECT_EQ(3, read_size(fd, 3));
    send_section(section_of(4096, 2));
    send_section(section_of(4096, 3));
    EXPECT_EQ(-EOVERFLOW, read_size(fd));
    if (stop_first) {
      ASSERT_EQ(0, ioctl(fd, DMX_STOP));
    }
    ASSERT_EQ(0, ioctl(fd, DMX_START));
    send_section(section_of(150, 4));
    EXPECT_EQ(section_of(150, 4), read_bytes(fd)) << stop_first;
  }
}

TEST_F(Demux_overflow, is_forgotten_by_a_stop_or_a_new_filter) {
  start();
  send_section(section_of(4096));
  send_section(section_of(4096));
  ioctl(fd, DMX_STOP);
  ioctl(fd, DMX_START);
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(4096));
  send_section(section_of(4096));
  start();
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST_F(Demux_buffer, holds_one_byte_less_than_its_size) {
  ASSERT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 5000));
  start();
  for (uint16_t i = 0; i < 49; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(100, read_size(fd));
  start();
  for (uint16_t i = 0; i < 50; ++i)
    send_section(section_of(100, i));
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
}

TEST_F(Demux_buffer, holds_199_sections_in_20000_bytes) {
  start(all_of(PID, 0));
  ASSERT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 20000));
  ioctl(fd, DMX_START);
  for (int i = 0; i < 199; ++i)
    send_section(section_of(100));
  EXPECT_EQ(READABLE, ready(fd));
  send_section(section_of(100));
  EXPECT_EQ(READABLE | POLLERR, ready(fd));
}

TEST_F(Demux_buffer, sizes_that_are_taken_and_refused) {
  EXPECT_EQ(-EINVAL, result(ioctl(fd, DMX_SET_BUFFER_SIZE, 0)));
  EXPECT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 1));
  EXPECT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 64 << 20));
  start();
  EXPECT_EQ(-EBUSY, result(ioctl(fd, DMX_SET_BUFFER_SIZE, 8192)));
  EXPECT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 64 << 20));
  ioctl(fd, DMX_STOP);
  EXPECT_EQ(0, ioctl(fd, DMX_SET_BUFFER_SIZE, 101));
  ioctl(fd, DMX_START);
  send_section(section_of(100));
  EXPECT_EQ(100, read_size(fd));
  start(all_of(PID + 1));
  send_section(section_of(101), PID + 1);
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
}

TEST_F(Demux_start, the_filter_survives_a_stop_but_not_the_queue) {
  start();
  send_section(section_of(100, 1));
  EXPECT_EQ(0, ioctl(fd, DMX_STOP));
  EXPECT_EQ(0, ioctl(fd, DMX_STOP));
  send_section(section_of(100, 2));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(100, 3));
  EXPECT_EQ(section_of(100, 3), read_bytes(fd));
}

TEST_F(Demux_start, on_a_running_filter_begins_anew) {
  start();
  send_section(section_of(100, 1));
  Ts_writer ts;
  ts.section(PID, section_of(300, 2));
  const Bytes all = ts.bytes;
  ts.bytes = Bytes(all.begin(), all.begin() + 188);
  send(ts);
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  ts.bytes = Bytes(all.begin() + 188, all.end());
  send(ts);
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(100, 3));
  EXPECT_EQ(section_of(100, 3), read_bytes(fd));
}

TEST_F(Demux_start, leaves_the_queue_of_a_neighbour_alone) {
  start();
  send_section(section_of(60, 1));
  const Fd other(open_demux());
  ASSERT_EQ(0, set_filter(other, all_of(PID)));
  ASSERT_EQ(0, ioctl(other, DMX_STOP));
  EXPECT_EQ(section_of(60, 1), read_bytes(fd));
}

TEST_F(Demux_start, set_filter_replaces_a_running_filter_and_stops_it) {
  start();
  send_section(section_of(100, 1));
  ASSERT_EQ(0, set_filter(fd, all_of(PID + 1, 0)));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(100, 2));
  send_section(section_of(100, 3), PID + 1);
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  send_section(section_of(100, 4));
  send_section(section_of(100, 5), PID + 1);
  EXPECT_EQ(section_of(100, 5), read_bytes(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST_F(Demux_start, set_filter_with_a_bad_pid_has_replaced_the_filter) {
  start();
  EXPECT_EQ(0, set_filter(fd, all_of(0x3000, 0)));
  send_section(section_of(100));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(-EINVAL, result(ioctl(fd, DMX_START)));
}

TEST_F(Demux_oneshot, gives_one_section_a_start) {
  start(all_of(PID, DMX_IMMEDIATE_START | DMX_ONESHOT));
  send_section(section_of(100, 1));
  send_section(section_of(100, 2));
  EXPECT_EQ(section_of(100, 1), read_bytes(fd));
  EXPECT_EQ(0, ready(fd));
  send_section(section_of(100, 3));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  send_section(section_of(100, 4));
  send_section(section_of(100, 5));
  EXPECT_EQ(section_of(100, 4), read_bytes(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST_F(Demux_oneshot, keeps_its_feed_until_it_is_stopped) {
  start(all_of(PID, DMX_IMMEDIATE_START | DMX_ONESHOT));  // without CRC check
  send_section(section_of(100, 1));
  const Fd other(open_demux());
  ASSERT_EQ(0, set_filter(other, all_of(PID, DMX_IMMEDIATE_START | DMX_CHECK_CRC)));
  Bytes wrong = section_of(100, 2);
  wrong.back() ^= 1;
  send_section(wrong);
  EXPECT_EQ(wrong, read_bytes(other));
  // Given back, the next filter decides.
  ASSERT_EQ(0, ioctl(other, DMX_STOP));
  ASSERT_EQ(0, ioctl(fd, DMX_STOP));
  ASSERT_EQ(0, ioctl(other, DMX_START));
  send_section(wrong);
  EXPECT_EQ(-EAGAIN, read_size(other));
}

TEST_F(Demux_timeout, runs_out_after_its_time) {
  dmx_sct_filter_params p = all_of(PID);
  p.timeout = 300;
  const double begin = now_s();
  start(p);
  pollfd wait{fd, POLLIN, 0};
  EXPECT_EQ(1, poll(&wait, 1, 5000));
  const double passed = now_s() - begin;
  EXPECT_GE(passed, 0.3);
  EXPECT_LT(passed, 3.0);
  EXPECT_EQ(POLLIN | POLLERR, wait.revents);
  EXPECT_EQ(READABLE | POLLERR, ready(fd));
  EXPECT_EQ(1 | 2 | 4, select_sets(fd));
  EXPECT_EQ(-ETIMEDOUT, read_size(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(0, ready(fd));
}

TEST_F(Demux_timeout, leaves_the_filter_dead_until_a_start) {
  dmx_sct_filter_params p = all_of(PID);
  p.timeout = 100;
  start(p);
  usleep(400000);
  EXPECT_EQ(-ETIMEDOUT, read_size(fd));
  send_section(section_of(100, 1));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  send_section(section_of(100, 2));
  EXPECT_EQ(section_of(100, 2), read_bytes(fd));
}

TEST_F(Demux_timeout, ends_with_the_first_section_that_matches) {
  dmx_sct_filter_params p = table_of(PID, 0x42);
  p.timeout = 2000;
  start(p);
  send_section(section_of(100, 1, 0x42));
  EXPECT_EQ(100, read_size(fd));
  usleep(4000000);
  EXPECT_EQ(0, ready(fd));
  send_section(section_of(100, 2, 0x42));
  EXPECT_EQ(100, read_size(fd));
}

TEST_F(Demux_timeout, is_not_stopped_by_sections_that_do_not_match) {
  dmx_sct_filter_params p = table_of(PID, 0x42);
  p.timeout = 500;
  start(p);
  send_section(section_of(100, 1, 0x46));
  usleep(1500000);
  EXPECT_EQ(-ETIMEDOUT, read_size(fd));
}
