// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <set>
#include <string>

#include "support/test.h"
#include "support/text.h"

// Reads Prometheus' text format (0.0.4) strictly, and its rules for names: help and type once and before the samples of
// each family, which stand together; counters and nothing else end in _total; each set of labels once; base units. The
// samples by name and labels, as they stand.
inline std::map<std::string, double> samples_of(const std::string& text) {
  static const std::string NAME = "[a-z][a-z0-9_]*";
  static const std::regex help("# HELP (" + NAME + ") (([^\\\\]|\\\\\\\\|\\\\n)+)");
  static const std::regex type("# TYPE (" + NAME + ") (gauge|counter)");
  static const std::string LABEL = NAME + "=\"([^\"\\\\]|\\\\[\\\\n\"])*\"";
  static const std::regex sample("(" + NAME + ")(\\{" + LABEL + "(," + LABEL + ")*\\})? ([-+0-9.e]+)");
  static const std::regex bad_unit(".*_(ms|msec|milliseconds|minutes|hours|khz|mhz|kb|percent|s|us)(_total)?");
  std::map<std::string, double> out;
  std::set<std::string> families;
  std::string helped, family, kind;
  EXPECT_TRUE(text.ends_with("\n"));
  for (const std::string& line : support::lines_of(text)) {
    std::smatch found;
    if (std::regex_match(line, found, help)) {
      helped = found[1];
      EXPECT_TRUE(families.insert(helped).second) << line;
      EXPECT_TRUE(line.ends_with(".")) << line;
    } else if (std::regex_match(line, found, type)) {
      EXPECT_EQ(found[1], helped) << line;
      family = found[1];
      kind = found[2];
      EXPECT_EQ(kind == "counter", family.ends_with("_total")) << line;
      EXPECT_FALSE(std::regex_match(family, bad_unit)) << line;
      EXPECT_TRUE(family.starts_with("kelvo_")) << line;
    } else if (std::regex_match(line, found, sample)) {
      EXPECT_EQ(found[1], family) << line;
      const std::string number = found[found.size() - 1];
      EXPECT_TRUE(out.emplace(line.substr(0, line.size() - number.size() - 1), std::stod(number)).second) << line;
      if (kind == "counter") {
        EXPECT_GE(std::stod(number), 0) << line;
      }
    } else {
      ADD_FAILURE() << "no line of the format: " << line;
    }
  }
  return out;
}
