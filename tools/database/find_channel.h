// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/database/channel_db.h"

// The one service that `wanted` means: a logical channel number, "#" and a row number of the database, or a name
// (whole, else a part of it; small and capital letters are the same). `what` names the argument in messages. Throws
// Failure when none or several are meant.
const Service& find_channel(const std::vector<Service>& services, const std::string& wanted, const std::string& what);

// In small letters, as UTF-8.
std::string lower_case(const std::string& text);
