// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/holder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "tools/cli/text.h"

namespace {

namespace fs = std::filesystem;

bool is_number(const std::string& text) {
  return !text.empty() && text.size() < 10 &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

// The flags that a descriptor was opened with, as the kernel shows them: "flags:	0100002", octal.
bool is_for_writing(const fs::path& info) {
  std::ifstream in(info);
  for (std::string word; in >> word;) {
    if (word == "flags:") {
      unsigned flags = 0;
      in >> std::oct >> flags;
      return (flags & O_ACCMODE) != O_RDONLY;
    }
  }
  return false;
}

// Descriptors come and go while they are looked at, so what cannot be read is passed over.
bool holds(const fs::path& process, const std::string& path) {
  std::error_code failed;
  for (fs::directory_iterator at(process / "fd", failed), end; !failed && at != end; at.increment(failed)) {
    std::error_code unreadable;
    if (fs::read_symlink(at->path(), unreadable) == path &&
        is_for_writing(process / "fdinfo" / at->path().filename())) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::optional<Holder> holder_of(const std::string& path) {
  std::error_code failed;
  for (fs::directory_iterator at("/proc", failed), end; !failed && at != end; at.increment(failed)) {
    const std::string number = at->path().filename();
    if (!is_number(number) || std::stoi(number) == getpid() || !holds(at->path(), path)) {
      continue;
    }
    std::string name;
    std::ifstream in(at->path() / "comm");
    std::getline(in, name);
    return Holder{clean_text(name), std::stoi(number)};
  }
  return std::nullopt;
}
