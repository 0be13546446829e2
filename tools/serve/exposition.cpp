// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/exposition.h"

#include <cmath>

#include <fmt/format.h>

namespace {

std::string escaped(std::string_view text, bool quotes) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' && quotes) {
      out += "\\\"";
    } else {
      out += c;
    }
  }
  return out;
}

std::string number(double value) {
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  return fmt::format("{}", value);
}

}  // namespace

void Exposition::family(std::string_view name, Kind kind, std::string_view help) {
  name_ = name;
  head_ = fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, escaped(help, false), name,
                      kind == Kind::COUNTER ? "counter" : "gauge");
}

void Exposition::sample(const Labels& labels, double value) {
  add(labels, number(value));
}

void Exposition::count(const Labels& labels, uint64_t value) {
  add(labels, std::to_string(value));
}

void Exposition::add(const Labels& labels, const std::string& value) {
  text_ += head_;
  head_.clear();
  text_ += name_;
  char before = '{';
  for (const auto& [label, content] : labels) {
    text_ += fmt::format("{}{}=\"{}\"", before, label, escaped(content, true));
    before = ',';
  }
  text_ += labels.empty() ? " " : "} ";
  text_ += value + "\n";
}
