// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/device.h"

#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace {

class Device {
 public:
  Device(const std::string& path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC)) {
    if (fd_ >= 0) {
      return;
    }
    // What people can do about it is said where it is known: plug in, stop a program, join a group.
    switch (errno) {
      case ENOENT:
      case ENODEV:
      case ENXIO:
      case ENOTDIR:
        throw Failure(fmt::format("{}: no such device; is the adapter plugged in?", path));
      case EBUSY:
        throw Failure(fmt::format("{}: in use by another program; stop it first", path));
      case EACCES:
      case EPERM:
        throw Failure(fmt::format("{}: permission denied; is the user in group video?", path));
      default:
        throw Failure(fmt::format("{}: cannot be opened: {}", path, strerror(errno)));
    }
  }
  ~Device() { (void)close(fd_); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

Frontend_info check_adapter(int adapter) {
  const std::string path = fmt::format("/dev/dvb/adapter{}/frontend0", adapter);
  const Device frontend(path, O_RDWR);
  const Device demux(fmt::format("/dev/dvb/adapter{}/demux0", adapter), O_RDWR | O_NONBLOCK);
  dvb_frontend_info info{};
  if (ioctl(frontend.fd(), FE_GET_INFO, &info) != 0) {
    throw Failure(fmt::format("{}: does not answer: {}", path, strerror(errno)));
  }
  Frontend_info out;
  out.name = clean_text({info.name, strnlen(info.name, sizeof info.name)});
  // Refused with the name of the receiver: a scan would only find nothing on any frequency.
  if (info.type != FE_OFDM) {
    throw Failure(fmt::format("{}: {} does not receive DVB-T", path, out.name));
  }
  out.lowest_hz = info.frequency_min;
  out.highest_hz = info.frequency_max;
  return out;
}
