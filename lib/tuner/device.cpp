// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <utility>

#include "base/log.h"
#include "base/monotonic.h"
#include "base/uninterrupted.h"
#include "tuner/turn.h"

namespace {

// Not blocking only concerns FE_GET_EVENT, which must never wait while the device is in use.
constexpr int OPEN_FLAGS = O_RDWR | O_NONBLOCK | O_CLOEXEC;

// Those that the core asks the driver for only when its thread is there.
bool is_reading(unsigned long request) {
  return request == FE_READ_SIGNAL_STRENGTH || request == FE_READ_SNR || request == FE_READ_BER ||
         request == FE_READ_UNCORRECTED_BLOCKS;
}

}  // namespace

Device::Device(const char* path, bool said) : said_(said) {
  (void)std::snprintf(path_, sizeof path_, "%s", path);  // longer paths are cut
  KLOG(VERB_TRACE, "Opening %s\n", path_);
  if (!open_here() && said_)
    KLOG(VERB_ERROR, "ERROR: Failed to  open %s\n", path_);
  ask();
}

bool Device::open_here() {
  const int device = uninterrupted([this] { return open(path_, OPEN_FLAGS); });
  const int error = errno;
  core_answers_ = false;
  const std::lock_guard lock(lock_);
  device_ = device;
  error_ = device >= 0 ? 0 : gone_ ? ENODEV : error;
  if (device >= 0)
    gone_ = false;
  return device >= 0;
}

void Device::ask() {
  dvb_frontend_info info = info_;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is glibc's
  if (uninterrupted([&] { return ioctl(device_, FE_GET_INFO, &info); }) < 0 && said_)
    KLOG(VERB_ERROR, "ERROR: FE_GET_INFO failed: %d %m\n", errno);
#pragma GCC diagnostic pop
  info.name[sizeof info.name - 1] = '\0';
  KLOG(VERB_PROGRESS, " Front end name is %s, type is %d\n  Freq min: %u Freq max: %u\n", info.name,
       static_cast<int>(info.type), info.frequency_min, info.frequency_max);
  KLOG(VERB_PROGRESS, "  Freq step: %u, Tolerance: %u\n", info.frequency_stepsize, info.frequency_tolerance);
  if (info.type != FE_OFDM && said_)
    KLOG(VERB_ERROR, "ERROR: Fronetnd %s cannot OFDM", info.name);
  const std::lock_guard lock(lock_);
  info_ = info;
}

bool Device::begin_use() {
  std::unique_lock lock(lock_);
  use_ended_.wait(lock, [this] { return !in_use_ || closing_ > 0; });
  if (closing_ == 0) {
    in_use_ = true;
    return true;
  }
  errno = gone_ ? ENODEV : EBADF;
  return false;
}

void Device::end_use() {
  {
    const std::lock_guard lock(lock_);
    in_use_ = false;
  }
  use_ended_.notify_all();
}

void Device::close() {
  close_as(false);
}

void Device::close_gone() {
  close_as(true);
}

void Device::set_gone() {
  error_ = ENODEV;
  gone_ = true;
}

void Device::close_as(bool gone) {
  {
    std::unique_lock lock(lock_);
    if (gone)
      set_gone();
    ++closing_;
    use_ended_.notify_all();
    use_ended_.wait(lock, [this] { return !in_use_; });
    in_use_ = true;
    // Once more: it may have been opened again meanwhile, and is closed now all the same.
    if (gone)
      set_gone();
  }
  close_here();
  {
    const std::lock_guard lock(lock_);
    --closing_;
  }
  end_use();
}

void Device::close_here() {
  int closed = -1;
  {
    std::unique_lock lock(lock_);
    closed = std::exchange(device_, -1);
    // Its number may be another thing's at once: nobody is to wait on it any more.
    if (closed >= 0 && polling_ != nullptr && polled_ == closed) {
      polled_ = -1;
      polling_->wake();
      use_ended_.wait(lock, [this, before = polls_ended_] { return polls_ended_ != before; });
    }
  }
  if (closed >= 0)
    (void)::close(closed);  // nothing was written to it
}

