// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3_stmt;

// Scan instances (adapters) that have prepared statements of their own: numbers 0 to 3.
inline constexpr int SQL_INSTANCES = 4;

// One statement of the cache, compiled once an instance. Owned by the cache of Sdbl; free_prepared_queries ends it.
struct SQL_query {
  std::string sql;                    // the text as the caller gave it, the word DVBNR included: the key
  sqlite3_stmt* stmt[SQL_INSTANCES];  // null until prepared for that instance
  std::vector<int32_t> param_kinds;   // in order of appearance: 1 for $name (integer), 2 for @name (text)
};
