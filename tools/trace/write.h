// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

// The option that names the format of what is made: tdi, log, json or svg.
CLI::Option* add_trace_format_option(CLI::App* command, std::string* format);

// The format: what the option says, else what the name of the file ends in. Throws Failure, which names `command`.
std::string trace_format(const std::string& option, const std::string& file, const std::string& command);

struct Trace_file {
  std::string name;  // "-" is standard output
  std::string format;
  std::string title;   // of a picture
  int verbosity = -1;  // of the library when it makes tdi; below 0 it is silent
};

// Makes the file from whole records, as of Trace_words. Returns how many of them make no sense and were left out (none
// for log). Throws Failure when it cannot be written, or when `interrupted` says so; nothing is left behind then.
size_t write_trace(const Trace_file& file, std::vector<unsigned>* words, const std::function<bool()>& interrupted);
