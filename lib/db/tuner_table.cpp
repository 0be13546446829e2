// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/tuner_table.h"

#include <linux/dvb/frontend.h>

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "db/at_once.h"

namespace sdbl {

namespace {

constexpr char TUNER_PARAMS[] = "Fr: %10d Bw: %2d CrH: %2d CrL: %2d Mod: %2d TrM: %2d Grd: %2d Hir: %2d";
constexpr char SELECT_PARAMS[] =
    "SELECT tuner_params from tuner_table where freq = $freq AND dvb_type = $type AND hf_conn = $hf_con";
constexpr int NOTHING_READ = 1;

// Line numbers that the messages about a failing reset have always carried.
constexpr int LINE_INSERTED = 1954;
constexpr int LINE_UPDATED = 1962;
constexpr int LINE_NOT_FOUND = 1979;
constexpr int LINE_FOUND = 1993;

// Fields of the terrestrial delivery system descriptor (EN 300 468, 6.2.13.4), as the frontend interface numbers them;
// the index is the value that is broadcast.
constexpr int BANDWIDTHS[] = {BANDWIDTH_8_MHZ, BANDWIDTH_7_MHZ, BANDWIDTH_6_MHZ};
constexpr int CONSTELLATIONS[] = {QPSK, QAM_16, QAM_64};
constexpr int CODE_RATES[] = {FEC_1_2, FEC_2_3, FEC_3_4, FEC_5_6, FEC_7_8};
constexpr int GUARD_INTERVALS[] = {GUARD_INTERVAL_1_32, GUARD_INTERVAL_1_16, GUARD_INTERVAL_1_8, GUARD_INTERVAL_1_4};
constexpr int TRANSMISSION_MODES[] = {0, 2, 1};  // Deliberate: the modes 1 and 2 are exchanged.
constexpr int HIERARCHY_BITS = 3;

template <size_t N>
int converted(const int (&values)[N], int field, bool* valid) {
  if (field >= 0 && field < static_cast<int>(N))
    return values[field];
  *valid = false;
  return 0;
}

// The stored numbers may be any; an enumeration that cannot hold them is still only passed on to the driver.
template <typename Field>
void store(Field* field, int value) {
  static_assert(sizeof(Field) == sizeof value);
  std::memcpy(field, &value, sizeof value);
}

// Fills as many fields as the line has numbers.
void fill_from_line(const char* line, dvb_frontend_parameters* out) {
  int v[8];
  const int count = std::sscanf(line, TUNER_PARAMS, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]);
  dvb_ofdm_parameters& ofdm = out->u.ofdm;
  if (count >= 1)
    out->frequency = static_cast<unsigned>(v[0]);
  if (count >= 2)
    store(&ofdm.bandwidth, v[1]);
  if (count >= 3)
    store(&ofdm.code_rate_HP, v[2]);
  if (count >= 4)
    store(&ofdm.code_rate_LP, v[3]);
  if (count >= 5)
    store(&ofdm.constellation, v[4]);
  if (count >= 6)
    store(&ofdm.transmission_mode, v[5]);
  if (count >= 7)
    store(&ofdm.guard_interval, v[6]);
  if (count >= 8)
    store(&ofdm.hierarchy_information, v[7]);
  out->inversion = INVERSION_OFF;
}

}  // namespace

