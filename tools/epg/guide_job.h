// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <kelvo/kelvo.h>

#include "tools/database/channel_db.h"
#include "tools/engine/engine.h"

enum class Guide_state { COLLECTING, COMPLETE, NO_SCHEDULE };

struct Guide_progress {
  EIT_progress service{};
  Guide_state state = Guide_state::COLLECTING;
};

enum class Guide_outcome {
  WAITING,
  RUNNING,
  DONE,
  TIME_UP,
  NOTHING_NEW,
  NO_LOCK,  // `tuning` says why
  NO_STREAM,
  NO_SERVICES,
  OUT_OF_RANGE,
  DEVICE_GONE,
  STOPPED
};

struct Guide_multiplex {
  int freq = 0;
  Guide_outcome outcome = Guide_outcome::WAITING;
  std::vector<Guide_progress> services{};
  Tuning_result tuning{};
  std::vector<Lost_sections> lost{};

  // Its end has come, whatever it was.
  bool over() const { return outcome != Guide_outcome::WAITING && outcome != Guide_outcome::RUNNING; }
};

std::string outcome_text(const Guide_multiplex& multiplex);

// The frequencies, ascending, of those services that are still there; of all where none is.
std::vector<int> multiplexes_with_guide(const std::vector<Service>& services);

// What adapters do for `kelvo epg update`: they stay on each multiplex until its guide is collected. Any thread.
class Guide_job {
 public:
  using Time = Adapter::Clock::time_point;

  // `seconds` for everything, shared by the multiplexes. The engine is not owned.
  Guide_job(const std::vector<int>& freqs, int seconds, const Engine* engine);

  void work(Adapter& adapter, const Tuning_request& request);
  // All of them, in the order of the frequencies given, as they are now.
  std::vector<Guide_multiplex> multiplexes() const;

 private:
  Time share_ends() const;
  Guide_outcome collect(Adapter& adapter, const Tuning_request& request, Time end);
  void change(int freq, Guide_outcome outcome);
  void show_tuning(int freq, const Tuning_result& tuning);
  void show(int freq, const std::vector<Guide_progress>& services, const std::vector<Lost_sections>& lost);

  Time end_;
  const Engine* engine_;
  mutable std::mutex mutex_;  // guards multiplexes_
  std::vector<Guide_multiplex> multiplexes_;
};
