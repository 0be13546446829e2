// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "db/connection.h"
#include "db/one_shot.h"

namespace sdbl {

// Several statements on the channel file as one: all of them or none, also when the process ends in between. While it
// lives, other threads' statements on the connection wait, and what fails can be undone, which the connection otherwise
// does without. REQUIRES: no transaction is under way.
class Transaction {
 public:
  // Begins; is_open() is false, and the failure printed, when another program keeps the file locked.
  Transaction(const Connection& connection, One_shot& sql);
  // Undoes what has not been committed.
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool is_open() const { return open_; }
  // False, and everything undone, when it fails, which is printed.
  bool commit();

 private:
  void end();

  Db_lock lock_;
  One_shot& sql_;
  bool open_ = false;
};

}  // namespace sdbl
