// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "db/one_shot.h"

namespace sdbl {

// Every table of the two files, and how a missing one is made. An existing table is used as it is. A statement that
// fails is printed, and the next one runs; nothing is rolled back.
class Schema {
 public:
  Schema(const Connection& connection, One_shot& sql) : connection_(connection), sql_(sql) {}

  // Make the tables of the channel file on the main connection, or of the guide file on `conn`, that are missing.
  void create_channel_tables();
  void create_epg_tables(sqlite3* conn);

  // Makes the channel file's table of found tunings when it is missing, in one statement. It is not made at the
  // opening: files whose tunings are not stored stay as they are. SQLite's code; a failure is a warning.
  int create_tuned_multiplex();
  int create_tuned_multiplex_silently();  // not even a warning

  // Likewise the table of local times; SQLite's code.
  int create_broadcast_zone();

  // The same for what is known of services beside kanalid.
  int create_service_detail();

  // Likewise the tables of what streams are. False, with a warning, when one could not be made.
  bool create_stream_tables();

  // Make what the guide file has beside its old tables, as far as it is missing; not at the opening, likewise. Whether
  // all of it is there, and SQLite's code; a failure is a warning.
  bool has_event_tables();
  int create_event_tables();

  // Create one table under `name`, permanent or (`temp`) of the main connection only; without indexes.
  void create_table_kanalid(const char* name, bool temp);
  void create_table_kanalid_lang(const char* name, bool temp);
  void create_table_estreams(const char* name, bool temp);

 private:
  bool begin_missing_table(sqlite3* conn, const char* probe);
  void commit_table(sqlite3* conn);

  const Connection& connection_;
  One_shot& sql_;
};

}  // namespace sdbl
