// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <set>

#include "base/multiplex.h"
#include "db/statements.h"

namespace sdbl {

// The operation that failures of a merge are reported under, and the bits of its result.
inline constexpr char MERGE_OPERATION[] = "update_master_scan_data";
inline constexpr int CHANNELS_LOST = 1;
inline constexpr int CHANNELS_ADDED = 2;
inline constexpr int STREAMS_DELETED = 16;
inline constexpr int STREAMS_ADDED = 32;

// Brings estreams up to date with the scanned streams of adapter `dvbnr`, which have the numbers of their channels by
// then. One object does one merge.
class Stream_merge {
 public:
  Stream_merge(const Statements& statements, int dvbnr, const Multiplex& multiplex)
      : statements_(statements), dvbnr_(dvbnr), multiplex_(multiplex) {}

  // Gives scanned streams of one number another one.
  void renumber(int from, int to);

  // All channels of the multiplex whose row is not marked as old.
  void run();

  int added() const { return added_; }
  int deleted() const { return deleted_; }
  const std::set<int>& changed() const { return changed_; }  // channels

 private:
  void merge_channel(int channel);

  const Statements& statements_;
  const int dvbnr_;
  const Multiplex multiplex_;
  int added_ = 0;
  int deleted_ = 0;
  std::set<int> changed_;
};

}  // namespace sdbl
