// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/tuning_table.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstdlib>

#include "base/log.h"

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

}  // namespace sdbl
