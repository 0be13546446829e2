// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/refresh.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "base/log.h"
#include "db/number_plan.h"
#include "db/scan_merger.h"

using kelvo_log::sql_ok;

namespace sdbl {

namespace {

// Above every program number: where rows are while they change places.
constexpr int BETWEEN_PLACES = 65536;

// What has not been broadcast leaves what is known.
void take(std::string& known, const std::string& text) {
  if (!text.empty())
    known = text;
}

unsigned kinds_of(const Channel_row& a, const Channel_row& b) {
  unsigned kinds = 0;
  const auto differs = [&](auto field, unsigned kind) { kinds |= a.*field != b.*field ? kind : 0; };
  differs(&Channel_row::serv_name, CHANNEL_RENAMED);
  differs(&Channel_row::lcn, CHANNEL_RENUMBERED);
  differs(&Channel_row::freq, CHANNEL_MOVED);
  differs(&Channel_row::serv_type, CHANNEL_RETYPED);
  differs(&Channel_row::prov_name, CHANNEL_PROVIDER);
  differs(&Channel_row::pmt_pid, CHANNEL_PIDS);
  differs(&Channel_row::pcr_pid, CHANNEL_PIDS);
  differs(&Channel_row::network_id, CHANNEL_NETWORK);
  differs(&Channel_row::orig_network_id, CHANNEL_NETWORK);
  differs(&Channel_row::tstream_id, CHANNEL_NETWORK);
  differs(&Channel_row::network_name, CHANNEL_NETWORK);
  differs(&Channel_row::run_status, CHANNEL_RUNNING);
  differs(&Channel_row::free_ca, b.free_ca != 0 ? CHANNEL_SCRAMBLED : CHANNEL_CLEAR);
  if (a.detail.visible != b.detail.visible)
    kinds |= b.detail.visible != 0 ? CHANNEL_SHOWN : CHANNEL_HIDDEN;
  return kinds;
}

struct Language {
  std::string lang;
  std::string serv_name;
  std::string prov_name;
  std::string network_name;
  bool operator==(const Language&) const = default;
};

std::vector<Language> read_languages(Rows& rows) {
  std::vector<Language> all;
  while (rows.next())
    all.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3)});
  rows.end();
  return all;
}

}  // namespace

// What is locked is tried again; what cannot be written would fail each time.
Merge_end Refresh::not_begun(const Transaction& transaction) {
  if (transaction.moved())
    report_moved(db_.errors, multiplex_.freq);
  else
    (void)db_.errors.report_exec(transaction.code(), MERGE_OPERATION);
  return {transaction.busy() ? Merge_outcome::BUSY : Merge_outcome::FAILED, 0};
}

Merge_end Refresh::run(SCAN_STATE state, const Scan_details& details, std::vector<Channel_change>* changes) {
  changes->clear();
  now_ = saturated(clock_now());
  if (state != SCAN_PAT && state != SCAN_PMT) {
    KLOG(VERB_ERROR, "ERROR: Incorrect scan state entered: %d\n", state);
    return {};
  }
  // What is read and what is written belong together, whoever else merges.
  Transaction transaction(db_.connection, Db_file::CHANNELS);
  const Merge_end failed{Merge_outcome::FAILED, 0};
  if (!transaction.is_open())
    return not_begun(transaction);
  if (lacks_memory(db_.errors, dvbnr_, multiplex_.freq))
    return failed;
  read_known();
  if (state == SCAN_PAT) {
    if (!read_scanned(details)) {
      KLOG(VERB_WARNING, "WARNING: PAT scan timed out for freq %d, no entries in scan table\n", multiplex_.freq);
      return {};
    }
    place_services(details);
    take_numbers(details);
    take_names(details);
    if (!write())
      return failed;
  }
  streams_.run();
  (void)db_.stream_details.store(dvbnr_, multiplex_);
  if (lacks_memory(db_.errors, dvbnr_, multiplex_.freq))
    return failed;
  if (!sql_ok(db_.errors.report_exec(transaction.commit(), MERGE_OPERATION)))
    return failed;
  forget_guides();
  add_up(changes);

  KLOG(VERB_PROGRESS, "Scan from %d for freq %d, ch_add %d, ch_delete %d, estrm_add %d, estrm_delete %d\n", state,
       multiplex_.freq, added_, lost_, streams_.added(), streams_.deleted());
  int result = (added_ != 0 ? CHANNELS_ADDED : 0) | (lost_ != 0 ? CHANNELS_LOST : 0) |
               (streams_.added() != 0 ? STREAMS_ADDED : 0) | (streams_.deleted() != 0 ? STREAMS_DELETED : 0);
  for (const Channel_change& change : *changes)
    if ((change.kinds & ~unsigned{CHANNEL_STREAMS}) != 0)
      result |= CHANNELS_REFRESHED;
  return {Merge_outcome::DONE, result};
}

