// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/frequency.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/cli/bands.h"

namespace {

// The Hz of a unit; 0 for none.
double factor_of(std::string_view unit) {
  std::string small;
  for (const char c : unit) {
    small += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  small.erase(0, std::min(small.find_first_not_of(' '), small.size()));
  if (small.empty() || small == "hz") {
    return 1;
  }
  if (small == "k" || small == "khz") {
    return 1e3;
  }
  return small == "m" || small == "mhz" ? 1e6 : 0;
}

}  // namespace

int frequency_of(const std::string& text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
  const bool is_number = error == std::errc() && text[0] >= '0' && text[0] <= '9';
  const double factor = is_number ? factor_of({rest, static_cast<size_t>(end - rest)}) : 0;
  if (factor == 0) {
    throw CLI::ValidationError(
        fmt::format("\"{}\" is no frequency; give Hz, as 474000000, or MHz, as 474M or 474.5M", text));
  }
  const double hz = std::round(number * factor);
  if (hz < LOWEST_FREQ || hz > HIGHEST_FREQ) {
    throw CLI::ValidationError(fmt::format("{} is out of range, {} to {} MHz; 474M is 474 MHz", text,
                                           LOWEST_FREQ / 1'000'000, HIGHEST_FREQ / 1'000'000));
  }
  return static_cast<int>(hz);
}

std::string hz_text(const std::string& text) {
  return std::to_string(frequency_of(text));
}
