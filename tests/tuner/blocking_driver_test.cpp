// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What goes on while a driver keeps a call: the frontend is a handle of this program whose openings and ioctls can be
// held up.
#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <future>

#include "support/database.h"
#include "support/messages.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"
#include "tuner/device.h"
#include "tuner/tuner.h"
#include "tuner/turn.h"

namespace {

constexpr char PATH[] = "/held/frontend0";
constexpr int FREQ = 506000000;
constexpr unsigned long OPENING = 1;  // in the place of a request

class Driver {
 public:
  int handle = -1;  // the last one
  std::atomic<bool> slow{false};

  void hold(unsigned long request) {
    const std::lock_guard lock(lock_);
    held_ = request;
  }
  void wait_until_inside() {
    std::unique_lock lock(lock_);
    EXPECT_TRUE(changed_.wait_for(lock, std::chrono::minutes(1), [this] { return held_inside_ > 0; }));
  }
  int most_inside() {
    const std::lock_guard lock(lock_);
    return most_inside_;
  }
  size_t calls(unsigned long request) {
    const std::lock_guard lock(lock_);
    return static_cast<size_t>(std::count(calls_.begin(), calls_.end(), request));
  }
  // As a driver does that is in the middle of something.
  void enter(unsigned long request) {
    std::unique_lock lock(lock_);
    calls_.push_back(request);
    most_inside_ = std::max(most_inside_, ++inside_);
    if (request == held_) {
      ++held_inside_;
      changed_.notify_all();
      changed_.wait(lock, [=, this] { return request != held_; });
      --held_inside_;
    }
    lock.unlock();
    if (slow)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lock.lock();
    --inside_;
  }
  void let_go() {
    hold(0);
    changed_.notify_all();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  unsigned long held_ = 0;
  int held_inside_ = 0;
  int inside_ = 0;
  int most_inside_ = 0;
  std::vector<unsigned long> calls_;
};

Driver* driver = nullptr;

int answer(unsigned long request, void* argument) {
  if (request == FE_GET_INFO) {
    auto* info = static_cast<dvb_frontend_info*>(argument);
    std::strcpy(info->name, "held");
    info->type = FE_OFDM;
    info->frequency_min = 470000000;
    info->frequency_max = 862000000;
  } else if (request == FE_READ_STATUS) {
    *static_cast<uint32_t*>(argument) = 0x1F;
  } else if (request == FE_GET_PROPERTY) {
    dtv_property& property = static_cast<dtv_properties*>(argument)->props[0];
    if (property.cmd == DTV_ENUM_DELSYS) {
      property.u.buffer.len = 2;
      property.u.buffer.data[0] = SYS_DVBT;
      property.u.buffer.data[1] = SYS_DVBT2;
    }
  }
  return 0;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
  if (driver != nullptr && path == std::string(PATH)) {
    driver->enter(OPENING);
    return driver->handle = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int ioctl(int handle, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (driver == nullptr || handle < 0 || handle != driver->handle)
    return static_cast<int>(syscall(SYS_ioctl, handle, request, argument));
  driver->enter(request);
  return answer(request, argument);
}

namespace {

class Blocking_driver_test : public testing::Test {
 protected:
  Blocking_driver_test() { driver = &driver_; }
  ~Blocking_driver_test() override { driver = nullptr; }

  // Lets the driver go before the threads that it keeps are waited for.
  class Held {
   public:
    explicit Held(unsigned long request) { driver->hold(request); }
    ~Held() { driver->let_go(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
  };

  template <typename Action>
  static std::future<int> begin(Action action) {
    return std::async(std::launch::async, action);
  }
  static bool ends(const std::future<int>& action) {
    return action.wait_for(std::chrono::minutes(1)) == std::future_status::ready;
  }
  // errno of a call without result, 0 for a success.
  static int call(Device& device, unsigned long request, const Turn* turn = nullptr) {
    uint32_t out = 0;
    return device.control(request, &out, turn) < 0 ? errno : 0;
  }
  static bool is_open() { return fcntl(driver->handle, F_GETFD) >= 0; }

  Driver driver_;
};

TEST_F(Blocking_driver_test, what_needs_no_device_is_answered_meanwhile) {
  support::Database db;
  Tuner tuner(PATH, &db.sdbl(), 0, 0, Receiver_profile::any_linux());
  EXPECT_EQ(tuner.tunetofreq(FREQ), FREQ);
  EXPECT_TRUE(support::wait_for([&] { return tuner.signal().status == 0x1F; }));
  std::future<int> all;
  {
    const Held held(FE_READ_STATUS);
    driver_.wait_until_inside();  // the monitor, which nobody stops
    all = begin([&tuner] {
      tuner.cancel_tuning();
      EXPECT_EQ(tuner.last_tuning().key, FREQ);
      EXPECT_EQ(tuner.frontend_state().name, "held");
      EXPECT_EQ(tuner.frontend_state().lowest_hz, 470000000);
      EXPECT_EQ(tuner.frontend_state().systems, (std::vector<int>{SYS_DVBT, SYS_DVBT2}));
      EXPECT_EQ(tuner.tuned_freq(), FREQ);
      EXPECT_TRUE(tuner.tuned_to(FREQ));
      EXPECT_EQ(tuner.signal().status, 0x1FU);
      EXPECT_EQ(tuner.fe_status(), 0x1F);
      EXPECT_EQ(tuner.fe_freq(), 0);  // the driver does not say
      EXPECT_FALSE(tuner.mux_is_dvbh());
      tuner.fe_strength_local();
      EXPECT_EQ(tuner.fe_strength(), 0.0F);
      EXPECT_EQ(tuner.fe_snr(), 0.0F);
      EXPECT_EQ(static_cast<float>(tuner.fe_ber_local()), tuner.fe_ber());
      tuner.set_channel(4);
      EXPECT_EQ(tuner.get_channel(), 4);
      tuner.set_next_freq(FREQ);
      EXPECT_EQ(tuner.get_next_freq(), FREQ);
      tuner.set_stb_event_callback(nullptr);
      tuner.disable_tunerevents();
      return tuner.reset_signal_monitor_loop();
    });
    EXPECT_TRUE(ends(all));
  }
  EXPECT_EQ(all.get(), 1);
  EXPECT_EQ(driver_.most_inside(), 1);
}

TEST_F(Blocking_driver_test, what_is_known_of_a_device_is_told_while_it_is_opened_again) {
  Device device(PATH, false);
  std::future<int> opening;
  std::future<int> asking;
  {
    const Held held(OPENING);
    opening = begin([&] { return device.open_again() ? 1 : 0; });
    driver_.wait_until_inside();
    asking = begin([&] {
      EXPECT_EQ(device.name(), "held");
      EXPECT_TRUE(device.may_cover(FREQ));
      EXPECT_EQ(device.highest_hz(), 862000000U);
      return device.covers(FREQ) ? 1 : 0;
    });
    EXPECT_TRUE(ends(asking));
  }
  EXPECT_EQ(asking.get(), 1);
  EXPECT_EQ(opening.get(), 1);
}

TEST_F(Blocking_driver_test, two_calls_are_never_in_the_driver_at_once) {
  Device device(PATH, false);
  driver_.slow = true;
  std::vector<std::future<int>> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.push_back(begin([&, thread] {
      int failed = 0;
      for (int i = 0; i < 15; ++i) {
        if (thread == 0 && i % 5 == 0)
          failed += device.open_again() ? 0 : 1;
        failed += call(device, FE_READ_STATUS) == 0 ? 0 : 1;
      }
      return failed;
    }));
  }
  for (std::future<int>& thread : threads)
    EXPECT_EQ(thread.get(), 0);
  EXPECT_EQ(driver_.most_inside(), 1);
  EXPECT_EQ(driver_.calls(FE_READ_STATUS), 60U);
}

TEST_F(Blocking_driver_test, closing_waits_for_the_driver_and_ends_who_waits) {
  struct Case {
    void (Device::*close)();
    int error;
  };
  for (const Case& c : {Case{&Device::close, EBADF}, {&Device::close_gone, ENODEV}}) {
    Device device(PATH, false);
    std::future<int> inside;
    std::future<int> waiting;
    std::future<int> closing;
    {
      const Held held(FE_READ_STATUS);
      inside = begin([&] { return call(device, FE_READ_STATUS); });
      driver_.wait_until_inside();
      waiting = begin([&] { return call(device, FE_READ_SNR); });
      closing = begin([&] {
        (device.*c.close)();
        return 0;
      });
      EXPECT_TRUE(ends(waiting));
      EXPECT_TRUE(is_open());
      EXPECT_EQ(device.name(), "held");
    }
    EXPECT_EQ(inside.get(), 0);
    EXPECT_EQ(waiting.get(), c.error);
    EXPECT_EQ(closing.get(), 0);
    EXPECT_FALSE(is_open());
    EXPECT_EQ(call(device, FE_READ_SNR), EBADF);
  }
  EXPECT_EQ(driver_.calls(FE_READ_SNR), 0U);
}

// As when a host tunes a device that came back while the worker still learns that it had gone. Else nobody would open
// it again: it is closed, and would not count as gone.
TEST_F(Blocking_driver_test, one_that_is_closed_as_gone_while_it_is_opened_again_is_gone) {
  Device device(PATH, false);
  std::future<int> opening;
  std::future<int> closing;
  {
    const Held held(OPENING);
    opening = begin([&] { return device.open_again() ? 1 : 0; });
    driver_.wait_until_inside();
    closing = begin([&] {
      device.close_gone();
      return 0;
    });
    EXPECT_TRUE(support::wait_for([&] { return device.gone(); }));
  }
  EXPECT_EQ(opening.get(), 1);
  EXPECT_EQ(closing.get(), 0);
  EXPECT_FALSE(is_open());
  EXPECT_TRUE(device.gone());
  EXPECT_EQ(device.error(), ENODEV);
  EXPECT_TRUE(device.open_again());
  EXPECT_FALSE(device.gone());
  EXPECT_EQ(device.error(), 0);
  EXPECT_EQ(call(device, FE_READ_STATUS), 0);
}

TEST_F(Blocking_driver_test, a_tuning_whose_turn_ends_while_it_waits_is_not_made) {
  Device device(PATH, false);
  Turns turns;
  const Turn first(turns);
  std::future<int> inside;
  std::future<int> tuning;
  {
    const Held held(FE_READ_STATUS);
    inside = begin([&] { return call(device, FE_READ_STATUS); });
    driver_.wait_until_inside();
    tuning = begin([&] { return call(device, FE_SET_PROPERTY, &first); });
    turns.cancel();
  }
  EXPECT_EQ(tuning.get(), ECANCELED);
  EXPECT_EQ(driver_.calls(FE_SET_PROPERTY), 0U);
  const Turn second(turns);
  EXPECT_EQ(call(device, FE_SET_PROPERTY, &second), 0);
}

}  // namespace
