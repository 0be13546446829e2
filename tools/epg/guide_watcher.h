// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <vector>

#include "tools/epg/guide_job.h"

// How far the guide of one multiplex has come, seen from outside by looking again and again: which services are
// complete, which never will be. One thread.
class Guide_watcher {
 public:
  using Time = Guide_job::Time;

  explicit Guide_watcher(Time begun) : changed_(begun), first_table_begun_(begun) {}

  // What `progress` says at `now`.
  std::vector<Guide_progress> look(const std::vector<EIT_progress>& progress, Time now);
  // Nothing has changed for so long that nothing will.
  bool stuck(Time now) const;

 private:
  bool announced(bool schedules, Time now) const;

  std::vector<EIT_progress> last_;
  Time changed_;
  Time first_table_begun_;
  std::optional<Time> schedule_begun_;
};

// Whether any service has got to its first table.
bool begun(const std::vector<EIT_progress>& progress);
