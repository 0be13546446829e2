// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <vector>

#include "db/guide.h"
#include "db/transaction.h"

namespace sdbl {

// The events of one section of the guide, stored in one transaction: a section whose events are known costs nothing.
// They are stored by end(), several by one statement; when progress is printed, one by one as they come, so that the
// messages stand in the order of the events. The rows are the same. One object is used for one section, by one thread,
// which then holds the connection's mutex from the first event to end().
class Guide_section {
 public:
  // Both are not owned and outlive the object. What has not been ended is undone.
  Guide_section(Connection& connection, Guide& guide);
  Guide_section(const Guide_section&) = delete;
  Guide_section& operator=(const Guide_section&) = delete;

  // Guide::eit_for_service of an event that neither replaces nor overlaps one, and Guide::insert_epglist_lang for its
  // texts: the row, or 0 when it waits for end(). Once the section is dropped, because another program has kept the
  // guide locked (one wait for the whole section) or SQLite has undone the transaction, events are refused with -1, and
  // nothing more is printed.
  int store(Event_row event, std::vector<Event_texts> texts, int freq);

  bool is_dropped() const { return dropped_; }

  // False: nothing of the section is in the file, which has been printed once and remembered.
  bool end();

  // The row of the event that came as this one, counted from 0, or -1 when it was refused. REQUIRES: end() was true.
  int row(size_t index) const { return events_[index].row; }

 private:
  bool is_open() const { return transaction_ && transaction_->is_open(); }
  void begin();
  void store_one(New_event* event);
  void store_waiting();

  Connection& connection_;
  Guide& guide_;
  const bool one_by_one_;
  std::vector<New_event> events_;
  std::optional<Transaction> transaction_;
  bool dropped_ = false;
};

}  // namespace sdbl
