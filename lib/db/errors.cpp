// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/errors.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

bool is_file_failure(int rc) {
  // The lowest byte of an extended code is the plain one.
  switch (rc & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_READONLY:
    case SQLITE_IOERR:
    case SQLITE_CORRUPT:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_NOTADB:
      return true;
    default:
      return false;
  }
}

int Errors::report_exec(int rc, Operation operation) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_exec: %d @ %s line %d\n", rc, operation.name, operation.line);
  remember(rc, operation.name);
  return rc;
}

int Errors::report_run(int rc, Operation operation) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQLite RUN rc %d at %s, %d\n", rc, operation.name, operation.line);
  remember(rc, operation.name);
  return rc;
}

int Errors::report_reset(int rc, Operation operation) {
  if (rc != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: SQLite reset rc %d at %s, %d\n", rc, operation.name, operation.line);
  remember(rc, operation.name);
  return rc;
}

int Errors::report_get_int(int rc, Operation operation) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_get_int: %d @ %s line %d\n", rc, operation.name, operation.line);
  remember(rc, operation.name);
  return rc;
}

int Errors::report_get_txt(int rc, Operation operation) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_get_txt: %d @ %s, %d\n", rc, operation.name, operation.line);
  remember(rc, operation.name);
  return rc;
}

void Errors::remember(int rc, const char* operation) {
  if ((rc & 0xFF) == SQLITE_NOMEM) {
    std::lock_guard<Mutex> lock(lock_);
    std::fill(std::begin(short_of_memory_), std::end(short_of_memory_), true);
  }
  if (is_file_failure(rc))
    remember(Database_error{rc, operation, false});
}

void Errors::remember_full_guide(const char* operation) {
  remember(Database_error{SQLITE_FULL, operation, true});
}

void Errors::remember(const Database_error& error) {
  const auto keep_first = [&](Database_error* first) {
    if (first->code == 0)
      *first = error;
    // The statement that found no room was remembered before it was known what that means.
    if (error.guide_full && first->code == error.code && std::strcmp(first->operation, error.operation) == 0)
      first->guide_full = true;
  };
  std::lock_guard<Mutex> lock(lock_);
  keep_first(&first_);
  for (Database_error& first : first_of_adapter_)
    keep_first(&first);
}

bool Errors::first(Database_error* error) const {
  std::lock_guard<Mutex> lock(lock_);
  *error = first_;
  return first_.code != 0;
}

void Errors::forget() {
  std::lock_guard<Mutex> lock(lock_);
  first_ = Database_error{};
}

bool Errors::first_since_watch(int adapter, Database_error* error) const {
  std::lock_guard<Mutex> lock(lock_);
  *error = adapter >= 0 && adapter < ADAPTERS ? first_of_adapter_[adapter] : Database_error{};
  return error->code != 0;
}

bool Errors::short_of_memory(int adapter) const {
  std::lock_guard<Mutex> lock(lock_);
  return adapter >= 0 && adapter < ADAPTERS && short_of_memory_[adapter];
}

void Errors::begin_scan_tables(int adapter) {
  std::lock_guard<Mutex> lock(lock_);
  if (adapter >= 0 && adapter < ADAPTERS)
    short_of_memory_[adapter] = false;
}

void Errors::watch(int adapter) {
  std::lock_guard<Mutex> lock(lock_);
  if (adapter >= 0 && adapter < ADAPTERS)
    first_of_adapter_[adapter] = Database_error{};
}

}  // namespace sdbl
