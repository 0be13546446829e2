// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <initializer_list>
#include <span>
#include <string>
#include <type_traits>

#include "db/connection.h"
#include "db/errors.h"
#include "db/sql_value.h"
#include "db/statement_cache.h"

// How the parts of the database use cached statements. The compiler compares the values with the parameters of the
// statement: an int for each $name, a text for each @name, as many as there are.
//
//   Rows rows(statements, "operation", dvbnr, "SELECT a, b FROM t WHERE c = $c", c);
//   while (rows.next())
//     use(rows.number(0), rows.text(1));
//   rows.end();
namespace sdbl {

// A statement that is put together at run time; its parameters are not compared.
struct Runtime_sql {
  const char* text;
};

template <typename... Values>
class Sql {
 public:
  template <size_t N>
  consteval Sql(const char (&text)[N]) : text_(text) {
    if (!matches(text))
      throw "the values do not match the statement's parameters";  // which ends the compilation
  }
  constexpr Sql(Runtime_sql sql) : text_(sql.text) {}

  constexpr const char* text() const { return text_; }

 private:
  static constexpr bool matches(const char* c) {
    const bool numbers[] = {Sql_number<Values>..., false};
    size_t index = 0;
    for (; *c != '\0'; ++c) {
      if (*c != '$' && *c != '@')
        continue;
      if (index == sizeof...(Values) || numbers[index] != (*c == '$'))
        return false;
      ++index;
    }
    return index == sizeof...(Values);
  }

  const char* text_;
};

template <typename... Values>
using Sql_for = std::type_identity_t<Sql<Values...>>;

// What one execution did, read before another thread's statement could change it.
struct Run {
  int result;   // 0, or 1 when the cache gave no statement
  int changes;  // rows changed; 0 when the step failed
  int rowid;    // the connection's last inserted row
  int code;     // of the step; 1 without a statement
  bool done;    // the step succeeded
};

// The cache, for statements that are executed in one go. Any-thread.
class Statements {
 public:
  Statements(const Connection& connection, Statement_cache& cache, Errors& errors)
      : connection_(connection), cache_(cache), errors_(errors) {}

  // Executes once. A failed step is printed with the statement's text; that there is no statement is reported under the
  // operation's name as well.
  template <Sql_value... Values>
  Run run(Operation operation, int instance, Sql_for<Values...> sql, const Values&... values) const {
    const Run run = execute(operation, instance, sql.text(), {Argument(values)...});
    (void)errors_.report_run(run.result, operation);
    return run;
  }

  // The same without the report.
  template <Sql_value... Values>
  Run try_run(Operation operation, int instance, Sql_for<Values...> sql, const Values&... values) const {
    return execute(operation, instance, sql.text(), {Argument(values)...});
  }

  // Executes once and prints nothing about the step: the caller reports `code`.
  template <Sql_value... Values>
  Run run_silently(Operation operation, int instance, Sql_for<Values...> sql, const Values&... values) const {
    const std::array<Argument, sizeof...(values)> all{Argument(values)...};
    return execute_silently(operation, instance, sql.text(), all);
  }

  // The same of a statement whose number of parameters is known at run time only.
  Run run_silently(Operation operation, int instance, Runtime_sql sql, std::span<const Argument> values) const {
    return execute_silently(operation, instance, sql.text, values);
  }

  // Reports that there was no statement. Returns 1.
  int report_missing(Operation operation) const { return errors_.report_run(SQLITE_ERROR, operation); }

  // The first column of the first row as a number; 0 without one. A failed step is reported as the reset's.
  template <Sql_value... Values>
  int first_number(Operation operation, int instance, Sql_for<Values...> sql, const Values&... values) const;

  // Whether the channel file has this table; several are made only when something is stored in them.
  bool has_table(const std::string& name) const;

 private:
  friend class Rows;
  friend class Insert;

  Run execute(Operation operation, int instance, const char* sql, std::initializer_list<Argument> values) const;
  Run execute_silently(Operation operation, int instance, const char* sql, std::span<const Argument> values) const;
  Run figures(int code) const;

  const Connection& connection_;
  Statement_cache& cache_;
  Errors& errors_;
};

// The rows of a SELECT. Holds the connection's mutex from its construction to end(): read all rows, then do the work.
class Rows {
 public:
  template <Sql_value... Values>
  Rows(const Statements& statements, Operation operation, int instance, Sql_for<Values...> sql, const Values&... values)
      : Rows(statements, operation, instance, sql.text(), {Argument(values)...}) {}
  ~Rows() { (void)end(); }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  // False when the cache gave no statement, which it has printed.
  bool bound() const { return stmt_ != nullptr; }

  // Steps; true when there is a row. The second form is for a read that is tried again, with drop(): a failure is
  // remembered only by end().
  bool next();
  bool try_next();
  int code() const { return code_; }  // of the last step; 1 before it and without a statement

  // Columns of the row. The text of NULL is empty; a text is valid until the next step.
  int number(int column) const;
  const char* text(int column) const;

  // The error text of the connection.
  const char* message() const;

  // Resets the statement, reports a failed step, and lets the connection go. Returns the reset's code, 0 at a second
  // call.
  int end() { return end(operation_); }
  int end(Operation operation);

  // The same without a report.
  void drop();

  // Lets the connection go and leaves the reset to the statement's next use, which prints its failure.
  void leave();

 private:
  Rows(const Statements& statements, Operation operation, int instance, const char* sql,
       std::initializer_list<Argument> values);

  const Statements& statements_;
  Operation operation_;
  Db_lock lock_;
  sqlite3_stmt* stmt_;
  int code_;
};

// An INSERT that is executed several times with some values changed. Holds the connection's mutex.
class Insert {
 public:
  template <Sql_value... Values>
  Insert(const Statements& statements, Operation operation, int instance, Sql_for<Values...> sql,
         const Values&... values)
      : Insert(statements, operation, instance, sql.text(), {Argument(values)...}) {}
  Insert(const Insert&) = delete;
  Insert& operator=(const Insert&) = delete;

  // Sets the parameter of this name, sign included. A name that does not exist is printed, and nothing is set. Texts
  // are bound as they are, short ones too. Once there was no memory for one, nothing is executed any more.
  void set(const char* name, int value);
  void set(const char* name, const std::string& value);

  // Executes once, and reports a failure of the step and of the reset.
  void run();
  // Executes once and prints nothing: the code of the step, 1 without a statement.
  int run_silently();

 private:
  Insert(const Statements& statements, Operation operation, int instance, const char* sql,
         std::initializer_list<Argument> values);

  const Statements& statements_;
  Operation operation_;
  Db_lock lock_;
  sqlite3_stmt* stmt_;     // null when the cache gave none, which it has printed
  int bound_ = SQLITE_OK;  // why a text could not be bound
};

template <Sql_value... Values>
int Statements::first_number(Operation operation, int instance, Sql_for<Values...> sql, const Values&... values) const {
  Rows rows(*this, operation, instance, Runtime_sql{sql.text()}, values...);
  return rows.next() ? rows.number(0) : 0;
}

}  // namespace sdbl
