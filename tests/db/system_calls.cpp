// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "system_calls.h"

#include <dlfcn.h>
#include <sqlite3.h>

namespace {

std::mutex lock;  // guards the calls
bool recording = false;
std::string calls;
std::atomic<long> waited{0};
std::atomic<time_t> fixed_time{0};
std::function<void()> waiting;

void add(const std::string& call) {
  const std::lock_guard<std::mutex> guard(lock);
  if (recording)
    calls += call + "\n";
}

// The function of this name behind the one here.
template <typename Function>
Function* next(const char* name, Function* /* the one here */) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Without the number of the process, by which temporary files differ.
std::string name_of(const char* path) {
  std::string name = std::filesystem::path(path).filename();
  const std::string number = "." + std::to_string(getpid());
  if (name.ends_with(number))
    name.resize(name.size() - number.size());
  return name;
}

std::string file_of(sqlite3* conn) {
  const char* file = sqlite3_db_filename(conn, "main");
  return name_of(file != nullptr ? file : "");
}

}  // namespace

extern "C" {

int sqlite3_busy_timeout(sqlite3* conn, int ms) {
  add("busy_timeout " + file_of(conn) + " " + std::to_string(ms));
  return next("sqlite3_busy_timeout", sqlite3_busy_timeout)(conn, ms);
}

int sqlite3_extended_result_codes(sqlite3* conn, int on) {
  add("extended_result_codes " + file_of(conn) + " " + std::to_string(on));
  return next("sqlite3_extended_result_codes", sqlite3_extended_result_codes)(conn, on);
}

int sqlite3_exec(sqlite3* conn, const char* sql, sqlite3_callback callback, void* data, char** message) {
  if (std::strcmp(sql, "PRAGMA synchronous = OFF") == 0)
    add("synchronous_off " + file_of(conn));
  return next("sqlite3_exec", sqlite3_exec)(conn, sql, callback, data, message);
}

int sqlite3_backup_step(sqlite3_backup* backup, int pages) {
  add("backup_step " + std::to_string(pages));
  return next("sqlite3_backup_step", sqlite3_backup_step)(backup, pages);
}

int sqlite3_sleep(int ms) {
  add("sleep " + std::to_string(ms));
  return ms;
}

// SQLite waits with it for a lock.
int usleep(useconds_t us) {
  waited += static_cast<long>(us);
  if (waiting)
    waiting();
  return 0;
}

int system(const char* command) {
  add(std::string("system ") + command);
  return next("system", system)(command);
}

int rename(const char* from, const char* to) noexcept {
  add("rename " + name_of(from) + " " + name_of(to));
  return next("rename", rename)(from, to);
}

int fsync(int handle) {
  add("fsync");
  return next("fsync", fsync)(handle);
}

time_t time(time_t* out) noexcept {
  const time_t fixed = fixed_time;
  if (fixed == 0)
    return next("time", time)(out);
  if (out != nullptr)
    *out = fixed;
  return fixed;
}

}  // extern "C"

namespace system_calls {

void record() {
  const std::lock_guard<std::mutex> guard(lock);
  recording = true;
  calls.clear();
  waited = 0;
}

std::string recorded() {
  const std::lock_guard<std::mutex> guard(lock);
  recording = false;
  return std::move(calls);
}

long waited_us() {
  return waited;
}

void on_wait(std::function<void()> action) {
  waiting = std::move(action);
}

void set_time(time_t now) {
  fixed_time = now;
}

}  // namespace system_calls
