// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <pthread.h>

#include "softdvb/session.h"

using namespace device;

TEST(Demux_open, unknown_calls_null_pointers_and_writing_are_refused) {
  const Fd fd(open_demux());
  EXPECT_EQ(result(ioctl(fd, 0x5401, nullptr)), -ENOTTY);
  EXPECT_EQ(result(ioctl(fd, FE_READ_STATUS, nullptr)), -ENOTTY);
  EXPECT_EQ(result(ioctl(fd, DMX_SET_FILTER, nullptr)), -EFAULT);
  const Fd writable(open_demux(O_RDWR));
  EXPECT_EQ(result(write(writable, "x", 1)), -EINVAL);
}

TEST(Demux_open, flags_that_do_not_exist_are_ignored) {
  const Fd fd(open_demux());
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

TEST(Demux_open, returns_0_before_the_first_start_even_when_blocking) {
  const Fd fd(open_demux(O_RDONLY));
  EXPECT_EQ(read_size(fd), 0);
  ASSERT_EQ(set_filter(fd, all_of(PID, 0)), 0);
  EXPECT_EQ(read_size(fd), 0);
  EXPECT_EQ(ready(fd), 0);
}

TEST(Demux_read, from_a_filter_that_does_not_block) {
  expect_plays({
      {"nothing works without a filter", "read, ready, start = EINVAL, stop"},
      {"a bad PID fails at the start only", "filter 8192 idle, start = EINVAL, filter 8192 = EINVAL"},
      {"one section each",
       "filter 256, send 100#1, send 300#2, send 50#3, read = 100#1, read = 300#2, read = 50#3, "
       "read = EAGAIN"},
      {"the header by itself and byte by byte",
       "filter 256, send 100#1, send 100#2, read 3 = 3, read = 97, "
       "read 1 = 1, read 1 = 1, read = 98"},
      {"the longest section",
       "filter 256, send 4096#1, read = 4096#1, send 4097#1, send 4098#1, read = EAGAIN, "
       "send 20#9, read = 20#9"},
      {"every repetition comes",
       "filter 256, send 30#1, send 30#1, send 30#1, send 30#1, send 30#1, read = 30#1, "
       "read = 30#1, read = 30#1, read = 30#1, read = 30#1"},
      {"EAGAIN once started and stopped", "filter 256, read = EAGAIN, stop, read = EAGAIN"},
  });
}

TEST(Demux_read, goes_on_in_a_section_that_was_read_in_part) {
  const Fd fd(listening());
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

TEST(Demux_read, gives_the_shortest_section) {
  const Fd fd(listening());
  send_section(short_section(table::TDT, 3));
  EXPECT_EQ(read_bytes(fd), short_section(table::TDT, 3));
}

class Demux_read_blocking : public testing::Test {
 protected:
  const Fd fd{listening(PID, DMX_IMMEDIATE_START, O_RDONLY)};

  static void interruptible(int flags) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = flags;
    sigaction(SIGUSR1, &action, nullptr);
  }

  // Interrupts a blocking read again and again, at most 20 times, then sends a section. Returns what the read returned.
  long read_with_signals(int flags) const {
    interruptible(flags);
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
};

TEST_F(Demux_read_blocking, blocks_until_a_section_comes) {
  std::atomic<long> got{-1};
  std::thread reader([&] { got = read_size(fd); });
  usleep(20000);
  EXPECT_EQ(got, -1);
  send_section(section_of(100));
  reader.join();
  EXPECT_EQ(got, 100);
}

// Until the thread waits in the kernel, which of a thread that does nothing but read is the read.
static void wait_until_asleep(const std::atomic<pid_t>& thread) {
  std::string state;
  while (thread == 0 || state.find(") S ") == std::string::npos) {
    usleep(1000);
    state = support::read_file("/proc/self/task/" + std::to_string(thread) + "/stat");
  }
}

TEST_F(Demux_read_blocking, holds_up_other_threads_ioctls_while_it_blocks) {
  std::atomic<pid_t> reading{0};
  std::thread reader([&] {
    reading = gettid();
    read_size(fd);
  });
  wait_until_asleep(reading);
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    ioctl(fd, DMX_STOP);
    stopped = true;
  });
  usleep(20000);
  EXPECT_FALSE(stopped);
  send_section(section_of(100));
  reader.join();
  stopper.join();
  EXPECT_TRUE(stopped);
}

TEST_F(Demux_read_blocking, ends_with_eintr_on_a_signal) {
  EXPECT_EQ(read_with_signals(0), -EINTR);
}

TEST_F(Demux_read_blocking, goes_on_after_a_signal_with_sa_restart) {
  EXPECT_EQ(read_with_signals(SA_RESTART), 77);
}

TEST_F(Demux_read_blocking, blocks_once_started_and_stopped) {
  interruptible(0);
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
