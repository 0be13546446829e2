// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// What a compiled zone (tzfile(5)) says of the present: "EST, UTC+03:00", or, where its clocks change within the year,
// the rule as it stands there ("CET-1CEST,M3.5.0,M10.5.0/3"). Empty when the file is no zone, or not yet whole.
std::string zone_in(const std::string& file);
