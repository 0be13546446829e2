// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// A line of RFC 4180: commas between the cells, quotes where they are needed, CR and LF at the end. A text that a
// spreadsheet would run as a formula, because of its first character, gets an apostrophe before it; numbers do not.
std::string csv_line(const std::vector<std::string>& cells);
