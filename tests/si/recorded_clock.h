#pragma once

#include <time.h>

#include <utility>
#include <vector>

using Seconds = std::pair<time_t, time_t>;  // to the first expiry of a timer, and between them

// This program's settimeofday only remembers what it was asked for, and its time() and POSIX timers can be given: the
// machine's clock is never touched. Linking recorded_clock.cpp is enough.
namespace recorded_clock {

// The seconds of each settimeofday since the last call of this.
std::vector<time_t> take_settings();

// What time() answers; 0 for the machine's own.
void set_time(time_t seconds);

// Refuses to set the clock, with EPERM; the attempt is remembered all the same.
void set_settings_refused(bool refused);

// Writes "<time>" and "<settimeofday>" to standard error at each of these calls, so that messages show where they are.
void set_announced(bool announced);

// Makes every timer read as run out, or as what it is.
void set_timers_expired(bool expired);

// Lets timers and CLOCK_MONOTONIC run ahead by this much in all.
void set_ahead(time_t seconds);

// Refuses new timers, with EAGAIN.
void set_timers_refused(bool refused);

// How timers have been armed since the last call of this.
std::vector<Seconds> take_armed();

}  // namespace recorded_clock
