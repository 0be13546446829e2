// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The stored line of tuning parameters, as another program may have left it.
#include <linux/dvb/frontend.h>
#include <sqlite3.h>

#include <cstring>
#include <string>

#include "base/messages.h"
#include "db/sdbl.h"
#include "fuzz/entries.h"
#include "support/database.h"

namespace {

constexpr int FREQ = 506000000;

struct Stored {
  support::Temp_dir dir;
  Sdbl db{dir.file("fuzz.db").c_str()};
  sqlite3_stmt* line = nullptr;

  Stored() {
    verbosity_kelvo = -1;
    sqlite3* conn = support::conn_of(db);
    (void)sqlite3_exec(conn, "PRAGMA locking_mode = EXCLUSIVE", nullptr, nullptr, nullptr);  // fewer system calls
    (void)support::run(conn,
                       "INSERT INTO tuner_table (freq, hf_conn, dvb_type, tuner_params) VALUES (506000000, 1, 1, '')");
    (void)sqlite3_prepare_v2(conn, "UPDATE tuner_table SET tuner_params = ?1", -1, &line, nullptr);
  }
  ~Stored() { (void)sqlite3_finalize(line); }
};

}  // namespace

int fuzz::tuner_line(const uint8_t* data, size_t size) {
  static Stored stored;
  if (size == 0)
    return 0;
  const char* text = reinterpret_cast<const char*>(data) + 1;
  // As a text, as bytes, or as whatever type a row may have there.
  if ((data[0] & 1) == 0)
    (void)sqlite3_bind_text(stored.line, 1, text, static_cast<int>(size - 1), SQLITE_STATIC);
  else
    (void)sqlite3_bind_blob(stored.line, 1, text, static_cast<int>(size - 1), SQLITE_STATIC);
  (void)sqlite3_step(stored.line);
  (void)sqlite3_reset(stored.line);
  dvb_frontend_parameters parameters;
  std::memset(&parameters, 0, sizeof parameters);
  (void)stored.db.fill_frontend_control(1, 1, FREQ, &parameters);
  return 0;
}
