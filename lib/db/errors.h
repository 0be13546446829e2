// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/mutex.h"
#include "db/database_error.h"

namespace sdbl {

// Where a failure is reported from: the plain name of the operation, a literal, and the line of the source. A bare name
// takes the line that it stands on.
struct Operation {
  constexpr Operation(const char* operation, int at = __builtin_LINE()) : name(operation), line(at) {}

  const char* name;
  int line;
};

// The failures of one database: prints those that an operation reports, and remembers the first one that means that a
// file was not written or not read. Any-thread.
class Errors {
 public:
  // Each prints a code that is no success, remembers it when it is a failure of a file, and returns it.
  int report_exec(int rc, Operation operation);
  int report_run(int rc, Operation operation);
  int report_reset(int rc, Operation operation);
  int report_get_int(int rc, Operation operation);
  int report_get_txt(int rc, Operation operation);

  // Remembers without printing; any other code than a failure of a file is left out. The second form is for an event
  // that was refused because there is no room for it.
  void remember(int rc, const char* operation);
  void remember_full_guide(const char* operation);

  // False, and `*error` cleared, when nothing was remembered since the last call of forget().
  bool first(Database_error* error) const;
  void forget();

  // The same for an adapter (0 to 3; others remember nothing), which forgets for itself: its worker asks for the
  // failures since its scan began, whichever adapter they came from.
  bool first_since_watch(int adapter, Database_error* error) const;
  void watch(int adapter);

  // True when there was no memory for a statement since the adapter's scan tables were empty, whoever made it: rows of
  // what is on air may be missing there.
  bool short_of_memory(int adapter) const;
  void begin_scan_tables(int adapter);

 private:
  void remember(const Database_error& error);

  static constexpr int ADAPTERS = 4;

  // Guards what follows; nothing else is locked while it is held.
  mutable Mutex lock_{Lock_rank::DATABASE_LEAF, "first failures"};
  Database_error first_;
  Database_error first_of_adapter_[ADAPTERS];
  bool short_of_memory_[ADAPTERS]{};
};

// A result of SQLite, extended or not, that means that a file cannot be written or read. A lock counts once the busy
// time-out is over, which is when SQLite returns it.
bool is_file_failure(int rc);

}  // namespace sdbl
