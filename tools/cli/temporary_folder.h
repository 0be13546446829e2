// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "tools/cli/failure.h"

// A folder of its own, removed with everything in it at the end.
class Temporary_folder {
 public:
  Temporary_folder() {
    std::error_code error;
    path_ = (std::filesystem::temp_directory_path(error) / "kelvo-XXXXXX").string();
    if (error || mkdtemp(path_.data()) == nullptr) {
      throw Failure("cannot make a temporary folder: " + (error ? error.message() : std::string(strerror(errno))));
    }
  }
  // In another folder, as `path`, whose name ends with "XXXXXX", so that what is made in it can be renamed to its
  // place.
  explicit Temporary_folder(std::string path) : path_(std::move(path)) {
    if (mkdtemp(path_.data()) == nullptr) {
      throw Failure(path_ + ": cannot be made: " + strerror(errno));
    }
  }
  ~Temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Temporary_folder(const Temporary_folder&) = delete;
  Temporary_folder& operator=(const Temporary_folder&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};
