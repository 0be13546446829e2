// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "base/multiplex.h"
#include "tuner/frontend.h"
#include "tuner/monitor_thread.h"
#include "tuner/readings.h"
#include "tuner/signal_monitor.h"
#include "tuner/tuner.h"

// What stands behind a Tuner; not installed. The parts are built and used in this order: device, readings, monitor.
// No other folder needs more of a tuner than its public operations.
class Tuner::Parts {
 public:
  // Opens the device; starts nothing. `tuner` and `database` are not owned.
  Parts(Tuner* tuner, const char* path, Sdbl* database, Input where_to_tune)
      : frontend(path),
        readings(frontend),
        monitor(frontend, readings),
        db(database),
        input(where_to_tune),
        thread(tuner) {}

  Frontend frontend;
  Readings readings;
  Signal_monitor monitor;
  Sdbl* const db;
  const Input input;  // whose stored parameters count
  std::atomic<int> channel{-1};
  std::atomic<int> next_freq{0};  // Hz
  TunerMonitorThread thread;
  bool thread_started = false;
};
