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

#include "base/log.h"

namespace {

// Not blocking only concerns FE_GET_EVENT, which must never wait while the device is in use.
constexpr int OPEN_FLAGS = O_RDWR | O_NONBLOCK | O_CLOEXEC;

}  // namespace

Device::Device(const char* path, bool said) : said_(said) {
  (void)std::snprintf(path_, sizeof path_, "%s", path);  // longer paths are cut
  KLOG(VERB_TRACE, "Opening %s\n", path_);
  device_ = open(path_, OPEN_FLAGS);
  if (device_ < 0) {
    error_ = errno;
    if (said_)
      KLOG(VERB_ERROR, "ERROR: Failed to  open %s\n", path_);
  }
  ask();
}

void Device::ask() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is glibc's
  if (ioctl(device_, FE_GET_INFO, &info_) < 0 && said_)
    KLOG(VERB_ERROR, "ERROR: FE_GET_INFO failed: %d %m\n", errno);
#pragma GCC diagnostic pop
  info_.name[sizeof info_.name - 1] = '\0';
  KLOG(VERB_PROGRESS, " Front end name is %s, type is %d\n  Freq min: %u Freq max: %u\n", info_.name,
       static_cast<int>(info_.type), info_.frequency_min, info_.frequency_max);
  KLOG(VERB_PROGRESS, "  Freq step: %u, Tolerance: %u\n", info_.frequency_stepsize, info_.frequency_tolerance);
  if (info_.type != FE_OFDM && said_)
    KLOG(VERB_ERROR, "ERROR: Fronetnd %s cannot OFDM", info_.name);
}

void Device::close() {
  const std::unique_lock lock(in_use_);
  if (device_ >= 0)
    (void)::close(device_);  // nothing was written to it
  device_ = -1;
}

void Device::close_gone() {
  error_ = ENODEV;
  gone_ = true;
  close();
}

bool Device::open_again() {
  const std::unique_lock lock(in_use_);
  if (device_ >= 0)
    (void)::close(device_);
  device_ = open(path_, OPEN_FLAGS);
  if (device_ < 0) {
    error_ = gone_ ? ENODEV : errno;
    return false;
  }
  error_ = 0;
  gone_ = false;
  ask();
  return true;
}

std::string Device::name() const {
  const std::shared_lock lock(in_use_);
  return info_.name;
}

bool Device::covers(unsigned freq) const {
  const std::shared_lock lock(in_use_);
  return freq >= info_.frequency_min && freq <= info_.frequency_max;
}

bool Device::may_cover(unsigned freq) const {
  const std::shared_lock lock(in_use_);
  return freq >= info_.frequency_min && (info_.frequency_max == 0 || freq <= info_.frequency_max);
}

unsigned Device::lowest_hz() const {
  const std::shared_lock lock(in_use_);
  return info_.frequency_min;
}

unsigned Device::highest_hz() const {
  const std::shared_lock lock(in_use_);
  return info_.frequency_max;
}

int Device::control(unsigned long request, void* argument) {
  const std::shared_lock lock(in_use_);
  // One call at a time, as the kernel would have it: when a device is pulled out while its driver is busy, Linux's DVB
  // core forgets those that wait for their turn, and they never come back.
  const std::lock_guard turn(one_call_);
  int result = 0;
  do
    result = ioctl(device_, request, argument);
  while (result < 0 && errno == EINTR);
  if (result < 0 && errno == ENODEV) {
    error_ = ENODEV;
    gone_ = true;
  }
  return result;
}

Device::Waited Device::wait_for_event(const Wake_up& wake_up, int timeout_ms) {
  int device = -1;
  {
    // Not held while waiting: who closes the device does not wait for events. poll() takes a closed one as well.
    const std::shared_lock lock(in_use_);
    device = device_;
  }
  pollfd entries[] = {{device, POLLIN, 0}, {wake_up.handle(), POLLIN, 0}};
  const int ready = poll(entries, 2, timeout_ms);
  if (ready < 0) {
    kelvo_log::print_errno("Lock poll thread: ");
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
