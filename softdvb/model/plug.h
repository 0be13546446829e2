// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/shared.h"

// Devices that are pulled out and put in again while programs hold them, as Linux's DVB core lets them notice: the
// frontend goes from its folder at once, the others when their last handle is closed. Handles from before are never
// good again. REQUIRES the shared lock for everything.
namespace softdvb {

// Plain files under the names of the devices: listing, access and permissions then work by themselves.
void make_device_nodes(const Adapter& a);

// Both do nothing when it is so already.
void unplug(Adapter& a);
void plug_in(Adapter& a);

// What `--unplug` and `--replug` ask for by now. Returns when there is more to do, in the adapters' time; 0: never.
uint64_t plug_by_time(Shared& s, uint64_t now_ns);

// A demultiplexer handle was closed.
void remove_unused_nodes(const Adapter& a);

}  // namespace softdvb
