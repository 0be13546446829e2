// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

namespace sdbl {

// What is wrong with a database file.
struct Damage {
  int code = 0;      // SQLite's: SQLITE_CORRUPT, or SQLITE_NOTADB for a file that has nothing of a database; 0 for none
  std::string text;  // on one line, what was found first
};

// No damage is also told of a file that is missing, in use by a writer, or cannot be read for another reason. Reads all
// of the file through a connection of its own, which never waits for others; what a killed process has left behind to
// be undone or taken over is so first. Any-thread.
Damage damage_of(const std::string& file);

}  // namespace sdbl
