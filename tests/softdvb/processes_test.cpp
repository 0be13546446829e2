#include <sys/epoll.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "softdvb/device_support.h"

// Run with adapters 0 and 1, both with the counting stream on 506 MHz.
using namespace device;

static constexpr uint32_t FREQ = 506000000;

static int tune(int fd) {
  dvb_frontend_parameters p{};
  p.frequency = FREQ;
  p.inversion = INVERSION_AUTO;
  return ioctl(fd, FE_SET_FRONTEND, &p);
}

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
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1 && read_size(fd) > 0;
}

TEST(Processes, share_the_frontend) {
  const Fd fd(open_frontend());
  ASSERT_EQ(0, tune(fd));
  EXPECT_TRUE(in_child([] {
    if (result(open_frontend()) != -EBUSY)
      return false;
    usleep(500000);
    const Fd reader(open_frontend(O_RDONLY));
    fe_status_t status{};
    return ioctl(reader, FE_READ_STATUS, &status) == 0 && status == 0x1F;
  }));
}

TEST(Processes, each_plays_the_stream_for_itself) {
  const Fd fd(open_frontend());
  ASSERT_EQ(0, tune(fd));
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  EXPECT_TRUE(in_child([] {
    const Fd own(open_demux());
    return set_filter(own, all_of(PID)) == 0 && read_within(own, 5000) && read_within(own, 5000);
  }));
  EXPECT_TRUE(read_within(demux, 5000));
}

TEST(Processes, a_child_can_go_on_with_an_inherited_filter) {
  const Fd fd(open_frontend());
  ASSERT_EQ(0, tune(fd));
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  EXPECT_TRUE(read_within(demux, 5000));
  EXPECT_TRUE(in_child([&] { return read_within(demux, 5000) && read_within(demux, 5000); }));
  EXPECT_TRUE(read_within(demux, 5000));
  EXPECT_TRUE(in_child([&] { return close(demux) == 0 && result(close(demux)) == -EBADF; }));
  EXPECT_TRUE(read_within(demux, 5000));
}

TEST(Processes, what_a_vfork_child_closes_stays_open_here) {
  const Fd demux(open_demux());
  ASSERT_EQ(0, set_filter(demux, all_of(PID)));
  const int fd = demux;
  const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
  if (child == 0) {
    close(fd);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  send_section(section_of(100));
  EXPECT_EQ(100, read_size(demux));
}

TEST(Processes, a_writer_that_dies_frees_the_place) {
  EXPECT_TRUE(in_child([] { return open_frontend() >= 0; }));
  const Fd fd(open_frontend());
  EXPECT_GE(fd, 0);
}

TEST(Processes, a_child_that_keeps_the_writer_keeps_the_place) {
  Fd fd(open_frontend());
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    close(pipe_ends[1]);
    (void)!read(pipe_ends[0], &byte, 1);
    _exit(0);
  }
  close(pipe_ends[0]);
  fd.reset();
  EXPECT_EQ(-EBUSY, result(open_frontend()));
  close(pipe_ends[1]);
  waitpid(child, nullptr, 0);
  const Fd again(open_frontend());
  EXPECT_GE(again, 0);
}

TEST(Processes, a_daemon_that_inherited_the_writer_keeps_the_tuning) {
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  EXPECT_TRUE(in_child([&] {
    const int fd = open_frontend();
    if (tune(fd) != 0)
      return false;
    if (fork() == 0) {
      char byte = 0;
      close(pipe_ends[1]);
      (void)!read(pipe_ends[0], &byte, 1);  // until the test is over
      _exit(0);
    }
    return true;
  }));
  close(pipe_ends[0]);
  usleep(2000000);
  const Fd reader(open_frontend(O_RDONLY));
  fe_status_t status{};
  EXPECT_EQ(0, ioctl(reader, FE_READ_STATUS, &status));
  EXPECT_EQ(0x1F, status);
  EXPECT_EQ(-EBUSY, result(open_frontend()));
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
  EXPECT_EQ(0, system("test -c /dev/dvb/adapter1/demux0 && test ! -e /dev/dvb/adapter2"));
}

TEST(Adapters, are_independent) {
  const Fd a(open("/dev/dvb/adapter0/frontend0", O_RDWR | O_NONBLOCK));
  const Fd b(open("/dev/dvb/adapter1/frontend0", O_RDWR | O_NONBLOCK));
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  const Fd demux_a(open("/dev/dvb/adapter0/demux0", O_RDONLY | O_NONBLOCK));
  const Fd demux_b(open("/dev/dvb/adapter1/demux0", O_RDONLY | O_NONBLOCK));
  ASSERT_EQ(0, set_filter(demux_a, all_of(PID)));
  ASSERT_EQ(0, set_filter(demux_b, all_of(PID)));
  ASSERT_EQ(0, tune(b));
  EXPECT_TRUE(read_within(demux_b, 5000));
  EXPECT_EQ(-EAGAIN, read_size(demux_a));
  ASSERT_EQ(0, tune(a));
  EXPECT_TRUE(read_within(demux_a, 5000));
}

TEST(Copies, are_the_same_handle) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  Fd copy(dup(fd));
  const Fd high(fcntl(fd, F_DUPFD, 200));
  EXPECT_GE(high, 200);
  const Fd chosen(dup2(fd, 150));
  EXPECT_EQ(150, chosen);
  send_section(section_of(100, 1));
  EXPECT_EQ(READABLE, ready(high));
  EXPECT_EQ(100, read_size(copy));
  EXPECT_EQ(0, ready(chosen));
  copy.reset();
  send_section(section_of(100, 2));
  EXPECT_EQ(100, read_size(chosen));
  EXPECT_EQ(-EAGAIN, read_size(fd));
}

TEST(Copies, a_number_that_is_used_again_is_no_device_any_more) {
  const int fd = open_demux();
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  ASSERT_EQ(fd, dup2(pipe_ends[0], fd));
  send_section(section_of(100));
  EXPECT_EQ(0, ready(fd));
  ASSERT_EQ(1, write(pipe_ends[1], "x", 1));
  EXPECT_EQ(1, read_size(fd));
  close(fd);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST(Waiting, with_epoll) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  const Fd set(epoll_create1(0));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  ASSERT_EQ(0, epoll_ctl(set, EPOLL_CTL_ADD, fd, &event));
  EXPECT_EQ(0, epoll_wait(set, &event, 1, 20));
  send_section(section_of(100));
  EXPECT_EQ(1, epoll_wait(set, &event, 1, 1000));
  EXPECT_EQ(100, read_size(fd));
  EXPECT_EQ(0, epoll_wait(set, &event, 1, 20));
}

TEST(Threads, read_start_and_close_side_by_side) {
  const Fd fd(open_frontend());
  ASSERT_EQ(0, tune(fd));
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
  EXPECT_EQ(4 * 5 * 3, sections);
}
