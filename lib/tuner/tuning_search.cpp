// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/tuning_search.h"

#include <cerrno>
#include <cstdlib>

#include "base/monotonic.h"
#include "tuner/turn.h"

namespace {

constexpr int PIPES_TRIED = 4;
constexpr int LARGEST_OFFSET_HZ = 500000;

// How much an outcome says about what is on air.
int weight(int outcome) {
  switch (outcome) {
    case TUNING_LOCKED:
      return 4;
    case TUNING_NO_STREAM:
      return 3;
    case TUNING_NO_LOCK:
      return 2;
    case TUNING_NO_SIGNAL:
      return 1;
    default:
      return 0;
  }
}

}  // namespace

Tuning_result Tuning_search::run(const Tuning_request& request, const Search_plan& plan, const Turn& turn) {
  const int64_t begun = monotonic_ms();
  Tuning_result result;
  result.freq = request.freq;
  unsigned seen_t = 0;
  unsigned seen_t2 = 0;
  bool ended = false;
  for (const Attempt& attempt : plan.attempts) {
    if (ended)
      break;
    const Step step = try_one(attempt, plan, turn, &result);
    (attempt.system == SYS_DVBT2 ? seen_t2 : seen_t) |= step.wait.status;
    ended = note(attempt, step, &result) || try_pipes(attempt, plan, turn, &result);
  }
  for (const Attempt& attempt : plan.second) {
    if (ended || result.outcome == TUNING_NO_STREAM)
      break;
    if ((attempt.system == SYS_DVBT2 ? seen_t2 : seen_t) != 0)
      ended = note(attempt, try_one(attempt, plan, turn, &result), &result);
  }
  result.key = request.freq + (result.pipe > 0 ? result.pipe : 0);
  if (plan.read_back && (result.outcome == TUNING_LOCKED || result.outcome == TUNING_NO_STREAM))
    read_back(&result);
  result.took_ms = static_cast<int>(monotonic_ms() - begun);
  return result;
}

Tuning_search::Step Tuning_search::try_one(const Attempt& attempt, const Search_plan& plan, const Turn& turn,
                                           Tuning_result* result) {
  Step step;
  const bool can_end = plan.read_back;
  if (can_end && turn.over()) {
    step.outcome = TUNING_CANCELLED;
    return step;
  }
  const int64_t begun = monotonic_ms();
  const bool taken = frontend_.tune(attempt, can_end ? &turn : nullptr);
  step.error = taken ? 0 : errno;
  if (can_end && step.error == ECANCELED) {
    step.error = 0;
    step.outcome = TUNING_CANCELLED;
    return step;
  }
  step.wait = lock_.wait(attempt, taken, begun, turn);
  result->status |= step.wait.status;
  if (step.wait.locked) {
    const Pat_probe::Answer pat =
        plan.first_pat_ms > 0 ? probe_.wait(plan.first_pat_ms, turn) : Pat_probe::Answer::UNKNOWN;
    step.outcome = pat == Pat_probe::Answer::NONE ? TUNING_NO_STREAM : TUNING_LOCKED;
    if (pat == Pat_probe::Answer::NONE && turn.over())
      step.outcome = TUNING_CANCELLED;
  } else if (device_.error() != 0) {
    step.outcome = TUNING_NO_DEVICE;
    step.error = device_.error();
  } else if (!taken) {
    step.outcome = TUNING_REFUSED;
  } else if (step.wait.cancelled) {
    step.outcome = TUNING_CANCELLED;
  } else {
    step.outcome = step.wait.status != 0 ? TUNING_NO_LOCK : TUNING_NO_SIGNAL;
  }
  return step;
}

// True when the search is over.
bool Tuning_search::note(const Attempt& attempt, const Step& step, Tuning_result* result) const {
  const bool over =
      step.outcome == TUNING_LOCKED || step.outcome == TUNING_CANCELLED || step.outcome == TUNING_NO_DEVICE;
  // What says more about the frequency stays: a signal in one system is not forgotten for the silence of the other.
  if (!over && result->outcome != TUNING_NONE && weight(step.outcome) <= weight(result->outcome))
    return false;
  result->outcome = step.outcome;
  result->tuned_hz = attempt.freq;
  result->error = step.error;
  result->system = attempt.system;
  result->pipe = attempt.pipe;
  result->bandwidth_hz = attempt.bandwidth_hz;
  result->lock_ms = step.wait.locked ? step.wait.ms : -1;
  return over;
}

// A lock of DVB-T2 without a stream: the signal's pipes are numbered otherwise than the driver has it. True when the
// search is over.
bool Tuning_search::try_pipes(const Attempt& attempt, const Search_plan& plan, const Turn& turn,
                              Tuning_result* result) {
  if (result->outcome != TUNING_NO_STREAM)
    return false;
  if (!plan.pipes || attempt.system != SYS_DVBT2)
    return true;
  for (int pipe = 0; pipe < PIPES_TRIED; ++pipe) {
    Attempt one = attempt;
    one.pipe = pipe;
    if (note(one, try_one(one, plan, turn, result), result))
      break;
  }
  return true;
}

void Tuning_search::read_back(Tuning_result* result) {
  const Reported reported = frontend_.reported();
  result->reported_hz = reported.freq;
  const int64_t offset = int64_t{reported.freq} - result->freq;
  if (reported.freq > 0 && std::llabs(offset) < LARGEST_OFFSET_HZ)
    result->offset_hz = static_cast<int>(offset);
  // Some drivers try the other system by themselves.
  if (reported.system == SYS_DVBT || reported.system == SYS_DVBT2)
    result->system = reported.system;
  if (reported.bandwidth_hz > 0)
    result->bandwidth_hz = reported.bandwidth_hz;
  result->modulation = reported.modulation;
}
