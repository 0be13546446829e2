// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dlfcn.h>
#include <iconv.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/time.h>

#include "softdvb/session.h"

// Run under softdvb; each test asks for its faults itself.
using namespace device;
using support::softdvb_control;

TEST(Faults, of_the_devices) {
  expect_plays({
      {"an open fails the first times",
       "fault open(/dev/dvb/adapter0/demux0) EBUSY*2, a: open = EBUSY, "
       "frontend: open, b: open = EBUSY, c: open"},
      {"a call fails once at its turn", "fault DMX_START EIO@2, filter 256 idle, start, start = EIO, start"},
      {"an overflow takes the queue with it",
       "filter 256, send 100#1, fault read(demux0) EOVERFLOW*1, "
       "read = EOVERFLOW, read = EAGAIN, send 100#1, read = 100#1"},
      {"another failure does not", "filter 256, send 100#1, fault read(demux0) EIO*1, read = EIO, read = 100#1"},
  });
}

TEST(Faults, always_until_they_are_cleared) {
  softdvb_control("fault FE_READ_STATUS = EIO");
  const Fd fd(open_frontend());
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(status_of(fd), -EIO);
  softdvb_control("clear faults");
  EXPECT_GE(status_of(fd), 0);
}

TEST(Faults, several_calls_from_one_on) {
  softdvb_control("fault FE_GET_INFO = EIO@2*2");
  const Fd fd(open_frontend());
  dvb_frontend_info info{};
  for (const int wanted : {0, -EIO, -EIO, 0})
    EXPECT_EQ(result(ioctl(fd, FE_GET_INFO, &info)), wanted);
}

TEST(Faults, waiting) {
  const Fd fd(listening());
  softdvb_control("fault poll = EINTR*1");
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(result(poll(&p, 1, 0)), -EINTR);
  EXPECT_EQ(poll(&p, 1, 0), 0);
  softdvb_control("fault select = EBADF*1");
  timeval none{};
  EXPECT_EQ(result(select(0, nullptr, nullptr, nullptr, &none)), -EBADF);
  EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &none), 0);
}

TEST(Faults, a_failing_close_has_closed) {
  softdvb_control("fault close(demux0) = EIO*1");
  const int fd = open_demux();
  EXPECT_EQ(result(close(fd)), -EIO);
  EXPECT_EQ(result(close(fd)), -EBADF);
}

TEST(Faults, files_by_their_names) {
  support::Temp_dir folder;
  softdvb_control("fault write(*.full) = ENOSPC");
  std::ofstream good(folder.file("a.good"));
  good << "text" << std::flush;
  EXPECT_TRUE(good.good());
  const Fd fd(open(folder.file("a.full").c_str(), O_RDWR | O_CREAT, 0600));
  EXPECT_EQ(result(write(fd, "x", 1)), -ENOSPC);
  EXPECT_EQ(result(pwrite(fd, "x", 1, 0)), -ENOSPC);
  softdvb_control("fault fopen(*.no) = EACCES*1");
  EXPECT_EQ(fopen(folder.file("b.no").c_str(), "w"), nullptr);
  EXPECT_EQ(errno, EACCES);
  softdvb_control("fault unlink(a.full) = EPERM*1");
  EXPECT_EQ(result(unlink(folder.file("a.full").c_str())), -EPERM);
  EXPECT_EQ(unlink(folder.file("a.full").c_str()), 0);
  softdvb_control("fault mmap(a.full*) = ENOMEM*1");
  EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(Faults, converters_timers_threads_and_clocks) {
  softdvb_control("fault iconv_open = EMFILE*1");
  EXPECT_EQ(iconv_open("UTF-8", "ISO-8859-2"), reinterpret_cast<iconv_t>(-1));
  EXPECT_EQ(errno, EMFILE);
  softdvb_control("fault timer_create = EAGAIN*1");
  timer_t timer{};
  EXPECT_EQ(result(timer_create(CLOCK_REALTIME, nullptr, &timer)), -EAGAIN);
#ifndef __SANITIZE_THREAD__  // whose runtime goes past everybody else's pthread_create
  softdvb_control("fault pthread_create = EAGAIN*1");
  pthread_t thread{};
  EXPECT_EQ(pthread_create(
                &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr),
            EAGAIN);
#endif
  softdvb_control("fault settimeofday = EPERM*1");
  const timeval now{1, 0};
  EXPECT_EQ(result(settimeofday(&now, nullptr)), -EPERM);
}

TEST(Faults, lines_that_are_wrong_are_told_and_do_nothing) {
  auto* control = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_DEFAULT, "softdvb_control"));
  ASSERT_NE(control, nullptr);
  EXPECT_EQ(support::stderr_of([&] { EXPECT_EQ(control("fault nonsense = EIO"), -1); }),
            "softdvb: fault: 'nonsense' is no call that can be made to fail\n");
  EXPECT_EQ(support::stderr_of([&] { EXPECT_EQ(control("# nothing"), 0); }), "");
}

TEST(Faults, a_reopened_frontend_without_core_thread) {
  // The launcher was told --dead-reopen 2.
  EXPECT_THAT(
      "frontend: open, frontend: close, strength = EAGAIN, tune 506000000, event = 0, wait 500, status = 0, "
      "frontend: close, tune 506000000, wait 500, status = 1f",
      plays());
}
