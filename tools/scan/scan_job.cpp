// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/scan_job.h"

#include <chrono>
#include <utility>

namespace {

Outcome outcome_of(const Answer& answer) {
  switch (answer.kind) {
    case Answer::Kind::GIVEN_UP:
      return Outcome::NOT_SCANNED;
    case Answer::Kind::NO_LOCK:
      return Outcome::NO_LOCK;
    case Answer::Kind::NO_STREAM:
      return Outcome::NO_STREAM;
    case Answer::Kind::SCANNED:
      break;
  }
  // The library answers "done" after these, too: it has taken what there was.
  switch (answer.end.outcome) {
    case SCAN_TIMED_OUT:
      return Outcome::TIMED_OUT;
    case SCAN_NO_DEMUX:
      return Outcome::NO_DEMUX;
    default:
      return Outcome::LOCKED;
  }
}

}  // namespace

void Scan_job::work(Adapter& adapter, const Tuning_request& request) {
  const auto begin = Adapter::Clock::now();
  const Answer answer = adapter.scan(request);
  const double seconds = std::chrono::duration<double>(Adapter::Clock::now() - begin).count();
  // Not held during the scan: others report meanwhile.
  const std::lock_guard lock(mutex_);
  results_.push_back({request.freq, adapter.number(), outcome_of(answer), seconds});
}

std::vector<Multiplex_result> Scan_job::take_results() {
  const std::lock_guard lock(mutex_);
  return std::exchange(results_, {});
}
