// Keeps the guide file inside its bounds. Without a journal a statement that runs out of pages half-way leaves a
// damaged file, so the room is looked at before it is needed.
#include <sqlite3.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "db/sdbl.h"
#include "db/sdbl_internal.h"

using sdbl::Db_lock;

namespace {

// How many pages are taken on trust before the file is looked at again; other programs may write to the same disk.
constexpr int64_t MOST_ROOM = 1024;

// Pages that the connection has written so far, wrapping around. The guide cannot have grown by more.
unsigned pages_written(sqlite3* conn) {
  int pages = 0;
  int highest = 0;
  (void)sqlite3_db_status(conn, SQLITE_DBSTATUS_CACHE_WRITE, &pages, &highest, 0);  // an existing connection answers
  return static_cast<unsigned>(pages);
}

// The number that a pragma answers, -1 for none. Silent: a guide that cannot be read shows itself at the insert.
int64_t pragma_number(sqlite3* conn, const char* name) {
  const std::string sql = std::string("PRAGMA ") + sdbl::EPG_SCHEMA + "." + name;
  sqlite3_stmt* stmt = nullptr;
  int64_t number = -1;
  if (sqlite3_prepare_v2(conn, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
    number = sqlite3_column_int64(stmt, 0);
  (void)sqlite3_finalize(stmt);  // repeats the step's code; null is allowed
  return number;
}

// Bytes that a file may grow by, -1 when its disk does not say.
int64_t disk_space(const char* file) {
  struct statvfs disk {};
  if (file == nullptr || *file == '\0' || statvfs(file, &disk) != 0 || disk.f_blocks == 0)
    return -1;
  const uint64_t blocks = geteuid() == 0 ? disk.f_bfree : disk.f_bavail;
  const uint64_t block = disk.f_frsize != 0 ? disk.f_frsize : 1;
  return blocks > INT64_MAX / block ? INT64_MAX : static_cast<int64_t>(blocks * block);
}

// Pages that can still be filled, -1 for unknown.
int64_t pages_left(sqlite3* conn) {
  const int64_t limit = pragma_number(conn, "max_page_count");
  const int64_t used = pragma_number(conn, "page_count");
  const int64_t unused = pragma_number(conn, "freelist_count");
  const int64_t size = pragma_number(conn, "page_size");
  if (limit < 0 || used < 0 || unused < 0 || size <= 0)
    return -1;
  int64_t growth = limit - used;
  const int64_t space = disk_space(sqlite3_db_filename(conn, sdbl::EPG_SCHEMA));
  if (space >= 0)
    growth = std::min(growth, space / size);
  return growth + unused;
}

}  // namespace

bool Sdbl::guide_has_room(int needed) {
  Db_lock lock(db);
  const time_t now = time(nullptr);
  const int64_t grown = pages_written(db) - guide_pages_written_;
  if (now != guide_room_looked_ || guide_room_ - grown < needed) {
    guide_room_looked_ = now;
    int64_t left = pages_left(db);
    if (left >= 0 && left < needed && remove_old_entries(epg_max_age, false) > 0)
      left = pages_left(db);
    guide_room_ = left < 0 ? MOST_ROOM : std::min(left, MOST_ROOM);
    guide_pages_written_ = pages_written(db);
    return guide_room_ >= needed;
  }
  return true;
}
