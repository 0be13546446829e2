// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/watch/time_texts.h"

#include <time.h>

#include <cstdlib>

#include <fmt/format.h>

#include "tools/watch/zone_file.h"

namespace {

constexpr int64_t CLOCK_TOLERANCE_S = 10;                 // the library's
constexpr int64_t WORTH_SAYING_S = 60;                    // of a clock that is not set
constexpr const char* ZONE_FILE = "/dvbfiles/localtime";  // where the library puts the zone of the broadcast

std::string offset_text(int minutes) {
  return fmt::format("UTC{}{:02}:{:02}", minutes < 0 ? '-' : '+', std::abs(minutes) / 60, std::abs(minutes) % 60);
}

}  // namespace

Time_news::Time_news(const Broadcast_time& time)
    : broadcast(time), clock_right(std::abs(int64_t{::time(nullptr)} - time.utc) <= CLOCK_TOLERANCE_S) {}

std::vector<std::string> Time_texts::texts(const Time_news& news) {
  std::vector<std::string> out;
  for (std::string text : {clock_text(news), zone_text(news.broadcast)}) {
    if (!text.empty()) {
      out.push_back(std::move(text));
    }
  }
  return out;
}

std::string Time_texts::clock_text(const Time_news& news) {
  if (news.broadcast.clock == CLOCK_RIGHT) {
    return "";
  }
  if (news.broadcast.clock == CLOCK_SET && news.clock_right) {
    clock_stays_ = false;
    return fmt::format("clock set by {:+} s", news.broadcast.off_by);
  }
  if (news.broadcast.clock == CLOCK_KEPT && std::abs(news.broadcast.off_by) <= WORTH_SAYING_S) {
    return "";
  }
  // A clock that is turned back by something else is set at every time table, twice a minute.
  if (clock_stays_) {
    return "";
  }
  clock_stays_ = true;
  if (news.broadcast.clock != CLOCK_SET) {
    return fmt::format("the clock is {} s {} by the broadcast; {}", std::abs(news.broadcast.off_by),
                       news.broadcast.off_by > 0 ? "slow" : "fast",
                       news.broadcast.clock == CLOCK_KEPT ? "--set-clock sets it" : "no right to set it");
  }
  return "clock set, but it stayed as it was, more than 10 s from the broadcast";
}

std::string Time_texts::zone_text(const Broadcast_time& broadcast) {
  std::string zone;
  std::string text;
  if (broadcast.zone == ZONE_SET) {
    tzset();  // for the times that begin the lines
    zone = zone_in(ZONE_FILE);
    if (zone.empty()) {
      zone = ZONE_FILE;
    }
    text = "time zone set: " + zone;
  } else if (broadcast.zone == ZONE_FAILED) {
    zone = offset_text(broadcast.offset_min);
    text = fmt::format("time zone not set: {} could not be compiled, or not written to {}", zone, ZONE_FILE);
  }
  // A zone that is set, or refused, again and again is news once. A table that says nothing of the zone is no change,
  // or the next one would be said again.
  if (zone == zone_said_) {
    return "";
  }
  if (!zone.empty()) {
    zone_said_ = zone;
  }
  return text;
}
