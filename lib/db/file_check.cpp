// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/file_check.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>

namespace sdbl {

namespace {

struct Close {
  void operator()(sqlite3* conn) const { (void)sqlite3_close(conn); }  // has no statement left
};
struct Finalize {
  void operator()(sqlite3_stmt* stmt) const { (void)sqlite3_finalize(stmt); }  // repeats the step's code
};

std::string on_one_line(std::string text) {
  constexpr char HEADING[] = "*** in database main ***\n";
  if (text.starts_with(HEADING))
    text.erase(0, sizeof(HEADING) - 1);
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

// Not the quick check, which does not compare indexes with their tables: a process that is killed between two pages
// leaves just that. The conditions on columns take longer than all the rest, and say nothing of damage.
Damage damage_of(const std::string& file) {
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, Close> conn(raw);
  if (opened != SQLITE_OK)
    return {};
  (void)sqlite3_exec(raw, "PRAGMA ignore_check_constraints = ON", nullptr, nullptr, nullptr);  // else only slower

  sqlite3_stmt* check = nullptr;
  int rc = sqlite3_prepare_v2(raw, "PRAGMA integrity_check(1)", -1, &check, nullptr);
  const std::unique_ptr<sqlite3_stmt, Finalize> statement(check);
  if (rc == SQLITE_OK)
    rc = sqlite3_step(check);
  if (rc == SQLITE_ROW) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
    return text == nullptr || std::string("ok") == text ? Damage{} : Damage{SQLITE_CORRUPT, on_one_line(text)};
  }
  rc &= 0xFF;  // without what extends it
  return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB ? Damage{rc, sqlite3_errmsg(raw)} : Damage{};
}

}  // namespace sdbl
