// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

struct Close_connection {
  void operator()(sqlite3* connection) const { (void)sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, Close_connection>;

// A connection that changes nothing, and that waits for the short writes of others. Also to a file that says that it
// has a log where none can be made, such as a copy of an open database on a medium that cannot be written. Throws
// Failure when it cannot be opened, or when the log is there and cannot be read; what else is wrong with a file is left
// to the first statement.
Connection open_to_read(const std::string& file);

// The same, but what a killed process has left to be undone is undone where the file can be written.
Connection open_to_check(const std::string& file);
