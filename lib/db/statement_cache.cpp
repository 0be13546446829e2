// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/statement_cache.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

constexpr char INSTANCE_WORD[] = "DVBNR";
constexpr size_t SHORTEST_TEXT = 3;

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

int bind_text(sqlite3_stmt* stmt, int index, const char* text, const char* sql, Text_lifetime lifetime) {
  if (text == nullptr)
    text = "";
  const size_t length = std::strlen(text);
  if (length >= SHORTEST_TEXT)
    return sqlite3_bind_text(stmt, index, text, static_cast<int>(length),
                             lifetime == Text_lifetime::UNTIL_RESET ? SQLITE_STATIC : SQLITE_TRANSIENT);
  // Deliberate: texts under three bytes are bound as "".
  KLOG(VERB_TRACE, "Input string length <3 (%d) for arg index %d  name %s. Replacing with epty string %s \n%s\n",
       static_cast<int>(length), index, parameter_name(stmt, index), text, sql);
  return sqlite3_bind_text(stmt, index, "", 0, SQLITE_STATIC);
}

}  // namespace

std::string statement_of_instance(const std::string& sql, int instance) {
  std::string text = sql;
  const char digit = static_cast<char>('0' + instance);
  for (size_t at = text.find(INSTANCE_WORD); at != std::string::npos; at = text.find(INSTANCE_WORD, at))
    text.replace(at, sizeof INSTANCE_WORD - 1, 1, digit);
  return text;
}

SQL_query* Statement_cache::lookup(const char* operation, int instance, const char* sql) {
  if (instance < 0 || instance >= SQL_INSTANCES)
    return nullptr;

  sqlite3* const db = connection_.get();
  Db_lock lock(db);
  SQL_query* query = nullptr;
  {
    const size_t length = std::strlen(sql);
    std::lock_guard<Mutex> cache(lock_);
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

  const std::string text = statement_of_instance(query->sql, instance);
  const int rc = sqlite3_prepare_v2(db, text.c_str(), -1, &query->stmt[instance], nullptr);
  if (rc != SQLITE_OK) {
    KLOG(VERB_ERROR, "ERROR: query %s prepare failed: %s", text.c_str(), sqlite3_errmsg(db));
    errors_.remember(rc, operation);
    return nullptr;
  }
  KLOG(VERB_TRACE, "sql: %s\n", text.c_str());
  return query;
}

SQL_query* Statement_cache::usable(const char* operation, int instance, const char* sql) {
  SQL_query* query = lookup(operation, instance, sql);
  if (query != nullptr && query->stmt[instance] != nullptr)
    return query;
  KLOG(VERB_ERROR, "ERROR: sql_cache lookup failed for %s", sql);
  return nullptr;
}

sqlite3_stmt* Statement_cache::bind(const char* operation, int instance, const char* sql,
                                    std::span<const Argument> values, Text_lifetime lifetime) {
  const SQL_query* query = usable(operation, instance, sql);
  return query != nullptr ? bind_query(*query, operation, instance, sql, values, lifetime) : nullptr;
}

sqlite3_stmt* Statement_cache::bind_v(const char* operation, int instance, const char* sql, va_list arguments) {
  const SQL_query* query = usable(operation, instance, sql);
  if (query == nullptr)
    return nullptr;
  std::vector<Argument> values;
  values.reserve(query->param_kinds.size());
  for (const int32_t kind : query->param_kinds) {
    if (kind == PARAM_INT)
      values.emplace_back(va_arg(arguments, int));
    else
      values.emplace_back(va_arg(arguments, const char*));
  }
  return bind_query(*query, operation, instance, sql, values, Text_lifetime::UNTIL_BOUND);
}

sqlite3_stmt* Statement_cache::bind_query(const SQL_query& query, const char* operation, int instance, const char* sql,
                                          std::span<const Argument> values, Text_lifetime lifetime) {
  sqlite3_stmt* stmt = query.stmt[instance];
  KLOG(VERB_TRACE, "cache run for command %s\n", sql);
  int rc = sqlite3_reset(stmt);
  if (rc != SQLITE_OK)
    KLOG(VERB_WARNING, "WARNING: Sqlite_reset for %s rc is %d\n", sql, rc);

  int index = 0;
  for (const Argument& value : values) {
    ++index;
    if (value.kind == PARAM_INT) {
      KLOG(VERB_TRACE, "int%d: %d ", index - 1, value.number);
      rc = sqlite3_bind_int(stmt, index, value.number);
    } else {
      rc = bind_text(stmt, index, value.text, sql, lifetime);
    }
    if (rc != SQLITE_OK) {
      KLOG(VERB_ERROR, "ERROR: Cannot bind arg nr %d type %d to %s, sql errmsg %s\n", index,
           static_cast<int>(value.kind), sql, sqlite3_errmsg(connection_.get()));
      errors_.remember(rc, operation);
      return nullptr;
    }
  }
  KLOG(VERB_TRACE, "\n");
  return stmt;
}

int Statement_cache::run(const char* operation, sqlite3_stmt* stmt, const char* sql) {
  const int step = sqlite3_step(stmt);
  if (sql_ok(step))
    KLOG(VERB_TRACE, "SQL run status is %d\n", step);
  else
    KLOG(VERB_ERROR, "ERROR: Sqlite_step failed for %s , error %s\n", sql, sqlite3_errmsg(connection_.get()));
  errors_.remember(step, operation);
  const int rc = sqlite3_reset(stmt);
  if (rc != SQLITE_OK)
    KLOG(VERB_WARNING, "WARNING: Sqlite_reset for %s rc is %d\n", sql, rc);
  return step;
}

void Statement_cache::reset() {
  Db_lock lock(connection_);
  std::lock_guard<Mutex> cache(lock_);
  // Deliberate: statements of instance 3 are left alone, here and in free().
  for (const SQL_query* query : queries_)
    for (int instance = 0; instance < SQL_INSTANCES - 1; ++instance)
      (void)sqlite3_reset(query->stmt[instance]);  // null is allowed; the code is that of the last step
}

void Statement_cache::free() {
  Db_lock in_use(connection_);  // no statement of the library's is, then
  std::vector<SQL_query*> freed;
  {
    std::lock_guard<Mutex> cache(lock_);
    freed.swap(queries_);
  }
  for (SQL_query* query : freed) {
    for (int instance = 0; instance < SQL_INSTANCES - 1; ++instance)
      (void)sqlite3_finalize(query->stmt[instance]);  // null is allowed; the code is that of the last step
    delete query;
  }
}

void Statement_cache::forget() {
  std::lock_guard<Mutex> cache(lock_);
  for (SQL_query* query : queries_)
    for (sqlite3_stmt*& stmt : query->stmt)
      stmt = nullptr;
}

}  // namespace sdbl
