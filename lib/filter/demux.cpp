// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "filter/demux.h"

#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "base/uninterrupted.h"

namespace {

template <typename... Argument>
int control(int handle, unsigned long request, Argument... argument) {
  return uninterrupted([=] { return ioctl(handle, request, argument...); });
}

// What opening says where a node is missing, or stands without a device.
bool is_absence(int error) {
  return error == ENODEV || error == ENXIO || error == ENOENT;
}

int64_t monotonic_ns() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

}  // namespace

Demux::Demux(const char* device) {
  (void)std::snprintf(device_, sizeof device_, "%s", device);  // longer paths are cut
  FD_ZERO(&read_set_);
}

// What a call says of a watched device that is no longer there.
bool Demux::is_loss(int error) const {
  return options_.watch_device && error == ENODEV;
}

void Demux::note_gone(const char* how) {
  if (!gone_.exchange(true))
    KLOG(VERB_WARNING, "WARNING: %s is gone: %s\n", device_, how);
}

bool Demux::open(dvb_filter_desc& f) {
  if (gone_)
    return false;
  f.fd = uninterrupted([this] { return ::open(device_, O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
  if (f.fd >= FD_SETSIZE) {  // select cannot wait on it, so it is as good as none
    (void)::close(f.fd);
    f.fd = -1;
    errno = EMFILE;
  }
  if (f.fd >= 0) {
    ++nr_opened_;
    if (options_.buffer_bytes > 0)
      set_buffer(f.fd);
    return true;
  }
  if (options_.watch_device && is_absence(errno)) {
    note_gone(std::strerror(errno));
    return false;
  }
  KLOG(VERB_WARNING, "WARNING: Failed to  open %s, balance %d for pid %x tid %x, retcode %d\n", device_, nr_opened_,
       static_cast<unsigned>(f.pid), static_cast<unsigned>(f.filter[0]), f.fd);
  kelvo_log::print_errno("fopen");
  return false;
}

bool Demux::answers() const {
  const int handle = uninterrupted([this] { return ::open(device_, O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
  if (handle < 0)
    return !is_absence(errno);
  (void)::close(handle);  // nothing was written to it
  return true;
}

void Demux::set_buffer(int handle) {
  if (control(handle, DMX_SET_BUFFER_SIZE, static_cast<unsigned long>(options_.buffer_bytes)) == 0)
    return;
  if (is_loss(errno))
    note_gone(std::strerror(errno));
  else if (!std::exchange(buffer_refused_, true))
    KLOG(VERB_WARNING, "WARNING: %s: no buffer of %d bytes: %s\n", device_, options_.buffer_bytes,
         std::strerror(errno));
}

bool Demux::close(dvb_filter_desc& f) {
  (void)unwatch(f.fd);
  const bool closed = ::close(f.fd) == 0;
  f.fd = -1;
  --nr_opened_;
  return closed;
}

bool Demux::program(const dvb_filter_desc& f) {
  if (gone_)
    return true;
  KLOG(VERB_TRACE, "setting HW for filter pid %d, fdes %d\n", f.pid, f.fd);
  dmx_sct_filter_params params{};
  params.pid = static_cast<__u16>(f.pid);
  std::copy_n(f.filter, FILTER_LENGTH, params.filter.filter);
  std::copy_n(f.mask, FILTER_LENGTH, params.filter.mask);
  params.flags = ((f.flags & FILTER_FLAG_HW_CRC) != 0 ? DMX_CHECK_CRC : 0u) |
                 ((f.flags & FILTER_FLAG_ONESHOT) != 0 ? DMX_ONESHOT : 0u);
  KLOG(VERB_TRACE, "Filter TID is %x", static_cast<unsigned>(f.filter[0]));
  ++programmed_;
  bool programmed = true;
  if (control(f.fd, DMX_SET_FILTER, &params) < 0) {
    if (is_loss(errno)) {
      note_gone(std::strerror(errno));
    } else {
      KLOG(VERB_ERROR, "ERROR: ioctl DMX_SET_FILTER failed");
      programmed = false;
    }
  }
  if (!start(f)) {
    KLOG(VERB_ERROR, "ERROR: ioctl DMX_START FILTER failed");
    programmed = false;
  }
  return programmed;
}

bool Demux::start(const dvb_filter_desc& f) {
  if (gone_ || control(f.fd, DMX_START) >= 0)
    return true;
  if (!is_loss(errno))
    return false;
  note_gone(std::strerror(errno));
  return true;
}

bool Demux::stop(const dvb_filter_desc& f) {
  if (gone_ || control(f.fd, DMX_STOP) >= 0)
    return true;
  if (is_loss(errno)) {
    note_gone(std::strerror(errno));
    return true;
  }
  KLOG(VERB_ERROR, "ERROR: Filter stop failed for demux file nr %d, error %s \n", f.fd, std::strerror(errno));
  return false;
}

int Demux::read(const dvb_filter_desc& f, void* buf, size_t size) {
  const auto got = static_cast<int>(uninterrupted([&] { return ::read(f.fd, buf, size); }));
  if (!options_.watch_device)
    return got;
  if (got == 0 || (got < 0 && errno == EAGAIN)) {
    note_empty_read(f.fd);
    return 0;
  }
  empty_reads_ = 0;
  if (got > 0 || !is_loss(errno))
    return got;
  note_gone(std::strerror(errno));
  return 0;
}

void Demux::note_empty_read(int handle) {
  // Of a device that is there an error comes with data, or in their place.
  pollfd state{handle, POLLIN, 0};
  if (uninterrupted([&] { return poll(&state, 1, 0); }) == 1 && (state.revents & POLLIN) == 0) {
    note_gone("it has no more data");
    return;
  }
  const int64_t now_ns = monotonic_ns();
  if (empty_reads_++ == 0)
    empty_until_ns_ = now_ns + int64_t{EMPTY_S} * 1000000000;
  if (empty_reads_ >= EMPTY_READS && now_ns >= empty_until_ns_)
    note_gone("it says that there are data, and has none");
}

void Demux::watch(int handle) {
  FD_SET(handle, &read_set_);
}

bool Demux::unwatch(int handle) {
  const bool was_in = FD_ISSET(handle, &read_set_);
  FD_CLR(handle, &read_set_);
  return was_in;
}

void Demux::unwatch_all() {
  FD_ZERO(&read_set_);
}
