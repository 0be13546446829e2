// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A host for measuring, run by scan_bench under the software adapter. Prints "name=value" lines.
//
//   scan_probe open DB         only opens the database
//   scan_probe scan DB FREQ    scans FREQ; worker's CPU time until the answer, peak memory then
//   scan_probe idle DB FREQ    scans FREQ, whose stream then stops, and counts allocations in the worker's idle passes
//   scan_probe soak DB FREQ N  scans FREQ N times, with the guide in between; memory, descriptors, threads each time

#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore>

#include <kelvo/kelvo.h>

#include "process_figures.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
}

namespace {

using process_figures::entries;
using process_figures::memory_kib;

std::binary_semaphore answered(0);
std::atomic<int> allocations{0};
thread_local bool counted = false;
double worker_ms = 0;
int outcome = SCAN_COMPLETE;  // of the last scan

void count() {
  if (counted) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
}

// On the worker, right before the answer to the same scan.
void on_scan_end(void*, const Scan_end& end) {
  outcome = end.outcome;
}

// On the worker. A scan that ended for another reason than that it was complete is no figure.
void on_answer(void*, int result) {
  if (result != 0 || outcome != SCAN_COMPLETE) {
    fprintf(stderr, "scan_probe: the scan was answered with %d, its outcome is %d\n", result, outcome);
    _exit(1);
  }
  timespec used{};
  (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  worker_ms = static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
  counted = true;
  answered.release();
}

void print_peak_memory() {
  FILE* status = fopen("/proc/self/status", "re");
  char line[256];
  while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
    int kib = 0;
    if (sscanf(line, "VmHWM: %d", &kib) == 1) {
      printf("peak_kib=%d\n", kib);
    }
  }
  if (status != nullptr) {
    (void)fclose(status);
  }
}

int soak(Sdbl& database, Kelvo& kelvo, int freq, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    if (kelvo.tune_to_freq(freq, &answered, on_answer) == 0) {
      fprintf(stderr, "scan_probe: no lock\n");
      return 1;
    }
    answered.acquire();
    sleep(5);  // The guide is collected.
    int services = 0;
    int events = 0;
    (void)database.sql_get_int(&services, 0, "SELECT count(*) FROM kanalid WHERE scan_state = 1;");
    (void)database.sql_get_int(&events, 0, "SELECT count(*) FROM epglist;");
    printf("round=%d memory=%d descriptors=%d threads=%d services=%d events=%d\n", round, memory_kib(),
           entries("/proc/self/fd"), entries("/proc/self/task"), services, events);
    (void)fflush(stdout);
  }
  return 0;
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  count();
  return __libc_malloc(size);
}

void* calloc(size_t n, size_t size) {
  count();
  return __libc_calloc(n, size);
}

void* realloc(void* old, size_t size) {
  count();
  return __libc_realloc(old, size);
}

}  // extern "C"

int main(int argc, char** argv) {
  if (argc < 3 || (strcmp(argv[1], "open") != 0 && argc < 4)) {
    fprintf(stderr, "usage: scan_probe open DB | scan DB FREQ | idle DB FREQ | soak DB FREQ N\n");
    return 2;
  }
  verbosity_kelvo = -1;
  Sdbl database(argv[2]);
  if (strcmp(argv[1], "open") == 0) {
    print_peak_memory();
    return 0;
  }
  Kelvo kelvo(0, 0, 0, &database, true, nullptr);
  kelvo.set_scan_listener(on_scan_end, nullptr);
  if (strcmp(argv[1], "soak") == 0) {
    return argc < 5 ? 2 : soak(database, kelvo, atoi(argv[3]), atoi(argv[4]));
  }
  if (kelvo.tune_to_freq(atoi(argv[3]), &answered, on_answer) == 0) {
    fprintf(stderr, "scan_probe: no lock\n");
    return 1;
  }
  answered.acquire();
  printf("worker_ms=%.2f\n", worker_ms);
  print_peak_memory();
  int services = 0;
  (void)database.sql_get_int(&services, 0, "SELECT count(*) FROM kanalid WHERE scan_state = 1;");
  printf("services=%d\n", services);
  if (strcmp(argv[1], "idle") == 0) {
    sleep(20);  // The guide's filters run dry; what is left of the scan settles.
    const int before = allocations.load();
    sleep(10);
    printf("idle_allocations=%d\n", allocations.load() - before);
  }
  return 0;
}
