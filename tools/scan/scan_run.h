// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <memory>
#include <vector>

#include "tools/scan/scan_job.h"
#include "tools/scan/scan_report.h"

// Why a scan ended before it had seen all frequencies.
enum class Scan_stop { NONE, INTERRUPTED, TIME_UP };

// A scan of several frequencies into one database: the adapters at work, a line of the report for each frequency, and
// at its end what several frequencies have in common. Whoever made it waits for the engine. One thread.
class Scan_run {
 public:
  // `database`, and `reader`, a read-only connection to its channels, are not owned. Throws Failure when the library
  // cannot open a frontend.
  Scan_run(const std::map<int, Frontend_info>& frontends, std::vector<Tuning_request> requests, Sdbl* database,
           const Channel_db* reader);

  Engine& engine() { return *engine_; }
  const Engine& engine() const { return *engine_; }

  // Scans these DVB-T2 pipes as well, where they still are, and with `follow` what the multiplexes announce.
  void start(const std::vector<Tuning_request>& pipes, bool follow);

  // The frequencies that were done since the last call; `stop` is why those that were left were left.
  std::vector<Multiplex_line> take_lines(Scan_stop stop);

  // How many frequencies there are, as far as is known; the services of those that are done.
  size_t total() const { return requests_.size() + static_cast<size_t>(job_->added()); }
  int services() const { return services_; }
  // All frequencies that are done; behind conclude() the others, too.
  const std::vector<Multiplex_line>& lines() const { return lines_; }
  // The adapters whose device went away, known behind conclude().
  const std::vector<int>& gone() const { return gone_; }

  // Once no adapter works any more: a multiplex that several frequencies bring is left with one of them. `before` are
  // all services before the scan; returns those behind it, without streams.
  std::vector<Service> conclude(const std::vector<Service>& before, Scan_stop stop);

  // Waits until the adapters have written all that they have, and gives them up.
  void release() { engine_.reset(); }

 private:
  Outcome outcome_of_left(Tuning_request request, Scan_stop stop) const;
  bool keep_moved(const std::vector<Service>& before);

  std::vector<Tuning_request> requests_;
  Sdbl* database_;
  const Channel_db* reader_;
  bool follows_air_;
  std::unique_ptr<Scan_job> job_;  // used by the engine
  std::unique_ptr<Engine> engine_;
  std::vector<Multiplex_line> lines_;
  int services_ = 0;
  std::vector<int> gone_;
};
