// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/repair.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/console.h"
#include "tools/cli/failure.h"
#include "tools/cli/local_time.h"
#include "tools/cli/temporary_folder.h"
#include "tools/database/channel_db.h"
#include "tools/database/folder_of.h"
#include "tools/database/open_to_read.h"
#include "tools/database/statement.h"

namespace {

constexpr int MOST_PROBLEMS = 10;
constexpr char HEADING[] = "*** in database main ***\n";  // of SQLite's list

bool is_damage(int code) {
  return (code & 0xFF) == SQLITE_CORRUPT || (code & 0xFF) == SQLITE_NOTADB;
}

std::string quoted(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> text(sqlite3_mprintf("\"%w\"", name.c_str()), sqlite3_free);
  return text.get();
}

// A statement on a file of which nothing can be expected.
class Rows {
 public:
  Rows(sqlite3* connection, const std::string& sql) {
    code_ = sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement_, nullptr);
  }
  ~Rows() { (void)sqlite3_finalize(statement_); }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  bool next() {
    if (code_ == SQLITE_OK || code_ == SQLITE_ROW) {
      code_ = sqlite3_step(statement_);
    }
    return code_ == SQLITE_ROW;
  }
  bool ended_well() const { return code_ == SQLITE_DONE; }
  int code() const { return code_; }
  std::string text(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return bytes != nullptr ? bytes : "";
  }
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
  int code_ = SQLITE_OK;
};

int count(sqlite3* connection, const std::string& table) {
  Rows rows(connection, "SELECT count(*) FROM " + quoted(table));
  return rows.next() ? sqlite3_column_int(rows.get(), 0) : 0;
}

std::vector<std::string> columns_of(sqlite3* connection, const std::string& table) {
  std::vector<std::string> names;
  for (Rows rows(connection, "PRAGMA table_info(" + quoted(table) + ")"); rows.next();) {
    names.push_back(rows.text(1));
  }
  return names;
}

// Copies the rows that come before the first one that cannot be read. Each for itself, so that one that the new table
// refuses costs no other. True when there is no such one.
bool copy_rows(sqlite3* from, sqlite3* to, const std::string& table, const std::string& columns, size_t number,
               const char* order) {
  std::string places = "?";
  for (size_t i = 1; i < number; ++i) {
    places += ", ?";
  }
  Rows rows(from, fmt::format("SELECT {} FROM {} NOT INDEXED {}", columns, quoted(table), order));
  const Rows insert(to, fmt::format("INSERT OR IGNORE INTO {} ({}) VALUES ({})", quoted(table), columns, places));
  while (rows.next()) {
    for (int i = 0; i < static_cast<int>(number); ++i) {
      (void)sqlite3_bind_value(insert.get(), i + 1, sqlite3_column_value(rows.get(), i));
    }
    (void)sqlite3_step(insert.get());  // a row that breaks the rules is left out
    (void)sqlite3_reset(insert.get());
  }
  return rows.ended_well();
}

// From both ends, since a damaged page in the middle ends each reading.
void rescue(sqlite3* from, sqlite3* to) {
  (void)sqlite3_exec(to, "BEGIN", nullptr, nullptr, nullptr);
  // Tables beside the old ones are made by the library when something is first written to them.
  for (Rows more(from,
                 "SELECT sql FROM sqlite_master WHERE type = 'table' AND name IN ('tuned_multiplex', "
                 "'broadcast_zone', 'service_detail', 'stream_detail', 'stream_language', 'stream_ca') AND sql "
                 "LIKE 'CREATE TABLE %'");
       more.next();) {
    (void)sqlite3_exec(to, more.text(0).c_str(), nullptr, nullptr, nullptr);
  }
  std::vector<std::string> tables;
  for (Rows names(to, "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'");
       names.next();) {
    tables.push_back(names.text(0));
  }
  for (const std::string& table : tables) {
    const std::vector<std::string> old = columns_of(from, table);
    std::string columns = "rowid";
    size_t number = 1;
    for (const std::string& column : columns_of(to, table)) {
      if (std::find(old.begin(), old.end(), column) != old.end()) {
        columns += ", " + quoted(column);
        ++number;
      }
    }
    if (!copy_rows(from, to, table, columns, number, "ORDER BY rowid")) {
      (void)copy_rows(from, to, table, columns, number, "ORDER BY rowid DESC");
    }
  }
  (void)sqlite3_exec(to, "COMMIT", nullptr, nullptr, nullptr);
}

void sync(const std::string& path, int flags) {
  const int handle = ::open(path.c_str(), flags | O_RDONLY | O_CLOEXEC);
  if (handle >= 0) {
    (void)fsync(handle);  // some file systems cannot
    (void)close(handle);
  }
}

[[noreturn]] void fail(const std::string& file, const char* what) {
  throw Failure(fmt::format("{}: cannot be {}: {}", file, what, strerror(errno)));
}

