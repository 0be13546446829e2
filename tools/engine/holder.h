// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

// A program that has a device open for writing, which a frontend allows one at a time.
struct Holder {
  std::string program;  // clean
  int pid = 0;
};

// Who, besides this process, has `path` open for writing. Empty when nobody does, and when it is a process whose files
// this one may not look at: another user's.
std::optional<Holder> holder_of(const std::string& path);