Merge_end Refresh::leave(const std::vector<int>& freqs, std::vector<Channel_change>* changes) {
  changes->clear();
  now_ = saturated(clock_now());
  Transaction transaction(db_.connection, Db_file::CHANNELS);
  if (!transaction.is_open())
    return not_begun(transaction);
  read_known();
  Placement placement(rows_, 0);
  placement.leave(freqs);
  placement.settle(&exchanged_, &dropped_);
  for (const auto& [older, newer] : exchanged_)
    keep_number(older, newer);
  if (!write() || !sql_ok(db_.errors.report_exec(transaction.commit(), MERGE_OPERATION)))
    return {Merge_outcome::FAILED, 0};
  forget_guides();
  add_up(changes);
  return {Merge_outcome::DONE, exchanged_.empty() ? 0 : CHANNELS_LOST | CHANNELS_REFRESHED};
}

// What the newer row got because the older one had the number that both ask for stays with the newer one.
void Refresh::keep_number(int older, int newer) {
  const auto row_of = [this](int channel) {
    return std::find_if(rows_.begin(), rows_.end(), [=](const Channel_row& row) { return row.channel == channel; });
  };
  const auto kept = row_of(older);
  const auto left = row_of(newer);
  if (kept != rows_.end() && left != rows_.end() && kept->detail.lcn == left->detail.lcn)
    std::swap(kept->lcn, left->lcn);
}

// --- Reading ---------------------------------------------------------------------------------------------------------

void Refresh::read_known() {
  const std::map<int, Channel_row::Detail> details = db_.service_details.all();
  Rows rows(db_.statements, MERGE_OPERATION, dvbnr_,
            "SELECT channel, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, "
            "serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status FROM kanalid "
            "WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type ORDER BY channel",
            number(multiplex_.input.connector), number(multiplex_.input.delivery));
  while (rows.next()) {
    Channel_row row{rows.number(0), rows.number(1),  rows.number(2),  rows.number(3),  rows.number(4),  rows.number(5),
                    rows.number(6), rows.number(7),  rows.number(8),  rows.text(9),    rows.number(10), rows.text(11),
                    rows.text(12),  rows.number(13), rows.number(14), rows.number(15), rows.number(16), {}};
    const auto detail = details.find(row.channel);
    if (detail != details.end())
      row.detail = detail->second;
    else
      row.detail.lcn = row.lcn;
    rows_.push_back(row);
    before_[row.channel] = row;
  }
  rows.end();
}

bool Refresh::read_scanned(const Scan_details& details) {
  Rows rows(db_.statements, MERGE_OPERATION, dvbnr_,
            "SELECT channel, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, serv_name, "
            "serv_type, prov_name, network_name, run_status, free_ca FROM kanalid_scan_DVBNR WHERE freq = $freq "
            "ORDER BY channel",
            multiplex_.freq);
  while (rows.next()) {
    Scanned scanned;
    scanned.oid = rows.number(0);
    scanned.row = {0,
                   multiplex_.freq,
                   rows.number(1),
                   rows.number(2),
                   rows.number(3),
                   rows.number(4),
                   rows.number(5),
                   rows.number(6),
                   rows.number(7),
                   rows.text(8),
                   rows.number(9),
                   rows.text(10),
                   rows.text(11),
                   rows.number(12),
                   rows.number(13),
                   SERVICE_LOST,
                   ROW_NEW,
                   {}};
    // The column has the last one of the NIT, whichever stream that was.
    scanned.row.orig_network_id = std::max(details.original_network_id, 0);
    const auto twice = [&](const Scanned& other) { return other.row.pat_prnr == scanned.row.pat_prnr; };
    if (std::none_of(scanned_.begin(), scanned_.end(), twice))
      scanned_.push_back(scanned);
  }
  rows.end();
  return !scanned_.empty();
}

