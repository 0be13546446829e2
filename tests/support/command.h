// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

// Running programs as people do: arguments, environment, exit code, what they write.
namespace support {

struct Command_result {
  int exit_code = -1;  // 128 + N when signal N ended it
  std::string out;
  std::string err;
  bool operator==(const Command_result&) const = default;
};

void PrintTo(const Command_result& result, std::ostream* out);

using Environment = std::map<std::string, std::string>;  // added to this process's; an empty value takes one away

// Runs `argv` to its end, standard input empty.
Command_result run_command(const std::vector<std::string>& argv, const Environment& env = {});

// The same on a terminal of its own, so large: `out` is all that appears on it, `err` is empty.
Command_result run_on_terminal(const std::vector<std::string>& argv, const Environment& env = {}, int columns = 100,
                               int lines = 50);

// A program that runs on; its output goes to files that can be read meanwhile. Killed, if it still runs, at the end.
class Running_command {
 public:
  explicit Running_command(const std::vector<std::string>& argv, const Environment& env = {});
  ~Running_command();
  Running_command(const Running_command&) = delete;
  Running_command& operator=(const Running_command&) = delete;

  pid_t pid() const { return pid_; }
  std::string out() const;
  std::string err() const;
  // Waits until standard error, or output, holds `text`; false when the program ended, or 30 s went by, without it.
  bool wait_for_err(const std::string& text);
  bool wait_for_out(const std::string& text);
  Command_result wait();

 private:
  bool ended();
  bool wait_for(int file, const std::string& text);

  pid_t pid_ = -1;
  int out_file_ = -1;
  int err_file_ = -1;
  int status_ = 0;
  bool ended_ = false;
};

}  // namespace support
