// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// Standard error and standard output of the command. The library writes its messages to standard error, too, unless the
// command is quiet: then people see one line and not a hundred.
namespace console {

// Writes `text` and a line break to the command's standard error.
void say(std::string_view text);

// The same for what only tells how far things are, which `--quiet` leaves out.
void report(std::string_view text);
void be_quiet();

// The same without the line break: for the progress line.
void put(std::string_view text);

// Writes `text`, part of `what` ("the guide"), to standard output. Throws Failure when it cannot.
void print(std::string_view text, const std::string& what);

// Hands what has been printed over to the reader. Throws Failure when any of `what` could not be written.
void finish_printing(const std::string& what);

// Whether the command's standard error is a terminal, and how many columns and lines it has.
bool is_terminal();
int width();
int height();

// Whether bars are drawn: on a terminal, unless quiet.
bool shows_progress();

// A terminal on which names come before bars and numbers.
bool is_narrow();

// Says what people see of the library's messages during its life. Made before the first object of the library and
// deleted after the last one.
class Quiet_library {
 public:
  // Errors, and more up to `verbosity`, go to standard error, clean_lines(): they hold texts off the air. Below 0
  // nothing does.
  explicit Quiet_library(int verbosity);
  ~Quiet_library();
  Quiet_library(const Quiet_library&) = delete;
  Quiet_library& operator=(const Quiet_library&) = delete;
};

}  // namespace console
