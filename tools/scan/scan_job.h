// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <mutex>
#include <vector>

#include "tools/engine/adapter.h"

enum class Outcome {
  LOCKED,        // scanned to the end
  TIMED_OUT,     // some table that was waited for never came
  NO_DEMUX,      // locked, but the demultiplexer could not be opened
  NO_STREAM,     // locked, but no MPEG stream
  NO_LOCK,       // no signal
  OUT_OF_RANGE,  // no adapter receives this frequency
  NOT_SCANNED,   // interrupted before or during the scan
};

struct Multiplex_result {
  int freq = 0;
  int adapter = -1;  // -1: none got to it
  Outcome outcome = Outcome::NOT_SCANNED;
  double seconds = 0;
};

// What adapters do for `kelvo scan`: one scan of each frequency. Any thread.
class Scan_job {
 public:
  void work(Adapter& adapter, const Tuning_request& request);
  // The results since the last call.
  std::vector<Multiplex_result> take_results();

 private:
  std::mutex mutex_;  // guards results_
  std::vector<Multiplex_result> results_;
};
