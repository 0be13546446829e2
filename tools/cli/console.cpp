// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace console {

namespace {

bool quiet = false;  // main thread

// Without a buffer: lines of the library, which writes to the same descriptor, keep their place among those of the
// command.
void write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = write(STDERR_FILENO, text.data(), text.size());
    if (n <= 0) {
      return;  // Nobody reads it; there is no better place to say so.
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

// The error of an earlier write is not known any more, but a pipe that nobody reads shows it.
bool reader_is_gone() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

[[noreturn]] void fail_to_write(const std::string& what) {
  if (reader_is_gone()) {
    throw Reader_gone();
  }
  throw Failure("cannot write " + what);
}

}  // namespace

void put(std::string_view text) {
  write_all(text);
}

void say(std::string_view text) {
  write_all(std::string(text) + "\n");
}

void report(std::string_view text) {
  if (!quiet) {
    say(text);
  }
}

void be_quiet() {
  quiet = true;
}

void print(std::string_view text, const std::string& what) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    fail_to_write(what + ": " + strerror(errno));
  }
}

// A full disk is often noticed only here, when the buffer is written. An error of an earlier write stays set in the
// stream even where this last one succeeds.
void finish_printing(const std::string& what) {
  if (fflush(stdout) != 0) {
    fail_to_write(what + ": " + strerror(errno));
  }
  if (ferror(stdout) != 0) {
    fail_to_write(what);
  }
}

bool is_terminal() {
  return isatty(STDERR_FILENO) == 1;
}

bool shows_progress() {
  return !quiet && is_terminal();
}

int width() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

bool is_narrow() {
  constexpr int NARROW = 60;
  return width() < NARROW;
}

int height() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
}

// Turned off at the listener and not by the verbosity: some messages are printed at every level.
Quiet_library::Quiet_library(int verbosity) {
  Message_listener listener;
  listener.print = false;
  if (verbosity >= 0) {
    listener.level = verbosity;
    listener.message = [](void*, int, const char* text) { put(clean_lines(text)); };
  }
  Kelvo::set_message_listener(listener);
}

Quiet_library::~Quiet_library() {
  Kelvo::set_message_listener({});
}

}  // namespace console
