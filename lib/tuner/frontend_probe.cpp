// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/frontend_probe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "base/uninterrupted.h"
#include "tuner/tuner.h"

namespace {

constexpr int MAX_FRONTENDS = 16;

// Empty when the device does not answer. `call` is an ioctl on it.
template <typename Call>
std::optional<std::vector<int>> enumerate(const Call& call) {
  dtv_property property{};
  property.cmd = DTV_ENUM_DELSYS;
  dtv_properties all{};
  all.num = 1;
  all.props = &property;
  if (call(FE_GET_PROPERTY, &all) < 0)
    return std::nullopt;
  std::vector<int> systems;
  const size_t count = std::min<size_t>(property.u.buffer.len, sizeof property.u.buffer.data);
  for (size_t i = 0; i < count; ++i)
    systems.push_back(property.u.buffer.data[i]);
  return systems;
}

template <typename Call>
std::vector<int> by_type(const Call& call) {
  dvb_frontend_info info{};
  if (call(FE_GET_INFO, &info) < 0)
    return {};
  switch (info.type) {
    case FE_OFDM:
      return {SYS_DVBT};
    case FE_QAM:
      return {SYS_DVBC_ANNEX_A};
    case FE_QPSK:
      return {SYS_DVBS};
    default:
      return {SYS_ATSC};
  }
}

class Opened {
 public:
  Opened(const char* path, int flags)
      : fd_(uninterrupted([=] { return open(path, flags | O_NONBLOCK | O_CLOEXEC); })), error_(fd_ < 0 ? errno : 0) {}
  ~Opened() {
    if (fd_ >= 0)
      (void)close(fd_);  // nothing was written to it
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  int error() const { return error_; }
  int operator()(unsigned long request, void* argument) const {
    return uninterrupted([=, this] { return ioctl(fd_, request, argument); });
  }

 private:
  const int fd_;
  const int error_;
};

bool receives(const Frontend_state& state, int system) {
  return std::find(state.systems.begin(), state.systems.end(), system) != state.systems.end();
}

}  // namespace

std::vector<int> frontend_probe::systems(Device& device) {
  const auto call = [&device](unsigned long request, void* argument) { return device.control(request, argument); };
  const auto systems = enumerate(call);
  return systems ? *systems : by_type(call);
}

std::vector<int> frontend_probe::terrestrial(const std::vector<int>& systems) {
  std::vector<int> chosen;
  std::copy_if(systems.begin(), systems.end(), std::back_inserter(chosen),
               [](int system) { return system == SYS_DVBT || system == SYS_DVBT2; });
  return chosen;
}

bool frontend_probe::misses_firmware(Device& device) {
  uint32_t status = 0;
  if (device.control(FE_READ_STATUS, &status) >= 0 || errno != EAGAIN)
    return false;
  // The core has the same answer for a device that was opened right behind a close, which opening it again cures.
  return device.open_again() && device.control(FE_READ_STATUS, &status) < 0 && errno == EAGAIN;
}

Frontend_state Tuner::probe(const char* path) {
  Frontend_state state;
  state.path = path;
  const Opened reader(path, O_RDONLY);
  state.error = reader.error();
  if (state.error != 0)
    return state;
  dvb_frontend_info info{};
  if (reader(FE_GET_INFO, &info) < 0) {
    state.error = errno;
    return state;
  }
  state.name.assign(info.name, strnlen(info.name, sizeof info.name));
  const int64_t unit = info.type == FE_QPSK ? 1000 : 1;  // satellites' limits are in kHz
  state.lowest_hz = info.frequency_min * unit;
  state.highest_hz = info.frequency_max * unit;
  auto systems = enumerate(reader);
  if (!systems) {
    // Some drivers answer readers nothing until they are locked; a writer that has not tuned is served.
    const Opened writer(path, O_RDWR);
    if (writer.error() == 0)
      systems = enumerate(writer);
  }
  state.all_systems = systems ? *systems : by_type(reader);
  state.systems = frontend_probe::terrestrial(state.all_systems);
  return state;
}

Frontend_state Tuner::check(const char* path) {
  Frontend_state state = probe(path);
  if (state.error != 0)
    return state;
  Device device(path, false);
  state.firmware_missing = device.error() == 0 && frontend_probe::misses_firmware(device);
  state.error = device.error();
  return state;
}

Frontend_state Tuner::best_frontend(int adapter) {
  Frontend_state best;
  for (int number = 0; number < MAX_FRONTENDS; ++number) {
    char path[64];
    (void)std::snprintf(path, sizeof path, "/dev/dvb/adapter%d/frontend%d", adapter, number);
    Frontend_state state = probe(path);
    if (number == 0)
      best = state;
    if (state.error == ENOENT && number > 0)
      break;
    if (receives(state, SYS_DVBT2))
      return state;
    if (receives(state, SYS_DVBT) && !receives(best, SYS_DVBT))
      best = state;
  }
  return best;
}
