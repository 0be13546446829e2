// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// A channel database made by the library, then filled by hand with what lists must cope with: channels with and without
// number, of every state, scrambled ones, streams of every kind, and names that mean harm.
void make_prepared_db(const std::string& file);

// Runs SQL on a database file; fails the test when it cannot.
void run_sql(const std::string& file, const std::string& sql);
