// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tools/serve/station.h"
#include "tools/serve/stored.h"

// What /metrics says, put together when it is asked for.
struct Metrics_source {
  int64_t now = 0;                         // seconds since 1970
  const Station_state* station = nullptr;  // none: nothing is received, and nothing said of it
  const std::map<int, Stored_multiplex>* multiplexes = nullptr;
  std::optional<int64_t> guide_changed;
  const std::map<int, uint64_t>* answers = nullptr;  // by status of HTTP
  size_t event_streams = 0;
};
std::string metrics_text(const Metrics_source& source);
