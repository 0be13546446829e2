// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/local_time.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <limits>

#include <fmt/format.h>

#include "tools/cli/failure.h"

namespace {

// Where time_t has 32 bits, later times are its last second: wrong by years, not by a century.
time_t time_that_fits(int64_t seconds) {
  return static_cast<time_t>(
      std::clamp<int64_t>(seconds, std::numeric_limits<time_t>::min(), std::numeric_limits<time_t>::max()));
}

tm broken_down(int64_t seconds) {
  const time_t time = time_that_fits(seconds);
  tm out{};
  (void)localtime_r(&time, &out);
  return out;
}

int64_t midnight(tm day, int days_later) {
  day.tm_mday += days_later;
  day.tm_hour = day.tm_min = day.tm_sec = 0;
  // Whether it is summer time is found out for each midnight anew: between the two ends of a day clocks may change.
  day.tm_isdst = -1;
  return mktime(&day);
}

}  // namespace

std::string local_time(int64_t seconds, const char* format) {
  const tm time = broken_down(seconds);
  char text[64];
  return {text, strftime(text, sizeof text, format, &time)};
}

std::string zone_time(int64_t seconds, int offset_min, const char* format) {
  const int64_t east = int64_t{offset_min} * 60;
  const time_t shifted = time_that_fits(seconds + east);
  tm time{};
  (void)gmtime_r(&shifted, &time);
  time.tm_gmtoff = static_cast<long>(east);  // for %z
  char text[64];
  return {text, strftime(text, sizeof text, format, &time)};
}

std::pair<int64_t, int64_t> parse_day(const std::string& text) {
  tm day = broken_down(time(nullptr));
  int later = 0;
  if (text == "tomorrow") {
    later = 1;
  } else if (text == "yesterday") {
    later = -1;
  } else if (text != "today") {
    tm given{};
    const char* end = text.size() == 10 ? strptime(text.c_str(), "%Y-%m-%d", &given) : nullptr;
    tm checked = given;
    // Noon exists on every day of every zone, so only the date itself can make this fail: 30 February comes back as
    // another day.
    checked.tm_hour = 12;
    checked.tm_isdst = -1;
    if (end == nullptr || *end != '\0' || mktime(&checked) == -1 || checked.tm_mday != given.tm_mday) {
      throw Failure(fmt::format("--day {}: not a date; give YYYY-MM-DD, today, tomorrow or yesterday", text),
                    EXIT_USAGE);
    }
    day = given;
  }
  return {midnight(day, later), midnight(day, later + 1)};
}

int64_t midnight_in(int days) {
  return midnight(broken_down(time(nullptr)), days);
}

int parse_duration(const std::string& text, const std::string& option) {
  constexpr int64_t MOST = 7 * 24 * 3600;
  int64_t total = 0;
  size_t at = 0;
  bool good = !text.empty();
  while (good && at < text.size()) {
    int64_t value = 0;
    const size_t begin = at;
    // Digits are taken only until the number is too large anyway, so that it cannot overflow.
    while (at < text.size() && isdigit(static_cast<unsigned char>(text[at])) != 0 && value <= MOST) {
      value = value * 10 + (text[at++] - '0');
    }
    const char unit = at < text.size() ? text[at] : '\0';
    good = at > begin && (unit == 's' || unit == 'm' || unit == 'h');
    total += value * (unit == 'h' ? 3600 : unit == 'm' ? 60 : 1);
    ++at;
  }
  if (!good || total <= 0 || total > MOST) {
    throw Failure(fmt::format("{} {}: not a time; give for example 90s, 10m or 1h", option, text), EXIT_USAGE);
  }
  return static_cast<int>(total);
}
