// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/shell_files.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/host_signals.h"
#include "base/log.h"

namespace sdbl {

std::string epg_file_of(const std::string& path) {
  const size_t dot = path.rfind('.');
  // Deliberate: a path without a dot is cut to nothing.
  return (dot == std::string::npos ? std::string() : path.substr(0, dot)) + "_epg" + ".db";
}

bool file_exists(const std::string& file) {
  return access(file.c_str(), F_OK) == 0;
}

std::string shell_quoted(const std::string& file) {
  std::string word = "'";
  if (!file.empty() && file.front() == '-')
    word += "./";  // or it would be taken for an option
  for (const char c : file) {
    if (c == '\'')
      word += "'\\''";
    else
      word += c;
  }
  return word += "'";
}

bool run_shell(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* command = nullptr;
  const int length = vasprintf(&command, format, arguments);
  va_end(arguments);
  if (length < 0)
    return false;
  const std::string text = command;
  std::free(command);
  const Host_signals signals;
  // A host that keeps the library's messages from standard error means these complaints, too.
  return std::system((kelvo_log::printing() ? text : text + " 2>/dev/null").c_str()) == 0;
}

void remove_file(const std::string& file) {
  (void)run_shell("rm %s </dev/null", shell_quoted(file).c_str());
}

void remove_file_and_companions(const std::string& file) {
  (void)run_shell("rm %s* </dev/null", shell_quoted(file).c_str());
}

void move_file(const std::string& from, const std::string& to) {
  (void)run_shell("mv %s %s </dev/null", shell_quoted(from).c_str(), shell_quoted(to).c_str());
}

}  // namespace sdbl
