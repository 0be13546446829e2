// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <functional>
#include <string>

// Calls that the library makes, as it made them: functions of SQLite and of libc are replaced for the whole program.
// They do what they always do, but for waiting, which takes no time.
namespace system_calls {

// From here on, what is called, a line each: "busy_timeout a_epg.db 2000", "extended_result_codes a.db 1",
// "synchronous_off a.db", "backup_step -1", "sleep 10", "system rm ...", "fsync", "rename a.db_exp b.db".
void record();
std::string recorded();  // and forgets it

// Microseconds that SQLite has waited for locks since record().
long waited_us();

// Called at each such wait, by the thread that waits; null for nothing.
void on_wait(std::function<void()> action);

// What time() answers; 0 for the clock again.
void set_time(time_t now);

}  // namespace system_calls
