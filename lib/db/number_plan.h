// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include "db/channel_row.h"

namespace sdbl {

// What a service's type makes of it (EN 300 468, table 87): 0 television, 1 radio, 2 anything else.
int kind_of(int serv_type);

// The number under which a service asks to be listed: the one for receivers of HD if it has one and no other service of
// `rows` asks for the same, else the plain one. NO_LCN for none. Lost services ask for nothing.
int wished_number(const std::vector<Channel_row>& rows, const Channel_row& row);

// Gives each service that is there its number, from what is broadcast (detail.lcn, detail.hd_lcn). Where several ask
// for one number it goes to the first of: visible, hidden; television, radio, others; who has it already; the lowest
// ids (original network, transport stream, service). The others get the next free ones from FIRST_FREE on, in the same
// order, and keep such a number as long as they have to. Rows with the same ids are one service. Lost services keep
// what they have and are not asked.
void plan_numbers(std::vector<Channel_row>& rows);

inline constexpr int FIRST_FREE_NUMBER = 800;

}  // namespace sdbl
