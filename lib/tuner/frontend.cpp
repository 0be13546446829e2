// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/frontend.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/log.h"

Frontend::Frontend(const char* path) {
  (void)std::snprintf(path_, sizeof path_, "%s", path);  // longer paths are cut
  KLOG(VERB_TRACE, "Opening %s\n", path_);
  // Not blocking only concerns FE_GET_EVENT, which must never wait while it holds the device's lock.
  device_ = open(path_, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (device_ < 0)
    KLOG(VERB_ERROR, "ERROR: Failed to  open %s\n", path_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is glibc's
  if (control(FE_GET_INFO, &info_) < 0)
    KLOG(VERB_ERROR, "ERROR: FE_GET_INFO failed: %d %m\n", errno);
#pragma GCC diagnostic pop
  info_.name[sizeof info_.name - 1] = '\0';
  KLOG(VERB_PROGRESS, " Front end name is %s, type is %d\n  Freq min: %u Freq max: %u\n", info_.name,
       static_cast<int>(info_.type), info_.frequency_min, info_.frequency_max);
  KLOG(VERB_PROGRESS, "  Freq step: %u, Tolerance: %u\n", info_.frequency_stepsize, info_.frequency_tolerance);
  if (info_.type != FE_OFDM)
    KLOG(VERB_ERROR, "ERROR: Fronetnd %s cannot OFDM", info_.name);
}

void Frontend::close() {
  const std::lock_guard lock(device_lock_);
  const int device = device_.exchange(-1);
  if (device >= 0)
    (void)::close(device);  // nothing was written to it
}

int Frontend::control(unsigned long request, void* argument) {
  const std::lock_guard lock(device_lock_);
  return ioctl(device_.load(), request, argument);
}

bool Frontend::tune(dvb_frontend_parameters parameters) {
  if (control(FE_SET_FRONTEND, &parameters) >= 0)
    return true;
  KLOG(VERB_ERROR, "ERROR: Setting frontend parameters for %s failed\n", path_);
  return false;
}

std::optional<int> Frontend::freq() {
  dvb_frontend_parameters parameters{};
  if (control(FE_GET_FRONTEND, &parameters) >= 0)
    return static_cast<int>(parameters.frequency);
  KLOG(VERB_ERROR, "ERROR: Getting frontend parameters for %s failed\n", path_);
  return std::nullopt;
}

std::optional<int> Frontend::status() {
  // Not the enum type: the box's driver sets bits that it does not have.
  uint32_t status = 0;
  static_assert(sizeof status == sizeof(fe_status_t));
  if (control(FE_READ_STATUS, &status) >= 0)
    return static_cast<int>(status);
  KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
  return std::nullopt;
}

std::optional<uint16_t> Frontend::strength() {
  uint16_t raw = 1;
  const int result = control(FE_READ_SIGNAL_STRENGTH, &raw);
  if (result >= 0)
    return raw;
  KLOG(VERB_ERROR, "ERROR: FE_READ_STRENGTH failed for %s failed, rc is %d\n", path_, result);
  return std::nullopt;
}

std::optional<uint32_t> Frontend::ber() {
  uint32_t raw = 1;
  if (control(FE_READ_BER, &raw) >= 0)
    return raw;
  // Deliberate: this and snr() say FE_READ_STATUS.
  KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
  return std::nullopt;
}

std::optional<uint16_t> Frontend::snr() {
  uint16_t raw = 1;
  if (control(FE_READ_SNR, &raw) >= 0)
    return raw;
  KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
  return std::nullopt;
}

Frontend::Waited Frontend::wait_for_event(const Wake_up& wake_up, int timeout_ms) {
  pollfd entries[] = {{device_, POLLIN, 0}, {wake_up.handle(), POLLIN, 0}};
  const int ready = poll(entries, 2, timeout_ms);
  if (ready < 0) {
    kelvo_log::print_errno("Lock poll thread: ");
  } else if ((entries[0].revents & POLLIN) != 0) {
    dvb_frontend_event event{};  // only ends the wait
    if (control(FE_GET_EVENT, &event) < 0)
      KLOG(VERB_WARNING, "WARNING: Failed to read fe event\n");
  } else if (ready > 0 && (entries[1].revents & POLLIN) == 0) {
    return Waited::GONE;
  }
  return Waited::ENOUGH;
}
