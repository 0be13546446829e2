#include "db/errors.h"

#include <sqlite3.h>

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

bool is_file_failure(int rc) {
  constexpr int PRIMARY_CODE = 0xFF;
  switch (rc & PRIMARY_CODE) {
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

int Errors::report_exec(int rc, const char* operation, int line) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_exec: %d @ %s line %d\n", rc, operation, line);
  remember(rc, operation);
  return rc;
}

int Errors::report_run(int rc, const char* operation, int line) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQLite RUN rc %d at %s, %d\n", rc, operation, line);
  remember(rc, operation);
  return rc;
}

int Errors::report_reset(int rc, const char* operation, int line) {
  if (rc != SQLITE_OK)
    KLOG(VERB_ERROR, "ERROR: SQLite reset rc %d at %s, %d\n", rc, operation, line);
  remember(rc, operation);
  return rc;
}

int Errors::report_get_int(int rc, const char* operation, int line) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_get_int: %d @ %s line %d\n", rc, operation, line);
  remember(rc, operation);
  return rc;
}

int Errors::report_get_txt(int rc, const char* operation, int line) {
  if (!sql_ok(rc))
    KLOG(VERB_ERROR, "ERROR: SQL_get_txt: %d @ %s, %d\n", rc, operation, line);
  remember(rc, operation);
  return rc;
}

void Errors::remember(int rc, const char* operation) {
  if (is_file_failure(rc))
    remember(Database_error{rc, operation, false});
}

void Errors::remember_full_guide(const char* operation) {
  remember(Database_error{SQLITE_FULL, operation, true});
}

void Errors::remember(const Database_error& error) {
  std::lock_guard<std::mutex> lock(lock_);
  if (first_.code == 0)
    first_ = error;
  for (Database_error& first : first_of_adapter_) {
    if (first.code == 0)
      first = error;
  }
}

bool Errors::first(Database_error* error) const {
  std::lock_guard<std::mutex> lock(lock_);
  *error = first_;
  return first_.code != 0;
}

void Errors::forget() {
  std::lock_guard<std::mutex> lock(lock_);
  first_ = Database_error{};
}

bool Errors::first_since_watch(int adapter, Database_error* error) const {
  std::lock_guard<std::mutex> lock(lock_);
  *error = adapter >= 0 && adapter < ADAPTERS ? first_of_adapter_[adapter] : Database_error{};
  return error->code != 0;
}

void Errors::watch(int adapter) {
  std::lock_guard<std::mutex> lock(lock_);
  if (adapter >= 0 && adapter < ADAPTERS)
    first_of_adapter_[adapter] = Database_error{};
}

}  // namespace sdbl
