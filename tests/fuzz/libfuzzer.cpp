// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// One entry as a libFuzzer program.
#include <sqlite3.h>

#include "fuzz/entries.h"

// One thread, and files of this process only: SQLite need not lock anything, which is a fifth of the time of some
// entries.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
  (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  return sqlite3_vfs_register(sqlite3_vfs_find("unix-none"), 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::FUZZ_ENTRY(data, size);
}
