// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/database/channel_db.h"
#include "tools/epg/guide_job.h"

// What `kelvo epg update` has collected. `services` holds the channels by row, as far as they are known; `before` how
// many events were stored for each of them.

// The channel's name, or "#" and its row where there is none.
std::string channel_name(const std::map<int, Service>& services, int channel);

// What there is of the guide of a service; of an unfinished one also why.
std::string guide_text_of(const Guide_progress& progress, const Guide_multiplex& multiplex);

// A line a service, one a multiplex that says how long it took, what was lost, and the totals; on standard output.
void print_update_report(const std::vector<Guide_multiplex>& multiplexes, const std::map<int, Service>& services,
                         const std::map<int, int>& before);

// The same as one object.
nlohmann::ordered_json update_json(const std::vector<Guide_multiplex>& multiplexes,
                                   const std::map<int, Service>& services, const std::map<int, int>& before);
