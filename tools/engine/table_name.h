// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The table that a table_id stands for: "PAT", "SDT", "EIT"; "other" for those that the command has no use for.
std::string table_name(int id);