bool Device::open_again() {
  if (!begin_use())
    return false;
  close_here();
  const bool opened = open_here();
  if (opened)
    ask();
  end_use();
  return opened;
}

std::string Device::name() const {
  const std::lock_guard lock(lock_);
  return info_.name;
}

bool Device::covers(unsigned freq) const {
  const std::lock_guard lock(lock_);
  return freq >= info_.frequency_min && freq <= info_.frequency_max;
}

bool Device::may_cover(unsigned freq) const {
  const std::lock_guard lock(lock_);
  return freq >= info_.frequency_min && (info_.frequency_max == 0 || freq <= info_.frequency_max);
}

unsigned Device::lowest_hz() const {
  const std::lock_guard lock(lock_);
  return info_.frequency_min;
}

unsigned Device::highest_hz() const {
  const std::lock_guard lock(lock_);
  return info_.frequency_max;
}

int Device::control(unsigned long request, void* argument, const Turn* turn) {
  if (!begin_use())
    return -1;
  int result = -1;
  if (turn != nullptr && turn->over()) {
    errno = ECANCELED;
  } else {
    result = uninterrupted([&] { return ioctl(device_, request, argument); });
  }
  const int error = errno;
  if (result < 0 && error == ENODEV)
    set_gone();
  if (result >= 0 && is_reading(request)) {
    core_answers_ = true;
    core_cured_ = false;
  }
  end_use();
  errno = error;
  return result;
}

bool Device::cure_missing_core() {
  if (core_answers_ || core_cured_)
    return false;
  uint16_t strength = 0;
  if (control(FE_READ_SIGNAL_STRENGTH, &strength) >= 0 || errno != EAGAIN) {
    core_answers_ = true;
    return false;
  }
  if (!open_again())
    return false;
  core_cured_ = true;
  return true;
}

// Without a lock while it waits: who closes the device ends the wait, and the rest of it is for `wake_up` alone.
int Device::begin_polling(const Wake_up& wake_up) {
  const std::lock_guard lock(lock_);
  polling_ = &wake_up;
  polled_ = device_;
  return polled_;
}

bool Device::end_polling(int device) {
  bool taken_away = false;
  {
    const std::lock_guard lock(lock_);
    taken_away = polled_ != device;
    if (taken_away)
      polling_->take();  // before the closing goes on, and with it whoever wakes for something else
    polling_ = nullptr;
    ++polls_ended_;
  }
  use_ended_.notify_all();
  return taken_away;
}

Device::Waited Device::wait_for_event(const Wake_up& wake_up, int timeout_ms) {
  const int device = begin_polling(wake_up);
  pollfd entries[] = {{device, POLLIN, 0}, {wake_up.handle(), POLLIN, 0}};
  const int64_t end = monotonic_ms() + timeout_ms;
  int ready = poll(entries, 2, timeout_ms);
  for (int64_t left = 0; ready < 0 && errno == EINTR && (left = end - monotonic_ms()) > 0;)
    ready = poll(entries, 2, static_cast<int>(left));
  const int error = errno;
  if (end_polling(device)) {
    const int64_t left = end - monotonic_ms();
    if (left > 0)
      (void)poll(entries + 1, 1, static_cast<int>(left));  // a signal only makes it shorter
    return Waited::ENOUGH;
  }
  errno = error;
  if (ready < 0 && errno == EINTR)
    return Waited::ENOUGH;
  const bool failed_before = std::exchange(wait_fails_, ready < 0);
  if (ready < 0) {
    kelvo_log::print_errno("Lock poll thread: ");
    if (failed_before)
      return Waited::GONE;
  } else if ((entries[0].revents & POLLIN) != 0) {
    dvb_frontend_event event{};  // only ends the wait
    if (control(FE_GET_EVENT, &event) < 0)
      KLOG(VERB_WARNING, "WARNING: Failed to read fe event\n");
    // One that was queued when the device went makes it ready for ever.
    if (gone_ && !said_)
      return Waited::GONE;
  } else if (ready > 0 && (entries[1].revents & POLLIN) == 0) {
    return Waited::GONE;
  }
  return Waited::ENOUGH;
}
