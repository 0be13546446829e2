// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <stddef.h>

// What the preloaded library offers to programs that run on it, such as tests. Found with
// dlsym(RTLD_DEFAULT, "softdvb_control"), so that nothing links with it.
extern "C" {

// One control line, done when the call returns; see docs/softdvb.md. 0, or -1 with a message on standard error.
int softdvb_control(const char* line);

// Gives `size` bytes of 188-byte packets to the demultiplexers of this process, at once and whatever is tuned.
// 0, or -1 when there is no such adapter.
int softdvb_inject(int adapter, const void* packets, size_t size);

// Pace "manual": plays the next `packets` of the tuned stream. Returns how many were played, -1 without adapter.
long softdvb_play(int adapter, unsigned long packets);
}
