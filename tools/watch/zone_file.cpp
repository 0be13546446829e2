// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/watch/zone_file.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>

#include <fmt/format.h>

namespace {

constexpr size_t LARGEST_FILE = 65536;

// The last line of the file, between two line breaks: the rule that holds after the last change in the file. The
// library that could read it would do so once in the life of a process and for all of its threads.
std::string last_rule(const std::string& content) {
  if (content.rfind("TZif", 0) != 0 || content.size() < 2 || content.back() != '\n') {
    return "";
  }
  const size_t before = content.rfind('\n', content.size() - 2);
  if (before == std::string::npos) {
    return "";
  }
  std::string rule = content.substr(before + 1, content.size() - before - 2);
  const bool clean =
      std::all_of(rule.begin(), rule.end(), [](char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; });
  return clean ? rule : "";
}

}  // namespace

std::string zone_in(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(in), {}};
  // No zone is nearly so large; something else may lie under that name.
  if (content.size() > LARGEST_FILE) {
    return "";
  }
  std::string rule = last_rule(content);
  // POSIX counts west of Greenwich.
  static const std::regex FIXED("([A-Za-z]+|<[A-Za-z0-9+-]+>)([+-]?)([0-9]{1,3})(?::([0-9]{2}))?");
  std::smatch part;
  if (!std::regex_match(rule, part, FIXED)) {
    return rule;
  }
  std::string name = part[1];
  if (name.front() == '<') {
    name = name.substr(1, name.size() - 2);
  }
  const int hours = std::atoi(part[3].str().c_str());
  const int minutes = std::atoi(part[4].str().c_str());
  // Zero has no side: it is shown as +00:00 however it was written.
  const bool west = part[2] != "-" && (hours != 0 || minutes != 0);
  return fmt::format("{}, UTC{}{:02}:{:02}", name, west ? '-' : '+', hours, minutes);
}
