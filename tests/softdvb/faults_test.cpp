// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dlfcn.h>
#include <iconv.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/time.h>

#include "softdvb/device_support.h"

// Run under softdvb; each test asks for its faults itself.
using namespace device;
using support::softdvb_control;

TEST(Faults, open_fails_the_first_times) {
  softdvb_control("fault open(/dev/dvb/adapter0/demux0) = EBUSY*2");
  EXPECT_EQ(result(open_demux()), -EBUSY);
  const Fd frontend(open_frontend());
  EXPECT_GE(frontend, 0);
  EXPECT_EQ(result(open_demux()), -EBUSY);
  const Fd fd(open_demux());
  EXPECT_GE(fd, 0);
}

TEST(Faults, a_call_fails_once_at_its_turn) {
  softdvb_control("fault DMX_START = EIO@2");
  const Fd fd(listening(PID, 0));
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
  EXPECT_EQ(result(ioctl(fd, DMX_START)), -EIO);
  EXPECT_EQ(ioctl(fd, DMX_START), 0);
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

TEST(Faults, an_overflow_takes_the_queue_with_it) {
  const Fd fd(listening());
  send_section(section_of(100));
  softdvb_control("fault read(demux0) = EOVERFLOW*1");
  EXPECT_EQ(read_size(fd), -EOVERFLOW);
  EXPECT_EQ(read_size(fd), -EAGAIN);
  send_section(section_of(100));
  EXPECT_EQ(read_size(fd), 100);
}

TEST(Faults, reading_and_waiting) {
  const Fd fd(listening());
  send_section(section_of(100));
  softdvb_control("fault read(demux0) = EIO*1");
  EXPECT_EQ(read_size(fd), -EIO);
  EXPECT_EQ(read_size(fd), 100);
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
  Fd first(open_frontend());
  first.reset();
  Fd dead(open_frontend());
  uint16_t strength = 0;
  EXPECT_EQ(result(ioctl(dead, FE_READ_SIGNAL_STRENGTH, &strength)), -EAGAIN);
  EXPECT_EQ(tune(dead, 506000000), 0);
  dvb_frontend_event event{};
  EXPECT_EQ(ioctl(dead, FE_GET_EVENT, &event), 0);
  EXPECT_EQ(event.status, FE_NONE);
  usleep(500000);
  EXPECT_EQ(status_of(dead), FE_NONE);
  dead.reset();
  const Fd third(open_frontend());
  EXPECT_EQ(tune(third, 506000000), 0);
  usleep(500000);
  EXPECT_EQ(status_of(third), 0x1F);
}