// Gives the damaged file, with what belongs to it, another name; the file itself stays until the new one replaces it.
std::string set_aside(const std::string& file) {
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0) {
    return "";
  }
  const std::string stem = file + ".damaged-" + local_time(time(nullptr), "%Y%m%d-%H%M%S");
  std::string aside = stem;
  for (int number = 2; lstat(aside.c_str(), &status) == 0; ++number) {
    aside = fmt::format("{}-{}", stem, number);
  }
  for (const char* ending : {"-wal", "-shm", "-journal"}) {
    if (lstat((file + ending).c_str(), &status) == 0 &&
        rename((file + ending).c_str(), (aside + ending).c_str()) != 0) {
      fail(file + ending, "moved aside");
    }
  }
  // Where there are no second names, there is a moment without any file.
  if (link(file.c_str(), aside.c_str()) != 0 && rename(file.c_str(), aside.c_str()) != 0) {
    fail(file, "moved aside");
  }
  return aside;
}

// Nobody may go on writing to a file that is moved away. What can be taken over of a log is.
void require_unused(const std::string& file) {
  const Connection connection = open_to_check(file);
  for (const char* step : {"PRAGMA journal_mode = DELETE", "BEGIN EXCLUSIVE"}) {
    Rows alone(connection.get(), step);
    (void)alone.next();
    if ((alone.code() & 0xFF) == SQLITE_BUSY) {
      throw Failure(fmt::format("{}: in use by another program; try again later", file));
    }
  }
}

}  // namespace

std::string good_copy_of(const std::string& file) {
  return file + ".good";
}

void keep_good_copy(Sdbl* database, const std::string& file) {
  if (Channel_db(file).services(false).empty()) {
    return;
  }
  const std::string copy = good_copy_of(file);
  try {
    database->backup_channel_database(copy.c_str());
  } catch (const no_file_error&) {
    console::say(fmt::format("kelvo: {}: the copy for 'kelvo check --repair' cannot be written", copy));
  }
}

File_state look_at(const std::string& file, const std::string& table) {
  File_state out;
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      throw Failure(fmt::format("{}: {}", file, strerror(errno)));
    }
    out.state = File_state::MISSING;
    return out;
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(fmt::format("{}: not a file; name another one with --db", file));
  }
  const Connection connection = open_to_check(file);
  (void)sqlite3_exec(connection.get(), "PRAGMA ignore_check_constraints = ON", nullptr, nullptr, nullptr);
  Rows check(connection.get(), fmt::format("PRAGMA integrity_check({})", MOST_PROBLEMS));
  while (check.next()) {
    std::string line = check.text(0);
    if (line.starts_with(HEADING)) {
      line.erase(0, sizeof(HEADING) - 1);
    }
    if (line != "ok") {
      std::replace(line.begin(), line.end(), '\n', ' ');
      out.problems.push_back(line);
    }
  }
  if (!check.ended_well()) {
    if (!is_damage(check.code())) {
      const bool busy = (check.code() & 0xFF) == SQLITE_BUSY;
      throw Failure(busy ? fmt::format("{}: in use by another program; try again later", file)
                         : fmt::format("{}: cannot be read: {}", file, sqlite3_errmsg(connection.get())));
    }
    out.problems.emplace_back(sqlite3_errmsg(connection.get()));
  }
  out.state = out.problems.empty() ? File_state::SOUND : File_state::DAMAGED;
  out.rows = out.problems.empty() ? count(connection.get(), table) : 0;
  return out;
}

Repair mend(const std::string& file, const std::string& table, const std::string& copy) {
  Repair out;
  const Temporary_folder folder(folder_of(file) + "/.kelvo-repair-XXXXXX");
  // A name of which the guide's is that of the guide.
  const std::string channels = folder.file("new.db");
  std::string made = channels;
  const bool exists = look_at(file, table).state != File_state::MISSING;
  if (!copy.empty()) {
    std::error_code error;
    std::filesystem::copy_file(copy, made, error);
    if (error) {
      throw Failure(fmt::format("{}: cannot be copied: {}", copy, error.message()));
    }
    out.from = copy;
  } else {
    try {
      const Sdbl tables(channels.c_str());
    } catch (const no_file_error& failure) {
      throw Failure(fmt::format("{}: cannot be made: {}", channels, failure.what()));
    }
    made = table == "epglist" ? folder.file("new_epg.db") : channels;
    if (exists) {
      const Connection from = open_to_read(file), to = open_to_check(made);
      rescue(from.get(), to.get());
    }
  }
  const File_state state = look_at(made, table);
  if (state.state != File_state::SOUND) {
    throw Failure(fmt::format("{}: cannot be repaired: the new file is not sound; is the disk full?", file));
  }
  out.rows = state.rows;
  sync(made, 0);
  if (exists) {
    require_unused(file);
    out.aside = set_aside(file);
  }
  if (rename(made.c_str(), file.c_str()) != 0) {
    const int error = errno;
    if (!out.aside.empty() && access(file.c_str(), F_OK) != 0) {
      (void)rename(out.aside.c_str(), file.c_str());  // as it was
    }
    errno = error;
    fail(file, "replaced");
  }
  sync(folder_of(file), O_DIRECTORY);
  return out;
}
