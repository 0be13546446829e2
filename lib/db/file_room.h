// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

#include "db/one_shot.h"

namespace sdbl {

// How far the files can still grow. Without a journal a statement that runs out of pages half-way leaves a damaged
// file, so the room is looked at before it is needed. Prints nothing. Any-thread.
class File_room {
 public:
  File_room(const Connection& connection, One_shot& sql) : connection_(connection), sql_(sql) {}

  // Pages of the file of `schema` ("main" or "epg_db") that can still be filled: within its page limit, among its
  // unused pages and on its disk. -1 when that cannot be told, as of a file that cannot be read.
  int64_t pages_left(const char* schema);

  // Whether the channel file can take a row of a small table, and the table.
  bool has_room_for_a_row();

 private:
  int64_t pragma_number(const char* schema, const char* name);

  const Connection& connection_;
  One_shot& sql_;
};

}  // namespace sdbl
