// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "tools/scan/scan_report.h"

// The report of a scan for programs: what print_report() says, and the services of the multiplexes that were found as
// they are now, with their streams. `before` and `after` are all services of the database, `after` with streams.
nlohmann::ordered_json scan_json(std::vector<Multiplex_line> multiplexes, const std::vector<Service>& before,
                                 const std::vector<Service>& after);
