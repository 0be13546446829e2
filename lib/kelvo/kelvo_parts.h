// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "base/multiplex.h"
#include "kelvo/kelvo.h"
#include "kelvo/listeners.h"
#include "kelvo/request_box.h"
#include "kelvo/tuner_slot.h"

// What a Kelvo is made of: the box where hosts leave requests, the tuner's slot, the listeners, and what it owns of
// other folders. Everything but the worker is built before the worker is started and lives until it has been joined.
class Kelvo::Parts {
 public:
  Parts(Kelvo* kelvo, int adapter, Input input, Sdbl* database, bool tuner_connected, change_callback_t on_change,
        const Receiver_profile& its_profile);
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  void start_worker();
  // Tells the worker to end and joins it.
  void end_worker();

  // Makes a tuner and puts it into the slot, unless another thread has done so meanwhile.
  void connect_tuner();
  // True when the tuner is locked on `freq` (Hz) already; false without one.
  bool tuned_to(int freq);
  // The frequency (Hz) that the multiplex is known by; 0 when there is no lock. Without a tuner every frequency is as
  // good as tuned.
  int tune(const Tuning_request& request);
  // Leaves a request for the worker and ends its wait.
  void post(const Request& request);
  // Ends the worker's wait, or its next one.
  void wake();

  // True once the tuner's device or the demultiplexer has gone, where the profile watches that. Worker-only.
  bool device_gone();
  // Closes what is open of it: until then the kernel keeps its number, and the device comes back under another one.
  // Worker-only.
  void release_device();
  // True when the device can be used again. Worker-only.
  bool open_device_again();

  const int adapter;
  const Input input;
  Sdbl& database;
  const change_callback_t change_callback;
  const Receiver_profile profile;

  Request_box requests;
  Listeners listeners;

  // Deleted from the last to the first.
  KelvoMainThread worker;
  Tuner_slot tuner;
  std::atomic_flag tuner_switches;  // set while a thread puts a tuner in or takes it out
  Section_filter filter;
  Siparse parser;

 private:
  bool worker_started_ = false;
};
