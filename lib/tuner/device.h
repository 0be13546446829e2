// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>
#include <sys/ioctl.h>

#include <atomic>
#include <condition_variable>
#include <string>

#include "base/mutex.h"
#include "base/wake_up.h"

class Turn;

// One frontend device of Linux: its descriptor and what it said about itself. Not installed. What its calls mean is
// known to those who are built on it: Frontend, Readings, Lock_rule.
//
// A device that could not be opened makes every call fail. All operations are any-thread. Calls, openings and closings
// come one at a time, because Linux's DVB core forgets those that wait for their turn when a device is pulled out while
// its driver is busy, and they never come back. Who waits here holds no lock, and nor does who is in the driver; what
// is known of the device is answered at once.
class Device {
 public:
  // The bits of a status that a locked frontend of the box has all.
  static constexpr int FULL_LOCK = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;

  // Opens `path` (up to 255 characters are kept) and asks the device what it is. `said`: prints what fails of that, and
  // also when the device is no DVB-T frontend; waits for a device that has gone come back at once. There is an object
  // all the same.
  Device(const char* path, bool said);
  ~Device() { close(); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Gives the device free for others, as soon as no call is under way; those that wait for that one to end fail at
  // once. Later calls fail. One that has gone still has.
  void close();
  // The same of a device that is known to have gone, though no call on it has said so. It has gone then, also where it
  // was being opened again meanwhile.
  void close_gone();
  // Opens it again, where it is a new one. False, with error(), when that fails; also when it is being closed.
  bool open_again();

  const char* path() const { return path_; }
  std::string name() const;
  // errno of the opening, ENODEV while it has gone; 0 for none.
  int error() const { return error_; }
  // True from the first call that was answered with ENODEV until it could be opened again.
  bool gone() const { return gone_; }

  // Whether the device says that it receives this frequency (Hz).
  bool covers(unsigned freq) const;
  // The same, where a limit of 0 stands for one that the driver does not know.
  bool may_cover(unsigned freq) const;
  unsigned lowest_hz() const;
  unsigned highest_hz() const;

  // As ioctl(). Tried again when a signal came in between. Fails with EBADF, or ENODEV of one that has gone, when the
  // device is closed while the call waits for another one to end; with ECANCELED when `turn` is over by then.
  int control(unsigned long request, void* argument, const Turn* turn = nullptr);

  // Opens the device again when the core has no thread behind this opening of it, which happens rarely where it is
  // opened right behind a closing: readings answer EAGAIN then, tunings succeed, and none is ever made. Asks for one
  // reading, unless one was answered since the opening. True when it was opened again; not twice in a row, because some
  // drivers answer so by themselves.
  bool cure_missing_core();

  // Waits until the device reports an event, `wake_up` wakes, or the time is over. An event is taken and thrown away.
  // GONE means that no poll waits any more: of a device that has gone, or because it fails time after time. One thread.
  enum class Waited { ENOUGH, GONE };
  Waited wait_for_event(const Wake_up& wake_up, int timeout_ms);

 private:
  // Around all that is done with the descriptor. False, with errno, when the device is closed meanwhile.
  bool begin_use();
  void end_use();
  void set_gone();
  void close_as(bool gone);
  // REQUIRES: in use by the caller, or not shared yet.
  bool open_here();
  void close_here();
  void ask();
  // Around a wait for events. The device, -1 when it is closed; true when it has been closed meanwhile.
  int begin_polling(const Wake_up& wake_up);
  bool end_polling(int device);

  const bool said_;
  char path_[256]{};
  std::atomic<int> error_{0};
  std::atomic<bool> gone_{false};
  std::atomic<bool> core_answers_{false};  // a reading, since the opening
  std::atomic<bool> core_cured_{false};    // and no reading was answered since
  bool wait_fails_ = false;                // of the thread that waits for events

  mutable Mutex lock_{Lock_rank::ALONE, "device"};  // guards the following for moments; a leaf
  std::condition_variable_any use_ended_;
  bool in_use_ = false;  // by one thread, which alone changes `device_` and may read it without the lock
  int closing_ = 0;      // threads that wait to close it
  int device_ = -1;
  const Wake_up* polling_ = nullptr;  // ends the wait for events that is under way
  int polled_ = -1;                   // what that one waits on
  unsigned polls_ended_ = 0;          // the next one may begin before who waits for the end of one is told
  dvb_frontend_info info_{};
};
