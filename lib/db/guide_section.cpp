// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_section.h"

#include <utility>

#include "base/log.h"

namespace sdbl {

void Guide_section::begin() {
  if (transaction_)
    return;
  transaction_.emplace(connection_, Db_file::GUIDE, Transaction::Options{.waits = guide_.waits_for_others()});
  dropped_ = transaction_->busy() || transaction_->moved();
  guide_.note_others(transaction_->busy());
  if (dropped_)
    guide_.report(transaction_->code());
}

Guide_section::Guide_section(Connection& connection, Guide& guide)
    : connection_(connection), guide_(guide), one_by_one_(kelvo_log::enabled(VERB_PROGRESS)) {}

int Guide_section::store(Event_row event, std::vector<Event_texts> texts, int freq) {
  events_.push_back({std::move(event), freq, std::move(texts)});
  if (!one_by_one_)
    return 0;
  store_one(&events_.back());
  events_.back().texts.clear();
  return events_.back().row;
}

void Guide_section::store_one(New_event* event) {
  begin();
  event->row = -1;
  if (dropped_)
    return;
  // Without a transaction (the file cannot be written) the statement says what is wrong.
  event->row = is_open() ? guide_.store_new(event->event, event->freq)
                         : guide_.eit_for_service(event->event, event->freq, nullptr, false, false);
  // Statements behind the end of the transaction would be committed one by one.
  dropped_ = transaction_->is_lost();
  for (auto t = event->texts.begin(); event->row > 0 && !dropped_ && t != event->texts.end(); ++t) {
    (void)guide_.insert_epglist_lang(event->row, t->lang.c_str(), t->ev_name.c_str(), t->ev_desc.c_str(),
                                     t->ext_desc.c_str(), t->ext_list.c_str());
    dropped_ = transaction_->is_lost();
  }
}

void Guide_section::store_waiting() {
  begin();
  if (!dropped_ && events_.size() > 1 && transaction_->can_be_undone() && guide_.has_room(events_)) {
    if (guide_.store_at_once(&events_))
      return;
    transaction_.reset();
  }
  for (New_event& event : events_)
    store_one(&event);
}

bool Guide_section::end() {
  if (!one_by_one_ && !events_.empty())
    store_waiting();
  if (!dropped_ && is_open()) {
    const int rc = transaction_->commit();
    dropped_ = rc != SQLITE_OK;
    if (dropped_)
      guide_.report(rc);
  }
  transaction_.reset();
  return !dropped_;
}

}  // namespace sdbl
