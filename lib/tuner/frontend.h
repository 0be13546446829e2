// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "base/wake_up.h"

// One DVB-T frontend device of Linux: its descriptor, what it said about itself, and each call on it. Not installed.
// Nothing here knows of qualities, databases or threads; what is built on it sees numbers of the driver.
//
// A failing call is printed with the device's path and answers nothing. A device that could not be opened makes every
// call fail. All operations are any-thread: one lock is held around each call, so that the descriptor is not closed
// under a thread that uses it.
class Frontend {
 public:
  // The bits of status() that a locked frontend has all.
  static constexpr int FULL_LOCK = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;

  // Opens `path` (up to 255 characters are kept) and asks the device what it is. Prints what fails, and also when the
  // device is no DVB-T frontend; there is an object all the same.
  explicit Frontend(const char* path);
  ~Frontend() { close(); }
  Frontend(const Frontend&) = delete;
  Frontend& operator=(const Frontend&) = delete;

  // Gives the device free for others, as soon as no call is under way. Later calls fail.
  void close();

  const char* path() const { return path_; }
  // Whether the device says that it receives this frequency (Hz).
  bool covers(unsigned freq) const { return freq >= info_.frequency_min && freq <= info_.frequency_max; }

  // False, with errno, when the device refuses the parameters; it goes on with those before.
  bool tune(dvb_frontend_parameters parameters);

  std::optional<int> freq();    // Hz
  std::optional<int> status();  // bits of fe_status_t, and further ones of some drivers
  std::optional<uint16_t> strength();
  std::optional<uint32_t> ber();
  std::optional<uint16_t> snr();

  // Waits until the device reports an event, `wake_up` wakes, or the time is over. An event is taken and thrown away.
  // GONE means that the device lets no poll wait any more.
  enum class Waited { ENOUGH, GONE };
  Waited wait_for_event(const Wake_up& wake_up, int timeout_ms);

 private:
  int control(unsigned long request, void* argument);

  char path_[256]{};
  dvb_frontend_info info_{};  // constant after the constructor
  std::mutex device_lock_;    // held around each ioctl and while the device is closed
  std::atomic<int> device_{-1};
};
