// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/svg_element.h"

#include <fmt/format.h>

std::string svg_number(double value) {
  std::string out = fmt::format("{:.2f}", value);
  out.erase(out.find_last_not_of('0') + 1);
  if (out.back() == '.') {
    out.pop_back();
  }
  return out == "-0" ? "0" : out;
}
