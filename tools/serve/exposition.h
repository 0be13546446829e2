// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Readings in the text format that Prometheus collects (version 0.0.4): families with help and type, samples with
// labels. What has no sample is not written.
class Exposition {
 public:
  using Labels = std::vector<std::pair<std::string_view, std::string>>;
  enum class Kind { GAUGE, COUNTER };

  // Samples that follow belong to it. REQUIRES: each name once; the name of a counter ends with "_total".
  void family(std::string_view name, Kind kind, std::string_view help);
  void sample(const Labels& labels, double value);
  void count(const Labels& labels, uint64_t value);

  const std::string& text() const { return text_; }

 private:
  void add(const Labels& labels, const std::string& value);

  std::string text_;
  std::string name_;
  std::string head_;  // of a family without samples yet
};
