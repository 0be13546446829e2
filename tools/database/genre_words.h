// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The two levels of a content descriptor in the standard's English words (EN 300 468, table 29); empty where it has
// none. The second level alone says little ("Comedy"), and of "general" it says nothing.
std::string genre_name(int level1);
std::string genre_detail(int level1, int level2);

// The first level whose second says something of the broadcast (live, black and white) and not of the programme.
inline constexpr int SPECIAL_CHARACTERISTICS = 11;
