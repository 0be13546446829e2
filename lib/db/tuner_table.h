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
  Tuner_table(Connection& connection, const Statements& statements)
      : connection_(connection), statements_(statements) {}

  // What another program's lock keeps out is printed, kept and stored by save_at_once(). The program is waited for up
  // to the busy time-out, without the connection's mutex, and not again before it has let go.
  int terrestrial_tuner_info(const Multiplex& multiplex, const Terrestrial_parameters& parameters);
  int fill_frontend_control(const Multiplex& multiplex, dvb_frontend_parameters* out);

  // The same for threads that must not wait. While other statements or programs keep the table, what was read or
  // written last counts, and what waits to be written; it fails, as there, only when that was never possible.
  int fill_at_once(const Multiplex& multiplex, dvb_frontend_parameters* out);

  // Stores what was kept, unless it would have to wait; to be called now and then.
  void save_at_once();

  // Reads the whole table for fill_at_once(), unless it would have to wait. Prints nothing.
  void remember();

 private:
  using Key = std::tuple<int, int, int>;  // freq, dvb_type and hf_conn, as they stand in the columns
  static Key key_asked(const Multiplex& multiplex);
  void remember(const Key& key, const std::string& line);
  void read_all();
  void wait_for_others(const Multiplex& multiplex);
  bool is_locked(const Multiplex& multiplex);
  // The code of the last step.
  int look_and_store(const Multiplex& multiplex, const std::string& line);
  // True when it is written, or never will be, which is printed.
  bool write_at_once(const Key& key, const std::string& line);

  Connection& connection_;
  const Statements& statements_;

  Mutex lock_{Lock_rank::DATABASE_LEAF, "tuner lines as read last"};  // guards the following; a leaf
  bool all_read_ = false;
  std::map<Key, std::string> lines_;
  std::map<Key, std::string> unsaved_;
  bool others_hold_it_ = false;  // the last time that somebody looked
};

}  // namespace sdbl
