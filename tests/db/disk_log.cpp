// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "disk_log.h"

#include <dlfcn.h>

#include <cstdarg>

#include "support/support.h"
#include "support/text.h"

namespace {

constexpr size_t SECTOR = 512;

enum class Kind { WRITE, TRUNCATE, SYNC, MAKE, RENAME, REMOVE, SYNC_NAMES, MARK };

struct Call {
  Kind kind;
  int file = 0;        // which, whatever its names
  int64_t number = 0;  // offset, length, or the mark
  std::string bytes;
  std::string name;
  std::string new_name;
};

struct Log {
  std::mutex lock;  // guards all of it
  std::string folder;
  std::map<std::string, std::string> contents_before;  // by name
  std::map<std::string, int> names;                    // of the files as they are now
  std::map<int, int> open_files;                       // by descriptor
  std::map<int, bool> open_folders;
  std::vector<Call> calls;
  int files = 0;
};

Log& log() {
  static Log* const one = new Log;  // also for what runs when the program ends
  return *one;
}

template <typename Function>
Function* next(const char* name, Function* /* the one here */) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The name of a path in the folder; empty for others.
std::string name_of(const char* path) {
  const std::string start = log().folder + "/";
  return !log().folder.empty() && std::string(path).starts_with(start) ? path + start.size() : "";
}

void opened(const char* path, int handle) {
  const std::lock_guard<std::mutex> guard(log().lock);
  if (handle < 0 || log().folder.empty())
    return;
  std::string folder = path;
  while (folder.size() > 1 && folder.back() == '/')
    folder.pop_back();
  if (folder == log().folder)
    log().open_folders[handle] = true;
  const std::string name = name_of(path);
  if (name.empty())
    return;
  const auto [known, is_new] = log().names.try_emplace(name, log().files);
  if (is_new)
    log().calls.push_back({Kind::MAKE, log().files++, 0, "", name, ""});
  log().open_files[handle] = known->second;
}

void add(int handle, Kind kind, int64_t number, const void* bytes = nullptr, size_t size = 0) {
  const std::lock_guard<std::mutex> guard(log().lock);
  const auto file = log().open_files.find(handle);
  if (file != log().open_files.end())
    log().calls.push_back({kind, file->second, number, std::string(static_cast<const char*>(bytes), size), "", ""});
  else if (kind == Kind::SYNC && log().open_folders.contains(handle))
    log().calls.push_back({Kind::SYNC_NAMES, 0, 0, "", "", ""});
}

void write_at(std::string& file, int64_t at, const char* bytes, size_t size) {
  if (file.size() < static_cast<size_t>(at) + size)
    file.resize(static_cast<size_t>(at) + size, '\0');
  file.replace(static_cast<size_t>(at), size, bytes, size);
}

}  // namespace

extern "C" {

int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const int handle = next("open64", open64)(path, flags, mode);
  opened(path, handle);
  return handle;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const int handle = next("open", open)(path, flags, mode);
  opened(path, handle);
  return handle;
}

int close(int handle) {
  {
    const std::lock_guard<std::mutex> guard(log().lock);
    log().open_files.erase(handle);
    log().open_folders.erase(handle);
  }
  return next("close", close)(handle);
}

ssize_t pwrite64(int handle, const void* bytes, size_t size, off64_t at) {
  const ssize_t written = next("pwrite64", pwrite64)(handle, bytes, size, at);
  if (written > 0)
    add(handle, Kind::WRITE, at, bytes, static_cast<size_t>(written));
  return written;
}

ssize_t write(int handle, const void* bytes, size_t size) {
  const off_t at = lseek(handle, 0, SEEK_CUR);
  const ssize_t written = next("write", write)(handle, bytes, size);
  if (written > 0 && at >= 0)
    add(handle, Kind::WRITE, at, bytes, static_cast<size_t>(written));
  return written;
}

int ftruncate64(int handle, off64_t length) noexcept {
  const int result = next("ftruncate64", ftruncate64)(handle, length);
  if (result == 0)
    add(handle, Kind::TRUNCATE, length);
  return result;
}

// Only the model's disk has to be waited for.
int fsync(int handle) {
  add(handle, Kind::SYNC, 0);
  return 0;
}

int fdatasync(int handle) {
  add(handle, Kind::SYNC, 0);
  return 0;
}

int unlink(const char* path) noexcept {
  const int result = next("unlink", unlink)(path);
  const std::lock_guard<std::mutex> guard(log().lock);
  if (result == 0 && log().names.erase(name_of(path)) != 0)
    log().calls.push_back({Kind::REMOVE, 0, 0, "", name_of(path), ""});
  return result;
}

