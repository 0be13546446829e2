// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/device.h"

#include <fcntl.h>
#include <linux/dvb/frontend.h>
#include <sys/ioctl.h>
#include <tuner/tuner.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/engine/holder.h"
#include "tools/engine/tuning_text.h"

namespace {

class Device {
 public:
  Device(const std::string& path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC)) {
    if (fd_ >= 0) {
      return;
    }
    throw Failure(frontend_failure(path, errno));
  }
  ~Device() { (void)close(fd_); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::string demux_of(int adapter) {
  return fmt::format("/dev/dvb/adapter{}/demux0", adapter);
}

Frontend_info check_first(int adapter) {
  const std::string path = fmt::format("/dev/dvb/adapter{}/frontend0", adapter);
  const Device frontend(path, O_RDWR);
  const Device demux(demux_of(adapter), O_RDWR | O_NONBLOCK);
  dvb_frontend_info info{};
  if (ioctl(frontend.fd(), FE_GET_INFO, &info) != 0) {
    throw Failure(fmt::format("{}: does not answer: {}", path, strerror(errno)));
  }
  Frontend_info out;
  out.path = path;
  out.name = clean_text({info.name, strnlen(info.name, sizeof info.name)});
  // Refused with the name of the receiver: a scan would only find nothing on any frequency.
  if (info.type != FE_OFDM) {
    throw Failure(fmt::format("{}: {} does not receive DVB-T", path, out.name));
  }
  out.lowest_hz = info.frequency_min;
  out.highest_hz = info.frequency_max;
  out.systems = {SYS_DVBT};
  return out;
}

Frontend_info check_best(int adapter) {
  const Frontend_state state = Tuner::best_frontend(adapter);
  if (state.error != 0) {
    throw Failure(frontend_failure(state.path, state.error));
  }
  Frontend_info out;
  out.path = state.path;
  out.name = clean_text(state.name);
  if (state.systems.empty()) {
    throw Failure(fmt::format("{}: {} does not receive DVB-T or DVB-T2", out.path, out.name));
  }
  if (holder_of(out.path)) {
    throw Failure(frontend_failure(out.path, EBUSY));
  }
  const Device demux(demux_of(adapter), O_RDWR | O_NONBLOCK);
  out.systems = state.systems;
  out.lowest_hz = static_cast<unsigned>(state.lowest_hz);
  out.highest_hz = static_cast<unsigned>(state.highest_hz);
  return out;
}

}  // namespace

Frontend_info check_adapter(int adapter, const Receiver_profile& profile) {
  const bool best = profile.frontend == Receiver_profile::Frontend::BEST;
  Frontend_info out = best ? check_best(adapter) : check_first(adapter);
  out.profile = profile;
  return out;
}

void check_frontend(int adapter, const Frontend_state& state) {
  if (state.error == ENODEV) {
    throw Failure(fmt::format("adapter {} is gone", adapter));
  }
  if (state.error != 0) {
    throw Failure(frontend_failure(state.path, state.error));
  }
  if (state.firmware_missing) {
    throw Failure(state.path + ": its firmware is missing; 'dmesg' says which file");
  }
}
