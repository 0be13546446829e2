// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host that is left alone for weeks, run by bench/months under the software adapter: watches one multiplex and prints
// what the library tells it, and every hour how much of the machine it takes.
//
//   months_probe DB FREQ HOURS BEGIN
//
// The hours are counted from BEGIN (seconds since 1970), which may be some hours ahead.

#include <malloc.h>
#include <sqlite3.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <semaphore>
#include <string>

#include <kelvo/kelvo.h>

#include "process_figures.h"

namespace {

using process_figures::entries;
using process_figures::memory_kib;

constexpr int HOUR_S = 3600;
constexpr int UNPLUGGED_EACH_H = 7;  // for some minutes
constexpr int UNPLUGGED_S = 400;
constexpr int EXPORT_EACH_H = 24;  // which purges old events, too

time_t first_hour = 0;  // seconds since 1970
std::mutex printing;
std::binary_semaphore answered(0);

// The connection that was opened last, of the channel file: what comes after it is the library's own.
std::string channel_file;
sqlite3* connection = nullptr;

int on_connection(sqlite3* opened, char**, const sqlite3_api_routines*) {
  const char* const name = sqlite3_db_filename(opened, "main");
  if (name != nullptr && std::string(name).ends_with(channel_file))
    connection = opened;
  return SQLITE_OK;
}

int statements() {
  int count = 0;
  for (sqlite3_stmt* one = nullptr; (one = sqlite3_next_stmt(connection, one)) != nullptr;)
    ++count;
  return count;
}

// Of timer_create(); others are descriptors.
int timers() {
  std::ifstream file("/proc/self/timers");
  int count = 0;
  for (std::string line; std::getline(file, line);)
    count += line.starts_with("ID:") ? 1 : 0;
  return count;
}

void on_answer(void*, int) {
  answered.release();
}

void on_scan_end(void*, const Scan_end& end) {
  const std::lock_guard<std::mutex> lock(printing);
  for (const Channel_change& c : end.channel_changes)
    printf("channel service=%d kinds=%u lcn=%d>%d name=%s>%s\n", c.service_id, c.kinds, c.old_lcn, c.new_lcn,
           c.old_name.c_str(), c.new_name.c_str());
}

void on_guide(void*, const std::vector<Guide_change>& changes) {
  const std::lock_guard<std::mutex> lock(printing);
  const int at = static_cast<int>((time(nullptr) - first_hour) / HOUR_S);
  for (const Guide_change& c : changes)
    printf("guide at=%d channel=%d event=%d start=%d kind=%d\n", at, c.channel, c.event_id, c.start, c.kind);
}

void control(const char* line) {
  const char* const path = getenv("SOFTDVB_CONTROL");
  FILE* const file = path != nullptr ? fopen(path, "we") : nullptr;
  if (file == nullptr) {
    perror("months_probe: SOFTDVB_CONTROL");
    exit(1);
  }
  (void)fprintf(file, "%s\n", line);
  (void)fclose(file);
}

void sleep_until(time_t when) {
  timespec now{};
  while (clock_gettime(CLOCK_MONOTONIC, &now) == 0 && now.tv_sec < when)
    (void)sleep(static_cast<unsigned>(when - now.tv_sec));
}

void print_state(Sdbl& database, int hour) {
  int services = 0;
  int events = 0;
  (void)database.sql_get_int(&services, 0, "SELECT count(*) FROM kanalid WHERE scan_state = 1;");
  (void)database.sql_get_int(&events, 0, "SELECT count(*) FROM epglist;");
  const std::lock_guard<std::mutex> lock(printing);
  printf(
      "hour=%d memory=%d heap=%d sqlite=%d descriptors=%d threads=%d timers=%d statements=%d services=%d events=%d\n",
      hour, memory_kib(), static_cast<int>(mallinfo2().uordblks / 1024), static_cast<int>(sqlite3_memory_used() / 1024),
      entries("/proc/self/fd"), entries("/proc/self/task"), timers(), statements(), services, events);
  (void)fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    (void)fprintf(stderr, "usage: months_probe DB FREQ HOURS BEGIN\n");
    return 2;
  }
  verbosity_kelvo = -1;
  timespec begin{};
  (void)clock_gettime(CLOCK_MONOTONIC, &begin);
  first_hour = static_cast<time_t>(atoll(argv[4]));
  begin.tv_sec += first_hour - time(nullptr);
  channel_file = std::string(argv[1]).substr(std::string(argv[1]).rfind('/') + 1);
  (void)sqlite3_auto_extension(reinterpret_cast<void (*)()>(on_connection));
  Sdbl database(argv[1]);
  (void)sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(on_connection));
  Kelvo kelvo(0, 0, 0, &database, true, nullptr, Receiver_profile::any_linux());
  kelvo.set_scan_listener(on_scan_end, nullptr);
  kelvo.set_guide_listener(on_guide, nullptr);
  if (kelvo.tune_to_freq(atoi(argv[2]), &answered, on_answer) == 0) {
    (void)fprintf(stderr, "months_probe: no lock\n");
    return 1;
  }
  answered.acquire();
  const int hours = atoi(argv[3]);
  const std::string copy = std::string(argv[1]) + ".copy.db";
  for (int hour = 0; hour < hours; ++hour) {
    const time_t end = begin.tv_sec + static_cast<time_t>(hour + 1) * HOUR_S;
    if (hour % UNPLUGGED_EACH_H == UNPLUGGED_EACH_H - 1) {
      control("adapter 0 unplug");
      sleep_until(end - HOUR_S + UNPLUGGED_S);
      control("adapter 0 plug");
    }
    if (hour % EXPORT_EACH_H == EXPORT_EACH_H - 1)
      (void)kelvo.export_db(copy.c_str(), true);
    sleep_until(end - 60);  // before the next stream begins
    print_state(database, hour);
    sleep_until(end);
  }
  return 0;
}
