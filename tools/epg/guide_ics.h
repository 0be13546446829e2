// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// The guide as a calendar (RFC 5545), in UTC; texts in the language that comes first. An event keeps its UID as long as
// it keeps its event_id and its day, so that a calendar that reads the guide again moves it and has it once. `made`:
// when this is, seconds since 1970. `services` holds at least the channels of `events`, by row.
std::string guide_ics(const std::vector<Guide_event>& events, const std::map<int, Service>& services, int64_t made);
