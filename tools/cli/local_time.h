// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <utility>

// Times as the reader's zone has them (TZ, or the system's). `format` is strftime's.
std::string local_time(int64_t seconds, const char* format);

// The same as a zone has them that is so many minutes east of UTC.
std::string zone_time(int64_t seconds, int offset_min, const char* format);

// A day of the reader's zone, from its midnight to the next, in seconds since 1970: YYYY-MM-DD, "today", "tomorrow" or
// "yesterday". A day on which clocks change has 23 or 25 hours. Throws Failure when it is none of them.
std::pair<int64_t, int64_t> parse_day(const std::string& text);

// The midnight of the reader's zone with which today begins, or a day so many days later.
int64_t midnight_in(int days);

// Seconds of "90s", "10m", "1h" or "2h30m"; throws Failure (`option` names it) for others and for 0.
int parse_duration(const std::string& text, const std::string& option);
