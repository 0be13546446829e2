// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

// A table for people: headings, columns as wide as their widest cell on the screen.
class Table {
 public:
  enum class Align { LEFT, RIGHT };
  // What becomes of a column's cells where a terminal is too narrow: they stay whole, are broken at blanks, or are
  // shortened.
  enum class Fit { WHOLE, WORDS, SHORT };
  struct Column {
    std::string heading;
    Align align = Align::LEFT;
    Fit fit = Fit::WHOLE;
    int spare = 0;  // the column with the largest number is left out first, where a terminal is too narrow; 0: never
  };

  // `wide`: everything is shown in full, however narrow the terminal is.
  explicit Table(std::vector<Column> columns, bool wide = false) : columns_(std::move(columns)), wide_(wide) {}

  // One cell a column, each clean_text().
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  bool empty() const { return rows_.empty(); }

  // On a terminal, the table is made to fit its width. Whatever is no terminal gets every cell in full, on every
  // machine. Throws Failure when it cannot be made or written.
  void print(FILE* out) const;

  // The columns of the terminal behind a file; nothing where it is no terminal.
  static std::optional<int> screen_of(FILE* out);

  // The width of each column, 0 for one that is left out, in a table of at most so many columns of a screen.
  std::vector<int> widths(int screen) const;

 private:
  std::vector<Column> columns_;
  bool wide_;
  std::vector<std::vector<std::string>> rows_;
};
