// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>

#include "db/guide.h"
#include "db/transaction.h"

namespace sdbl {

// The events of one section of the guide, stored in one transaction, which begins with the first of them: a section
// whose events are known costs nothing. One object is used for one section, by one thread, which holds the
// connection's mutex from the first event to end().
class Guide_section {
 public:
  // Both are not owned and outlive the object. What has not been ended is undone.
  Guide_section(Connection& connection, Guide& guide) : connection_(connection), guide_(guide) {}
  Guide_section(const Guide_section&) = delete;
  Guide_section& operator=(const Guide_section&) = delete;

  // Guide::eit_for_service of an event that neither replaces nor overlaps one, and Guide::insert_epglist_lang. Once the
  // section is dropped, because another program has kept the guide locked (one wait for the whole section) or SQLite
  // has undone the transaction, events are refused with -1, and nothing more is printed.
  int store(const Event_row& event, int freq);
  void store_text(int source_oid, const char* lang, const char* ev_name, const char* ev_desc, const char* ext_desc,
                  const char* ext_list);

  bool is_dropped() const { return dropped_; }

  // False: nothing of the section is in the file, which has been printed once and remembered.
  bool end();

 private:
  bool is_open() const { return transaction_ && transaction_->is_open(); }
  void begin();
  void note_loss();

  Connection& connection_;
  Guide& guide_;
  std::optional<Transaction> transaction_;
  bool dropped_ = false;
};

}  // namespace sdbl
