#include <sqlite3.h>

#include <cstring>
#include <memory>
#include <utility>

#include "base/log.h"
#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using kelvo_log::sql_ok;
using sdbl::Db_lock;

namespace {

constexpr char INSTANCE_WORD[] = "DVBNR";
constexpr int PARAM_INT = 1;
constexpr int PARAM_TEXT = 2;
constexpr size_t SHORTEST_TEXT = 3;

struct Sqlite_free {
  void operator()(char* text) const { sqlite3_free(text); }
};
using Sql_text = std::unique_ptr<char, Sqlite_free>;

struct Finalize {
  void operator()(sqlite3_stmt* stmt) const { (void)sqlite3_finalize(stmt); }  // repeats the step's code
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

Sql_text formatted(const char* fmt, va_list arguments) {
  return Sql_text(sqlite3_vmprintf(fmt, arguments));
}

int prepare(sqlite3* conn, const Sql_text& text, Statement* stmt) {
  if (!text)
    return SQLITE_NOMEM;
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v2(conn, text.get(), static_cast<int>(std::strlen(text.get())), &raw, &tail);
  stmt->reset(raw);
  return rc;
}

const char* shown(const Sql_text& text) {
  return text ? text.get() : "";
}

std::string for_instance(const std::string& sql, int instance) {
  std::string text = sql;
  const char digit = static_cast<char>('0' + instance);
  for (size_t at = text.find(INSTANCE_WORD); at != std::string::npos; at = text.find(INSTANCE_WORD, at))
    text.replace(at, sizeof INSTANCE_WORD - 1, 1, digit);
  return text;
}

std::vector<int32_t> kinds_of_parameters(const char* sql) {
  std::vector<int32_t> kinds;
  for (const char* c = sql; *c != '\0'; ++c) {
    if (*c == '$')
      kinds.push_back(PARAM_INT);
    else if (*c == '@')
      kinds.push_back(PARAM_TEXT);
  }
  return kinds;
}

const char* parameter_name(sqlite3_stmt* stmt, int index) {
  const char* name = sqlite3_bind_parameter_name(stmt, index);
  return name != nullptr ? name : "";
}

int bind_text(sqlite3_stmt* stmt, int index, const char* text, const char* sql) {
  if (text == nullptr)
    text = "";
  const size_t length = std::strlen(text);
  if (length >= SHORTEST_TEXT)
    return sqlite3_bind_text(stmt, index, text, static_cast<int>(length), SQLITE_TRANSIENT);
  // Deliberate: texts under three bytes are bound as "".
  KLOG(VERB_TRACE, "Input string length <3 (%d) for arg index %d  name %s. Replacing with epty string %s \n%s\n",
       static_cast<int>(length), index, parameter_name(stmt, index), text, sql);
  return sqlite3_bind_text(stmt, index, "", 0, SQLITE_STATIC);
}

}  // namespace

int Sdbl::sql_exec(sqlite3* conn, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const Sql_text text = formatted(fmt, arguments);
  va_end(arguments);
  KLOG(VERB_TRACE, "sql_exec: %s\n", shown(text));

  // Deliberate: the error text is the main connection's, whichever `conn` is.
  Db_lock lock(conn == db ? db : nullptr);
  Statement stmt;
  int rc = prepare(conn, text, &stmt);
  if (rc != SQLITE_OK) {
    Db_lock message(db);
    KLOG(VERB_WARNING, "WARNING: SQL_execute/compile error RC=%d, %s, %s\n", rc, shown(text), sqlite3_errmsg(db));
    return rc;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_ROW) {
    KLOG(VERB_TRACE, "SQL_execute returns data, none used\n");
  } else if (rc != SQLITE_DONE) {
    Db_lock message(db);
    KLOG(VERB_WARNING, "WARNING: SQL_execute failed RC=%d %s, %s\n", rc, shown(text), sqlite3_errmsg(db));
  }
  return rc;
}

int Sdbl::sql_get_int(int* out, int col, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const Sql_text text = formatted(fmt, arguments);
  va_end(arguments);
  KLOG(VERB_TRACE, "sql_get_int: %s\n", shown(text));

  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG_ALWAYS("SQL_get_int/compile error %d: %s ", rc, sqlite3_errmsg(db));
    KLOG(VERB_PROGRESS, "%s\n", shown(text));
    return rc;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_DONE)
    return rc;
  if (rc != SQLITE_ROW) {
    KLOG_ALWAYS("SQL_get_int/execute failed to capture row %d: %s ", 1, sqlite3_errmsg(db));
    return 1;
  }
  // Deliberate: a column number equal to the count passes here and fails as a wrong type.
  if (sqlite3_column_count(stmt.get()) < col) {
    KLOG_ALWAYS("SQL_get_int/execute col count %d less than required %d ", sqlite3_column_count(stmt.get()), col);
    return 1;
  }
  if (sqlite3_column_type(stmt.get(), col) != SQLITE_INTEGER) {
    const char* name = sqlite3_column_name(stmt.get(), col);
    KLOG_ALWAYS("SQL_get_int/execute col nr %d named %s is not integer ", col, name != nullptr ? name : "(null)");
    return 1;
  }
  *out = sqlite3_column_int(stmt.get(), col);
  return 0;
}

