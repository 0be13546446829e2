// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include <kelvo/kelvo.h>

// What a time table did, and whether the clock has become right, which is looked at where the table was read: a clock
// that may not be set, or that something else turns back, stays wrong although the library has set it.
struct Time_news {
  explicit Time_news(const Broadcast_time& time);

  Broadcast_time broadcast;
  bool clock_right;
};

// The lines of `kelvo watch` and `kelvo epg update` about clock and zone. Tables come twice a minute: what stays as it
// was is said once. One thread.
class Time_texts {
 public:
  std::vector<std::string> texts(const Time_news& news);

 private:
  std::string clock_text(const Time_news& news);
  std::string zone_text(const Broadcast_time& broadcast);

  bool clock_stays_ = false;  // that it could not be set, or is not, has been said
  std::string zone_said_;
};