int rename(const char* from, const char* to) noexcept {
  const int result = next("rename", rename)(from, to);
  const std::lock_guard<std::mutex> guard(log().lock);
  const auto known = log().names.find(name_of(from));
  if (result == 0 && known != log().names.end()) {
    const int file = known->second;
    log().names.erase(known);
    log().names[name_of(to)] = file;
    log().calls.push_back({Kind::RENAME, file, 0, "", name_of(from), name_of(to)});
  }
  return result;
}

}  // extern "C"

namespace disk_log {

void record(const std::string& folder) {
  std::map<std::string, std::string> contents;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    contents[entry.path().filename()] = support::read_file(entry.path());
  const std::lock_guard<std::mutex> guard(log().lock);
  log().names.clear();
  log().calls.clear();
  log().open_files.clear();
  log().open_folders.clear();
  log().files = 0;
  log().contents_before = std::move(contents);
  for (const auto& [name, bytes] : log().contents_before)
    log().names[name] = log().files++;
  log().folder = folder;
}

void stop() {
  const std::lock_guard<std::mutex> guard(log().lock);
  log().folder.clear();
  log().open_files.clear();
}

void mark(int64_t number) {
  const std::lock_guard<std::mutex> guard(log().lock);
  log().calls.push_back({Kind::MARK, 0, number, "", "", ""});
}

size_t size() {
  return log().calls.size();
}

int64_t last_mark(size_t calls) {
  int64_t last = -1;
  for (size_t i = 0; i < calls; ++i)
    if (log().calls[i].kind == Kind::MARK)
      last = log().calls[i].number;
  return last;
}

void cut(size_t calls, std::mt19937& random, const std::string& target) {
  const auto chance = [&](unsigned of_100) { return random() % 100 < of_100; };
  std::map<int, size_t> synced;  // by file: what stands before is on the disk
  size_t names_synced = 0, unsynced_names = 0;
  for (size_t i = 0; i < calls; ++i) {
    const Call& call = log().calls[i];
    if (call.kind == Kind::SYNC)
      synced[call.file] = i;
    if (call.kind == Kind::SYNC_NAMES)
      names_synced = i;
  }
  const auto is_of_names = [](const Call& call) {
    return call.kind == Kind::MAKE || call.kind == Kind::RENAME || call.kind == Kind::REMOVE;
  };
  for (size_t i = names_synced; i < calls; ++i)
    unsynced_names += is_of_names(log().calls[i]) ? 1 : 0;
  size_t names_that_arrive = unsynced_names == 0 ? 0 : random() % (unsynced_names + 1);
  if (chance(30))
    names_that_arrive = unsynced_names;

  // Some disks write early, some late, most this and that.
  const unsigned arrives = std::array{0u, 20u, 50u, 80u, 100u}[random() % 5];
  std::map<std::string, int> names;
  std::map<int, std::string> contents;
  for (const auto& [name, bytes] : log().contents_before) {
    const int file = static_cast<int>(names.size());
    contents[file] = bytes;
    names[name] = file;
  }
  for (size_t i = 0; i < calls; ++i) {
    const Call& call = log().calls[i];
    if (is_of_names(call)) {
      if (i >= names_synced && names_that_arrive == 0)
        continue;
      names_that_arrive -= i >= names_synced ? 1 : 0;
      if (call.kind == Kind::MAKE)
        names[call.name] = call.file;
      if (call.kind != Kind::MAKE)
        names.erase(call.name);
      if (call.kind == Kind::RENAME)
        names[call.new_name] = call.file;
      continue;
    }
    const bool certain = synced.contains(call.file) && i < synced[call.file];
    std::string& file = contents[call.file];
    if (call.kind == Kind::TRUNCATE && (certain || chance(arrives)))
      file.resize(static_cast<size_t>(call.number), '\0');
    if (call.kind != Kind::WRITE)
      continue;
    if (certain || chance(arrives)) {
      write_at(file, call.number, call.bytes.data(), call.bytes.size());
    } else if (arrives != 0 && chance(30)) {
      for (size_t at = 0; at < call.bytes.size(); at += SECTOR)
        if (chance(50))
          write_at(file, call.number + static_cast<int64_t>(at), call.bytes.data() + at,
                   std::min(SECTOR, call.bytes.size() - at));
    }
  }
  for (const auto& [name, file] : names)
    if (!name.ends_with("-shm"))
      support::write_file(target + "/" + name, contents[file]);
}

int64_t syncs() {
  return std::count_if(log().calls.begin(), log().calls.end(),
                       [](const Call& call) { return call.kind == Kind::SYNC || call.kind == Kind::SYNC_NAMES; });
}

int64_t bytes() {
  int64_t sum = 0;
  for (const Call& call : log().calls)
    sum += call.kind == Kind::WRITE ? static_cast<int64_t>(call.bytes.size()) : 0;
  return sum;
}

}  // namespace disk_log
