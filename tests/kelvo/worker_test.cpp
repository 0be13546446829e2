// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The order in which a worker begins and ends. The calls of the C library that show it are watched here.
#include <dlfcn.h>
#include <pthread.h>

#include "kelvo/kelvo.h"
#include "support/support.h"
#include "support/test.h"
#include "support/verbosity.h"

namespace {

std::mutex lock;
std::vector<std::string> makers;    // the names of the threads that made timers
std::map<timer_t, time_t> periods;  // of the timers that were armed with an interval
std::vector<time_t> deleted;        // the periods of those that were deleted

template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int timer_create(clockid_t clock, sigevent* event, timer_t* timer) {
  char name[16]{};
  (void)pthread_getname_np(pthread_self(), name, sizeof name);
  const std::lock_guard<std::mutex> guard(lock);
  makers.emplace_back(name);
  return real<int (*)(clockid_t, sigevent*, timer_t*)>("timer_create")(clock, event, timer);
}

int timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old) {
  const std::lock_guard<std::mutex> guard(lock);
  if (value->it_interval.tv_sec == 1)
    periods[timer] = value->it_value.tv_sec;
  return real<int (*)(timer_t, int, const itimerspec*, itimerspec*)>("timer_settime")(timer, flags, value, old);
}

int timer_delete(timer_t timer) {
  const std::lock_guard<std::mutex> guard(lock);
  if (periods.count(timer) != 0)
    deleted.push_back(periods[timer]);
  return real<int (*)(timer_t)>("timer_delete")(timer);
}
}

TEST(Worker, takes_its_name_before_it_makes_its_timers_and_deletes_them_scan_pmt_autoscan) {
  const support::Verbosity quiet(-1);
  const support::Stderr_capture capture;
  const support::Temp_dir folder;
  Sdbl database(folder.file("dvb.db").c_str());
  auto kelvo = std::make_unique<Kelvo>(3, 3, 1, &database, false, nullptr);
  EXPECT_EQ(kelvo->tune_to_freq(506000000, nullptr, nullptr), -1);
  while (kelvo->get_msg_state())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  {
    const std::lock_guard<std::mutex> guard(lock);
    ASSERT_GE(makers.size(), 3U);
    for (const std::string& name : makers)
      EXPECT_EQ(name, "kelvo_th");
  }
  kelvo.reset();
  EXPECT_EQ(deleted, (std::vector<time_t>{40, 3, 300}));
}
