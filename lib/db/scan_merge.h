// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "base/multiplex.h"
#include "base/types.h"
#include "db/errors.h"
#include "db/file_room.h"
#include "db/one_shot.h"
#include "db/statements.h"
#include "db/stream_details.h"

namespace sdbl {

enum class Merge_outcome {
  DONE,
  BUSY,     // another program kept the file locked: printed, and nothing was written
  NO_ROOM,  // the file, or its disk, could not take what was found: printed, and nothing was written
  FAILED,   // a statement failed: printed, and what was written is undone
};

struct Merge_end {
  Merge_outcome outcome = Merge_outcome::DONE;
  int changes = 0;  // the bits of Sdbl::update_master_scan_data; 0 when nothing was written
};

// True, which is printed, when rows of what is on air may be missing in the adapter's scan tables for want of memory,
// or the merge itself had none: services would be lost that were only not written down.
bool lacks_memory(const Errors& errors, int dvbnr, int freq);

// Prints and remembers that Transaction::moved().
void report_moved(Errors& errors, int freq);

// A merge as a whole, in one transaction: it is done when the channel file can take it for certain, or nothing is
// written, the details of its streams included. The scan tables stay as they are in any case. Worker-only.
class Scan_merge {
 public:
  Scan_merge(Connection& connection, One_shot& sql, const Statements& statements, Errors& errors, File_room& room,
             Stream_details& details)
      : connection_(connection), sql_(sql), statements_(statements), errors_(errors), room_(room), details_(details) {}

  Merge_end run(int dvbnr, const Multiplex& multiplex, SCAN_STATE state);

 private:
  bool fits(int dvbnr);
  bool adds_nothing(int dvbnr, int freq, SCAN_STATE state);
  int64_t bytes_found(int dvbnr);
  int64_t number_of(int dvbnr, const char* sql);

  Connection& connection_;
  One_shot& sql_;
  const Statements& statements_;
  Errors& errors_;
  File_room& room_;
  Stream_details& details_;
};

}  // namespace sdbl
