// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <stdexcept>
#include <string>

enum : int {
  EXIT_OK = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_INTERRUPTED = 130,
  EXIT_READER_GONE = 141,  // as shells report programs that SIGPIPE ended
};

// Ends the command: main() prints "kelvo: " and the text on one line of standard error and exits with the code.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, int code = EXIT_FAILED) : std::runtime_error(text), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// Whoever read standard output has gone away, as `| head` does when it has enough. Ends the command without a word.
class Reader_gone : public Failure {
 public:
  Reader_gone() : Failure("", EXIT_READER_GONE) {}
};
