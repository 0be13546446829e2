// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

constexpr size_t BUFFER = 1 << 16;

// The mask of the process can only be read by setting it, so it is put back at once.
mode_t mode_of_new_files() {
  const mode_t mask = umask(0);
  (void)umask(mask);
  return 0666 & ~mask;
}

}  // namespace

Output_file::Output_file(const std::string& name) : name_(name), target_(name) {
  if (name == "-") {
    name_ = "standard output";
    fd_ = STDOUT_FILENO;
    return;
  }
  struct stat status {};
  const bool exists = stat(name.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) {
    fail(EISDIR);
  }
  // A device or a pipe cannot be replaced by a file, so it is written directly.
  if (exists && !S_ISREG(status.st_mode)) {
    fd_ = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) {
      fail(errno);
    }
    return;
  }
  if (exists) {
    if (access(name.c_str(), W_OK) != 0) {
      fail(errno);
    }
    std::error_code ignored;
    // A link stays a link: the file that it leads to is replaced, in the folder where that one is.
    const std::filesystem::path real = std::filesystem::canonical(name, ignored);
    target_ = real.empty() ? name : real.string();
  }
  const std::filesystem::path folder = std::filesystem::path(target_).parent_path();
  // In the same folder, because only within a file system does the new file take the place of the old one in one step.
  temporary_ = (folder.empty() ? std::string(".") : folder.string()) + "/.kelvo-XXXXXX";
  fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
  if (fd_ < 0) {
    temporary_.clear();
    fail(errno);
  }
  (void)fchmod(fd_, exists ? status.st_mode & 07777 : mode_of_new_files());  // or it stays private
}

Output_file::~Output_file() {
  if (fd_ >= 0 && fd_ != STDOUT_FILENO) {
    (void)close(fd_);  // what was written to it is given up
  }
  if (!temporary_.empty()) {
    (void)unlink(temporary_.c_str());
  }
}

void Output_file::write(std::string_view text) {
  buffer_ += text;
  if (buffer_.size() >= BUFFER) {
    flush();
  }
}

void Output_file::finish() {
  flush();
  if (fd_ != STDOUT_FILENO) {
    // Network file systems may notice a full disk as late as here, so the old file is replaced only behind this.
    const int result = close(fd_);
    fd_ = -1;
    if (result != 0) {
      fail(errno);
    }
  }
  if (!temporary_.empty()) {
    if (rename(temporary_.c_str(), target_.c_str()) != 0) {
      fail(errno);
    }
    temporary_.clear();
  }
}

void Output_file::flush() {
  std::string_view left = buffer_;
  while (!left.empty()) {
    const ssize_t n = ::write(fd_, left.data(), left.size());
    if (n < 0 && errno != EINTR) {
      fail(errno);
    }
    left.remove_prefix(n < 0 ? 0 : static_cast<size_t>(n));
  }
  buffer_.clear();
}

void Output_file::fail(int error) const {
  if (error == EPIPE && fd_ == STDOUT_FILENO) {
    throw Reader_gone();
  }
  const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
  throw Failure(fmt::format("{}: cannot be written: {}", name_, full ? "disk full" : strerror(error)));
}
