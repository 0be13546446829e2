// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/guide_watcher.h"

#include <base/ids.h>

#include <algorithm>
#include <chrono>

namespace {

using std::chrono::seconds;

// Schedules of the next days come every 10 s, later ones every 30 s (TR 101 211, 4.4): what has not been announced by
// then is not sent.
constexpr seconds ANNOUNCED_AFTER{35};
// The library waits 180 s for a service that began and went silent; when nothing at all has changed for longer, nobody
// sends the table that it waits for.
constexpr seconds STUCK_AFTER{200};

// Complete is told from outside: the table of the last announced number has all its sections, or the round has gone
// beyond it.
Guide_state state_of(const EIT_progress& service, bool announced) {
  if (service.whole) {
    return !service.done             ? Guide_state::COLLECTING
           : service.last_table == 0 ? Guide_state::NO_SCHEDULE
                                     : Guide_state::COMPLETE;
  }
  if (service.last_table != 0 &&
      (service.table > service.last_table || (service.table == service.last_table && service.done))) {
    return Guide_state::COMPLETE;
  }
  if (service.last_table == 0 && (announced || service.table > table::EIT_SCHEDULE_FIRST)) {
    return Guide_state::NO_SCHEDULE;
  }
  return Guide_state::COLLECTING;
}

bool same(const std::vector<EIT_progress>& a, const std::vector<EIT_progress>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const EIT_progress& one, const EIT_progress& other) {
    return one.service_id == other.service_id && one.table == other.table && one.last_table == other.last_table &&
           one.active == other.active && one.done == other.done && one.events == other.events &&
           one.sections == other.sections;
  });
}

}  // namespace

bool begun(const std::vector<EIT_progress>& progress) {
  return std::any_of(progress.begin(), progress.end(), [](const EIT_progress& service) { return service.table != 0; });
}

std::vector<Guide_progress> Guide_watcher::look(const std::vector<EIT_progress>& progress, Time now) {
  // The waiting for schedules is counted from the first table: tuning and scanning take a different time on every
  // multiplex.
  if (!begun(progress)) {
    first_table_begun_ = now;
  }
  if (!same(progress, last_)) {
    last_ = progress;
    changed_ = now;
  }
  const bool schedules = std::any_of(progress.begin(), progress.end(), [](const EIT_progress& service) {
    return service.table >= table::EIT_SCHEDULE_FIRST;
  });
  if (schedules && !schedule_begun_) {
    schedule_begun_ = now;
  }
  const bool all_announced = announced(schedules, now);
  std::vector<Guide_progress> out;
  out.reserve(progress.size());
  for (const EIT_progress& service : progress) {
    out.push_back({service, state_of(service, all_announced)});
  }
  return out;
}

bool Guide_watcher::announced(bool schedules, Time now) const {
  if (schedules) {
    return now - *schedule_begun_ > ANNOUNCED_AFTER;
  }
  // Without any present event nobody ever gets to the schedules.
  return now - first_table_begun_ > ANNOUNCED_AFTER && now - changed_ > ANNOUNCED_AFTER;
}

bool Guide_watcher::stuck(Time now) const {
  return now - changed_ > STUCK_AFTER;
}
