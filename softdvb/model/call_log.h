// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The log that tests read: one line a call, "SECONDS PID TID CALL ARGUMENTS = RESULT [ERRNO]", times in virtual seconds
// since the command started.
namespace softdvb {

bool log_enabled();

// Keeps errno. `result` is libc's; with -1 the name of errno is added.
__attribute__((format(printf, 2, 3))) void log_call(long result, const char* format, ...);

}  // namespace softdvb
