// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "filter/fake_demux.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <stdexcept>

namespace {

std::atomic<Fake_demux*> the_demux{nullptr};

}  // namespace

// This program's own ioctl, read and poll: the library's calls end here, too.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  Fake_demux* demux = Fake_demux::current();
  if (demux != nullptr && demux->is_mine(fd))
    return demux->on_ioctl(fd, request, argument);
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" ssize_t read(int fd, void* buffer, size_t size) {
  Fake_demux* demux = Fake_demux::current();
  int error = 0;
  if (demux != nullptr && demux->is_mine(fd) && demux->on_read(&error)) {
    errno = error;
    return -1;
  }
  return syscall(SYS_read, fd, buffer, size);
}

extern "C" int poll(pollfd* handles, nfds_t count, int timeout_ms) {
  Fake_demux* demux = Fake_demux::current();
  if (demux != nullptr && count == 1 && demux->poll_bits() != 0 && demux->is_mine(handles->fd)) {
    handles->revents = demux->poll_bits();
    return 1;
  }
  static const auto next = reinterpret_cast<int (*)(pollfd*, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
  return next(handles, count, timeout_ms);
}

Fake_demux::Fake_demux() : path_(dir_.file("demux0")) {
  if (mkfifo(path_.c_str(), 0600) != 0)
    throw std::runtime_error("mkfifo failed");
  the_demux = this;
}

Fake_demux::~Fake_demux() {
  the_demux = nullptr;
  if (writer_ >= 0)
    close(writer_);
}

Fake_demux* Fake_demux::current() {
  return the_demux;
}

bool Fake_demux::is_mine(int fd) const {
  struct stat device {};
  struct stat handle {};
  return stat(path_.c_str(), &device) == 0 && fstat(fd, &handle) == 0 && device.st_ino == handle.st_ino &&
         device.st_dev == handle.st_dev;
}

void Fake_demux::put(const support::Bytes& bytes) {
  if (writer_ < 0)
    writer_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK);
  if (write(writer_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("nobody reads the device");
}

std::vector<Fake_demux::Call> Fake_demux::take_calls() {
  return std::exchange(calls_, {});
}

int Fake_demux::count(unsigned long request) const {
  return static_cast<int>(
      std::count_if(calls_.begin(), calls_.end(), [=](const Call& call) { return call.request == request; }));
}

void Fake_demux::fail_ioctl(unsigned long request, int error, int times) {
  failing_request_ = request;
  ioctl_error_ = error;
  ioctl_failures_ = times;
}

void Fake_demux::fail_read(int error, int times) {
  read_error_ = error;
  read_failures_ = times;
}

int Fake_demux::on_ioctl(int fd, unsigned long request, const void* argument) {
  calls_.push_back({fd, request});
  if (request == DMX_SET_FILTER)
    last_filter_ = *static_cast<const dmx_sct_filter_params*>(argument);
  if (request == DMX_SET_BUFFER_SIZE)
    last_buffer_ = reinterpret_cast<unsigned long>(argument);
  if (request == failing_request_ && ioctl_failures_ != 0) {
    ioctl_failures_ -= ioctl_failures_ > 0 ? 1 : 0;
    errno = ioctl_error_;
    return -1;
  }
  return 0;
}

bool Fake_demux::on_read(int* error) {
  ++reads_;
  *error = read_error_;
  if (read_error_ == 0 || read_failures_ == 0)
    return false;
  read_failures_ -= read_failures_ > 0 ? 1 : 0;
  return true;
}
