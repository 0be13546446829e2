// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// What becomes of the files when the process is killed or the power fails.
enum class Durability {
  // Neither journal nor sync, as boxes with flash memory want it. A process that is killed in the middle of a write, or
  // a
  // power cut, may damage a file, which the next opening recognises.
  NONE,
  // A write-ahead log (SQLite's WAL mode) beside each file. Nothing damages a file. What was committed to the channel
  // file is on the disk when the operation returns; of the guide, a power cut may lose the last events. While a file is
  // open, others belong to it (NAME-wal, NAME-shm); they go with the last program that closes it, and those that a
  // killed process leaves are taken over by whoever opens the file next, in either mode. Where a file system cannot
  // share memory, a rollback journal takes the log's place.
  FULL,
};
