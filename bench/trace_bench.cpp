// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "trace/timedoc.h"

// What converting a trace costs, when its names repeat and when each record has a new one. Each line is for so many
// records; the time of one should be the same on all of them.

namespace {

constexpr unsigned TASK_STARTS = 0x01000000;

// Four characters, different for each number.
unsigned name_word(unsigned number) {
  return 0x40404040 + ((number >> 18 & 63) << 24 | (number >> 12 & 63) << 16 | (number >> 6 & 63) << 8 | (number & 63));
}

void convert(benchmark::State& state, unsigned names) {
  const auto records = static_cast<unsigned>(state.range(0));
  std::vector<unsigned> words;
  for (unsigned i = 0; i < records; ++i)
    words.insert(words.end(), {i, TASK_STARTS, name_word(i % names), 0});
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Timedoc timedoc;
  timedoc.set_output(nowhere);
  for (auto _ : state)
    timedoc.convert_to_tdi(words.data(), static_cast<int>(words.size()));
  (void)close(nowhere);
  state.counters["per record"] =
      benchmark::Counter(records, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void repeated_names(benchmark::State& state) {
  convert(state, 100);
}

void new_names(benchmark::State& state) {
  convert(state, 1 << 24);
}

BENCHMARK(repeated_names)->Arg(250'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(new_names)->Arg(250'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
