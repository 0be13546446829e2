// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/command.h"

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <thread>

namespace support {

namespace {

constexpr auto PATIENCE = std::chrono::seconds(30);
constexpr auto LOOK_INTERVAL = std::chrono::milliseconds(10);

[[noreturn]] void become(const std::vector<std::string>& argv, const Environment& env) {
  for (const auto& [name, value] : env) {
    if (value.empty()) {
      unsetenv(name.c_str());
    } else {
      setenv(name.c_str(), value.c_str(), 1);
    }
  }
  std::vector<char*> arguments;
  for (const std::string& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
  _exit(127);
}

int exit_code(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string contents(int file) {
  std::string out(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  const ssize_t n = pread(file, out.data(), out.size(), 0);
  out.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return out;
}

}  // namespace

void PrintTo(const Command_result& result, std::ostream* out) {
  *out << "exit code " << result.exit_code << "\noutput:\n" << result.out << "\nerrors:\n" << result.err;
}

Running_command::Running_command(const std::vector<std::string>& argv, const Environment& env)
    : out_file_(memfd_create("out", MFD_CLOEXEC)), err_file_(memfd_create("err", MFD_CLOEXEC)) {
  (void)fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0 || out_file_ < 0 || err_file_ < 0)
    throw std::runtime_error("cannot start a program");
  if (pid_ == 0) {
    const int nothing = open("/dev/null", O_RDONLY);
    (void)dup2(nothing, STDIN_FILENO);
    (void)dup2(out_file_, STDOUT_FILENO);
    (void)dup2(err_file_, STDERR_FILENO);
    closefrom(STDERR_FILENO + 1);  // what a test driver left open
    become(argv, env);
  }
}

Running_command::~Running_command() {
  if (!ended()) {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, &status_, 0);
  }
  (void)close(out_file_);
  (void)close(err_file_);
}

bool Running_command::ended() {
  if (!ended_)
    ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
  return ended_;
}

std::string Running_command::out() const {
  return contents(out_file_);
}

std::string Running_command::err() const {
  return contents(err_file_);
}

bool Running_command::wait_for_err(const std::string& text) {
  return wait_for(err_file_, text);
}

bool Running_command::wait_for_out(const std::string& text) {
  return wait_for(out_file_, text);
}

bool Running_command::wait_for(int file, const std::string& text) {
  const auto end = std::chrono::steady_clock::now() + PATIENCE;
  while (contents(file).find(text) == std::string::npos) {
    if (ended() || std::chrono::steady_clock::now() > end)
      return contents(file).find(text) != std::string::npos;
    std::this_thread::sleep_for(LOOK_INTERVAL);
  }
  return true;
}

Command_result Running_command::wait() {
  if (!ended_) {
    (void)waitpid(pid_, &status_, 0);
    ended_ = true;
  }
  return {exit_code(status_), out(), err()};
}

Command_result run_command(const std::vector<std::string>& argv, const Environment& env) {
  return Running_command(argv, env).wait();
}

Command_result run_on_terminal(const std::vector<std::string>& argv, const Environment& env, int columns, int lines) {
  winsize size{};
  size.ws_col = static_cast<unsigned short>(columns);
  size.ws_row = static_cast<unsigned short>(lines);
  int terminal = -1;
  (void)fflush(nullptr);
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
  if (pid < 0)
    throw std::runtime_error("cannot make a terminal");
  if (pid == 0)
    become(argv, env);
  Command_result result;
  char buffer[4096];
  ssize_t n = 0;
  while ((n = read(terminal, buffer, sizeof buffer)) > 0) {  // Ends with EIO when the last writer is gone.
    result.out.append(buffer, static_cast<size_t>(n));
  }
  int status = 0;
  (void)waitpid(pid, &status, 0);
  (void)close(terminal);
  result.exit_code = exit_code(status);
  return result;
}

}  // namespace support
