// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/file_room.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/uninterrupted.h"

namespace sdbl {

namespace {

// Bytes that a file may grow by, -1 when its disk does not say.
int64_t disk_space(const char* file) {
  struct statvfs disk {};
  if (file == nullptr || *file == '\0' || uninterrupted([&] { return statvfs(file, &disk); }) != 0 ||
      disk.f_blocks == 0)
    return -1;
  const uint64_t blocks = geteuid() == 0 ? disk.f_bfree : disk.f_bavail;
  const uint64_t block = disk.f_frsize != 0 ? disk.f_frsize : 1;
  return blocks > INT64_MAX / block ? INT64_MAX : static_cast<int64_t>(blocks * block);
}

// Pages that an open transaction has added and not yet written.
int64_t pages_to_write(const char* file, int64_t used, int64_t page_size) {
  struct stat found {};
  if (file == nullptr || uninterrupted([&] { return stat(file, &found); }) != 0)
    return 0;
  return std::max<int64_t>(used - static_cast<int64_t>(found.st_size) / page_size, 0);
}

}  // namespace

int64_t File_room::pragma_number(const char* schema, const char* name) {
  return sql_.silent_number(std::string("PRAGMA ") + schema + "." + name);
}

int64_t File_room::pages_left(const char* schema) {
  Db_lock lock(connection_);
  const int64_t limit = pragma_number(schema, "max_page_count");
  const int64_t used = pragma_number(schema, "page_count");
  const int64_t unused = pragma_number(schema, "freelist_count");
  const int64_t size = pragma_number(schema, "page_size");
  if (limit < 0 || used < 0 || unused < 0 || size <= 0)
    return -1;
  int64_t growth = limit - used;
  const char* const file = sqlite3_db_filename(connection_.get(), schema);
  const int64_t space = disk_space(file);
  if (space >= 0)
    growth = std::min(growth, space / size - pages_to_write(file, used, size));
  return growth + unused;
}

bool File_room::has_room_for_a_row() {
  constexpr int64_t PAGES = 8;  // the schema's, the table's and its index's, each of which may be divided
  const int64_t left = pages_left("main");
  return left < 0 || left >= PAGES;
}

}  // namespace sdbl
