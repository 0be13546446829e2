// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// The guide for programs, as `kelvo epg --format json` prints it and schemas/guide.schema.json describes it:
// {"format": "kelvo-guide", "version": 1, "events": [...]}. The version is raised when a key goes or changes its
// meaning, not when one is added. `services` holds at least the channels of `events`, by row.
nlohmann::ordered_json guide_json(const std::vector<Guide_event>& events, const std::map<int, Service>& services);
