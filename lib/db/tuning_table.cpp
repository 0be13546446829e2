// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/tuning_table.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstdlib>

#include "base/log.h"
#include "db/at_once.h"

namespace sdbl {

namespace {

constexpr int HIGHEST_PIPE = 255;
constexpr int OFFSET_BELOW_HZ = 500000;
constexpr int LONGEST_LOCK_MS = 10 * 60 * 1000;
constexpr int BANDWIDTHS_HZ[] = {0, 1712000, 5000000, 6000000, 7000000, 8000000, 10000000};

template <typename Range>
bool contains(const Range& range, int value) {
  return std::find(std::begin(range), std::end(range), value) != std::end(range);
}

bool is_plausible(const Stored_tuning& t) {
  if (t.system != SYS_DVBT && t.system != SYS_DVBT2)
    return false;
  if (t.pipe < -1 || t.pipe > (t.system == SYS_DVBT2 ? HIGHEST_PIPE : -1))
    return false;
  if (t.asked <= 0 || t.freq < t.asked || t.freq - t.asked != std::max(t.pipe, 0))
    return false;
  return contains(BANDWIDTHS_HZ, t.bandwidth_hz) && t.modulation >= -1 && t.modulation <= QAM_4_NR &&
         t.offset_hz > -OFFSET_BELOW_HZ && t.offset_hz < OFFSET_BELOW_HZ && t.lock_ms >= 0 &&
         t.lock_ms <= LONGEST_LOCK_MS;
}

// In the order of the fields. What does not fit an int is cut, and then compared like any other number.
std::optional<Stored_tuning> tuning_of_row(const Rows& rows) {
  const Stored_tuning tuning{rows.number(0), rows.number(1), rows.number(2), rows.number(3),
                             rows.number(4), rows.number(5), rows.number(6), rows.number(7)};
  return is_plausible(tuning) ? std::optional(tuning) : std::nullopt;
}

}  // namespace

std::optional<Stored_tuning> Tuning_table::find(const Multiplex& key) const {
  Db_lock lock(connection_);  // so that the table stays
  if (!statements_.has_table("tuned_multiplex"))
    return std::nullopt;
  Rows rows(statements_, __func__, 0,
            "SELECT freq, asked_freq, system, pipe, bandwidth_hz, modulation, offset_hz, lock_ms FROM tuned_multiplex "
            "WHERE freq = $freq AND hf_conn = $hf_conn AND dvb_type = $dvb_type",
            key.freq, number(key.input.connector), number(key.input.delivery));
  return rows.next() ? tuning_of_row(rows) : std::nullopt;
}

std::vector<Stored_tuning> Tuning_table::at(const Input& input, int asked_freq) const {
  std::vector<Stored_tuning> tunings;
  Db_lock lock(connection_);
  if (!statements_.has_table("tuned_multiplex"))
    return tunings;
  Rows rows(statements_, __func__, 0,
            "SELECT freq, asked_freq, system, pipe, bandwidth_hz, modulation, offset_hz, lock_ms FROM tuned_multiplex "
            "WHERE asked_freq = $asked AND hf_conn = $hf_conn AND dvb_type = $dvb_type ORDER BY freq",
            asked_freq, number(input.connector), number(input.delivery));
  while (rows.next())
    if (const std::optional<Stored_tuning> tuning = tuning_of_row(rows))
      tunings.push_back(*tuning);
  return tunings;
}

bool Tuning_table::store(const Input& input, const Stored_tuning& t) {
  if (!is_plausible(t)) {
    KLOG(VERB_WARNING, "WARNING: No tuning is stored for %d Hz: its values cannot be\n", t.freq);
    return false;
  }
  Db_lock lock(connection_);
  if (!room_.has_room_for_a_row()) {
    KLOG(VERB_WARNING, "WARNING: The tuning of %d Hz is not stored: %s\n", t.freq, sqlite3_errstr(SQLITE_FULL));
    return false;
  }
  if (!statements_.has_table("tuned_multiplex") && !kelvo_log::sql_ok(schema_.create_tuned_multiplex()))
    return false;
  const Run run = statements_.run_silently(
      __func__, 0,
      "INSERT OR REPLACE INTO tuned_multiplex (freq, hf_conn, dvb_type, asked_freq, system, pipe, bandwidth_hz, "
      "modulation, offset_hz, lock_ms) VALUES ($freq, $hf_conn, $dvb_type, $asked, $system, $pipe, $bandwidth, "
      "$modulation, $offset, $lock)",
      t.freq, number(input.connector), number(input.delivery), t.asked, t.system, t.pipe, t.bandwidth_hz, t.modulation,
      t.offset_hz, t.lock_ms);
  if (!run.done)
    KLOG(VERB_WARNING, "WARNING: The tuning of %d Hz is not stored: %s\n", t.freq, sqlite3_errstr(run.code));
  return run.done;
}

Tuning_table::Key Tuning_table::key_of(const Input& input, int freq) {
  return {freq, number(input.connector), number(input.delivery)};
}

std::optional<Stored_tuning> Tuning_table::find_at_once(const Multiplex& key) {
  {
    const std::lock_guard<Mutex> lock(lock_);
    if (const auto newer = unsaved_.find(key_of(key.input, key.freq)); newer != unsaved_.end())
      return newer->second;
  }
  At_once now(connection_);
  if (now.can_read()) {
    read_all();
    return find(key);
  }
  const std::lock_guard<Mutex> lock(lock_);
  const auto known = read_.find(key_of(key.input, key.freq));
  return known != read_.end() ? std::optional(known->second) : std::nullopt;
}

void Tuning_table::store_at_once(const Input& input, const Stored_tuning& tuning) {
  if (!is_plausible(tuning)) {
    (void)store(input, tuning);  // says so, and comes to no statement
    return;
  }
  {
    const std::lock_guard<Mutex> lock(lock_);
    unsaved_[key_of(input, tuning.freq)] = tuning;
  }
  save_at_once();
}

void Tuning_table::save_at_once() {
  std::map<Key, Stored_tuning> waiting;
  {
    const std::lock_guard<Mutex> lock(lock_);
    waiting = unsaved_;
  }
  for (const auto& [key, tuning] : waiting) {
    if (!write_at_once(key, tuning))
      return;
    const std::lock_guard<Mutex> lock(lock_);
    const auto written = unsaved_.find(key);
    // A newer one may have come meanwhile.
    if (written != unsaved_.end() && written->second == tuning)
      unsaved_.erase(written);
    read_[key] = tuning;
  }
}

bool Tuning_table::write_at_once(const Key& key, const Stored_tuning& t) {
  const auto [freq, connector, delivery] = key;
  At_once now(connection_);
  if (!now.has_connection())
    return false;
  if (connection_.get() != nullptr && room_.has_room_for_a_row()) {
    // Silently, because a locked file is nothing to be told of before it stays so.
    int rc = schema_.create_tuned_multiplex_silently();
    char* const insert = sqlite3_mprintf(
        "INSERT OR REPLACE INTO tuned_multiplex (freq, hf_conn, dvb_type, asked_freq, system, pipe, "
        "bandwidth_hz, modulation, offset_hz, lock_ms) VALUES (%d,%d,%d,%d,%d,%d,%d,%d,%d,%d)",
        freq, connector, delivery, t.asked, t.system, t.pipe, t.bandwidth_hz, t.modulation, t.offset_hz, t.lock_ms);
    if (rc == SQLITE_OK)
      rc = sqlite3_exec(connection_.get(), insert, nullptr, nullptr, nullptr);
    sqlite3_free(insert);
    if (rc == SQLITE_OK || (rc & 0xFF) == SQLITE_BUSY)
      return rc == SQLITE_OK;
  }
  (void)store({Connector{connector}, Delivery{delivery}}, t);  // says what is wrong, and that is the last word
  return true;
}

void Tuning_table::remember() {
  At_once now(connection_);
  if (now.can_read())
    read_all();
}

// A file without the table, or one that is damaged, shows itself to the statements that say so.
void Tuning_table::read_all() {
  sqlite3_stmt* rows = nullptr;
  int rc = sqlite3_prepare_v2(connection_.get(),
                              "SELECT freq, asked_freq, system, pipe, bandwidth_hz, modulation, offset_hz, lock_ms, "
                              "hf_conn, dvb_type FROM tuned_multiplex",
                              -1, &rows, nullptr);
  std::map<Key, Stored_tuning> all;
  while (rc == SQLITE_OK || rc == SQLITE_ROW) {
    rc = sqlite3_step(rows);
    const auto number = [rows](int column) { return sqlite3_column_int(rows, column); };
    if (rc != SQLITE_ROW)
      break;
    const Stored_tuning tuning{number(0), number(1), number(2), number(3), number(4), number(5), number(6), number(7)};
    if (is_plausible(tuning))
      all[{tuning.freq, number(8), number(9)}] = tuning;
  }
  (void)sqlite3_finalize(rows);  // repeats the step's code
  const std::lock_guard<Mutex> lock(lock_);
  if (rc == SQLITE_DONE)
    read_.swap(all);
}

}  // namespace sdbl
