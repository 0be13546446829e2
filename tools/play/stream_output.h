// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <span>
#include <string>

// Where a stream of packets goes: a file, or standard output. A file exists from the beginning, grows, and ends with a
// whole packet whatever happens.
class Stream_output {
 public:
  // "" and "-" are standard output, which may not be a terminal. A file that exists is left alone unless `replace`. A
  // named pipe waits here for its reader. Throws Failure.
  Stream_output(const std::string& file, bool replace);
  // A file of its own in which nothing stands is removed.
  ~Stream_output();
  Stream_output(const Stream_output&) = delete;
  Stream_output& operator=(const Stream_output&) = delete;

  // Writes some of `packets`, which are whole. How many bytes; 0: there is no room now. Throws Failure when there never
  // will be: the disk is full.
  size_t write(std::span<const uint8_t> packets);
  // What came is on its way to the disk. Throws Failure.
  void finish();

  // To be waited for when write() had no room; -1: a file, which always has.
  int slow_fd() const { return is_file_ ? -1 : fd_; }
  // Whether the reader of a pipe has closed it; look() is told what poll says of it.
  void look(bool closed) { gone_ = gone_ || closed; }
  bool reader_is_gone() const { return gone_; }
  uint64_t written() const { return written_; }
  bool is_pipe() const { return !is_file_; }

 private:
  [[noreturn]] void fail(int error);

  std::string name_;
  int fd_ = -1;
  bool is_file_ = false;
  bool made_ = false;  // by this object
  bool gone_ = false;
  uint64_t written_ = 0;
};
