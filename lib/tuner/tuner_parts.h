// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "base/receiver_profile.h"
#include "tuner/device.h"
#include "tuner/frontend.h"
#include "tuner/lock_rule.h"
#include "tuner/monitor_thread.h"
#include "tuner/readings.h"
#include "tuner/signal_monitor.h"
#include "tuner/tuner.h"
#include "tuner/tuning_search.h"
#include "tuner/turn.h"

// What stands behind a Tuner; not installed. The parts are built and used in this order: device, readings, monitor;
// what the profile switches is chosen here and nowhere else.
class Tuner::Parts {
 public:
  // Opens the device; starts nothing. `tuner` and `database` are not owned.
  Parts(Tuner* tuner, const char* path, Sdbl* database, Input where_to_tune, const Receiver_profile& its_profile);

  // For Kelvo, when a device has gone: true once it is open again.
  bool open_again();
  // True once a call was answered with ENODEV. Any-thread.
  bool gone() const;

  // Never waits for the database: what cannot be stored at once is kept for save_tunings().
  Tuning_result tune(Tuning_request request);
  void save_tunings();

  const Receiver_profile profile;
  Device device;
  const std::unique_ptr<Frontend> frontend;
  const std::unique_ptr<Readings> readings;
  std::atomic<bool> receives_t2{false};
  const std::unique_ptr<Lock_rule> lock;
  Tuning_search search;
  Signal_monitor monitor;
  Sdbl* const db;
  const Input input;  // whose stored parameters count
  Turns turns;
  std::atomic<bool> firmware_missing{false};
  std::atomic<bool> firmware_asked{false};
  std::atomic<int> channel{-1};
  std::atomic<int> next_freq{0};    // Hz
  std::atomic<int> last_system{0};  // that locked; 0: none yet
  std::atomic<int> locked_key{0};   // Tuning_result::key of what is locked; 0: nothing

  mutable Mutex result_lock{Lock_rank::ALONE, "last tuning"};  // guards the following; a leaf
  Tuning_result result;
  std::vector<int> systems;  // all that the device receives

  TunerMonitorThread thread;
  bool thread_started = false;

 private:
  void ask_device();
  Known_tuning known(const Tuning_request& request);
  void recall(Tuning_request* request, Known_tuning* known);
  void keep(const Tuning_result& result, const Turn& turn);
};
