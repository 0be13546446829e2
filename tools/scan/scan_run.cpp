// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/scan_run.h"

#include <algorithm>
#include <utility>

#include "tools/scan/same_multiplex.h"

Scan_run::Scan_run(const std::map<int, Frontend_info>& frontends, std::vector<Tuning_request> requests, Sdbl* database,
                   const Channel_db* reader)
    : requests_(std::move(requests)),
      database_(database),
      reader_(reader),
      follows_air_(!frontends.empty() && frontends.begin()->second.profile.refresh),
      engine_(std::make_unique<Engine>(frontends, requests_, database)) {
  job_ = std::make_unique<Scan_job>(engine_.get());
}

void Scan_run::start(const std::vector<Tuning_request>& pipes, bool follow) {
  job_->revisit(pipes, requests_);
  if (follow) {
    job_->follow(requests_);
  }
  engine_->start([this](Adapter& adapter, const Tuning_request& request) { job_->work(adapter, request); }, true);
}

std::vector<Multiplex_line> Scan_run::take_lines(Scan_stop stop) {
  std::vector<Multiplex_line> out;
  for (Multiplex_result& result : job_->take_results()) {
    if (result.outcome == Outcome::NOT_SCANNED && stop == Scan_stop::TIME_UP) {
      result.outcome = Outcome::TIME_UP;
    }
    Multiplex_line line;
    line.result = std::move(result);
    if (line.result.outcome == Outcome::LOCKED || line.result.outcome == Outcome::TIMED_OUT) {
      // Counted right behind the merge of this multiplex; what a later scan does to the rows does not belong to this
      // line.
      line.services = reader_->services_found(line.result.freq);
      services_ += line.services;
    }
    lines_.push_back(line);
    out.push_back(std::move(line));
  }
  return out;
}

// Of a frequency that nobody has scanned.
Outcome Scan_run::outcome_of_left(Tuning_request request, Scan_stop stop) const {
  if (stop == Scan_stop::INTERRUPTED) {
    return Outcome::NOT_SCANNED;
  }
  if (!engine_->receivable(request)) {
    request.system = 0;
    return engine_->receivable(request) ? Outcome::OTHER_SYSTEM : Outcome::OUT_OF_RANGE;
  }
  return !gone_.empty() ? Outcome::DEVICE_GONE : stop == Scan_stop::TIME_UP ? Outcome::TIME_UP : Outcome::NOT_SCANNED;
}

std::vector<Service> Scan_run::conclude(const std::vector<Service>& before, Scan_stop stop) {
  if (stop != Scan_stop::NONE) {
    engine_->join();  // A merge that was under way counts.
  }
  gone_ = engine_->gone();
  for (const Tuning_request& request : engine_->left()) {
    Multiplex_line line;
    line.result.freq = key_of(request);
    line.result.outcome = outcome_of_left(request, stop);
    lines_.push_back(line);
  }
  std::vector<Service> after = reader_->services(false);
  std::vector<Reception> receptions;
  for (const Multiplex_line& line : lines_) {
    const Multiplex_result& result = line.result;
    if (result.outcome == Outcome::NOT_SCANNED || result.outcome == Outcome::TIME_UP ||
        result.outcome == Outcome::OUT_OF_RANGE || result.outcome == Outcome::OTHER_SYSTEM ||
        result.outcome == Outcome::DEVICE_GONE) {
      continue;
    }
    const bool complete = result.outcome == Outcome::LOCKED;
    receptions.push_back({result.freq, complete || result.outcome == Outcome::TIMED_OUT, complete, result.signal.snr,
                          result.signal.strength});
  }
  Same_multiplex same = same_multiplexes(before, after, receptions);
  for (Multiplex_line& line : lines_) {
    const auto note = same.notes.find(line.result.freq);
    line.note = note == same.notes.end() ? "" : note->second;
  }
  if (follows_air_ && keep_moved(before)) {
    // What has moved is no double any more: its row is at its new place.
    std::map<int, int> places;
    for (const Service& service : after) {
      places[service.channel] = service.freq;
    }
    after = reader_->services(false);
    std::erase_if(same.doubles, [&](int channel) {
      return std::none_of(after.begin(), after.end(), [&](const Service& service) {
        return service.channel == channel && service.freq == places[channel];
      });
    });
  }
  if (same.doubles.empty()) {
    return after;
  }
  for (const Service& service : after) {
    if (std::find(same.doubles.begin(), same.doubles.end(), service.channel) != same.doubles.end()) {
      for (Multiplex_line& line : lines_) {
        line.doubles += line.services > 0 && line.result.freq == service.freq ? 1 : 0;
      }
    }
  }
  // An adapter that still receives one of them would find it again.
  engine_->join();
  mark_doubles(database_, same.doubles);
  return reader_->services(false);
}

// Services of frequencies that are not received any more, and that were found elsewhere, keep their rows. False when
// there are none such.
bool Scan_run::keep_moved(const std::vector<Service>& before) {
  std::vector<int> left;
  for (const Multiplex_line& line : lines_) {
    const int freq = line.result.freq;
    const int tuning = line.result.tuning.outcome;
    const bool is_empty = tuning == TUNING_NO_SIGNAL || tuning == TUNING_NO_LOCK || tuning == TUNING_NO_STREAM;
    const bool had_services =
        std::any_of(before.begin(), before.end(), [=](const Service& service) { return service.freq == freq; });
    if (is_empty && had_services) {
      left.push_back(freq);
    }
  }
  if (left.empty()) {
    return false;
  }
  std::vector<Channel_change> changes;  // the report compares for itself
  return database_->keep_moved_channels(0, 0, left, &changes) > 0;
}
