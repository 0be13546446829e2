// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/open_database.h"

#include <sqlite3.h>

#include <iterator>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/database/channel_db.h"

namespace {

// The first failure of the database that is worth ending for, or one with code 0.
Database_error first_failure(Sdbl* database) {
  Database_error error;
  if (!database->first_error(&error)) {
    return {};
  }
  if (error.code == SQLITE_READONLY_DBMOVED) {
    return error;
  }
  error.code &= 0xFF;  // without what extends it
  // A lock or an interrupted statement passes and the scan goes on; what is listed here stays, and everything found
  // from then on would be lost in silence.
  switch (error.code) {
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_READONLY:
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
      return error;
    default:
      database->forget_errors();  // or it would hide what comes after it
      return {};
  }
}

}  // namespace

std::unique_ptr<Sdbl> open_database(const std::string& file, bool exists) {
  std::unique_ptr<Sdbl> database;
  try {
    database = std::make_unique<Sdbl>(file.c_str(), Durability::FULL);
  } catch (const no_file_error& error) {
    throw Failure(fmt::format("{}: cannot be opened: {}", file, error.what()));
  }
  try {
    // The library opens nearly any file and fails when it makes its tables; whether it could is known only behind that.
    check_written(database.get(), file);
  } catch (const Failure&) {
    database.reset();
    // An empty file that stays behind would be taken for a database without channels the next time.
    if (!exists) {
      remove_database(file);
    }
    throw;
  }
  return database;
}

bool write_failed(Sdbl* database) {
  return first_failure(database).code != 0;
}

void check_written(Sdbl* database, const std::string& file) {
  const Database_error error = first_failure(database);
  if (error.guide_full) {
    throw Failure(file + ": no room for more events: the disk is full, or the guide is as large as it may be");
  }
  if (error.code == SQLITE_READONLY_DBMOVED) {
    throw Failure(file + ": another program has moved or replaced it, or its guide; what came since is not stored");
  }
  if (error.code != 0) {
    throw Failure(fmt::format("{}: cannot be written: {}", file,
                              error.code == SQLITE_FULL ? "disk full" : sqlite3_errstr(error.code)));
  }
}

void collect_all_guides(Sdbl* database) {
  // Service types of EN 300 468, table 89, that have programmes.
  constexpr int TYPES[] = {1, 2, 10, 17, 22, 25, 31};
  database->set_eit_service_types(TYPES, std::size(TYPES));
}
