// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

#include "db/sdbl.h"
#include "support/support.h"
#include "support/text.h"

// Databases that last as long as a test, and their rows as texts, so that a whole table is compared in one EXPECT_EQ:
//
//   support::Database db;
//   db->create_temp_tables(0);
//   EXPECT_EQ(db.rows("SELECT channel, lcn FROM kanalid ORDER BY channel"), (support::Texts{"1|65535", "2|65535"}));
namespace support {

// Every row as its columns' texts joined by '|', NULL as "NULL". A statement that fails adds "error: " and its text.
Texts rows(sqlite3* conn, const std::string& sql);

// The code of one statement: 101 for done, 100 for a row.
int run(sqlite3* conn, const std::string& sql);

// The connection of an open database, with the guide attached and its scan tables; null when it has none.
sqlite3* conn_of(Sdbl& sdbl);

// A connection of the test's own, with extended codes, as another program would have one.
class Other_connection {
 public:
  explicit Other_connection(const std::string& file);
  ~Other_connection();
  Other_connection(const Other_connection&) = delete;
  Other_connection& operator=(const Other_connection&) = delete;
  sqlite3* get() const { return conn_; }
  Texts rows(const std::string& sql) const { return support::rows(conn_, sql); }
  int run(const std::string& sql) const { return support::run(conn_, sql); }

 private:
  sqlite3* conn_ = nullptr;
};

// A database in a throw-away folder: open at first, closed and opened again as a test asks.
class Database {
 public:
  Database() { open(); }

  // An Sdbl on the same files; the one before is closed first.
  void open();
  void close() { sdbl_.reset(); }

  Sdbl& sdbl() { return *sdbl_; }
  Sdbl* operator->() { return sdbl_.get(); }
  Sdbl& operator*() { return *sdbl_; }

  std::string file() const { return folder_.file("dvb.db"); }
  std::string guide_file() const { return folder_.file("dvb_epg.db"); }
  const Temp_dir& folder() const { return folder_; }

  // On the library's own connection, which alone sees the scan tables.
  sqlite3* conn() { return conn_of(*sdbl_); }
  Texts rows(const std::string& sql) { return support::rows(conn(), sql); }
  int run(const std::string& sql) { return support::run(conn(), sql); }
  // The first row, and "no row" without one; its first column as a number, and -9999 without one.
  std::string text(const std::string& sql);
  int number(const std::string& sql);
  // Every row of a table in the order they were written, all columns.
  Texts table(const std::string& name) { return rows("SELECT * FROM " + name + " ORDER BY oid"); }

 private:
  Temp_dir folder_;
  std::unique_ptr<Sdbl> sdbl_;
};

// The cached statements in a trace of verbosity 4, in order, each followed by its numbers: "SELECT ... <- 1 506000000".
Texts statements_in(const std::string& trace);

}  // namespace support