// --- In memory -------------------------------------------------------------------------------------------------------

void Refresh::place_services(const Scan_details& details) {
  Placement placement(rows_, multiplex_.freq);
  for (Scanned& scanned : scanned_) {
    const Channel_row& row = scanned.row;
    scanned.place = placement.place({row.pat_prnr, details.original_network_id, row.tstream_id, row.serv_name});
    take_values(rows_[scanned.place], scanned, details);
  }
  lost_ = placement.lose_others();
  placement.settle(&exchanged_, &dropped_);
}

void Refresh::take_values(Channel_row& row, const Scanned& scanned, const Scan_details& details) {
  const Channel_row& air = scanned.row;
  row.pmt_pid = air.pmt_pid;
  row.tstream_id = air.tstream_id;
  if (air.pcr_pid != 0)
    row.pcr_pid = air.pcr_pid;
  if (details.original_network_id >= 0)
    row.orig_network_id = details.original_network_id;
  if (details.nit_came) {
    row.network_id = air.network_id;
    take(row.network_name, air.network_name);
    if (!details.has_numbers)
      row.lcn = air.lcn;
  }
  const auto service = std::find_if(details.services.begin(), details.services.end(),
                                    [&](const auto& one) { return one.service_id == air.pat_prnr; });
  if (service != details.services.end()) {
    if (air.serv_type != 0)
      row.serv_type = air.serv_type;
    take(row.serv_name, air.serv_name);
    take(row.prov_name, air.prov_name);
    row.run_status = air.run_status;
    row.free_ca = air.free_ca;
    row.detail.eit_schedule = service->eit_schedule ? 1 : 0;
    row.detail.eit_present_following = service->eit_present_following ? 1 : 0;
  }
  // A service that the PAT names but no PMT has ever described is not there for anybody.
  const bool is_new = row.channel == 0;
  const bool was_lost = row.scan_state == SERVICE_LOST;
  const bool described = row.pcr_pid != 0 || !was_lost;
  row.scan_state = described ? SERVICE_FOUND : SERVICE_LOST;
  row.row_status = described ? ROW_CONFIRMED : ROW_NEW;
  added_ += is_new || (was_lost && described) ? 1 : 0;
}

void Refresh::take_numbers(const Scan_details& details) {
  if (!details.has_numbers)
    return;
  using Ids = std::tuple<int, int, int>;
  std::map<Ids, const Scan_details::Number*> by_ids;
  for (const Scan_details::Number& one : details.numbers)
    by_ids[{one.original_network_id, one.transport_stream_id, one.service_id}] = &one;
  const auto take_number = [&](Channel_row& row, bool its_own) {
    const auto found = by_ids.find({row.orig_network_id, row.tstream_id, row.pat_prnr});
    const Scan_details::Number* told = found == by_ids.end() ? nullptr : found->second;
    if (its_own && details.nit_came && (told == nullptr || told->other))
      row.detail.lcn = row.detail.hd_lcn = NO_LCN;
    // Of other multiplexes, and from other networks, only what is not known is taken.
    const bool known = row.detail.lcn != NO_LCN || row.detail.hd_lcn != NO_LCN;
    if (told == nullptr || (known && !(its_own && !told->other)))
      return;
    row.detail.lcn = told->lcn;
    row.detail.hd_lcn = told->hd_lcn;
    row.detail.visible = told->visible ? 1 : 0;
    row.detail.list_name = told->list;
  };
  for (size_t i = 0; i < rows_.size(); ++i) {
    const bool here = std::any_of(scanned_.begin(), scanned_.end(), [=](const auto& s) { return s.place == i; });
    take_number(rows_[i], here);
  }
  plan_numbers(rows_);
}

