// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "base/mutex.h"
#include "db/guide_room.h"
#include "db/one_shot.h"

namespace sdbl {

// Copies of the two files. The exports of a process run one after the other. Any-thread.
class Exports {
 public:
  Exports(const Connection& connection, One_shot& sql, Guide_room& room)
      : connection_(connection), sql_(sql), room_(room) {}

  // The operations set_backup_file_name, backup_database and backup_channel_database of Sdbl.
  void set_guide_target(const char* file);
  void export_guide();
  void export_channels(const char* file);

 private:
  bool copy_guide(sqlite3* to);
  void sync_all() const;

  const Connection& connection_;
  One_shot& sql_;
  Guide_room& room_;

  Mutex lock_{Lock_rank::DATABASE_LEAF, "name of exports"};  // guards the name
  std::string guide_target_;
};

}  // namespace sdbl
