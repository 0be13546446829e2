#include <dlfcn.h>
#include <iconv.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <fstream>

#include <gtest/gtest.h>

#include "softdvb/device_support.h"

// Run under softdvb; each test asks for its faults itself.
using namespace device;
using support::softdvb_control;

TEST(Faults, open_fails_the_first_times) {
  softdvb_control("fault open(/dev/dvb/adapter0/demux0) = EBUSY*2");
  EXPECT_EQ(-EBUSY, result(open_demux()));
  const Fd frontend(open_frontend());
  EXPECT_GE(frontend, 0);
  EXPECT_EQ(-EBUSY, result(open_demux()));
  const Fd fd(open_demux());
  EXPECT_GE(fd, 0);
}

TEST(Faults, a_call_fails_once_at_its_turn) {
  softdvb_control("fault DMX_START = EIO@2");
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID, 0)));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
  EXPECT_EQ(-EIO, result(ioctl(fd, DMX_START)));
  EXPECT_EQ(0, ioctl(fd, DMX_START));
}

TEST(Faults, always_until_they_are_cleared) {
  softdvb_control("fault FE_READ_STATUS = EIO");
  const Fd fd(open_frontend());
  fe_status_t status{};
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(-EIO, result(ioctl(fd, FE_READ_STATUS, &status)));
  softdvb_control("clear faults");
  EXPECT_EQ(0, ioctl(fd, FE_READ_STATUS, &status));
}

TEST(Faults, several_calls_from_one_on) {
  softdvb_control("fault FE_GET_INFO = EIO@2*2");
  const Fd fd(open_frontend());
  dvb_frontend_info info{};
  for (const int wanted : {0, -EIO, -EIO, 0})
    EXPECT_EQ(wanted, result(ioctl(fd, FE_GET_INFO, &info)));
}

TEST(Faults, an_overflow_takes_the_queue_with_it) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100));
  softdvb_control("fault read(demux0) = EOVERFLOW*1");
  EXPECT_EQ(-EOVERFLOW, read_size(fd));
  EXPECT_EQ(-EAGAIN, read_size(fd));
  send_section(section_of(100));
  EXPECT_EQ(100, read_size(fd));
}

TEST(Faults, reading_and_waiting) {
  const Fd fd(open_demux());
  ASSERT_EQ(0, set_filter(fd, all_of(PID)));
  send_section(section_of(100));
  softdvb_control("fault read(demux0) = EIO*1");
  EXPECT_EQ(-EIO, read_size(fd));
  EXPECT_EQ(100, read_size(fd));
  softdvb_control("fault poll = EINTR*1");
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(-EINTR, result(poll(&p, 1, 0)));
  EXPECT_EQ(0, poll(&p, 1, 0));
  softdvb_control("fault select = EBADF*1");
  timeval none{};
  EXPECT_EQ(-EBADF, result(select(0, nullptr, nullptr, nullptr, &none)));
  EXPECT_EQ(0, select(0, nullptr, nullptr, nullptr, &none));
}

TEST(Faults, a_failing_close_has_closed) {
  softdvb_control("fault close(demux0) = EIO*1");
  const int fd = open_demux();
  EXPECT_EQ(-EIO, result(close(fd)));
  EXPECT_EQ(-EBADF, result(close(fd)));
}

TEST(Faults, files_by_their_names) {
  support::Temp_dir folder;
  softdvb_control("fault write(*.full) = ENOSPC");
  std::ofstream good(folder.file("a.good"));
  good << "text" << std::flush;
  EXPECT_TRUE(good.good());
  const Fd fd(open(folder.file("a.full").c_str(), O_RDWR | O_CREAT, 0600));
  EXPECT_EQ(-ENOSPC, result(write(fd, "x", 1)));
  EXPECT_EQ(-ENOSPC, result(pwrite(fd, "x", 1, 0)));
  softdvb_control("fault fopen(*.no) = EACCES*1");
  EXPECT_EQ(nullptr, fopen(folder.file("b.no").c_str(), "w"));
  EXPECT_EQ(EACCES, errno);
  softdvb_control("fault unlink(a.full) = EPERM*1");
  EXPECT_EQ(-EPERM, result(unlink(folder.file("a.full").c_str())));
  EXPECT_EQ(0, unlink(folder.file("a.full").c_str()));
  softdvb_control("fault mmap(a.full*) = ENOMEM*1");
  EXPECT_EQ(MAP_FAILED, mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
  EXPECT_EQ(ENOMEM, errno);
}

TEST(Faults, converters_timers_threads_and_clocks) {
  softdvb_control("fault iconv_open = EMFILE*1");
  EXPECT_EQ(reinterpret_cast<iconv_t>(-1), iconv_open("UTF-8", "ISO-8859-2"));
  EXPECT_EQ(EMFILE, errno);
  softdvb_control("fault timer_create = EAGAIN*1");
  timer_t timer{};
  EXPECT_EQ(-EAGAIN, result(timer_create(CLOCK_REALTIME, nullptr, &timer)));
#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
  softdvb_control("fault pthread_create = EAGAIN*1");
  pthread_t thread{};
  EXPECT_EQ(EAGAIN, pthread_create(
                        &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr));
#endif
  softdvb_control("fault settimeofday = EPERM*1");
  const timeval now{1, 0};
  EXPECT_EQ(-EPERM, result(settimeofday(&now, nullptr)));
}

TEST(Faults, lines_that_are_wrong_are_told_and_do_nothing) {
  auto* control = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_DEFAULT, "softdvb_control"));
  ASSERT_NE(nullptr, control);
  EXPECT_EQ("softdvb: fault: 'nonsense' is no call that can be made to fail\n",
            support::stderr_of([&] { EXPECT_EQ(-1, control("fault nonsense = EIO")); }));
  EXPECT_EQ("", support::stderr_of([&] { EXPECT_EQ(0, control("# nothing")); }));
}

TEST(Faults, a_reopened_frontend_without_core_thread) {
  // The launcher was told --dead-reopen 2.
  Fd first(open_frontend());
  first.reset();
  Fd dead(open_frontend());
  uint16_t strength = 0;
  EXPECT_EQ(-EAGAIN, result(ioctl(dead, FE_READ_SIGNAL_STRENGTH, &strength)));
  dvb_frontend_parameters p{};
  p.frequency = 506000000;
  EXPECT_EQ(0, ioctl(dead, FE_SET_FRONTEND, &p));
  dvb_frontend_event event{};
  EXPECT_EQ(0, ioctl(dead, FE_GET_EVENT, &event));
  EXPECT_EQ(FE_NONE, event.status);
  usleep(500000);
  fe_status_t status{};
  EXPECT_EQ(0, ioctl(dead, FE_READ_STATUS, &status));
  EXPECT_EQ(FE_NONE, status);
  dead.reset();
  const Fd third(open_frontend());
  EXPECT_EQ(0, ioctl(third, FE_SET_FRONTEND, &p));
  usleep(500000);
  EXPECT_EQ(0, ioctl(third, FE_READ_STATUS, &status));
  EXPECT_EQ(0x1F, status);
}
