// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// The guide for spreadsheets: a line an event (csv.h), the first one names the columns; texts in the language that
// comes first. `services` holds at least the channels of `events`, by row.
std::string guide_csv(const std::vector<Guide_event>& events, const std::map<int, Service>& services);
