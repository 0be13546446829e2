// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "tools/database/channel_db.h"

// A service with its streams, as `kelvo channels --format json` and `kelvo scan --json` print it. REQUIRES: it was read
// with its streams.
nlohmann::ordered_json to_json(const Service& service);

// The channel list as a document, what `kelvo channels --format json` prints: an object with "format", "version" and
// "channels" in the order given (see sort_by_number). The version rises when a key changes its meaning or goes; keys
// may be added at any time. schemas/channels.schema.json describes it. REQUIRES: as above.
inline constexpr int CHANNELS_JSON_VERSION = 1;
nlohmann::ordered_json channels_json(const std::vector<Service>& services);
