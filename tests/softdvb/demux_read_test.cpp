#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "softdvb/device_support.h"

using namespace device;

TEST(Demux_open, nothing_works_without_a_filter) {
  const Fd fd(open_demux());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, read_size(fd));
  EXPECT_EQ(0, ready(fd));
  EXPECT_EQ(-EINVAL, result(ioctl(fd, DMX_START)));
  EXPECT_EQ(0, ioctl(fd, DMX_STOP));
}

TEST(Demux_open, unknown_calls_and_null_pointers_are_refused) {
  const Fd fd(open_demux());
  EXPECT_EQ(-ENOTTY, result(ioctl(fd, 0x5401, nullptr)));
  EXPECT_EQ(-ENOTTY, result(ioctl(fd, FE_READ_STATUS, nullptr)));
  EXPECT_EQ(-EFAULT, result(ioctl(fd, DMX_SET_FILTER, nullptr)));
}

TEST(Demux_open, a_bad_pid_fails_at_the_start_only) {
  const Fd fd(open_demux());
  EXPECT_EQ(0, set_filter(fd, all_of(0x2000, 0)));
  EXPECT_EQ(-EINVAL, result(ioctl(fd, DMX_START)));
  EXPECT_EQ(-EINVAL, result(set_filter(fd, all_of(0x2000))));
  EXPECT_EQ(0, set_filter(fd, all_of(0x1FFF, 0xFF00)));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
}

TEST(Demux_open, as_many_as_256_handles_work_at_once) {
  std::vector<int> fds;
  for (int i = 0; i < 256; ++i) {
    fds.push_back(open_demux());
    ASSERT_GE(fds.back(), 0) << i;
    ASSERT_EQ(0, set_filter(fds.back(), all_of(i % 2 == 0 ? PID : PID + i)));
  }
  EXPECT_EQ(-EMFILE, result(open_demux()));
  send_section(section_of(100));
  for (size_t i = 0; i < fds.size(); i += 2)
    ASSERT_EQ(100, read_size(fds[i])) << i;
  EXPECT_EQ(-EAGAIN, read_size(fds[1]));
  close(fds.back());
  fds.back() = open_demux();
  EXPECT_GE(fds.back(), 0);
  for (const int fd : fds)
    close(fd);
}

TEST(Demux_open, numbers_are_the_lowest_free_ones) {
  const int first = open_demux();
  const int second = open_demux();
  EXPECT_EQ(first + 1, second);
  close(first);
  EXPECT_EQ(first, open_demux());
  close(first);
  close(second);
}

TEST(Demux_read, gives_one_section_each) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100, 1));
  send_section(section_of(300, 2));
  send_section(section_of(50, 3));
  EXPECT_EQ(section_of(100, 1), read_bytes(fd));
  EXPECT_EQ(section_of(300, 2), read_bytes(fd));
  EXPECT_EQ(section_of(50, 3), read_bytes(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST(Demux_read, goes_on_in_a_section_that_was_read_in_part) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100, 1));
  send_section(section_of(60, 2));
  const Bytes whole = section_of(100, 1);
  EXPECT_EQ(0, read_size(fd, 0));
  EXPECT_EQ(Bytes(whole.begin(), whole.begin() + 40), read_bytes(fd, 40));
  EXPECT_EQ(READABLE, ready(fd));
  EXPECT_EQ(Bytes(whole.begin() + 40, whole.begin() + 80), read_bytes(fd, 40));
  EXPECT_EQ(Bytes(whole.begin() + 80, whole.end()), read_bytes(fd, 40));
  EXPECT_EQ(section_of(60, 2), read_bytes(fd));
}

TEST(Demux_read, takes_the_header_by_itself_and_byte_by_byte) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100, 1));
  send_section(section_of(100, 2));
  EXPECT_EQ(3, read_size(fd, 3));
  EXPECT_EQ(97, read_size(fd));
  EXPECT_EQ(1, read_size(fd, 1));
  EXPECT_EQ(1, read_size(fd, 1));
  EXPECT_EQ(98, read_size(fd));
}

TEST(Demux_read, shortest_and_longest_sections) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(short_section(0x70, 3));
  EXPECT_EQ(short_section(0x70, 3), read_bytes(fd));
  send_section(section_of(4096));
  EXPECT_EQ(section_of(4096), read_bytes(fd));
  send_section(section_of(4097));
  send_section(section_of(4098));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(20, 9));
  EXPECT_EQ(section_of(20, 9), read_bytes(fd));
}

TEST(Demux_read, every_repetition_comes) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  for (int i = 0; i < 5; ++i)
    send_section(section_of(30));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(section_of(30), read_bytes(fd));
}

TEST(Demux_read, returns_0_before_the_first_start_even_when_blocking) {
  const Fd fd(open_demux(O_RDONLY));
  EXPECT_EQ(0, read_size(fd));
  ASSERT_EQ(0, set_filter(fd, all_of(PID, 0)));
  EXPECT_EQ(0, read_size(fd));
  EXPECT_EQ(0, ready(fd));
}

TEST(Demux_read, says_eagain_once_started_and_stopped) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  ASSERT_EQ(0, ioctl(fd, DMX_STOP));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST(Demux_read, blocks_until_a_section_comes) {
  const Fd fd(open_demux(O_RDONLY));
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  std::atomic<long> got{-1};
  std::thread reader([&] { got = read_size(fd); });
  usleep(20000);
  EXPECT_EQ(-1, got);
  send_section(section_of(100));
  reader.join();
  EXPECT_EQ(100, got);
}

TEST(Demux_read, holds_up_other_threads_ioctls_while_it_blocks) {
  const Fd fd(open_demux(O_RDONLY));
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
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

static void ignore_signal(int) {}

// Interrupts a blocking read again and again, at most 20 times, then sends a section. Returns what the read returned.
static long read_with_signals(int flags) {
  struct sigaction action {};
  action.sa_handler = ignore_signal;
  action.sa_flags = flags;
  sigaction(SIGUSR1, &action, nullptr);
  const Fd fd(open_demux(O_RDONLY));
  set_filter(fd, all_of(PID));
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

TEST(Demux_read, ends_with_eintr_on_a_signal) {
  EXPECT_EQ(-EINTR, read_with_signals(0));
}

TEST(Demux_read, goes_on_after_a_signal_with_sa_restart) {
  EXPECT_EQ(77, read_with_signals(SA_RESTART));
}

TEST(Demux_read, blocks_once_started_and_stopped) {
  struct sigaction action {};
  action.sa_handler = ignore_signal;
  sigaction(SIGUSR1, &action, nullptr);
  const Fd fd(open_demux(O_RDONLY));
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  ASSERT_EQ(0, ioctl(fd, DMX_STOP));
  std::atomic<long> got{0};
  std::thread reader([&] { got = read_size(fd); });
  usleep(20000);
  EXPECT_EQ(0, got);
  for (int i = 0; i < 1000 && got == 0; ++i) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    usleep(10000);
  }
  reader.join();
  EXPECT_EQ(-EINTR, got);
}

TEST(Demux_read, readv_fills_part_after_part) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100));
  Bytes head(3);
  EXPECT_EQ(3, read(fd, head.data(), 3));
  EXPECT_EQ(97, read_size(fd));
}

TEST(Demux_write, is_refused) {
  const Fd fd(open_demux(O_RDWR));
  EXPECT_EQ(-EINVAL, result(write(fd, "x", 1)));
}
