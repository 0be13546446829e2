// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/shared.h"

// The one writer of a frontend among all processes of the command: whoever has the lock on a file of the run folder,
// because the kernel lets that go when its holder dies. Where an adapter has two frontends, all who have one open share
// the lock on another file.
namespace softdvb {

// An open file whose lock follows the descriptors over dup and fork, and ends with the last of them; -1: taken.
int take_writer_lock(const Adapter& a, bool close_on_exec);

// The same of all who have it open, for reading or writing.
int take_user_lock(const Adapter& a, bool close_on_exec);
bool has_users(const Adapter& a);

// REQUIRES the shared lock.
bool has_writer(Adapter& a, uint64_t now_ns);

}  // namespace softdvb
