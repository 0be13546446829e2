// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/multiplex.h"
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

 private:
  const Connection& connection_;
  const Statements& statements_;
};

}  // namespace sdbl
