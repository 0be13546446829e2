// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <pthread.h>

#include "softdvb/device_support.h"

using namespace device;

TEST(Demux_open, nothing_works_without_a_filter) {
  const Fd fd(open_demux());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(read_size(fd), 0);
  EXPECT_EQ(ready(fd), 0);
  EXPECT_EQ(result(ioctl(fd, DMX_START)), -EINVAL);
  EXPECT_EQ(ioctl(fd, DMX_STOP), 0);
}

TEST(Demux_open, unknown_calls_and_null_pointers_are_refused) {
  const Fd fd(open_demux());
  EXPECT_EQ(result(ioctl(fd, 0x5401, nullptr)), -ENOTTY);
  EXPECT_EQ(result(ioctl(fd, FE_READ_STATUS, nullptr)), -ENOTTY);
  EXPECT_EQ(result(ioctl(fd, DMX_SET_FILTER, nullptr)), -EFAULT);
}

TEST(Demux_open, a_bad_pid_fails_at_the_start_only) {
  const Fd fd(open_demux());
  EXPECT_EQ(set_filter(fd, all_of(pid::LAST + 1, 0)), 0);
  EXPECT_EQ(result(ioctl(fd, DMX_START)), -EINVAL);
  EXPECT_EQ(result(set_filter(fd, all_of(pid::LAST + 1))), -EINVAL);
  EXPECT_EQ(set_filter(fd, all_of(pid::LAST, 0xFF00)), 0);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
}

TEST(Demux_open, as_many_as_256_handles_work_at_once) {
  std::vector<int> fds;
  for (int i = 0; i < 256; ++i) {
    fds.push_back(open_demux());
    ASSERT_GE(fds.back(), 0) << i;
    ASSERT_EQ(set_filter(fds.back(), all_of(i % 2 == 0 ? PID : PID + i)), 0);
  }
  EXPECT_EQ(result(open_demux()), -EMFILE);
  send_section(section_of(100));
  for (size_t i = 0; i < fds.size(); i += 2)
    ASSERT_EQ(read_size(fds[i]), 100) << i;
  EXPECT_EQ(read_size(fds[1]), -EAGAIN);
  close(fds.back());
  fds.back() = open_demux();
  EXPECT_GE(fds.back(), 0);
  for (const int fd : fds)
    close(fd);
}

TEST(Demux_open, numbers_are_the_lowest_free_ones) {
  const int first = open_demux();
  const int second = open_demux();
  EXPECT_EQ(second, first + 1);
  close(first);
  EXPECT_EQ(open_demux(), first);
  close(first);
  close(second);
}

class Demux_read : public testing::Test {
 protected:
  const Fd fd{listening()};
};

class Demux_read_blocking : public testing::Test {
 protected:
  const Fd fd{listening(PID, DMX_IMMEDIATE_START, O_RDONLY)};
};

TEST_F(Demux_read, gives_one_section_each) {
  send_section(section_of(100, 1));
  send_section(section_of(300, 2));
  send_section(section_of(50, 3));
  EXPECT_EQ(read_bytes(fd), section_of(100, 1));
  EXPECT_EQ(read_bytes(fd), section_of(300, 2));
  EXPECT_EQ(read_bytes(fd), section_of(50, 3));
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_read, goes_on_in_a_section_that_was_read_in_part) {
  send_section(section_of(100, 1));
  send_section(section_of(60, 2));
  const Bytes whole = section_of(100, 1);
  EXPECT_EQ(read_size(fd, 0), 0);
  EXPECT_EQ(read_bytes(fd, 40), Bytes(whole.begin(), whole.begin() + 40));
  EXPECT_EQ(ready(fd), READABLE);
  EXPECT_EQ(read_bytes(fd, 40), Bytes(whole.begin() + 40, whole.begin() + 80));
  EXPECT_EQ(read_bytes(fd, 40), Bytes(whole.begin() + 80, whole.end()));
  EXPECT_EQ(read_bytes(fd), section_of(60, 2));
}

TEST_F(Demux_read, takes_the_header_by_itself_and_byte_by_byte) {
  send_section(section_of(100, 1));
  send_section(section_of(100, 2));
  EXPECT_EQ(read_size(fd, 3), 3);
  EXPECT_EQ(read_size(fd), 97);
  EXPECT_EQ(read_size(fd, 1), 1);
  EXPECT_EQ(read_size(fd, 1), 1);
  EXPECT_EQ(read_size(fd), 98);
}

