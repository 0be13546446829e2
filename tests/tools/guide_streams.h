// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "support/support.h"

// Small multiplexes with a guide, made by softdvb-mux with all tables sent often. For the streams it is
// 2026-03-01 18:00:00 UTC when they begin; they do not send it, so that a loop does not turn a clock back.
class Guide_streams {
 public:
  static constexpr const char* NOW = "2026-03-01T18:00:00Z";
  static constexpr const char* NOW_EPOCH = "1772388000";

  // Makes NAME.ts from softdvb-mux's `services`; `more` are further keys of the whole, a comma before each.
  // Returns the stream's file.
  std::string make(const std::string& name, int transport_stream_id, const std::string& services,
                   const std::string& more = "") const;

  // A television service with a channel number and a stream; `more` as above.
  static std::string service(int id, int lcn, const std::string& name, const std::string& more = "");

  // 48 events of half an hour on the day of NOW, for service().
  static const char* const DAY_OF_EVENTS;

  const support::Temp_dir& folder() const { return dir_; }

 private:
  support::Temp_dir dir_;
};
