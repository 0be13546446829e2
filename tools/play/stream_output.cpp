// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/stream_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <climits>
#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/play/transport_packet.h"

namespace {

constexpr int PIPE_SIZE = 1 << 20;
constexpr size_t FILE_CHUNK = size_t{512} * Transport_packet::SIZE;
// So much goes into a pipe at once or not at all, and without waiting where poll says that there is room.
constexpr size_t PIPE_CHUNK = PIPE_BUF / Transport_packet::SIZE * Transport_packet::SIZE;

}  // namespace

Stream_output::Stream_output(const std::string& file, bool replace) : name_(file) {
  if (file.empty() || file == "-") {
    name_ = "standard output";
    fd_ = STDOUT_FILENO;
  } else {
    fd_ = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    made_ = fd_ >= 0;
    struct stat status {};
    if (fd_ < 0 && errno == EEXIST && stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && !replace) {
      throw Failure(file + ": exists already; name another file, or give --force to write over it");
    }
    if (fd_ < 0 && errno == EEXIST) {
      fd_ = open(file.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    }
    if (fd_ < 0) {
      fail(errno);
    }
  }
  if (isatty(fd_) == 1) {
    throw Failure("a terminal cannot show the stream: give a file (-o FILE) or a player (kelvo play ... | mpv -)",
                  EXIT_USAGE);
  }
  struct stat status {};
  if (fstat(fd_, &status) != 0) {
    throw Failure(fmt::format("{}: cannot be written: {}", name_, strerror(errno)));
  }
  is_file_ = S_ISREG(status.st_mode) || S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode);
  if (S_ISFIFO(status.st_mode)) {
    (void)fcntl(fd_, F_SETPIPE_SZ, PIPE_SIZE);  // more room for a reader that stops for a moment
  }
}

Stream_output::~Stream_output() {
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) {
    (void)close(fd_);
  }
  if (made_ && written_ == 0) {
    (void)unlink(name_.c_str());
  }
}

size_t Stream_output::write(std::span<const uint8_t> packets) {
  if (!is_file_) {
    pollfd wait{fd_, POLLOUT, 0};
    if (poll(&wait, 1, 0) <= 0) {
      return 0;
    }
  }
  const size_t wanted = std::min(packets.size(), is_file_ ? FILE_CHUNK : PIPE_CHUNK);
  const ssize_t n = ::write(fd_, packets.data(), wanted);
  if (n >= 0) {
    written_ += static_cast<uint64_t>(n);
    return static_cast<size_t>(n);
  }
  if (errno == EPIPE || errno == ECONNRESET) {
    gone_ = true;
    return 0;
  }
  if (errno != EAGAIN && errno != EINTR) {
    fail(errno);
  }
  return 0;
}

void Stream_output::finish() {
  if (fd_ == STDOUT_FILENO) {
    return;
  }
  const int result = close(fd_);  // network file systems may notice a full disk as late as here
  fd_ = -1;
  if (result != 0) {
    fail(errno);
  }
}

void Stream_output::fail(int error) {
  // A part of a packet would be found by every player and analyser, and blamed on the reception.
  const auto part = static_cast<off_t>(written_ % Transport_packet::SIZE);
  struct stat status {};
  if (part != 0 && fd_ >= 0 && fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) &&
      ftruncate(fd_, status.st_size - part) == 0) {
    written_ -= static_cast<uint64_t>(part);
  }
  const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
  throw Failure(fmt::format("{}: cannot be written: {}", name_, full ? "disk full" : strerror(error)));
}
