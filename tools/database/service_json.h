// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <nlohmann/json.hpp>

#include "tools/database/channel_db.h"

// A service with its streams, as `kelvo channels --format json` and `kelvo scan --json` print it. REQUIRES: it was read
// with its streams.
nlohmann::ordered_json to_json(const Service& service);
