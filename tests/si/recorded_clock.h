#pragma once

#include <time.h>

#include <vector>

// This program's settimeofday only remembers what it was asked for, and its time() and POSIX timers can be given: the
// machine's clock is never touched. Linking recorded_clock.cpp is enough.
namespace recorded_clock {

// The seconds of each settimeofday since the last call of this.
std::vector<time_t> take_settings();

// What time() answers; 0 for the machine's own.
void set_time(time_t seconds);

// Makes every timer read as run out, or as what it is.
void set_timers_expired(bool expired);

}  // namespace recorded_clock