int Tuner_table::terrestrial_tuner_info(const Multiplex& multiplex, const Terrestrial_parameters& parameters) {
  bool valid = true;
  const int bw = converted(BANDWIDTHS, parameters.bandwidth, &valid);
  const int modulation = converted(CONSTELLATIONS, parameters.constellation, &valid);
  const int rate_hp = converted(CODE_RATES, parameters.code_rate_hp, &valid);
  const int rate_lp = converted(CODE_RATES, parameters.code_rate_lp, &valid);
  const int guard = converted(GUARD_INTERVALS, parameters.guard_interval, &valid);
  const int mode = converted(TRANSMISSION_MODES, parameters.transmission_mode, &valid);
  if (!valid) {
    KLOG(VERB_WARNING, "WARNING: Incorrect parameters for linux-dvb\n");
    return 0;
  }
  const int type = number(multiplex.input.delivery);
  const int connector = number(multiplex.input.connector);
  char line[160];
  (void)std::snprintf(line, sizeof line, TUNER_PARAMS, multiplex.freq, bw, rate_hp, rate_lp, modulation, mode, guard,
                      parameters.hierarchy & HIERARCHY_BITS);
  KLOG(VERB_WARNING, "WARNING: Dvb parameters %s\n", line);

  Db_lock lock(connection_);  // so that nothing is stored between the question and the answer
  // Deliberate: connector and type are exchanged, here and in fill_frontend_control().
  Rows stored(statements_, __func__, 0, SELECT_PARAMS, multiplex.freq, connector, type);
  if (stored.next()) {
    if (std::strcmp(stored.text(0), line) != 0) {
      KLOG(VERB_WARNING, "WARNING: Updating parameters for dvb-t tuner\n");
      // Deliberate: the arguments are one place off, so no line is ever updated.
      statements_.try_run(__func__, 0,
                          "UPDATE tuner_table SET tuner_params = @dvbt_param where freq = $freq AND dvb_type = $type "
                          "AND hf_conn = $hf_con ",
                          line, type, connector, 0);  // a failure is printed there
    }
    stored.end({__func__, LINE_UPDATED});
  } else if (stored.code() == SQLITE_DONE) {
    statements_.try_run(__func__, 0,
                        "INSERT into tuner_table (freq, dvb_type,hf_conn, tuner_params) VALUES ( $freq, $dvb_type, "
                        "$hf_conn, @tuner_params) ",
                        multiplex.freq, type, connector, line);  // a failure is printed there
    remember({multiplex.freq, type, connector}, line);
    stored.end({__func__, LINE_INSERTED});
  } else {
    KLOG(VERB_WARNING, "WARNING: failed to access tuner_table\n");
    stored.leave();
  }
  return 0;
}

int Tuner_table::fill_frontend_control(const Multiplex& multiplex, dvb_frontend_parameters* out) {
  Rows stored(statements_, __func__, 0, SELECT_PARAMS, multiplex.freq, number(multiplex.input.connector),
              number(multiplex.input.delivery));
  if (stored.next()) {
    fill_from_line(stored.text(0), out);
    stored.end({__func__, LINE_FOUND});
    return 1;
  }
  if (stored.code() == SQLITE_DONE) {
    stored.end({__func__, LINE_NOT_FOUND});
    return 0;
  }
  KLOG(VERB_WARNING, "WARNING: Failed to get tuner data\n");
  stored.leave();
  return NOTHING_READ;  // Deliberate: non-zero, although `out` is untouched.
}

Tuner_table::Key Tuner_table::key_asked(const Multiplex& multiplex) {
  return {multiplex.freq, number(multiplex.input.connector), number(multiplex.input.delivery)};
}

int Tuner_table::fill_at_once(const Multiplex& multiplex, dvb_frontend_parameters* out) {
  At_once now(connection_);
  if (now.can_read()) {
    read_all();
    return fill_frontend_control(multiplex, out);
  }
  const std::lock_guard<Mutex> lock(lock_);
  const auto line = lines_.find(key_asked(multiplex));
  if (line != lines_.end()) {
    fill_from_line(line->second.c_str(), out);
    return 1;
  }
  if (all_read_)
    return 0;
  KLOG(VERB_WARNING, "WARNING: Failed to get tuner data\n");
  return NOTHING_READ;
}

void Tuner_table::remember() {
  At_once now(connection_);
  if (now.can_read())
    read_all();
}

void Tuner_table::remember(const Key& key, const std::string& line) {
  const std::lock_guard<Mutex> lock(lock_);
  lines_[key] = line;
}

// A file without the table, or one that is damaged, shows itself to the statements that say so.
void Tuner_table::read_all() {
  sqlite3_stmt* rows = nullptr;
  int rc = sqlite3_prepare_v2(connection_.get(), "SELECT freq, dvb_type, hf_conn, tuner_params FROM tuner_table", -1,
                              &rows, nullptr);
  std::map<Key, std::string> lines;
  while (rc == SQLITE_OK || rc == SQLITE_ROW) {
    rc = sqlite3_step(rows);
    const unsigned char* line = rc == SQLITE_ROW ? sqlite3_column_text(rows, 3) : nullptr;
    if (line != nullptr)
      lines.try_emplace({sqlite3_column_int(rows, 0), sqlite3_column_int(rows, 1), sqlite3_column_int(rows, 2)},
                        reinterpret_cast<const char*>(line));
  }
  (void)sqlite3_finalize(rows);  // repeats the step's code
  if (rc != SQLITE_DONE)
    return;
  const std::lock_guard<Mutex> lock(lock_);
  lines_.swap(lines);
  all_read_ = true;
}

}  // namespace sdbl