int Sdbl::sql_get_txt(std::string* out, int col, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const Sql_text text = formatted(fmt, arguments);
  va_end(arguments);
  KLOG(VERB_TRACE, "sql_get_txt: %s\n", shown(text));

  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG_ALWAYS("SQL_get_txt/compile error %d: %s ", rc, sqlite3_errmsg(db));
    KLOG(VERB_PROGRESS, "%s\n", shown(text));
    return 1;
  }
  rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_DONE)
    return rc;
  if (rc != SQLITE_ROW) {
    KLOG_ALWAYS("SQL_get_txt/execute error %d: %s ", rc, sqlite3_errmsg(db));
    return 1;
  }
  if (sqlite3_column_count(stmt.get()) < col) {
    KLOG_ALWAYS("SQL_get_txt/execute col count %d less than required %d ", sqlite3_column_count(stmt.get()), col);
    return 1;
  }
  if (sqlite3_column_type(stmt.get(), col) != SQLITE_TEXT) {
    const char* name = sqlite3_column_name(stmt.get(), col);
    KLOG_ALWAYS("SQL_get_txt/execute col nr %d named %s is not text ", col, name != nullptr ? name : "(null)");
    return 1;
  }
  *out = sdbl::column_text(stmt.get(), col);
  return 0;
}

bool Sdbl::sql_row_exists(const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  const Sql_text text = formatted(fmt, arguments);
  va_end(arguments);
  KLOG(VERB_TRACE, "sql_row_exists: %s\n", shown(text));

  Db_lock lock(db);
  Statement stmt;
  int rc = prepare(db, text, &stmt);
  if (rc != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: SQL_row_exists/compile error %d: %s ", rc, sqlite3_errmsg(db));
    return false;
  }
  rc = sqlite3_step(stmt.get());
  if (rc != SQLITE_ROW && rc != SQLITE_DONE)
    KLOG(VERB_ERROR, "ERROR: SQL_row_exists/execute failed %d: %s", rc, sqlite3_errmsg(db));
  return rc == SQLITE_ROW;
}

SQL_query* Sdbl::lookup_insert_sql_query(const char* sql, int instance) {
  if (instance < 0 || instance >= SQL_INSTANCES)
    return nullptr;

  Db_lock lock(db);
  SQL_query* query = nullptr;
  {
    const size_t length = std::strlen(sql);
    std::lock_guard<std::mutex> cache(cache_lock_);
    for (SQL_query* candidate : queries_) {
      if (candidate->sql.size() == length && std::memcmp(candidate->sql.data(), sql, length) == 0) {
        query = candidate;
        KLOG(VERB_TRACE, "sql prepared cache hit %p", static_cast<void*>(query));
        break;
      }
    }
    if (query == nullptr) {
      KLOG(VERB_TRACE, "SQL cache entry %d\n", static_cast<int>(queries_.size()));
      auto entry = std::make_unique<SQL_query>(SQL_query{sql, {}, kinds_of_parameters(sql)});
      queries_.push_back(entry.get());
      query = entry.release();
    }
  }
  if (query->stmt[instance] != nullptr)
    return query;

  const std::string text = for_instance(query->sql, instance);
  const int rc = sqlite3_prepare_v2(db, text.c_str(), -1, &query->stmt[instance], nullptr);
  if (rc != SQLITE_OK) {
    parts_->errors.remember(rc, "sql_cache");
    KLOG(VERB_ERROR, "ERROR: query %s prepare failed: %s", text.c_str(), sqlite3_errmsg(db));
    return nullptr;
  }
  KLOG(VERB_TRACE, "sql: %s\n", text.c_str());
  return query;
}

