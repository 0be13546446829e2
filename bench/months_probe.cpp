// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host that is left alone for weeks, run by bench/months under the software adapter: watches one multiplex and prints
// what the library tells it, and every hour how much of the machine it takes.
//
//   months_probe DB FREQ HOURS

#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <semaphore>

#include <kelvo/kelvo.h>

#include "process_figures.h"

namespace {

using process_figures::entries;
using process_figures::memory_kib;

constexpr int HOUR_S = 3600;
constexpr int UNPLUGGED_EACH_H = 7;  // for some minutes
constexpr int UNPLUGGED_S = 400;

std::mutex printing;
std::binary_semaphore answered(0);

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
  for (const Guide_change& c : changes)
    printf("guide channel=%d event=%d start=%d kind=%d\n", c.channel, c.event_id, c.start, c.kind);
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
  printf("hour=%d memory=%d descriptors=%d threads=%d services=%d events=%d\n", hour, memory_kib(),
         entries("/proc/self/fd"), entries("/proc/self/task"), services, events);
  (void)fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    (void)fprintf(stderr, "usage: months_probe DB FREQ HOURS\n");
    return 2;
  }
  verbosity_kelvo = -1;
  timespec begun{};
  (void)clock_gettime(CLOCK_MONOTONIC, &begun);
  Sdbl database(argv[1]);
  Kelvo kelvo(0, 0, 0, &database, true, nullptr, Receiver_profile::any_linux());
  kelvo.set_scan_listener(on_scan_end, nullptr);
  kelvo.set_guide_listener(on_guide, nullptr);
  if (kelvo.tune_to_freq(atoi(argv[2]), &answered, on_answer) == 0) {
    (void)fprintf(stderr, "months_probe: no lock\n");
    return 1;
  }
  answered.acquire();
  const int hours = atoi(argv[3]);
  for (int hour = 0; hour < hours; ++hour) {
    const time_t end = begun.tv_sec + static_cast<time_t>(hour + 1) * HOUR_S;
    if (hour % UNPLUGGED_EACH_H == UNPLUGGED_EACH_H - 1) {
      control("adapter 0 unplug");
      sleep_until(end - HOUR_S + UNPLUGGED_S);
      control("adapter 0 plug");
    }
    sleep_until(end - 60);  // before the next stream begins
    print_state(database, hour);
    sleep_until(end);
  }
  return 0;
}
