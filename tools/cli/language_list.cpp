// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/language_list.h"

#include <sstream>

#include <fmt/format.h>

#include "tools/cli/failure.h"

std::vector<std::string> split_languages(const std::string& list) {
  std::vector<std::string> out;
  std::istringstream parts(list);
  // An empty list gets one turn as well, so that it is refused and does not mean "any language".
  for (std::string part; std::getline(parts, part, ',') || out.empty();) {
    if (part.size() != 3 ||
        part.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ") != std::string::npos) {
      throw Failure(
          fmt::format("--lang {}: not a list of languages; give codes of three letters, such as est,eng", list),
          EXIT_USAGE);
    }
    out.push_back(part);
  }
  return out;
}
