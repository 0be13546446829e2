// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "scan/guide_run.h"

std::string Guide_test::lines_with(const std::string& text, const std::vector<std::string>& beginnings) {
  std::string found;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    for (const std::string& beginning : beginnings) {
      if (line.compare(0, beginning.size(), beginning) == 0) {
        found += line + "\n";
        break;
      }
    }
  }
  return found;
}
