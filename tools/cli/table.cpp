// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/table.h"

#include <libsmartcols/libsmartcols.h>
#include <unistd.h>

#include <memory>

#include "tools/cli/failure.h"

namespace {

void check(int result) {
  if (result != 0) {
    throw Failure("out of memory while making a table");
  }
}

}  // namespace

void Table::print(FILE* out) const {
  // No heading without a row: programs can take "no output" for "nothing found".
  if (rows_.empty()) {
    return;
  }
  const std::unique_ptr<libscols_table, void (*)(libscols_table*)> table(scols_new_table(), scols_unref_table);
  if (!table) {
    check(-1);
  }
  // Whatever is no terminal gets every cell in full: the same output on every machine.
  check(scols_table_set_termforce(table.get(), isatty(fileno(out)) ? SCOLS_TERMFORCE_AUTO : SCOLS_TERMFORCE_NEVER));
  check(scols_table_set_stream(table.get(), out));
  check(scols_table_set_column_separator(table.get(), "  "));
  check(scols_table_enable_nolinesep(table.get(), 0));
  for (const Column& column : columns_) {
    int flags = 0;
    if (column.align == Align::RIGHT) {
      flags |= SCOLS_FL_RIGHT;
    }
    if (column.wrap) {
      flags |= SCOLS_FL_WRAP;
    }
    if (scols_table_new_column(table.get(), column.heading.c_str(), 0, flags) == nullptr) {
      check(-1);
    }
  }
  for (const std::vector<std::string>& row : rows_) {
    libscols_line* line = scols_table_new_line(table.get(), nullptr);
    if (line == nullptr) {
      check(-1);
    }
    for (size_t i = 0; i < row.size(); ++i) {
      check(scols_line_set_data(line, i, row[i].c_str()));
    }
  }
  check(scols_print_table(table.get()));
}
