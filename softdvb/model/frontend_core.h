// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/device_profile.h"
#include "softdvb/model/shared.h"

// What the core's thread and the driver of a frontend do by themselves. Neither exists as a thread here: settle() works
// out what they would have done up to now.
namespace softdvb {

inline constexpr uint64_t LOCKED_LOOK_NS = 3000000000;  // the core's nap while there is a lock

// What arrives at the demultiplexer.
struct On_air {
  int mux = -1;  // index in Adapter::mux, -1: nothing
  uint64_t since_ns = 0;
  uint64_t first_filter_ns = 0;  // since the tuning, in any process; 0: none yet
  uint32_t generation = 0;       // changes with every tuning
};
// `adapter`: the record of frontend 0.
On_air frontend_on_air(Adapter& adapter, uint64_t now_ns);

// When the core looks at the driver again; 0: not at all, nobody has the frontend open for writing.
uint64_t frontend_next_look(Adapter& adapter);

// Brings events up to date.
void frontend_settle(Adapter& adapter, uint64_t now_ns);

// All below: REQUIRES the shared lock.

void settle(Adapter& a, uint64_t now_ns);

// Whether this or another program has it open for writing.
bool is_held(Adapter& a, uint64_t now_ns);

// Tunes as FE_SET_FRONTEND does, without checks.
void frontend_tune(Adapter& a, const Tuning& tuning, uint64_t now_ns);
// The first opening for writing after a sleep.
void wake_frontend(Adapter& a, uint64_t now_ns);

// What the driver would say of its lock.
uint32_t driver_status(const Adapter& a, uint64_t now_ns);
uint64_t locked_since(const Adapter& a);
// Index of what is received, locked or not; -1: nothing.
int received_mux(const Adapter& a);
// The readings of a locked frontend on `freq` at a time.
uint32_t signal_value(const Adapter& a, uint32_t freq, Reading reading, uint64_t now_ns);
// What get_frontend makes of the core's parameters.
Tuning reported_tuning(const Adapter& a, uint64_t now_ns);

inline const Device_profile& profile_of(const Adapter& a) {
  return device_profile(a.device);
}

}  // namespace softdvb
