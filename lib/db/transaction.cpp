// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/transaction.h"

#include "base/log.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

constexpr char TRANSACTION[] = "transaction";

}  // namespace

// The journal, which only lives in memory, is what a failure is undone with.
Transaction::Transaction(const Connection& connection, One_shot& sql) : lock_(connection), sql_(sql) {
  (void)sql_.exec(TRANSACTION, "PRAGMA main.journal_mode = MEMORY;");
  open_ = sql_ok(sql_.exec(TRANSACTION, "BEGIN IMMEDIATE;"));
  if (!open_)
    end();
}

Transaction::~Transaction() {
  if (!open_)
    return;
  (void)sql_.exec(TRANSACTION, "ROLLBACK;");
  end();
}

bool Transaction::commit() {
  if (!open_ || !sql_ok(sql_.exec(TRANSACTION, "COMMIT;")))
    return false;
  open_ = false;
  end();
  return true;
}

void Transaction::end() {
  (void)sql_.exec(TRANSACTION, "PRAGMA main.journal_mode = OFF;");
}

}  // namespace sdbl
