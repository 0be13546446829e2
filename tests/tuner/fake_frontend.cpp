// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/fake_frontend.h"

#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <stdexcept>

namespace {

std::atomic<Fake_frontend*> the_frontend{nullptr};
constexpr time_t START = 1000;

int system_poll(pollfd* entries, nfds_t count, int timeout_ms) {
  const timespec timeout{timeout_ms / 1000, timeout_ms % 1000 * 1000000L};
  return static_cast<int>(syscall(SYS_ppoll, entries, count, timeout_ms < 0 ? nullptr : &timeout, nullptr, 0));
}

}  // namespace

// This program's own functions: the library's calls end here, too.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  Fake_frontend* frontend = the_frontend;
  if (frontend != nullptr && frontend->is_mine(fd))
    return frontend->on_ioctl(request, argument);
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int poll(pollfd* entries, nfds_t count, int timeout_ms) {
  Fake_frontend* frontend = the_frontend;
  if (frontend != nullptr && count == 2 && (entries[0].fd < 0 || frontend->is_mine(entries[0].fd)))
    return frontend->on_poll(entries, timeout_ms);
  return system_poll(entries, count, timeout_ms);
}

extern "C" int nanosleep(const timespec* time, timespec* left) {
  Fake_frontend* frontend = the_frontend;
  if (frontend == nullptr)
    return static_cast<int>(syscall(SYS_nanosleep, time, left));
  frontend->on_sleep(static_cast<int>(time->tv_sec * 1000 + time->tv_nsec / 1000000));
  return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const Fake_frontend* frontend = the_frontend;
  if (frontend == nullptr || clock != CLOCK_REALTIME)
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  *time = frontend->now();
  return 0;
}

Fake_frontend::Fake_frontend()
    : path_(folder_.file("frontend0")), go_(eventfd(0, 0)), waiting_(eventfd(0, EFD_SEMAPHORE)) {
  support::write_file(path_, "");
  the_frontend = this;
}

Fake_frontend::~Fake_frontend() {
  the_frontend = nullptr;
  close(go_);
  close(waiting_);
}

bool Fake_frontend::is_mine(int handle) const {
  struct stat device {};
  struct stat other {};
  return stat(path_.c_str(), &device) == 0 && fstat(handle, &other) == 0 && device.st_ino == other.st_ino &&
         device.st_dev == other.st_dev;
}

timespec Fake_frontend::now() const {
  const int ms = elapsed_ms_;
  return {START + ms / 1000, ms % 1000 * 1000000L};
}

dvb_frontend_parameters Fake_frontend::tuned() const {
  const std::lock_guard lock(lock_);
  return tuned_;
}

void Fake_frontend::note(const std::string& call) {
  const std::lock_guard lock(lock_);
  (std::this_thread::get_id() == test_thread_ ? own_calls_ : monitor_calls_).push_back(call);
}

support::Texts Fake_frontend::take(bool own) {
  const std::lock_guard lock(lock_);
  return std::exchange(own ? own_calls_ : monitor_calls_, {});
}

size_t Fake_frontend::monitor_calls() const {
  const std::lock_guard lock(lock_);
  return monitor_calls_.size();
}

void Fake_frontend::on_sleep(int ms) {
  note("sleep " + std::to_string(ms));
  if (std::this_thread::get_id() != test_thread_) {
    const timespec moment{0, 1000000};
    (void)syscall(SYS_nanosleep, &moment, nullptr);  // so that a thread that sleeps all the time leaves others some
    return;
  }
  elapsed_ms_ += ms;
  if (after_sleep)
    after_sleep();
}

// By their names: handles that other threads close are not touched.
bool Fake_frontend::is_open() const {
  std::error_code gone;
  for (const auto& handle : std::filesystem::directory_iterator("/proc/self/fd")) {
    if (std::filesystem::read_symlink(handle.path(), gone) == path_)
      return true;
  }
  return false;
}

// The lock is taken around each token, so that what one thread did before is seen by the other.
void Fake_frontend::hand_over(int handle) {
  const uint64_t token = 1;
  const std::lock_guard lock(lock_);
  (void)!write(handle, &token, sizeof token);
}

void Fake_frontend::take_over(int handle) {
  uint64_t token = 0;
  const std::lock_guard lock(lock_);
  (void)!read(handle, &token, sizeof token);
}

int Fake_frontend::on_poll(pollfd* entries, int timeout_ms) {
  note("wait " + std::to_string(timeout_ms));
  hand_over(waiting_);
  pollfd ends[] = {{go_, POLLIN, 0}, {entries[1].fd, POLLIN, 0}};
  (void)system_poll(ends, 2, -1);
  entries[0].revents = 0;
  entries[1].revents = ends[1].revents;
  if (entries[1].revents != 0)
    return 1;
  take_over(go_);
  if (events_ < 0) {
    errno = -events_;
    return -1;
  }
  entries[0].revents = events_;
  if (events_ == 0)
    elapsed_ms_ += timeout_ms;
  return events_ == 0 ? 0 : 1;
}

void Fake_frontend::reach_wait() {
  if (std::exchange(at_wait_, true))
    return;
  pollfd entry{waiting_, POLLIN, 0};
  if (system_poll(&entry, 1, 60000) != 1)
    throw std::runtime_error("the monitor does not wait for the device");
  take_over(waiting_);
}

void Fake_frontend::end_wait(short events) {
  reach_wait();
  at_wait_ = false;
  events_ = events;
  hand_over(go_);
}

void Fake_frontend::pass(short events) {
  end_wait(events);
  reach_wait();
}

int Fake_frontend::on_ioctl(unsigned long request, void* argument) {
  if (request == failing) {
    errno = EIO;
    return -1;
  }
  if (request == FE_GET_INFO) {
    auto* info = static_cast<dvb_frontend_info*>(argument);
    std::strcpy(info->name, "fake");
    info->type = FE_OFDM;
    info->frequency_min = 470000000;
    info->frequency_max = 862000000;
    return 0;
  }
  const std::pair<unsigned long, const char*> names[] = {
      {FE_SET_FRONTEND, "FE_SET_FRONTEND"}, {FE_GET_FRONTEND, "FE_GET_FRONTEND"},
      {FE_READ_STATUS, "FE_READ_STATUS"},   {FE_READ_BER, "FE_READ_BER"},
      {FE_READ_SNR, "FE_READ_SNR"},         {FE_READ_SIGNAL_STRENGTH, "FE_READ_SIGNAL_STRENGTH"},
      {FE_GET_EVENT, "FE_GET_EVENT"},
  };
  const auto* const name =
      std::find_if(std::begin(names), std::end(names), [=](const auto& entry) { return entry.first == request; });
  if (name == std::end(names)) {
    errno = ENOTTY;
    return -1;
  }
  note(name->second);
  if (request == FE_SET_FRONTEND) {
    const std::lock_guard lock(lock_);
    tuned_ = *static_cast<dvb_frontend_parameters*>(argument);
  } else if (request == FE_GET_FRONTEND) {
    *static_cast<dvb_frontend_parameters*>(argument) = tuned();
  } else if (request == FE_READ_STATUS || request == FE_READ_BER) {
    *static_cast<uint32_t*>(argument) = request == FE_READ_BER ? ber.load() : status.load();
  } else if (request != FE_GET_EVENT) {
    *static_cast<uint16_t*>(argument) = static_cast<uint16_t>(request == FE_READ_SNR ? snr.load() : strength.load());
  }
  return 0;
}
