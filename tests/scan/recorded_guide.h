// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <set>
#include <string>
#include <vector>

// What a recording says about its guide, found without any part of this library: sections, tables and descriptors by
// libdvbpsi, characters by the C library.
namespace scan_support {

// A line for each event and language of the EIT of the actual multiplex, sorted, each once however often it is sent:
//   SERVICE|EVENT ID|START|DURATION|CONTENT|RATING|LANGUAGE|TITLE|TEXT|EXTENDED TEXT|ITEMS
// START in seconds since 1970, DURATION in seconds. Events of `services` only, or of all where it is empty.
std::vector<std::string> recorded_guide(const std::string& file, const std::set<int>& services = {});

// The query that makes the same lines of a database's events.
extern const char STORED_GUIDE[];
// The same of a guide that was collected whole, whose texts of one or two bytes are stored, too: without these.
extern const char STORED_WHOLE_GUIDE[];

// Fails the test where two guides differ, and names the first few lines that only one of them has. `stored` is what the
// query gave, in any order.
void expect_same_guide(const std::vector<std::string>& recorded, const std::string& stored);

}  // namespace scan_support
