// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/text.h"

#include <sstream>

namespace support {

size_t count_of(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++found;
  return found;
}

Texts lines_of(const std::string& text) {
  Texts all;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    all.push_back(line);
  return all;
}

std::string visible(const std::string& text) {
  std::string all;
  for (const char c : text) {
    if (c == '\n')
      all += "\\n";
    else if (static_cast<unsigned char>(c) < 0x20)
      all += "\\" + std::to_string(static_cast<unsigned char>(c));
    else
      all += c;
  }
  return all;
}

std::string hexadecimal(int number) {
  std::ostringstream text;
  text << std::showbase << std::hex << number;
  return text.str();
}

}  // namespace support
