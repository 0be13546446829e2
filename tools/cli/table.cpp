// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/table.h"

#include <libsmartcols/libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <memory>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/text_columns.h"

namespace {

constexpr int GAP = 2;
constexpr int USUAL_SCREEN = 80;
// Broken or shortened cells have at least so many columns, or what the longest of them has.
constexpr int LEAST = 20;

void check(int result) {
  if (result != 0) {
    throw Failure("out of memory while making a table");
  }
}

}  // namespace

std::optional<int> Table::screen_of(FILE* out) {
  if (isatty(fileno(out)) != 1) {
    return {};
  }
  winsize size{};
  return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : USUAL_SCREEN;
}

std::vector<int> Table::widths(int screen) const {
  std::vector<int> natural;
  for (size_t i = 0; i < columns_.size(); ++i) {
    int widest = columns_of(columns_[i].heading);
    for (const std::vector<std::string>& row : rows_) {
      widest = std::max(widest, columns_of(row[i]));
    }
    natural.push_back(widest);
  }
  std::vector<int> widths = natural;
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (columns_[i].fit != Fit::WHOLE) {
      widths[i] = std::min(natural[i], LEAST);
    }
  }
  const std::vector<int> least = widths;
  const auto left = [&] {
    int taken = -GAP;
    for (const int width : widths) {
      taken += width > 0 ? GAP + width : 0;
    }
    return screen - taken;
  };
  std::vector<size_t> spare;  // what is left out first comes first
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (columns_[i].spare > 0) {
      spare.push_back(i);
    }
  }
  std::sort(spare.begin(), spare.end(), [&](size_t a, size_t b) { return columns_[a].spare > columns_[b].spare; });
  for (auto i = spare.begin(); i != spare.end() && left() < 0; ++i) {
    widths[*i] = 0;
  }
  // A wide column that had to go may have made room for a narrow one.
  for (auto i = spare.rbegin(); i != spare.rend(); ++i) {
    if (widths[*i] == 0 && left() >= GAP + least[*i]) {
      widths[*i] = least[*i];
    }
  }
  // What is left goes to all that want more, column by column of the screen.
  for (bool any = true; any;) {
    any = false;
    for (size_t i = 0; i < columns_.size() && left() > 0; ++i) {
      if (widths[i] > 0 && widths[i] < natural[i]) {
        ++widths[i];
        any = true;
      }
    }
  }
  return widths;
}

void Table::print(FILE* out) const {
  // No heading without a row: programs can take "no output" for "nothing found".
  if (rows_.empty()) {
    return;
  }
  const std::optional<int> screen = wide_ ? std::nullopt : screen_of(out);
  const std::vector<int> widths = this->widths(screen.value_or(std::numeric_limits<int>::max() / 2));
  const std::unique_ptr<libscols_table, void (*)(libscols_table*)> table(scols_new_table(), scols_unref_table);
  if (!table) {
    check(-1);
  }
  // The widths are already made for the terminal.
  check(scols_table_set_termforce(table.get(), SCOLS_TERMFORCE_NEVER));
  check(scols_table_set_stream(table.get(), out));
  check(scols_table_set_column_separator(table.get(), std::string(GAP, ' ').c_str()));
  check(scols_table_enable_nolinesep(table.get(), 0));
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (widths[i] == 0) {
      continue;
    }
    const int flags =
        (columns_[i].align == Align::RIGHT ? SCOLS_FL_RIGHT : 0) | (columns_[i].fit == Fit::WORDS ? SCOLS_FL_WRAP : 0);
    libscols_column* column = scols_table_new_column(table.get(), columns_[i].heading.c_str(), 0, flags);
    if (column == nullptr) {
      check(-1);
    }
    if (columns_[i].fit == Fit::WORDS) {
      check(scols_column_set_safechars(column, "\n"));
      check(scols_column_set_wrapfunc(column, scols_wrapnl_chunksize, scols_wrapnl_nextchunk, nullptr));
    }
  }
  for (const std::vector<std::string>& row : rows_) {
    libscols_line* line = scols_table_new_line(table.get(), nullptr);
    if (line == nullptr) {
      check(-1);
    }
    size_t shown = 0;
    for (size_t i = 0; i < row.size(); ++i) {
      if (widths[i] == 0) {
        continue;
      }
      const std::string cell = columns_[i].fit == Fit::WORDS
                                   ? fmt::format("{}", fmt::join(wrapped(row[i], widths[i]), "\n"))
                               : columns_[i].fit == Fit::SHORT ? shortened(row[i], widths[i])
                                                               : row[i];
      check(scols_line_set_data(line, shown++, cell.c_str()));
    }
  }
  check(scols_print_table(table.get()));
}
