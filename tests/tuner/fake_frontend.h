// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>
#include <poll.h>

#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

// A frontend device for one test at a time, and its time: a file whose FE_ ioctls are answered here. Sleeps and waits
// for the device take no time; the wall clock of the program goes on by what they would have taken, from 1000 s on.
//
// A tuner's monitor stops at each of its waits for the device until the test lets it go on, so that a test sees pass by
// pass and nothing happens in between.
class Fake_frontend {
 public:
  Fake_frontend();
  ~Fake_frontend();
  Fake_frontend(const Fake_frontend&) = delete;
  Fake_frontend& operator=(const Fake_frontend&) = delete;

  const char* path() const { return path_.c_str(); }

  // What the driver answers. Full lock and a perfect signal at first; 470 to 862 MHz.
  std::atomic<unsigned> status{0x1F};
  std::atomic<unsigned> ber{0};
  std::atomic<unsigned> strength{0xFF};
  std::atomic<unsigned> snr{0xFE};

  // This request fails with EIO; 0 for none.
  std::atomic<unsigned long> failing{0};

  // What the device was last tuned to.
  dvb_frontend_parameters tuned() const;

  // What threads asked of the system, in order: "FE_READ_STATUS", "sleep 50", "wait 200" (milliseconds). Of the test's
  // own thread, and of the monitor's. Taking them empties the list.
  support::Texts take_calls() { return take(true); }
  support::Texts take_monitor_calls() { return take(false); }
  size_t monitor_calls() const;
  // Done once the test's thread has slept.
  std::function<void()> after_sleep;

  // Whether this program has the device open.
  bool is_open() const;

  // Lets the monitor's wait end: after its time, or at once with what poll() says about the device (POLLIN, POLLERR) or
  // with its failure (-EINTR).
  void end_wait(short events = 0);
  // The same, and returns when the monitor waits again.
  void pass(short events = 0);

  // How the program's own calls come here.
  bool is_mine(int handle) const;
  int on_ioctl(unsigned long request, void* argument);
  int on_poll(pollfd* entries, int timeout_ms);
  void on_sleep(int ms);
  timespec now() const;

 private:
  support::Texts take(bool own);
  void note(const std::string& call);
  void reach_wait();
  void hand_over(int handle);
  void take_over(int handle);

  support::Temp_dir folder_;
  const std::string path_;
  const std::thread::id test_thread_ = std::this_thread::get_id();
  const int go_;       // eventfd: the wait may end
  const int waiting_;  // eventfd: the monitor is at its wait
  bool at_wait_ = false;
  std::atomic<short> events_{0};
  std::atomic<int> elapsed_ms_{0};
  mutable std::mutex lock_;  // guards the following
  dvb_frontend_parameters tuned_{};
  support::Texts own_calls_;
  support::Texts monitor_calls_;
};