// Finds, resets and binds a statement; null, printed, when that fails. REQUIRES: the connection's mutex.
sqlite3_stmt* Sdbl::bind_cached(int instance, const char* sql, va_list arguments) {
  const SQL_query* query = lookup_insert_sql_query(sql, instance);
  if (query == nullptr || query->stmt[instance] == nullptr) {
    KLOG(VERB_ERROR, "ERROR: sql_cache lookup failed for %s", sql);
    return nullptr;
  }
  sqlite3_stmt* stmt = query->stmt[instance];
  KLOG(VERB_TRACE, "cache run for command %s\n", sql);
  int rc = sqlite3_reset(stmt);
  if (rc != SQLITE_OK)
    KLOG(VERB_WARNING, "WARNING: Sqlite_reset for %s rc is %d\n", sql, rc);

  int index = 0;
  for (const int32_t kind : query->param_kinds) {
    ++index;
    if (kind == PARAM_INT) {
      const int value = va_arg(arguments, int);
      KLOG(VERB_TRACE, "int%d: %d ", index - 1, value);
      rc = sqlite3_bind_int(stmt, index, value);
    } else {
      rc = bind_text(stmt, index, va_arg(arguments, const char*), sql);
    }
    if (rc != SQLITE_OK) {
      KLOG(VERB_ERROR, "ERROR: Cannot bind arg nr %d type %d to %s, sql errmsg %s\n", index, static_cast<int>(kind),
           sql, sqlite3_errmsg(db));
      return nullptr;
    }
  }
  KLOG(VERB_TRACE, "\n");
  return stmt;
}

// Executes a bound statement once. True when the step succeeded. REQUIRES: the connection's mutex.
bool Sdbl::step_cached(sqlite3_stmt* stmt, const char* sql) {
  const int step = sqlite3_step(stmt);
  if (sql_ok(step))
    KLOG(VERB_TRACE, "SQL run status is %d\n", step);
  else
    KLOG(VERB_ERROR, "ERROR: Sqlite_step failed for %s , error %s\n", sql, sqlite3_errmsg(db));
  parts_->errors.remember(step, "sql_cache");
  const int rc = sqlite3_reset(stmt);
  if (rc != SQLITE_OK)
    KLOG(VERB_WARNING, "WARNING: Sqlite_reset for %s rc is %d\n", sql, rc);
  return sql_ok(step);
}

sqlite3_stmt* Sdbl::sql_cache(bool run, int instance, const char* sql, ...) {
  Db_lock lock(db);
  va_list arguments;
  va_start(arguments, sql);
  sqlite3_stmt* stmt = bind_cached(instance, sql, arguments);
  va_end(arguments);
  if (stmt != nullptr && run)
    (void)step_cached(stmt, sql);  // a failed run is printed, and the statement is good for the next one
  return stmt;
}

Sdbl::Run Sdbl::run_cached(int instance, const char* sql, ...) {
  Db_lock lock(db);
  va_list arguments;
  va_start(arguments, sql);
  sqlite3_stmt* stmt = bind_cached(instance, sql, arguments);
  va_end(arguments);
  if (stmt == nullptr)
    return Run{1, 0, 0, false};
  const bool done = step_cached(stmt, sql);
  return Run{0, done ? sqlite3_changes(db) : 0, static_cast<int>(sqlite3_last_insert_rowid(db)), done};
}

int Sdbl::first_number(const char* operation, int line, int instance, const char* sql, ...) {
  Db_lock lock(db);
  va_list arguments;
  va_start(arguments, sql);
  sqlite3_stmt* stmt = bind_cached(instance, sql, arguments);
  va_end(arguments);
  if (stmt == nullptr)
    return 0;
  const int number = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
  (void)parts_->errors.report_reset(sqlite3_reset(stmt), operation, line);  // a failed step's code comes back here
  return number;
}

void Sdbl::check_cached_queries() {
  Db_lock lock(db);
  std::lock_guard<std::mutex> cache(cache_lock_);
  // Deliberate: statements of instance 3 are left alone, here and in free_prepared_queries().
  for (const SQL_query* query : queries_)
    for (int instance = 0; instance < SQL_INSTANCES - 1; ++instance)
      (void)sqlite3_reset(query->stmt[instance]);  // null is allowed; the code is that of the last step
}

void Sdbl::free_prepared_queries() {
  std::vector<SQL_query*> freed;
  {
    std::lock_guard<std::mutex> cache(cache_lock_);
    freed.swap(queries_);
  }
  for (SQL_query* query : freed) {
    for (int instance = 0; instance < SQL_INSTANCES - 1; ++instance)
      (void)sqlite3_finalize(query->stmt[instance]);  // null is allowed; the code is that of the last step
    delete query;
  }
}
