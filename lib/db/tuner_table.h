// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <tuple>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "db/statements.h"

struct dvb_frontend_parameters;

namespace sdbl {

// A terrestrial delivery system descriptor, its fields as they are broadcast (EN 300 468, 6.2.13.4).
struct Terrestrial_parameters {
  int bandwidth;
  int constellation;
  int hierarchy;
  int code_rate_hp;
  int code_rate_lp;
  int guard_interval;
  int transmission_mode;
};

// The table of stored tuning parameters. The operations are those of Sdbl with the same names, which has their
// contracts. Any-thread.
class Tuner_table {
 public:
  Tuner_table(const Connection& connection, const Statements& statements)
      : connection_(connection), statements_(statements) {}

  int terrestrial_tuner_info(const Multiplex& multiplex, const Terrestrial_parameters& parameters);
  int fill_frontend_control(const Multiplex& multiplex, dvb_frontend_parameters* out);

  // The same for threads that must not wait. While other statements or programs keep the table, what was read or
  // written last counts; it fails, as there, only when that was never possible.
  int fill_at_once(const Multiplex& multiplex, dvb_frontend_parameters* out);

  // Reads the whole table for fill_at_once(), unless it would have to wait. Prints nothing.
  void remember();

 private:
  using Key = std::tuple<int, int, int>;  // freq, dvb_type and hf_conn, as they stand in the columns
  static Key key_asked(const Multiplex& multiplex);
  void remember(const Key& key, const std::string& line);
  void read_all();

  const Connection& connection_;
  const Statements& statements_;

  Mutex lock_{Lock_rank::DATABASE_LEAF, "tuner lines as read last"};  // guards the following; a leaf
  bool all_read_ = false;
  std::map<Key, std::string> lines_;
};

}  // namespace sdbl
