// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

namespace support {

struct Dump_options {
  bool numbers = true;  // row numbers of services; without, rows are named by frequency and programme number only
  bool events = true;   // every event; without, a line a service with their number and a checksum
  bool guide = true;    // events at all; how much of the guide a scan collects depends on when it ends
};

// All tables of a channel database and its guide as text, sorted, one row a line under a line with the columns' names.
// What differs from run to run is filtered here and nowhere else: `modified` is shown as set or 0, row numbers of
// events as the place in the order.
// Fails the calling test (and returns what there is) when the database cannot be read.
std::string dump_database(const std::string& db_file, const Dump_options& options = {});

// All rows of a query, values joined by '|', a line a row. The guide, if there is one, is attached as epg_db.
std::string query_database(const std::string& db_file, const std::string& sql);

// Compares `text` with the reference tests/data/NAME; fails the calling test with the first differing line. With the
// environment variable KELVO_COLLECT set, writes the reference instead. A reference that is missing is a failure.
void expect_reference(const std::string& name, const std::string& text);

}  // namespace support
