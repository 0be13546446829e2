// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// What this process takes of the machine, and what measuring programs share. -1, 0 or nothing where Linux does not say.
namespace process_figures {

inline double cpu_s() {
  timespec t{};
  (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// A line of /proc/self/io: "wchar" is what was handed to the system, "write_bytes" what that makes it write to the
// disk.
inline int64_t io(const std::string& line) {
  std::ifstream file("/proc/self/io");
  for (std::string key; file >> key;) {
    int64_t value = 0;
    file >> value;
    if (key == line + ":")
      return value;
  }
  return 0;
}

// Resident.
inline int memory_kib() {
  FILE* file = fopen("/proc/self/statm", "re");
  int pages = 0;
  if (file != nullptr) {
    (void)!fscanf(file, "%*d %d", &pages);
    (void)fclose(file);
  }
  return static_cast<int>(pages * (sysconf(_SC_PAGESIZE) / 1024));
}

// Of a folder, such as /proc/self/fd and /proc/self/task; always two too many.
inline int entries(const char* folder) {
  int n = 0;
  DIR* list = opendir(folder);
  while (list != nullptr && readdir(list) != nullptr)
    ++n;
  if (list != nullptr)
    (void)closedir(list);
  return n;
}

// A folder of its own, removed at the end.
class Folder {
 public:
  Folder() {
    name_ = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(name_.data()) == nullptr)
      abort();
  }
  ~Folder() { std::filesystem::remove_all(name_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(const char* name) const { return name_ + "/" + name; }

 private:
  std::string name_;
};

inline void must(bool good, const char* what) {
  if (good)
    return;
  (void)fprintf(stderr, "%s: %s failed\n", program_invocation_short_name, what);
  exit(1);
}

}  // namespace process_figures
