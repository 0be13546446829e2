// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/open_to_read.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <fstream>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/database/statement.h"

namespace {

Connection open_plainly(const std::string& file, const std::string& name, int flags) {
  sqlite3* connection = nullptr;
  const int code = sqlite3_open_v2(name.c_str(), &connection, flags, nullptr);
  Connection owner(connection);
  if (code != SQLITE_OK) {
    if (access(file.c_str(), R_OK) != 0 && errno == EACCES) {
      throw Failure(fmt::format("{}: permission denied", file));
    }
    throw Failure(fmt::format("{}: cannot be opened: {}", file, sqlite3_errstr(code)));
  }
  (void)sqlite3_busy_timeout(connection, BUSY_WAIT_MS);
  return owner;
}

// Neither log nor shared memory is looked for by this name.
std::string name_of_unchanging(const std::string& file) {
  std::string name = file.starts_with('/') ? "file://" : "file:";
  for (const char c : file) {
    const auto byte = static_cast<unsigned char>(c);
    name += std::isalnum(byte) != 0 || c == '/' || c == '.' ? std::string(1, c) : fmt::format("%{:02X}", byte);
  }
  return name + "?immutable=1";
}

// The file's own word for it, at offset 18 of its header.
bool has_log(const std::string& file) {
  std::array<char, 19> header{};
  return std::ifstream(file, std::ios::binary).read(header.data(), header.size()) && header.back() == 2;
}

Connection open_with(const std::string& file, int flags) {
  Connection connection = open_plainly(file, file, flags);
  const int code = sqlite3_exec(connection.get(), "SELECT 1 FROM sqlite_master", nullptr, nullptr, nullptr) & 0xFF;
  if ((code != SQLITE_CANTOPEN && code != SQLITE_READONLY) || !has_log(file)) {
    return connection;
  }
  struct stat log {};
  if (stat((file + "-wal").c_str(), &log) == 0 && log.st_size > 0) {
    throw Failure(fmt::format("{}: needs {}-wal, which cannot be used here; copy both to a folder that can be written",
                              file, file));
  }
  return open_plainly(file, name_of_unchanging(file), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

}  // namespace

Connection open_to_read(const std::string& file) {
  return open_with(file, SQLITE_OPEN_READONLY);
}

Connection open_to_check(const std::string& file) {
  return open_with(file, SQLITE_OPEN_READWRITE);
}
