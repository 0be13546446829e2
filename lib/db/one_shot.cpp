// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/one_shot.h"

#include <cstring>
#include <memory>

#include "base/log.h"

namespace sdbl {

namespace {

struct Sqlite_free {
  void operator()(char* text) const { sqlite3_free(text); }
};
using Sql_string = std::unique_ptr<char, Sqlite_free>;

struct Finalize {
  void operator()(sqlite3_stmt* stmt) const { (void)sqlite3_finalize(stmt); }  // repeats the step's code
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

Sql_string formatted(const char* format, va_list arguments) {
  return Sql_string(sqlite3_vmprintf(format, arguments));
}

int prepare(sqlite3* conn, const Sql_string& text, Statement* stmt) {
  if (!text)
    return SQLITE_NOMEM;
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v2(conn, text.get(), static_cast<int>(std::strlen(text.get())), &raw, &tail);
  stmt->reset(raw);
  return rc;
}

const char* shown(const Sql_string& text) {
  return text ? text.get() : "";
}

const char* column_name(sqlite3_stmt* stmt, int column) {
  const char* name = sqlite3_column_name(stmt, column);
  return name != nullptr ? name : "(null)";
}

}  // namespace

int One_shot::exec_v(const char* operation, sqlite3* conn, const char* format, va_list arguments) {
  const Sql_string text = formatted(format, arguments);
  KLOG(VERB_TRACE, "sql_exec: %s\n", shown(text));

  // Deliberate: the error text is the main connection's, whichever `conn` is.
  sqlite3* const db = connection_.get();
  Db_lock lock(conn == db ? db : nullptr);
  Statement stmt;
  int rc = prepare(conn, text, &stmt);
  if (rc != SQLITE_OK) {
    Db_lock message(db);
    KLOG(VERB_WARNING, "WARNING: SQL_execute/compile error RC=%d, %s, %s\n", rc, shown(text), sqlite3_errmsg(db));
    errors_.remember(rc, operation);
    return rc;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_ROW) {
    KLOG(VERB_TRACE, "SQL_execute returns data, none used\n");
  } else if (rc != SQLITE_DONE) {
    Db_lock message(db);
    KLOG(VERB_WARNING, "WARNING: SQL_execute failed RC=%d %s, %s\n", rc, shown(text), sqlite3_errmsg(db));
    errors_.remember(rc, operation);
  }
  return rc;
}

int One_shot::get_int_v(const char* operation, int* out, int column, const char* format, va_list arguments) {
  const Sql_string text = formatted(format, arguments);
  KLOG(VERB_TRACE, "sql_get_int: %s\n", shown(text));

  sqlite3* const db = connection_.get();
  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG_ALWAYS("SQL_get_int/compile error %d: %s ", rc, sqlite3_errmsg(db));
    KLOG(VERB_PROGRESS, "%s\n", shown(text));
    errors_.remember(rc, operation);
    return rc;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_DONE)
    return rc;
  if (rc != SQLITE_ROW) {
    KLOG_ALWAYS("SQL_get_int/execute failed to capture row %d: %s ", 1, sqlite3_errmsg(db));
    errors_.remember(rc, operation);
    return 1;
  }
  // Deliberate: a column number equal to the count passes here and fails as a wrong type.
  if (sqlite3_column_count(stmt.get()) < column) {
    KLOG_ALWAYS("SQL_get_int/execute col count %d less than required %d ", sqlite3_column_count(stmt.get()), column);
    return 1;
  }
  if (sqlite3_column_type(stmt.get(), column) != SQLITE_INTEGER) {
    KLOG_ALWAYS("SQL_get_int/execute col nr %d named %s is not integer ", column, column_name(stmt.get(), column));
    return 1;
  }
  *out = sqlite3_column_int(stmt.get(), column);
  return 0;
}

int One_shot::get_txt_v(const char* operation, std::string* out, int column, const char* format, va_list arguments) {
  const Sql_string text = formatted(format, arguments);
  KLOG(VERB_TRACE, "sql_get_txt: %s\n", shown(text));

  sqlite3* const db = connection_.get();
  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG_ALWAYS("SQL_get_txt/compile error %d: %s ", rc, sqlite3_errmsg(db));
    KLOG(VERB_PROGRESS, "%s\n", shown(text));
    errors_.remember(rc, operation);
    return 1;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_DONE)
    return rc;
  if (rc != SQLITE_ROW) {
    KLOG_ALWAYS("SQL_get_txt/execute error %d: %s ", rc, sqlite3_errmsg(db));
    errors_.remember(rc, operation);
    return 1;
  }
  if (sqlite3_column_count(stmt.get()) < column) {
    KLOG_ALWAYS("SQL_get_txt/execute col count %d less than required %d ", sqlite3_column_count(stmt.get()), column);
    return 1;
  }
  if (sqlite3_column_type(stmt.get(), column) != SQLITE_TEXT) {
    KLOG_ALWAYS("SQL_get_txt/execute col nr %d named %s is not text ", column, column_name(stmt.get(), column));
    return 1;
  }
  *out = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), column));
  return 0;
}

bool One_shot::row_exists_v(const char* format, va_list arguments) {
  const Sql_string text = formatted(format, arguments);
  KLOG(VERB_TRACE, "sql_row_exists: %s\n", shown(text));

  sqlite3* const db = connection_.get();
  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: SQL_row_exists/compile error %d: %s ", rc, sqlite3_errmsg(db));
    errors_.remember(rc, "sql_row_exists");
    return false;
  }
  rc = sqlite3_step(stmt.get());
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    KLOG(VERB_ERROR, "ERROR: SQL_row_exists/execute failed %d: %s", rc, sqlite3_errmsg(db));
    errors_.remember(rc, "sql_row_exists");
  }
  return rc == SQLITE_ROW;
}

int64_t One_shot::silent_number(const std::string& sql) {
  Db_lock lock(connection_);
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v2(connection_.get(), sql.c_str(), -1, &raw, nullptr);
  const Statement stmt(raw);
  return rc == SQLITE_OK && sqlite3_step(stmt.get()) == SQLITE_ROW ? sqlite3_column_int64(stmt.get(), 0) : -1;
}

int One_shot::execute(const char* operation, sqlite3* conn, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int rc = exec_v(operation, conn, format, arguments);
  va_end(arguments);
  return rc;
}

int One_shot::read_int(const char* operation, int* out, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int rc = get_int_v(operation, out, 0, format, arguments);
  va_end(arguments);
  return rc;
}

int One_shot::read_txt(const char* operation, std::string* out, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int rc = get_txt_v(operation, out, 0, format, arguments);
  va_end(arguments);
  return rc;
}

}  // namespace sdbl
