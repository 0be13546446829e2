// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// Events of the guide as people or programs want them, on standard output. `services` holds at least the channels of
// `events`, by row; `full` adds extended texts and items to a table.
void print_guide_table(const std::vector<Guide_event>& events, const std::map<int, Service>& services, bool full);
void print_guide_json(const std::vector<Guide_event>& events, const std::map<int, Service>& services);
// XMLTV, valid by its public DTD; lists all channels of `services`, which are those asked for.
void print_guide_xmltv(const std::vector<Guide_event>& events, const std::vector<Service>& services);
