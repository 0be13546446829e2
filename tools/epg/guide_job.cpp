// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/guide_job.h"

#include <algorithm>
#include <set>

#include "tools/engine/tuning_text.h"
#include "tools/epg/guide_watcher.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds LOOK_INTERVAL{200};

// After a scan that was given up, every service's time for its present and following event is up as well. With a
// channel the guide begins a few seconds after the tuning, with fresh timers.
void begin_again(Adapter& adapter, int freq, int channel, Guide_job::Time end) {
  adapter.kelvo().watch_again(freq, channel);
  std::vector<EIT_progress> progress;
  // Until the progress is back at its beginning, a look at it would take the state of the ended round for that of the
  // new one.
  do {
    adapter.wait(LOOK_INTERVAL / 4);
    adapter.kelvo().eit_progress(&progress);
  } while (begun(progress) && !adapter.stopped() && !adapter.gone() && Adapter::Clock::now() < end);
}

Guide_outcome outcome_without_scan(const Adapter& adapter, Answer::Kind kind) {
  switch (kind) {
    case Answer::Kind::NO_LOCK:
      return Guide_outcome::NO_LOCK;
    case Answer::Kind::NO_STREAM:
      return Guide_outcome::NO_STREAM;
    default:
      return adapter.gone()      ? Guide_outcome::DEVICE_GONE
             : adapter.stopped() ? Guide_outcome::STOPPED
                                 : Guide_outcome::TIME_UP;
  }
}

}  // namespace

std::vector<int> multiplexes_with_guide(const std::vector<Service>& services) {
  std::set<int> found;
  std::set<int> all;
  for (const Service& service : services) {
    all.insert(service.freq);
    // Of a multiplex on two frequencies, the worse one has only lost services.
    if (service.scan_state != 0 || service.row_status == 2) {
      found.insert(service.freq);
    }
  }
  const std::set<int>& out = found.empty() ? all : found;
  return {out.begin(), out.end()};
}

std::string outcome_text(const Guide_multiplex& multiplex) {
  switch (multiplex.outcome) {
    case Guide_outcome::WAITING:
      return "not begun";
    case Guide_outcome::RUNNING:
    case Guide_outcome::STOPPED:
      return "interrupted";
    case Guide_outcome::DONE:
      return "done";
    case Guide_outcome::TIME_UP:
      return "time is up";
    case Guide_outcome::NOTHING_NEW:
      return "the rest is not sent";
    case Guide_outcome::NO_LOCK:
      return no_lock_text(multiplex.tuning);
    case Guide_outcome::NO_STREAM:
      return "locked, no stream";
    case Guide_outcome::NO_SERVICES:
      return "no services";
    case Guide_outcome::OUT_OF_RANGE:
      return "out of the frontend's range";
    case Guide_outcome::DEVICE_GONE:
      return "the adapter is gone";
  }
  return "";
}

Guide_job::Guide_job(const std::vector<int>& freqs, int seconds_given, const Engine* engine)
    : end_(Adapter::Clock::now() + seconds(seconds_given)), engine_(engine) {
  for (const int freq : freqs) {
    multiplexes_.push_back({freq, Guide_outcome::WAITING});
  }
  // No adapter will ever come to these, so nobody else would say it.
  for (const int freq : engine->unreceivable()) {
    change(freq, Guide_outcome::OUT_OF_RANGE);
  }
}

// When this multiplex must end so that the others get their share.
Guide_job::Time Guide_job::share_ends() const {
  const size_t adapters = engine_->adapters().size();
  // Adapters work side by side, so what counts is how many more turns each of them has. Time that a multiplex does not
  // need is shared anew among those behind it.
  const size_t rounds = 1 + (engine_->waiting() + adapters - 1) / adapters;
  const Time now = Adapter::Clock::now();
  return now + (end_ - now) / static_cast<int>(rounds);
}

void Guide_job::work(Adapter& adapter, const Tuning_request& request) {
  if (Adapter::Clock::now() >= end_) {
    return;  // It stays "not begun".
  }
  change(request.freq, Guide_outcome::RUNNING);
  change(request.freq, collect(adapter, request, share_ends()));
}

Guide_outcome Guide_job::collect(Adapter& adapter, const Tuning_request& request, Time end) {
  std::vector<EIT_progress> progress;
  bool given_up = false;
  // The list of services is made when tuning: a multiplex that is scanned for the first time has none until the second
  // request.
  for (int tries = 0; tries < 2 && progress.empty(); ++tries) {
    const Answer answer = adapter.scan(request, end);
    show_tuning(request.freq, answer.tuning);
    if (answer.kind != Answer::Kind::SCANNED) {
      return outcome_without_scan(adapter, answer.kind);
    }
    given_up = answer.end.outcome == SCAN_TIMED_OUT;
    adapter.kelvo().eit_progress(&progress);
  }
  if (progress.empty()) {
    return Guide_outcome::NO_SERVICES;
  }
  // A guide that is collected whole has fresh time from the scan's end on.
  if (given_up && !progress.front().whole) {
    begin_again(adapter, request.freq, progress.front().channel, end);
  }
  Guide_watcher watcher(Adapter::Clock::now());
  std::vector<Lost_sections> lost;
  while (true) {
    const Time now = Adapter::Clock::now();
    adapter.kelvo().eit_progress(&progress);
    const std::vector<Guide_progress> services = watcher.look(progress, now);
    adapter.kelvo().lost_sections(&lost);
    show(request.freq, services, lost);
    // Asked before the end of the time: a guide that was completed with the last section is done.
    const bool all = std::none_of(services.begin(), services.end(), [](const Guide_progress& service) {
      return service.state == Guide_state::COLLECTING;
    });
    if (all && !services.empty()) {
      return Guide_outcome::DONE;
    }
    if (adapter.gone()) {
      return Guide_outcome::DEVICE_GONE;
    }
    if (adapter.stopped()) {
      return Guide_outcome::STOPPED;
    }
    if (now >= end) {
      return Guide_outcome::TIME_UP;
    }
    if (watcher.stuck(now)) {
      return Guide_outcome::NOTHING_NEW;
    }
    adapter.wait(LOOK_INTERVAL);
  }
}

void Guide_job::change(int freq, Guide_outcome outcome) {
  const std::lock_guard lock(mutex_);
  for (Guide_multiplex& multiplex : multiplexes_) {
    if (multiplex.freq == freq) {
      multiplex.outcome = outcome;
    }
  }
}

void Guide_job::show_tuning(int freq, const Tuning_result& tuning) {
  const std::lock_guard lock(mutex_);
  for (Guide_multiplex& multiplex : multiplexes_) {
    if (multiplex.freq == freq) {
      multiplex.tuning = tuning;
    }
  }
}

void Guide_job::show(int freq, const std::vector<Guide_progress>& services, const std::vector<Lost_sections>& lost) {
  const std::lock_guard lock(mutex_);
  for (Guide_multiplex& multiplex : multiplexes_) {
    if (multiplex.freq == freq) {
      multiplex.services = services;
      multiplex.lost = lost;
    }
  }
}

std::vector<Guide_multiplex> Guide_job::multiplexes() const {
  const std::lock_guard lock(mutex_);
  return multiplexes_;
}
