// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/epoll.h>

#include "softdvb/device_support.h"

// Run with adapters 0 and 1, both with the counting stream on 506 MHz.
using namespace device;

static constexpr uint32_t FREQ = 506000000;

// Runs `work` in a child; true when it returned true there.
template <typename Work>
static bool in_child(Work&& work) {
  const pid_t child = fork();
  if (child == 0)
    _exit(work() ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

static bool read_within(int fd, int ms) {
  return readable_within(fd, ms) && read_size(fd) > 0;
}

class Processes_tuned : public testing::Test {
 protected:
  const Fd fd{open_frontend()};

  void SetUp() override { ASSERT_EQ(tune(fd, FREQ), 0); }
};

TEST_F(Processes_tuned, share_the_frontend) {
  EXPECT_TRUE(in_child([] {
    if (result(open_frontend()) != -EBUSY)
      return false;
    usleep(500000);
    return status_of(Fd(open_frontend(O_RDONLY))) == 0x1F;
  }));
}

TEST_F(Processes_tuned, each_plays_the_stream_for_itself) {
  const Fd demux(listening());
  EXPECT_TRUE(in_child([] {
    const Fd own(open_demux());
    return set_filter(own, all_of(PID)) == 0 && read_within(own, 5000) && read_within(own, 5000);
  }));
  EXPECT_TRUE(read_within(demux, 5000));
}

TEST_F(Processes_tuned, a_child_can_go_on_with_an_inherited_filter) {
  const Fd demux(listening());
  EXPECT_TRUE(read_within(demux, 5000));
  EXPECT_TRUE(in_child([&] { return read_within(demux, 5000) && read_within(demux, 5000); }));
  EXPECT_TRUE(read_within(demux, 5000));
  EXPECT_TRUE(in_child([&] { return close(demux) == 0 && result(close(demux)) == -EBADF; }));
  EXPECT_TRUE(read_within(demux, 5000));
}

TEST(Processes, what_a_vfork_child_closes_stays_open_here) {
  const Fd demux(listening());
  const int fd = demux;
  const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
  if (child == 0) {
    close(fd);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  send_section(section_of(100));
  EXPECT_EQ(read_size(demux), 100);
}

TEST(Processes, a_writer_that_dies_frees_the_place) {
  EXPECT_TRUE(in_child([] { return open_frontend() >= 0; }));
  EXPECT_GE(Fd(open_frontend()), 0);
}

// A child that lives until the writing end of this pipe is closed.
static pid_t fork_waiting(const int (&pipe_ends)[2]) {
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    close(pipe_ends[1]);
    (void)!read(pipe_ends[0], &byte, 1);
    _exit(0);
  }
  return child;
}

TEST(Processes, a_child_that_keeps_the_writer_keeps_the_place) {
  Fd fd(open_frontend());
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const pid_t child = fork_waiting(pipe_ends);
  fd.reset();
  EXPECT_EQ(result(open_frontend()), -EBUSY);
  close(pipe_ends[1]);
  waitpid(child, nullptr, 0);
  EXPECT_GE(Fd(open_frontend()), 0);
}

TEST(Processes, a_daemon_that_inherited_the_writer_keeps_the_tuning) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  EXPECT_TRUE(in_child([&] { return tune(open_frontend(), FREQ) == 0 && fork_waiting(pipe_ends) > 0; }));
  usleep(2000000);
  EXPECT_EQ(status_of(Fd(open_frontend(O_RDONLY))), 0x1F);
  EXPECT_EQ(result(open_frontend()), -EBUSY);
  close(pipe_ends[1]);
}

TEST(Processes, handles_of_dead_ones_are_free_again) {
  EXPECT_TRUE(in_child([] {
    for (int i = 0; i < 250; ++i)
      if (open_demux() < 0)
        return false;
    return true;
  }));
  std::vector<int> fds;
  for (int i = 0; i < 256; ++i)
    fds.push_back(open_demux());
  EXPECT_GE(fds.back(), 0);
  for (const int fd : fds)
    close(fd);
}

TEST(Processes, programs_started_see_the_devices) {
  EXPECT_EQ(system("test -c /dev/dvb/adapter1/demux0 && test ! -e /dev/dvb/adapter2"), 0);
}

TEST(Adapters, are_independent) {
  const Fd a(open_frontend());
  const Fd b(open("/dev/dvb/adapter1/frontend0", O_RDWR | O_NONBLOCK));
  const Fd demux_a(listening());
  const Fd demux_b(open("/dev/dvb/adapter1/demux0", O_RDONLY | O_NONBLOCK));
  ASSERT_EQ(set_filter(demux_b, all_of(PID)), 0);
  ASSERT_EQ(tune(b, FREQ), 0);
  EXPECT_TRUE(read_within(demux_b, 5000));
  EXPECT_EQ(read_size(demux_a), -EAGAIN);
  ASSERT_EQ(tune(a, FREQ), 0);
  EXPECT_TRUE(read_within(demux_a, 5000));
}

TEST(Copies, are_the_same_handle) {
  const Fd fd(listening());
  Fd copy(dup(fd));
  const Fd high(fcntl(fd, F_DUPFD, 200));
  EXPECT_GE(high, 200);
  const Fd chosen(dup2(fd, 150));
  EXPECT_EQ(chosen, 150);
  send_section(section_of(100, 1));
  EXPECT_EQ(ready(high), READABLE);
  EXPECT_EQ(read_size(copy), 100);
  EXPECT_EQ(ready(chosen), 0);
  copy.reset();
  send_section(section_of(100, 2));
  EXPECT_EQ(read_size(chosen), 100);
  EXPECT_EQ(read_size(fd), -EAGAIN);
}

TEST(Copies, a_number_that_is_used_again_is_no_device_any_more) {
  const int fd = open_demux();
  ASSERT_EQ(set_filter(fd, all_of(PID)), 0);
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  ASSERT_EQ(dup2(pipe_ends[0], fd), fd);
  send_section(section_of(100));
  EXPECT_EQ(ready(fd), 0);
  ASSERT_EQ(write(pipe_ends[1], "x", 1), 1);
  EXPECT_EQ(read_size(fd), 1);
  close(fd);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST(Waiting, with_epoll) {
  const Fd fd(listening());
  const Fd set(epoll_create1(0));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  ASSERT_EQ(epoll_ctl(set, EPOLL_CTL_ADD, fd, &event), 0);
  EXPECT_EQ(epoll_wait(set, &event, 1, 20), 0);
  send_section(section_of(100));
  EXPECT_EQ(epoll_wait(set, &event, 1, 1000), 1);
  EXPECT_EQ(read_size(fd), 100);
  EXPECT_EQ(epoll_wait(set, &event, 1, 20), 0);
}

TEST_F(Processes_tuned, threads_read_start_and_close_side_by_side) {
  std::atomic<int> sections{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&sections] {
      for (int round = 0; round < 5; ++round) {
        const Fd own(open_demux());
        set_filter(own, all_of(PID));
        for (int i = 0; i < 3; ++i)
          sections += read_within(own, 5000) ? 1 : 0;
        ioctl(own, DMX_STOP);
      }
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(sections, 4 * 5 * 3);
}
