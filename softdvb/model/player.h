// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>

#include "softdvb/model/shared.h"

// Plays the stream of the tuned frequency into this process's demultiplexers. The position follows from the shared
// clock, so every process of the command sees the same stream. Calls bring the state up to date themselves; a thread
// runs beside them, only while something is started, so that waiting programs are woken.
namespace softdvb {

// Brings demultiplexers, frontends and readiness up to date. REQUIRES Device_lock.
void player_advance();

// Something was started, stopped, tuned or changed: the thread looks again, and is made when there is none.
// REQUIRES Device_lock.
void player_wake();

// A reader took something: a player that waits for room goes on. REQUIRES Device_lock.
void player_made_room();

// Pace "manual": plays the next `packets` now. Returns how many there were. REQUIRES Device_lock.
uint64_t player_step(int adapter_index, uint64_t packets);

// Gives packets straight to the demultiplexers of this process. REQUIRES Device_lock.
void player_inject(int adapter_index, const uint8_t* packets, size_t size);

// A filter was started: streams that wait for it begin. REQUIRES Device_lock.
void player_filter_started(int adapter_index);

void player_after_fork();

}  // namespace softdvb
