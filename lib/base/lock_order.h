// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// In which order a thread may take the library's locks (docs/threads.md). Not installed. Where KELVO_CHECK_LOCKS is
// defined, as in all builds for tests, each taking is compared with it, and one that breaks it prints both locks and
// ends the process; otherwise nothing of this is compiled.

// A lock may be taken while those of lower ranks are held.
enum class Lock_rank : uint8_t {
  EXPORTING,      // one export at a time
  OPENING,        // a connection is opened or closed
  WRITING,        // several rows that belong together are inserted
  CONNECTION,     // a connection's own mutex, which may be taken several times
  DATABASE_LEAF,  // the database's small ones
  ALONE,          // all others: never while another one is held, and none while one of them is
};

namespace lock_order {
#ifdef KELVO_CHECK_LOCKS
// Called before the calling thread waits for a lock, and after it gave it back. `lock` is only compared, `name`
// (static) is for the message.
void take(Lock_rank rank, const void* lock, const char* name);
void give(const void* lock);
// Ends the process with a message unless the calling thread holds none: hosts are called back like this.
void hold_none(const char* what);
#else
inline void take(Lock_rank /*rank*/, const void* /*lock*/, const char* /*name*/) {}
inline void give(const void* /*lock*/) {}
inline void hold_none(const char* /*what*/) {}
#endif
}  // namespace lock_order
