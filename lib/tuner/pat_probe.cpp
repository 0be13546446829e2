// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/pat_probe.h"

#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "base/ids.h"
#include "base/monotonic.h"
#include "base/uninterrupted.h"
#include "tuner/turn.h"

namespace {

constexpr int PERIOD_MS = 50;
constexpr int LONGEST_SECTION = 4096;

class Handle {
 public:
  explicit Handle(const std::string& path)
      : fd_(uninterrupted([&path] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); })) {}
  ~Handle() {
    if (fd_ >= 0)
      (void)close(fd_);  // nothing was written to it
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  int fd() const { return fd_; }

 private:
  const int fd_;
};

bool start_filter(int fd) {
  dmx_sct_filter_params params{};
  params.pid = pid::PAT;
  params.filter.filter[0] = table::PAT;
  params.filter.mask[0] = 0xFF;
  params.flags = DMX_CHECK_CRC | DMX_IMMEDIATE_START;
  return uninterrupted([&] { return ioctl(fd, DMX_SET_FILTER, &params); }) >= 0;
}

}  // namespace

Pat_probe::Answer Pat_probe::wait(int timeout_ms, const Turn& turn) const {
  const Handle demux(demux_);
  if (demux.fd() < 0 || !start_filter(demux.fd()))
    return Answer::UNKNOWN;
  const int64_t end = monotonic_ms() + timeout_ms;
  char section[LONGEST_SECTION];
  while (!turn.over()) {
    pollfd entry{demux.fd(), POLLIN, 0};
    const int ready = poll(&entry, 1, PERIOD_MS);
    if (ready < 0)
      (void)usleep(PERIOD_MS * 1000);  // what fails for ever must not keep the processor busy
    const ssize_t got =
        ready > 0 ? uninterrupted([&] { return read(demux.fd(), section, sizeof section); }) : ssize_t{0};
    if (got > 0)
      return Answer::CAME;
    // Of a device that has gone: the call says so, or there is an error and never any data.
    if (got < 0 && (errno == ENODEV || ((entry.revents & POLLIN) == 0 && errno == EAGAIN)))
      return Answer::NONE;
    if (monotonic_ms() >= end)
      break;
  }
  return Answer::NONE;
}
