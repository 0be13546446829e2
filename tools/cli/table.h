// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdio>
#include <string>
#include <vector>

// A table for people: headings, columns as wide as their widest cell on the screen.
class Table {
 public:
  enum class Align { LEFT, RIGHT };
  struct Column {
    std::string heading;
    Align align = Align::LEFT;
    bool wrap = false;  // may be broken to fit a terminal
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // One cell a column, each clean_text().
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  bool empty() const { return rows_.empty(); }

  // On a terminal, columns that may be are wrapped to its width. Throws Failure when it cannot be made or written.
  void print(FILE* out) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};
