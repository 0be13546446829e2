// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/guide_section.h"

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

// Statements behind the end of the transaction would be committed one by one.
void Guide_section::note_loss() {
  dropped_ = dropped_ || transaction_->is_lost();
}

int Guide_section::store(const Event_row& event, int freq) {
  begin();
  if (dropped_)
    return -1;
  // Without a transaction (the file cannot be written) the statement says what is wrong.
  const int row =
      is_open() ? guide_.store_new(event, freq) : guide_.eit_for_service(event, freq, nullptr, false, false);
  note_loss();
  return row;
}

void Guide_section::store_text(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                               const char* ext_desc, const char* ext_list) {
  if (dropped_)
    return;
  (void)guide_.insert_epglist_lang(source_oid, lang, ev_name, ev_desc, ext_desc, ext_list);
  note_loss();
}

bool Guide_section::end() {
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
