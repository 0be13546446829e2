// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// Files beside a database.
namespace sdbl {

// `path` cut at its last dot, directories included, and "_epg.db".
std::string epg_file_of(const std::string& path);

bool file_exists(const std::string& file);

// The shell commands rm, mv and cp. File names are quoted, standard input is empty so that none of them asks, and their
// complaints appear where the library's own messages do: on standard error, or, when a host keeps those away, nowhere.
// Nothing is returned: the callers go on in any case.
void remove_file(const std::string& file);
void remove_file_and_companions(const std::string& file);  // everything that begins with its name
void move_file(const std::string& from, const std::string& to);

// A word of the shell that stands for exactly this file name.
std::string shell_quoted(const std::string& file);

// Runs the command that printf makes of `format` and quoted words. False when it could not be run, or failed.
bool run_shell(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sdbl
