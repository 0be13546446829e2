// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/text_columns.h"

#include <algorithm>
#include <cwchar>

namespace {

constexpr std::string_view ELLIPSIS = "\xE2\x80\xA6";

struct Place {
  size_t at = 0;
  int columns = 0;
};

// Behind the last character that ends within so many columns.
Place place_of(std::string_view text, int columns) {
  std::mbstate_t state{};
  Place place;
  while (place.at < text.size()) {
    wchar_t c = 0;
    const size_t size = std::mbrtowc(&c, text.data() + place.at, text.size() - place.at, &state);
    // A half character, or none: what stands before it counts.
    if (size == 0 || size > text.size()) {
      break;
    }
    const int width = std::max(0, wcwidth(c));
    if (place.columns + width > columns) {
      break;
    }
    place.columns += width;
    place.at += size;
  }
  return place;
}

}  // namespace

int columns_of(std::string_view text) {
  constexpr int MANY = 1 << 30;
  return place_of(text, MANY).columns;
}

std::string fitting(std::string_view text, int columns) {
  return std::string(text.substr(0, place_of(text, columns).at));
}

std::string shortened(std::string_view text, int columns) {
  if (columns_of(text) <= columns) {
    return std::string(text);
  }
  std::string begin = fitting(text, columns - 1);
  begin.erase(begin.find_last_not_of(' ') + 1);
  return columns < 1 ? "" : begin.append(ELLIPSIS);
}

std::vector<std::string> wrapped(std::string_view text, int columns) {
  std::vector<std::string> lines;
  while (columns_of(text) > columns) {
    // One character stands in each line, however wide it is.
    size_t end = place_of(text, std::max(columns, 2)).at;
    // A blank behind the last column is no reason to break before it.
    const size_t blank = text.rfind(' ', end);
    const bool at_blank = blank != std::string_view::npos && text.find_first_not_of(' ') < blank;
    if (at_blank) {
      end = blank;
    }
    std::string line(text.substr(0, end));
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(std::move(line));
    text.remove_prefix(end);
    text.remove_prefix(std::min(text.size(), text.find_first_not_of(' ')));
  }
  if (!text.empty() || lines.empty()) {
    lines.emplace_back(text);
  }
  return lines;
}