void Refresh::take_names(const Scan_details& details) {
  for (const Scan_details::Name& name : details.names)
    for (Channel_row& row : rows_) {
      if (row.orig_network_id != name.original_network_id || row.tstream_id != name.transport_stream_id ||
          row.pat_prnr != name.service_id || !row.serv_name.empty())
        continue;
      row.serv_name = name.name;
      if (row.prov_name.empty())
        row.prov_name = name.provider;
      if (row.serv_type == 0)
        row.serv_type = name.type;
    }
}

void Refresh::add_up(std::vector<Channel_change>* changes) const {
  for (const Channel_row& row : rows_) {
    const auto known = before_.find(row.channel);
    if (known == before_.end())
      continue;
    const Channel_row& before = known->second;
    Channel_change change{row.channel, row.pat_prnr, kinds_of(before, row), before.serv_name, row.serv_name,
                          before.lcn,  row.lcn,      before.freq,           row.freq};
    // Where a lost service waits says nothing about it.
    if (row.scan_state == SERVICE_LOST)
      change.kinds &= ~unsigned{CHANNEL_MOVED};
    const auto translated = translated_.find(row.channel);
    change.kinds |= translated != translated_.end() ? translated->second : 0;
    change.kinds |= streams_.changed().contains(row.channel) ? unsigned{CHANNEL_STREAMS} : 0;
    if (change.kinds != 0)
      changes->push_back(change);
  }
}

// --- Writing ---------------------------------------------------------------------------------------------------------

// False at the first failure, which has been printed; the transaction undoes the rest.
bool Refresh::write() {
  if (!write_exchanges())
    return false;
  for (const Channel_row& row : rows_) {
    const auto before = before_.find(row.channel);
    if (before != before_.end() && (before->second.freq != row.freq || before->second.pat_prnr != row.pat_prnr) &&
        !sql_ok(db_.sql.exec(MERGE_OPERATION, "UPDATE kanalid SET pat_prnr = %d WHERE channel = %d;",
                             BETWEEN_PLACES + row.channel, row.channel)))
      return false;
  }
  for (Channel_row& row : rows_) {
    const auto before = before_.find(row.channel);
    const bool written =
        row.channel == Channel_row::DROPPED ||
        (row.channel == 0 ? insert_row(row) : row == before->second || write_row(row, &before->second));
    if (!written)
      return false;
  }
  // Scan rows and channels share one number space: see Merge.
  for (const Scanned& scanned : scanned_)
    streams_.renumber(scanned.oid, -scanned.oid);
  for (Scanned& scanned : scanned_) {
    scanned.channel = rows_[scanned.place].channel;
    streams_.renumber(-scanned.oid, scanned.channel);
    if (!write_languages(scanned))
      return false;
  }
  return true;
}

bool Refresh::write_row(const Channel_row& row, const Channel_row* before) {
  if (!sql_ok(db_.sql.exec(
          MERGE_OPERATION,
          "UPDATE kanalid SET freq = %d, pat_prnr = %d, pmt_pid = %d, network_id = %d, orig_network_id = %d, tstream_id "
          "= %d, lcn = %d, pcr_pid = %d, serv_name = %Q, serv_type = %d, prov_name = %Q, network_name = %Q, run_status "
          "= %d, free_ca = %d, scan_state = %d, row_status = %d, modified = %d WHERE channel = %d;",
          row.freq, row.pat_prnr, row.pmt_pid, row.network_id, row.orig_network_id, row.tstream_id, row.lcn,
          row.pcr_pid, row.serv_name, row.serv_type, row.prov_name, row.network_name, row.run_status, row.free_ca,
          row.scan_state, row.row_status, now_, row.channel)))
    return false;
  return (before != nullptr && before->detail == row.detail) || db_.service_details.store(row.channel, row.detail);
}

bool Refresh::insert_row(Channel_row& row) {
  if (!sql_ok(db_.sql.exec(
          MERGE_OPERATION, "INSERT INTO kanalid (hf_conn, dvb_type, freq, pat_prnr) VALUES (%d, %d, %d, %d);",
          number(multiplex_.input.connector), number(multiplex_.input.delivery), row.freq, row.pat_prnr)))
    return false;
  row.channel = static_cast<int>(sqlite3_last_insert_rowid(db_.connection.get()));
  return write_row(row, nullptr);
}

bool Refresh::has_stream_tables() const {
  return db_.statements.has_table("stream_detail") && db_.statements.has_table("stream_language") &&
         db_.statements.has_table("stream_ca");
}

