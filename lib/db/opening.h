// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "db/one_shot.h"
#include "db/schema.h"
#include "db/statement_cache.h"

namespace sdbl {

// Opens and closes the two files. Before-start.
class Opening {
 public:
  Opening(Connection& connection, One_shot& sql, Statement_cache& cache, Schema& schema)
      : connection_(connection), sql_(sql), cache_(cache), schema_(schema) {}

  // Opens or creates both files and attaches the guide. Throws no_file_error, nothing left open. A channel file that is
  // damaged is opened to be read only, and a damaged guide not attached, each with one printed error.
  void open_files();

  // The operations open_db, close_db and flush of Sdbl.
  void open();
  void close();
  void flush() const;

 private:
  bool is_damaged(const std::string& file, const char* consequence, const char* operation);
  void apply_pragmas(sqlite3* conn, const char* operation);
  void create_epg_file(const std::string& epg_file);
  void attach_epg_file(const std::string& epg_file);
  void use_journal_without_log(sqlite3* conn, const char* schema);
  void end_logs();

  Connection& connection_;
  One_shot& sql_;
  Statement_cache& cache_;
  Schema& schema_;
  bool read_only_ = false;  // the channel file is damaged
};

}  // namespace sdbl
