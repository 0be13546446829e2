// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// A failure of the database that means that something was not stored or not read: the disk is full, the file is
// read-only, damaged, locked for too long, or cannot be read. Refused rows are none (they belong to the work of a
// scan).
struct Database_error {
  int code = 0;                // SQLite's extended result code; 0: there was none
  const char* operation = "";  // the operation that failed, by its plain name; never freed
  bool guide_full = false;     // an event was refused, because the guide is as large as it may be or the disk is full
};
