// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <map>
#include <string>
#include <vector>

#include "tools/database/channel_db.h"

class Sdbl;

// How a frequency was received in a scan.
struct Reception {
  int freq = 0;           // as the rows of its services have it
  bool received = false;  // a multiplex was found
  bool complete = false;  // with all tables that were waited for
  Signal_value snr;
  Signal_value strength;
};

// What several frequencies, or a frequency now and earlier, have to do with each other.
struct Same_multiplex {
  std::vector<int> doubles;          // channels that another frequency brings as well, and better
  std::map<int, std::string> notes;  // by frequency: "same multiplex as 506.000 MHz, weaker", "had 8 services"
};

// Compares what the scan found on each frequency, `after` it, and what was there `before`. A service is the same when
// network, stream, program number and name are: ids alone are not unique everywhere. Of a transport stream on several
// frequencies the best reception is kept; where readings do not differ clearly, the one that was known before, so that
// channels do not move back and forth. A frequency on which nothing is received any more gives way to one on which the
// same is. Frequencies that were not scanned stay as they are.
Same_multiplex same_multiplexes(const std::vector<Service>& before, const std::vector<Service>& after,
                                const std::vector<Reception>& receptions);

// Marks the channels as lost: they keep their numbers, and are found again when their frequency is the better one.
void mark_doubles(Sdbl* database, const std::vector<int>& channels);
