// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

#include "db/connection.h"

namespace sdbl {

// Several statements on one of the files as one: all of them or none. While it lives, other threads' statements on the
// connection wait, and other programs neither read nor write the file; so nothing of it can fail for a lock once it has
// begun. Files without a journal get one that lives in memory, and nothing is written before the end. The channel file
// has it as long as the transaction lasts; the guide keeps it until the connection is closed, since to change it twice
// a section takes a tenth of a section's time.
//
// The wait for other programs is one for all of it, and nobody has to wait for the connection meanwhile.
//
// One that begins inside another, or inside a transaction that a host has begun on the connection, is part of that one
// and ends with it. REQUIRES: else the thread holds none of the database's locks, unless it does not wait.
class Transaction {
 public:
  struct Options {
    bool waits = true;        // up to the busy time-out; else it tries once
    bool tries_disk = false;  // begins with a write: a disk that takes none is known before the work is begun
  };

  Transaction(Connection& connection, Db_file file) : Transaction(connection, file, Options{}) {}
  Transaction(Connection& connection, Db_file file, Options options);
  // Undoes what has not been committed.
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // False when there is none, so that every statement would be committed by itself: another program kept the file
  // locked (busy), or it cannot be written. Prints nothing.
  bool is_open() const { return state_ != State::NONE; }
  // Open, no part of another one, and with a journal.
  bool can_be_undone() const { return state_ == State::OPEN && has_journal_; }
  bool busy() const { return (code_ & 0xFF) == SQLITE_BUSY; }
  // Another program has moved, removed or replaced the file. Found out of durable files only.
  bool moved() const { return code_ == SQLITE_READONLY_DBMOVED; }
  int code() const { return code_; }  // why it did not begin; SQLITE_OK when it did

  // True when SQLite has undone it already, because a statement found no room or could not be read or written. Further
  // statements would be committed by themselves.
  bool is_lost() const;

  // SQLITE_OK, or why nothing of it is in the file.
  int commit();

 private:
  enum class State {
    NONE,
    INNER,  // part of another one
    OPEN,
    ENDED,
  };
  struct Sql;

  static const Sql& sql_of(Db_file file);
  int begin(bool tries_disk);
  int lock_file();
  void undo();
  bool make_journal(const std::string& present);
  void forget_journal();

  Connection& connection_;
  const Sql& sql_;
  std::optional<Db_lock> lock_;
  State state_ = State::NONE;
  bool has_journal_ = false;
  bool made_journal_ = false;  // the file has none of its own, and shall have none afterwards
  int code_ = SQLITE_OK;
};

}  // namespace sdbl
