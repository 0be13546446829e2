// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/scan/scan_job.h"

struct Multiplex_line {
  Multiplex_result result;
  int services = 0;
  int doubles = 0;   // of these, what another frequency brings as well, and better
  std::string note;  // "same multiplex as 506.000 MHz, weaker"; empty for none
};

// What became of one frequency: "locked", "no signal", "locked; the PMT of 1 service did not come".
std::string outcome_text(const Multiplex_result& result);

// What happened on one frequency: "locked, 8 services, 3.2 s".
std::string multiplex_text(const Multiplex_line& line);

// What a scan changed: a line a multiplex, by frequency, and one for all frequencies of which many have nothing and the
// same reason; a table of the services that are new, back and lost; a line of totals. `before` and `after` are all
// services of the database. `wide`: a line each, and all columns in full on a terminal.
void print_report(FILE* out, std::vector<Multiplex_line> multiplexes, const std::vector<Service>& before,
                  const std::vector<Service>& after, bool wide = false);
