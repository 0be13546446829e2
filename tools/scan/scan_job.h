// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "tools/engine/engine.h"
#include "tools/frequencies/follow_queue.h"

enum class Outcome {
  LOCKED,        // scanned to the end
  TIMED_OUT,     // some table that was waited for never came
  NO_DEMUX,      // locked, but the demultiplexer could not be opened
  NO_STREAM,     // locked, but no MPEG stream
  NO_LOCK,       // `tuning` says why
  OUT_OF_RANGE,  // no adapter receives this frequency
  OTHER_SYSTEM,  // or not in the delivery system that was asked for
  NOT_SCANNED,   // interrupted before or during the scan
  TIME_UP,       // the same, because the time for the whole scan was over
  DEVICE_GONE,   // the same, because the adapter went away
};

struct Multiplex_result {
  int freq = 0;      // as rows have it
  int adapter = -1;  // -1: none got to it
  Outcome outcome = Outcome::NOT_SCANNED;
  double seconds = 0;
  int announced_by = 0;    // the frequency of the multiplex that named this one; 0: it was asked for
  Signal_readings signal;  // at the end; empty when it was not read meanwhile
  Tuning_result tuning;
  std::vector<Lost_sections> lost;
  std::vector<Missing_table> missing;  // where it timed out
};

// What adapters do for `kelvo scan`: one scan of each frequency. Any thread.
class Scan_job {
 public:
  // The engine is not owned, and grows: what an adapter for DVB-T alone finds empty is given to one for DVB-T2.
  explicit Scan_job(Engine* engine) : engine_(engine) {}

  // What multiplexes announce is scanned, too; `asked` is what is known without them. Before the work begins.
  void follow(const std::vector<Tuning_request>& asked);
  // These pipes are scanned, too, behind their frequency, where that is locked as DVB-T2; but for those that `asked`
  // has, or that are found there. Before the work begins.
  void revisit(const std::vector<Tuning_request>& pipes, const std::vector<Tuning_request>& asked);

  void work(Adapter& adapter, const Tuning_request& request);
  // The results since the last call.
  std::vector<Multiplex_result> take_results();
  // How many were added to those that were asked for.
  int added() const;

 private:
  std::vector<Tuning_request> added_by(const Multiplex_result& result, const Scan_end& end);

  Engine* engine_;
  mutable std::mutex mutex_;  // guards what follows
  std::vector<Multiplex_result> results_;
  std::optional<Follow_queue> follow_;
  std::vector<Tuning_request> pipes_;
  std::set<int> keys_;  // of pipes that are asked for, added or found
  int added_ = 0;
};