TEST_F(Demux_read, shortest_and_longest_sections) {
  send_section(short_section(table::TDT, 3));
  EXPECT_EQ(read_bytes(fd), short_section(table::TDT, 3));
  send_section(section_of(4096));
  EXPECT_EQ(read_bytes(fd), section_of(4096));
  send_section(section_of(4097));
  send_section(section_of(4098));
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(20, 9));
  EXPECT_EQ(read_bytes(fd), section_of(20, 9));
}

TEST_F(Demux_read, every_repetition_comes) {
  for (int i = 0; i < 5; ++i)
    send_section(section_of(30));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(read_bytes(fd), section_of(30));
}

TEST(Demux_open, returns_0_before_the_first_start_even_when_blocking) {
  const Fd fd(open_demux(O_RDONLY));
  EXPECT_EQ(read_size(fd), 0);
  ASSERT_EQ(set_filter(fd, all_of(PID, 0)), 0);
  EXPECT_EQ(read_size(fd), 0);
  EXPECT_EQ(ready(fd), 0);
}

TEST_F(Demux_read, says_eagain_once_started_and_stopped) {
  EXPECT_EQ(read_size(fd), -EAGAIN);
  ASSERT_EQ(ioctl(fd, DMX_STOP), 0);
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST_F(Demux_read_blocking, blocks_until_a_section_comes) {
  std::atomic<long> got{-1};
  std::thread reader([&] { got = read_size(fd); });
  usleep(20000);
  EXPECT_EQ(got, -1);
  send_section(section_of(100));
  reader.join();
  EXPECT_EQ(got, 100);
}

TEST_F(Demux_read_blocking, holds_up_other_threads_ioctls_while_it_blocks) {
  std::atomic<bool> reading{true};
  std::thread reader([&] {
    read_size(fd);
    reading = false;
  });
  usleep(20000);
  std::atomic<bool> stopped{false};
  bool stopped_after_read = false;
  std::thread stopper([&] {
    ioctl(fd, DMX_STOP);
    stopped_after_read = !reading;
    stopped = true;
  });
  usleep(20000);
  EXPECT_FALSE(stopped);
  send_section(section_of(100));
  reader.join();
  stopper.join();
  EXPECT_TRUE(stopped);
}

static void interruptible(int flags) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = flags;
  sigaction(SIGUSR1, &action, nullptr);
}

// Interrupts a blocking read again and again, at most 20 times, then sends a section. Returns what the read returned.
static long read_with_signals(int flags) {
  interruptible(flags);
  const Fd fd(listening(PID, DMX_IMMEDIATE_START, O_RDONLY));
  long got = 0;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    got = read_size(fd);
    done = true;
  });
  for (int i = 0; i < 20 && !done; ++i) {
    usleep(10000);
    pthread_kill(reader.native_handle(), SIGUSR1);
  }
  send_section(section_of(77));
  reader.join();
  return got;
}

TEST(Demux_signal, ends_with_eintr_on_a_signal) {
  EXPECT_EQ(read_with_signals(0), -EINTR);
}

TEST(Demux_signal, goes_on_after_a_signal_with_sa_restart) {
  EXPECT_EQ(read_with_signals(SA_RESTART), 77);
}

TEST(Demux_signal, blocks_once_started_and_stopped) {
  interruptible(0);
  const Fd fd(listening(PID, DMX_IMMEDIATE_START, O_RDONLY));
  ASSERT_EQ(ioctl(fd, DMX_STOP), 0);
  std::atomic<long> got{0};
  std::thread reader([&] { got = read_size(fd); });
  usleep(20000);
  EXPECT_EQ(got, 0);
  for (int i = 0; i < 1000 && got == 0; ++i) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    usleep(10000);
  }
  reader.join();
  EXPECT_EQ(got, -EINTR);
}

TEST_F(Demux_read, readv_fills_part_after_part) {
  send_section(section_of(100));
  Bytes head(3);
  EXPECT_EQ(read(fd, head.data(), 3), 3);
  EXPECT_EQ(read_size(fd), 97);
}

TEST(Demux_write, is_refused) {
  const Fd fd(open_demux(O_RDWR));
  EXPECT_EQ(result(write(fd, "x", 1)), -EINVAL);
}
