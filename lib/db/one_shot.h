// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "db/connection.h"
#include "db/errors.h"
#include "db/sql_value.h"

namespace sdbl {

// Statements that are formatted, compiled and executed once, as by the operations sql_exec, sql_get_int, sql_get_txt
// and sql_row_exists of Sdbl, whose contracts hold here. Any-thread.
class One_shot {
 public:
  One_shot(const Connection& connection, Errors& errors) : connection_(connection), errors_(errors) {}

  // The public forms; a failure is remembered under `operation`, and only the failing statement's own texts are
  // printed.
  int exec_v(const char* operation, sqlite3* conn, const char* format, va_list arguments);
  int get_int_v(const char* operation, int* out, int column, const char* format, va_list arguments);
  int get_txt_v(const char* operation, std::string* out, int column, const char* format, va_list arguments);
  bool row_exists_v(const char* format, va_list arguments);

  // The library's own: the failure is also reported under the operation's name. exec_on() is for another connection
  // than the main one; get_int() and get_txt() read the first column.
  template <Sql_value... Values>
  int exec(Operation operation, const char* format, const Values&... values) {
    return exec_on(operation, connection_.get(), format, values...);
  }
  template <Sql_value... Values>
  int exec_on(Operation operation, sqlite3* conn, const char* format, const Values&... values) {
    return errors_.report_exec(execute(operation.name, conn, format, plain(values)...), operation);
  }
  template <Sql_value... Values>
  int get_int(Operation operation, int* out, const char* format, const Values&... values) {
    return errors_.report_get_int(read_int(operation.name, out, format, plain(values)...), operation);
  }
  template <Sql_value... Values>
  int get_txt(Operation operation, std::string* out, const char* format, const Values&... values) {
    return errors_.report_get_txt(read_txt(operation.name, out, format, plain(values)...), operation);
  }

  // exec_on() without the report, for what may fail.
  template <Sql_value... Values>
  int try_exec_on(const char* operation, sqlite3* conn, const char* format, const Values&... values) {
    return execute(operation, conn, format, plain(values)...);
  }

  // Remembers a failure of the operation's own calls.
  void remember(int rc, const char* operation) { errors_.remember(rc, operation); }

  // The number that `sql` answers, -1 for none. Prints nothing.
  int64_t silent_number(const std::string& sql);

 private:
  int execute(const char* operation, sqlite3* conn, const char* format, ...);
  int read_int(const char* operation, int* out, const char* format, ...);
  int read_txt(const char* operation, std::string* out, const char* format, ...);

  const Connection& connection_;
  Errors& errors_;
};

}  // namespace sdbl
