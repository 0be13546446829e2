// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/scan_job.h"

#include <linux/dvb/frontend.h>

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

void Scan_job::follow(const std::vector<Tuning_request>& asked) {
  follow_.emplace(asked);
}

void Scan_job::revisit(const std::vector<Tuning_request>& pipes, const std::vector<Tuning_request>& asked) {
  pipes_ = pipes;
  for (const Tuning_request& request : asked) {
    keys_.insert(key_of(request));
  }
}

// REQUIRES: the mutex is held.
std::vector<Tuning_request> Scan_job::added_by(const Multiplex_result& result, const Scan_end& end) {
  std::vector<Tuning_request> more;
  if (follow_) {
    // An announced frequency is tried in the system that was announced: most are out of reach, and the other one would
    // cost 2 s on each of them.
    more = follow_->announced(result.freq, end.original_network_id, end.transport_stream_id, end.announced);
  }
  keys_.insert(result.freq);
  for (const Tuning_request& request : more) {
    keys_.insert(key_of(request));
  }
  const Tuning_result& tuning = result.tuning;
  const bool has_pipes =
      tuning.system == SYS_DVBT2 && (tuning.outcome == TUNING_LOCKED || tuning.outcome == TUNING_NO_STREAM);
  for (const Tuning_request& pipe : pipes_) {
    if (has_pipes && pipe.freq == tuning.freq && keys_.insert(key_of(pipe)).second) {
      more.push_back(pipe);
      if (follow_) {
        follow_->add(pipe);
      }
    }
  }
  added_ += static_cast<int>(more.size());
  return more;
}

void Scan_job::work(Adapter& adapter, const Tuning_request& request) {
  const auto begin = Adapter::Clock::now();
  const Answer answer = adapter.scan(request);
  const auto took = Adapter::Clock::now() - begin;
  if (adapter.gone()) {
    return;  // given back, for another adapter
  }
  Tuning_request as_t2 = request;
  as_t2.system = SYS_DVBT2;
  if (answer.kind == Answer::Kind::NO_LOCK && request.system == 0 && !adapter.receives(as_t2) &&
      engine_->receivable(as_t2)) {
    engine_->add({as_t2});
    return;
  }
  Multiplex_result result;
  result.seconds = std::chrono::duration<double>(took).count();
  result.freq = answer.tuning.key != 0 ? answer.tuning.key : key_of(request);
  result.adapter = adapter.number();
  result.outcome = outcome_of(answer);
  result.tuning = answer.tuning;
  result.lost = answer.end.lost;
  result.missing = answer.end.missing;
  // A reading of the frequency before says nothing about this one.
  if (answer.signal.age_ms >= 0 && std::chrono::milliseconds(answer.signal.age_ms) < took) {
    result.signal = answer.signal;
  }
  std::vector<Tuning_request> more;
  {
    // Not held during the scan: others report meanwhile.
    const std::lock_guard lock(mutex_);
    if (follow_) {
      result.announced_by = follow_->announced_by(key_of(request));
    }
    more = added_by(result, answer.end);
    results_.push_back(result);
  }
  if (!more.empty()) {
    engine_->add(more);
  }
}

int Scan_job::added() const {
  const std::lock_guard lock(mutex_);
  return added_;
}

std::vector<Multiplex_result> Scan_job::take_results() {
  const std::lock_guard lock(mutex_);
  return std::exchange(results_, {});
}
