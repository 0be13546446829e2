// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/statements.h"

#include <utility>

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

Run Statements::figures(int code) const {
  sqlite3* const db = connection_.get();
  const bool done = sql_ok(code);
  return Run{0, done ? sqlite3_changes(db) : 0, static_cast<int>(sqlite3_last_insert_rowid(db)), code, done};
}

Run Statements::execute(Operation operation, int instance, const char* sql,
                        std::initializer_list<Argument> values) const {
  Db_lock lock(connection_);
  sqlite3_stmt* stmt = cache_.bind(operation.name, instance, sql, values, Text_lifetime::UNTIL_RESET);
  if (stmt == nullptr)
    return Run{1, 0, 0, SQLITE_ERROR, false};
  return figures(cache_.run(operation.name, stmt, sql));
}

Run Statements::execute_silently(Operation operation, int instance, const char* sql,
                                 std::span<const Argument> values) const {
  Db_lock lock(connection_);
  sqlite3_stmt* stmt = cache_.bind(operation.name, instance, sql, values, Text_lifetime::UNTIL_RESET);
  if (stmt == nullptr)
    return Run{1, 0, 0, SQLITE_ERROR, false};
  const int step = sqlite3_step(stmt);
  errors_.remember(step, operation.name);
  const Run run = figures(step);
  (void)sqlite3_reset(stmt);  // repeats the step's code
  return run;
}

Rows::Rows(const Statements& statements, Operation operation, int instance, const char* sql,
           std::initializer_list<Argument> values)
    : statements_(statements),
      operation_(operation),
      lock_(statements.connection_),
      stmt_(statements.cache_.bind(operation.name, instance, sql, values)),
      code_(SQLITE_ERROR) {}

bool Rows::next() {
  const bool row = try_next();
  statements_.errors_.remember(code_, operation_.name);
  return row;
}

bool Rows::try_next() {
  if (stmt_ == nullptr)
    return false;
  code_ = sqlite3_step(stmt_);
  return code_ == SQLITE_ROW;
}

int Rows::number(int column) const {
  return sqlite3_column_int(stmt_, column);
}

const char* Rows::text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

const char* Rows::message() const {
  return sqlite3_errmsg(statements_.connection_.get());
}

int Rows::end(Operation operation) {
  const int rc = statements_.errors_.report_reset(sqlite3_reset(std::exchange(stmt_, nullptr)), operation);
  lock_.release();
  return rc;
}

void Rows::drop() {
  (void)sqlite3_reset(std::exchange(stmt_, nullptr));  // repeats the step's code
  lock_.release();
}

void Rows::leave() {
  stmt_ = nullptr;
  lock_.release();
}

Insert::Insert(const Statements& statements, Operation operation, int instance, const char* sql,
               std::initializer_list<Argument> values)
    : statements_(statements),
      operation_(operation),
      lock_(statements.connection_),
      stmt_(statements.cache_.bind(operation.name, instance, sql, values)) {}

void Insert::set(const char* name, int value) {
  if (stmt_ == nullptr)
    return;
  const int index = sqlite3_bind_parameter_index(stmt_, name);
  if (index == 0)
    KLOG(VERB_ERROR, "ERROR: Cannot bind integer %s in %s %d\n", name + 1, __FILE_NAME__, __LINE__);
  else
    (void)sqlite3_bind_int(stmt_, index, value);  // cannot fail for an index that exists
}

void Insert::set(const char* name, const std::string& value) {
  if (stmt_ == nullptr)
    return;
  const int index = sqlite3_bind_parameter_index(stmt_, name);
  if (index == 0)
    KLOG(VERB_ERROR, "ERROR: Cannot bind text %s in %s %d\n", name + 1, __FILE_NAME__, __LINE__);
  else if (const int rc = sqlite3_bind_text(stmt_, index, value.c_str(), -1, SQLITE_TRANSIENT); rc != SQLITE_OK)
    bound_ = rc;
}

void Insert::run() {
  if (stmt_ == nullptr)
    return;
  if (bound_ != SQLITE_OK) {
    (void)statements_.errors_.report_run(bound_, operation_);
    return;
  }
  (void)statements_.errors_.report_run(sqlite3_step(stmt_), operation_);
  (void)statements_.errors_.report_reset(sqlite3_reset(stmt_), operation_);
}

int Insert::run_silently() {
  if (stmt_ == nullptr)
    return SQLITE_ERROR;
  const int step = bound_ == SQLITE_OK ? sqlite3_step(stmt_) : bound_;
  statements_.errors_.remember(step, operation_.name);
  (void)sqlite3_reset(stmt_);  // repeats the step's code
  return step;
}

bool Statements::has_table(const std::string& name) const {
  return first_number(__func__, 0, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = @name", name) !=
         0;
}

}  // namespace sdbl
