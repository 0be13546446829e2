// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// A file that appears only when it is complete: it is written under another name in the same folder and takes the place
// of one that exists at the end. "-" is standard output; that, and what is no regular file, is written directly.
class Output_file {
 public:
  // Throws Failure when it cannot be made.
  explicit Output_file(const std::string& name);
  // Without finish() nothing is left behind.
  ~Output_file();
  Output_file(const Output_file&) = delete;
  Output_file& operator=(const Output_file&) = delete;

  // Both throw Failure when the disk is full and the like.
  void write(std::string_view text);
  void finish();

 private:
  void flush();
  [[noreturn]] void fail(int error) const;

  std::string name_;
  std::string target_;     // the file itself where `name` is a link
  std::string temporary_;  // empty: written directly
  int fd_ = -1;
  std::string buffer_;
};