// What belongs to a place goes with it.
bool Refresh::write_exchanges() {
  struct Belonging {
    const char* table;
    const char* column;  // that has the channel
  };
  std::vector<Belonging> all{{"kanalid_lang", "source_oid"}, {"estreams", "channel"}};
  if (!exchanged_.empty() || !dropped_.empty())
    if (has_stream_tables())
      all.insert(all.end(), {{"stream_detail", "channel"}, {"stream_language", "channel"}, {"stream_ca", "channel"}});
  const auto renumber = [this](const Belonging& to, int from_channel, int to_channel) {
    return sql_ok(db_.sql.exec(MERGE_OPERATION, "UPDATE %s SET %s = %d WHERE %s = %d;", to.table, to.column, to_channel,
                               to.column, from_channel));
  };
  for (const auto& [older, newer] : exchanged_)
    for (const Belonging& one : all)
      if (!renumber(one, older, -older) || !renumber(one, newer, older) || !renumber(one, -older, newer))
        return false;
  for (const int channel : dropped_) {
    if (!sql_ok(db_.sql.exec(MERGE_OPERATION, "DELETE FROM kanalid WHERE channel = %d;", channel)) ||
        !db_.service_details.remove(channel))
      return false;
    for (const Belonging& one : all)
      if (!sql_ok(db_.sql.exec(MERGE_OPERATION, "DELETE FROM %s WHERE %s = %d;", one.table, one.column, channel)))
        return false;
  }
  return true;
}

// Behind the transaction: that the guide's file is locked or missing is no reason to leave the channels as they were.
void Refresh::forget_guides() {
  if (dropped_.empty() || db_.sql.silent_number("SELECT count(*) FROM pragma_database_list WHERE name = 'epg_db'") != 1)
    return;
  for (const int channel : dropped_) {
    (void)db_.sql.exec(MERGE_OPERATION,
                       "DELETE FROM epg_db.epglist_lang WHERE source_oid IN (SELECT entry FROM epg_db.epglist WHERE "
                       "channel = %d);",
                       channel);                                                                     // printed
    (void)db_.sql.exec(MERGE_OPERATION, "DELETE FROM epg_db.epglist WHERE channel = %d;", channel);  // printed
  }
}

bool Refresh::write_languages(const Scanned& scanned) {
  Rows scan_rows(db_.statements, MERGE_OPERATION, dvbnr_,
                 "SELECT lang, serv_name, prov_name, network_name FROM kanalid_lang_scan_DVBNR WHERE source_oid = $oid "
                 "ORDER BY lang",
                 scanned.oid);
  const std::vector<Language> found = read_languages(scan_rows);
  if (found.empty())
    return true;
  Rows known_rows(db_.statements, MERGE_OPERATION, dvbnr_,
                  "SELECT lang, serv_name, prov_name, network_name FROM kanalid_lang WHERE source_oid = $oid ORDER BY "
                  "lang",
                  scanned.channel);
  const std::vector<Language> known = read_languages(known_rows);
  std::vector<Language> merged = known;
  for (const Language& one : found) {
    auto at = std::find_if(merged.begin(), merged.end(), [&](const Language& other) { return other.lang == one.lang; });
    if (at == merged.end())
      at = merged.insert(merged.end(), {one.lang, "", "", ""});
    take(at->serv_name, one.serv_name);
    take(at->prov_name, one.prov_name);
    take(at->network_name, one.network_name);
  }
  if (merged == known)
    return true;
  if (!sql_ok(db_.sql.exec(MERGE_OPERATION, "DELETE FROM kanalid_lang WHERE source_oid = %d;", scanned.channel)))
    return false;
  for (const Language& one : merged)
    if (!sql_ok(db_.sql.exec(MERGE_OPERATION,
                             "INSERT INTO kanalid_lang (source_oid, lang, serv_name, prov_name, network_name) VALUES "
                             "(%d, %Q, %Q, %Q, %Q);",
                             scanned.channel, one.lang, one.serv_name, one.prov_name, one.network_name)))
      return false;
  translated_[scanned.channel] = CHANNEL_TRANSLATED;
  return true;
}

}  // namespace sdbl
