// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdarg>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "db/connection.h"
#include "db/errors.h"
#include "db/sql_query.h"

namespace sdbl {

// The kinds of parameters, as SQL_query::param_kinds has them.
inline constexpr int32_t PARAM_INT = 1;   // $name
inline constexpr int32_t PARAM_TEXT = 2;  // @name

// The statement with the adapter's digit for the word DVBNR.
std::string statement_of_instance(const std::string& sql, int instance);

// How long the texts of a statement live. What stays until the statement is reset is not copied.
enum class Text_lifetime { UNTIL_BOUND, UNTIL_RESET };

// The value of one parameter. A text must live until the statement is bound, at least.
struct Argument {
  explicit Argument(int value) : kind(PARAM_INT), number(value) {}
  explicit Argument(const char* value) : kind(PARAM_TEXT), text(value) {}
  explicit Argument(const std::string& value) : Argument(value.c_str()) {}

  int32_t kind;
  int number = 0;
  const char* text = nullptr;
};

// The compiled statements of one connection; Sdbl::sql_cache tells how they are written. Any-thread, but a statement
// that is in use belongs to one thread: hold the connection's mutex (Db_lock) from bind() until it is reset.
class Statement_cache {
 public:
  Statement_cache(const Connection& connection, Errors& errors) : connection_(connection), errors_(errors) {}
  ~Statement_cache() { free(); }
  Statement_cache(const Statement_cache&) = delete;
  Statement_cache& operator=(const Statement_cache&) = delete;

  // The entry of `sql`, compiled for `instance`; null, printed, when it does not compile or the instance is none. A
  // failure is remembered under `operation`, here as below. The entry is the cache's.
  SQL_query* lookup(const char* operation, int instance, const char* sql);

  // Finds, resets and binds a statement; null, printed, when that fails. REQUIRES: the connection's mutex; one value
  // for each parameter, of its kind.
  sqlite3_stmt* bind(const char* operation, int instance, const char* sql, std::span<const Argument> values,
                     Text_lifetime lifetime = Text_lifetime::UNTIL_BOUND);
  sqlite3_stmt* bind_v(const char* operation, int instance, const char* sql, va_list arguments);

  // Executes a bound statement once and resets it. The step's code; failures are printed. REQUIRES: the connection's
  // mutex.
  int run(const char* operation, sqlite3_stmt* stmt, const char* sql);

  // Resets the statements, and ends and forgets them; those of instance 3 are left alone.
  void reset();
  void free();

  // Empties the slots: the statements have been ended, or belong to a connection that is left behind.
  void forget();

 private:
  SQL_query* usable(const char* operation, int instance, const char* sql);
  sqlite3_stmt* bind_query(const SQL_query& query, const char* operation, int instance, const char* sql,
                           std::span<const Argument> values, Text_lifetime lifetime);

  const Connection& connection_;
  Errors& errors_;
  // Guards the vector; nothing else is locked while it is held.
  Mutex lock_{Lock_rank::DATABASE_LEAF, "compiled statements"};
  std::vector<SQL_query*> queries_;
};

}  // namespace sdbl
