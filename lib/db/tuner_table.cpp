// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/tuner_table.h"

#include <linux/dvb/frontend.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "db/at_once.h"
#include "db/transaction.h"

namespace sdbl {

namespace {

constexpr char TUNER_PARAMS[] = "Fr: %10d Bw: %2d CrH: %2d CrL: %2d Mod: %2d TrM: %2d Grd: %2d Hir: %2d";
constexpr char SELECT_PARAMS[] =
    "SELECT tuner_params from tuner_table where freq = $freq AND dvb_type = $type AND hf_conn = $hf_con";
constexpr int NOTHING_READ = 1;
constexpr char STORING[] = "terrestrial_tuner_info";
constexpr int LOOK_PAUSE_MS = 20;

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

bool is_busy_code(int code) {
  return (code & 0xFF) == SQLITE_BUSY;
}

// REQUIRES: the connection's mutex.
class Without_waiting {
 public:
  explicit Without_waiting(sqlite3* conn) : conn_(conn) { wait_for(0); }
  ~Without_waiting() { wait_for(SQL_TIMEOUT_MS); }
  Without_waiting(const Without_waiting&) = delete;
  Without_waiting& operator=(const Without_waiting&) = delete;

 private:
  void wait_for(int ms) {
    if (conn_ != nullptr)
      (void)sqlite3_busy_timeout(conn_, ms);
  }
  sqlite3* const conn_;
};

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

  wait_for_others(multiplex);
  const bool busy = is_busy_code(look_and_store(multiplex, line));
  {
    const std::lock_guard<Mutex> lines_lock(lock_);
    others_hold_it_ = busy;
    if (busy)
      unsaved_[{multiplex.freq, type, connector}] = line;
  }
  if (!busy)
    save_at_once();
  return 0;
}

void Tuner_table::wait_for_others(const Multiplex& multiplex) {
  {
    const std::lock_guard<Mutex> lines_lock(lock_);
    if (others_hold_it_)
      return;
  }
  for (int waited = 0; waited < SQL_TIMEOUT_MS && is_locked(multiplex); waited += LOOK_PAUSE_MS)
    (void)usleep(LOOK_PAUSE_MS * 1000);  // a shorter pause is as good
}

// To read, or to write a line that is not there yet. Prints and remembers nothing.
bool Tuner_table::is_locked(const Multiplex& multiplex) {
  Db_lock lock(connection_);
  int rc = SQLITE_MISUSE;
  {
    const Without_waiting at_once(connection_.get());
    sqlite3_stmt* line = nullptr;
    // The line that is looked for, or the one that an insertion would meet.
    if (connection_.get() != nullptr)
      rc = sqlite3_prepare_v2(connection_.get(),
                              "SELECT 1 FROM tuner_table WHERE freq = ?1 AND (dvb_type = ?2 AND hf_conn = ?3 OR "
                              "dvb_type = ?3 AND hf_conn = ?2)",
                              -1, &line, nullptr);
    if (rc == SQLITE_OK) {
      int parameter = 0;
      for (const int value : {multiplex.freq, number(multiplex.input.connector), number(multiplex.input.delivery)})
        (void)sqlite3_bind_int(line, ++parameter, value);  // there are three
      rc = sqlite3_step(line);
    }
    (void)sqlite3_finalize(line);  // repeats the step's code
  }
  if (rc != SQLITE_DONE)
    return is_busy_code(rc);
  return Transaction(connection_, Db_file::CHANNELS, {.waits = false}).busy();
}

int Tuner_table::look_and_store(const Multiplex& multiplex, const std::string& line) {
  const int type = number(multiplex.input.delivery);
  const int connector = number(multiplex.input.connector);
  Db_lock lock(connection_);  // so that nothing is stored between the question and the answer
  const Without_waiting at_once(connection_.get());
  // Deliberate: connector and type are exchanged, here and in fill_frontend_control().
  Rows stored(statements_, STORING, 0, SELECT_PARAMS, multiplex.freq, connector, type);
  if (stored.next()) {
    if (stored.text(0) != line) {
      KLOG(VERB_WARNING, "WARNING: Updating parameters for dvb-t tuner\n");
      // Deliberate: the arguments are one place off, so no line is ever updated.
      statements_.try_run(STORING, 0,
                          "UPDATE tuner_table SET tuner_params = @dvbt_param where freq = $freq AND dvb_type = $type "
                          "AND hf_conn = $hf_con ",
                          line, type, connector, 0);  // a failure is printed there
    }
    stored.end({STORING, LINE_UPDATED});
    return SQLITE_OK;  // nothing of it waits to be stored
  }
  const int looked = stored.code();
  if (looked != SQLITE_DONE) {
    KLOG(VERB_WARNING, "WARNING: failed to access tuner_table\n");
    stored.leave();
    return looked;
  }
  const Run run = statements_.try_run(STORING, 0,
                                      "INSERT into tuner_table (freq, dvb_type,hf_conn, tuner_params) VALUES ( $freq, "
                                      "$dvb_type, $hf_conn, @tuner_params) ",
                                      multiplex.freq, type, connector, line);  // a failure is printed there
  if (!is_busy_code(run.code))
    remember({multiplex.freq, type, connector}, line);
  stored.end({STORING, LINE_INSERTED});
  return run.code;
}

void Tuner_table::save_at_once() {
  std::map<Key, std::string> waiting;
  {
    const std::lock_guard<Mutex> lines_lock(lock_);
    waiting = unsaved_;
  }
  for (const auto& [key, line] : waiting) {
    if (!write_at_once(key, line))
      return;
    const std::lock_guard<Mutex> lines_lock(lock_);
    others_hold_it_ = false;
    lines_.try_emplace(key, line);
    // Another one may have come meanwhile.
    if (const auto written = unsaved_.find(key); written != unsaved_.end() && written->second == line)
      unsaved_.erase(written);
  }
}

// Silently while the file is locked, which has been printed. A line that has come meanwhile stays, as there.
bool Tuner_table::write_at_once(const Key& key, const std::string& line) {
  At_once now(connection_);
  sqlite3* const conn = connection_.get();
  if (!now.has_connection() || conn == nullptr)
    return false;
  const auto [freq, type, connector] = key;
  char* const insert = sqlite3_mprintf(
      "INSERT OR IGNORE INTO tuner_table (freq, dvb_type, hf_conn, tuner_params) VALUES (%d, %d, %d, %Q)", freq, type,
      connector, line.c_str());
  const int rc = insert != nullptr ? sqlite3_exec(conn, insert, nullptr, nullptr, nullptr) : SQLITE_NOMEM;
  sqlite3_free(insert);
  if (is_busy_code(rc))
    return false;
  if (rc != SQLITE_OK)
    KLOG(VERB_WARNING, "WARNING: The tuner's parameters for %d Hz are not stored: %s\n", freq, sqlite3_errstr(rc));
  return true;
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
  const bool reads = now.can_read();
  if (reads) {
    read_all();
    if (const int filled = fill_frontend_control(multiplex, out); filled != 0)
      return filled;
  }
  const std::lock_guard<Mutex> lock(lock_);
  for (const auto* known : {&lines_, &unsaved_}) {
    const auto line = known->find(key_asked(multiplex));
    if (line != known->end()) {
      fill_from_line(line->second.c_str(), out);
      return 1;
    }
  }
  if (reads || all_read_)
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
