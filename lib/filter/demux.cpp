// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "filter/demux.h"

#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"

Demux::Demux(const char* device) {
  (void)std::snprintf(device_, sizeof device_, "%s", device);  // longer paths are cut
  FD_ZERO(&read_set_);
}

bool Demux::open(dvb_filter_desc& f) {
  f.fd = ::open(device_, O_RDONLY | O_NONBLOCK);
  if (f.fd >= FD_SETSIZE) {  // select cannot wait on it, so it is as good as none
    (void)::close(f.fd);
    f.fd = -1;
    errno = EMFILE;
  }
  if (f.fd >= 0) {
    ++nr_opened_;
    return true;
  }
  KLOG(VERB_WARNING, "WARNING: Failed to  open %s, balance %d for pid %x tid %x, retcode %d\n", device_, nr_opened_,
       static_cast<unsigned>(f.pid), static_cast<unsigned>(f.filter[0]), f.fd);
  kelvo_log::print_errno("fopen");
  return false;
}

bool Demux::close(dvb_filter_desc& f) {
  (void)unwatch(f.fd);
  const bool closed = ::close(f.fd) == 0;
  f.fd = -1;
  --nr_opened_;
  return closed;
}

void Demux::program(const dvb_filter_desc& f) {
  KLOG(VERB_TRACE, "setting HW for filter pid %d, fdes %d\n", f.pid, f.fd);
  dmx_sct_filter_params params{};
  params.pid = static_cast<__u16>(f.pid);
  std::copy_n(f.filter, FILTER_LENGTH, params.filter.filter);
  std::copy_n(f.mask, FILTER_LENGTH, params.filter.mask);
  params.flags = ((f.flags & FILTER_FLAG_HW_CRC) != 0 ? DMX_CHECK_CRC : 0u) |
                 ((f.flags & FILTER_FLAG_ONESHOT) != 0 ? DMX_ONESHOT : 0u);
  KLOG(VERB_TRACE, "Filter TID is %x", static_cast<unsigned>(f.filter[0]));
  ++programmed_;
  if (ioctl(f.fd, DMX_SET_FILTER, &params) < 0)
    KLOG(VERB_ERROR, "ERROR: ioctl DMX_SET_FILTER failed");
  if (!start(f))
    KLOG(VERB_ERROR, "ERROR: ioctl DMX_START FILTER failed");
}

bool Demux::start(const dvb_filter_desc& f) {
  return ioctl(f.fd, DMX_START) >= 0;
}

bool Demux::stop(const dvb_filter_desc& f) {
  if (ioctl(f.fd, DMX_STOP) >= 0)
    return true;
  KLOG(VERB_ERROR, "ERROR: Filter stop failed for demux file nr %d, error %s \n", f.fd, std::strerror(errno));
  return false;
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
