// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/csv.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

// Those of ASCII, and the wide ones that some spreadsheets take for them.
constexpr std::array<std::string_view, 10> FORMULA_STARTS = {
    "=", "+", "-", "@", "\t", "\r", "\xEF\xBC\x9D", "\xEF\xBC\x8B", "\xEF\xBC\x8D", "\xEF\xBC\xA0"};

bool is_number(std::string_view text) {
  if (!text.empty() && text.front() == '-') {
    text.remove_prefix(1);
  }
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string cell_text(const std::string& cell) {
  const bool formula =
      !is_number(cell) && std::any_of(FORMULA_STARTS.begin(), FORMULA_STARTS.end(),
                                      [&cell](std::string_view start) { return cell.starts_with(start); });
  std::string text = (formula ? "'" : "") + cell;
  if (text.find_first_of(",\"\r\n") == std::string::npos) {
    return text;
  }
  for (size_t quote = 0; (quote = text.find('"', quote)) != std::string::npos; quote += 2) {
    text.insert(quote, 1, '"');
  }
  return '"' + text + '"';
}

}  // namespace

std::string csv_line(const std::vector<std::string>& cells) {
  std::string out;
  for (const std::string& cell : cells) {
    out += (&cell == cells.data() ? "" : ",") + cell_text(cell);
  }
  return out + "\r\n";
}
