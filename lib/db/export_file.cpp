// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/export_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "base/log.h"
#include "db/shell_files.h"

namespace sdbl {

namespace {

constexpr int MOST_NAMES = 100;
constexpr mode_t MODE = 0644;  // as SQLite makes files
constexpr size_t COPIED_AT_ONCE = 65536;

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// True when the file has a lock of an export that is under way, now or in a moment.
bool in_use(const std::string& path) {
  const int handle = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (handle < 0)
    return false;
  const bool used = flock(handle, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  (void)close(handle);  // nothing was written to it
  return used;
}

// NAME.123 or NAME.123-4, which are exports' own.
bool is_own_name(const char* name, const std::string& base) {
  if (std::strncmp(name, base.c_str(), base.size()) != 0 || name[base.size()] != '.')
    return false;
  const char* rest = name + base.size() + 1;
  return *rest != '\0' && std::strspn(rest, "0123456789-") == std::strlen(rest);
}

void remove_leftovers(const std::string& base) {
  for (const char* ending : {"", "-journal", "-wal", "-shm"})
    (void)unlink((base + ending).c_str());  // most often there is none
  const std::string folder = folder_of(base);
  const std::string name = base.substr(base.rfind('/') + 1);
  DIR* entries = opendir(folder.c_str());
  if (entries == nullptr)
    return;
  std::vector<std::string> found;
  // With 32 bits places of entries may be too large, and reading would end there.
  while (const dirent64* entry = readdir64(entries))
    if (is_own_name(entry->d_name, name))
      found.push_back(base + (entry->d_name + name.size()));
  (void)closedir(entries);
  for (const std::string& file : found)
    if (!in_use(file))
      (void)unlink(file.c_str());  // what stays is tried again by the next export
}

// Some file systems cannot, and their files are as safe as they get.
bool on_disk(int handle) {
  return fsync(handle) == 0 || errno == EINVAL || errno == EROFS;
}

bool copy_all(int from, int to) {
  std::vector<char> bytes(COPIED_AT_ONCE);
  for (off_t at = 0;;) {
    const ssize_t length = pread(from, bytes.data(), bytes.size(), at);
    if (length <= 0)
      return length == 0;
    for (ssize_t written = 0; written < length;) {
      const ssize_t count = write(to, bytes.data() + written, static_cast<size_t>(length - written));
      if (count < 0)
        return false;
      written += count;
    }
    at += length;
  }
}

void print_failure(const std::string& target) {
  KLOG(VERB_ERROR, "ERROR: Cannot put a copy in place of %s, %s\n", target.c_str(), std::strerror(errno));
}

}  // namespace

void sync_folder(const std::string& file) {
  const int folder = open(folder_of(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0)
    return;
  (void)on_disk(folder);  // it is in its place; a power cut may bring back what was there
  (void)close(folder);
}

Export_file::Export_file(const std::string& base) {
  remove_leftovers(base);
  if (file_exists(base)) {
    errno = EEXIST;
    return;
  }
  const std::string own = base + "." + std::to_string(getpid());
  for (int number = 0; number < MOST_NAMES; ++number)
    if (take(number == 0 ? own : own + "-" + std::to_string(number)) || errno != EEXIST)
      return;
}

Export_file::~Export_file() {
  if (!path_.empty())
    (void)unlink(path_.c_str());  // or the next export does
  if (handle_ >= 0)
    (void)close(handle_);  // written by others
}

bool Export_file::take(const std::string& path) {
  const int handle = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, MODE);
  if (handle < 0)
    return false;
  struct stat state {};
  // Another process may have taken it for a leftover before it was locked.
  (void)flock(handle, LOCK_EX | LOCK_NB);
  if (fstat(handle, &state) != 0 || state.st_nlink == 0) {
    (void)close(handle);
    errno = EEXIST;
    return false;
  }
  handle_ = handle;
  path_ = path;
  return true;
}

void Export_file::put(const std::string& target) {
  if (!on_disk(handle_)) {
    print_failure(target);
  } else if (rename(path_.c_str(), target.c_str()) == 0) {
    path_.clear();
    sync_folder(target);
  } else if (errno == EXDEV) {
    copy_over(target);
  } else {
    move_file(path_, target);  // says why it cannot
  }
}

void Export_file::copy_over(const std::string& target) const {
  const std::string beside = target + "." + std::to_string(getpid());
  (void)unlink(beside.c_str());  // of an export that did not end
  const int copy = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, MODE);
  const bool whole = copy >= 0 && copy_all(handle_, copy) && on_disk(copy);
  if (!whole || rename(beside.c_str(), target.c_str()) != 0) {
    print_failure(target);
    (void)unlink(beside.c_str());
  }
  if (copy >= 0)
    (void)close(copy);  // it is on the disk already, or given up
  if (whole)
    sync_folder(target);
}

}  // namespace sdbl
