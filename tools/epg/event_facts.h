// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/database/guide_db.h"

// What is stored of an event besides its texts, in words: "Episode", "season 2, episode 3 of 6"; "Sound", "est,
// stereo". What it says of running is said while it is on at `now` alone. The guide's page says the same of the words
// in the JSON (page/facts.js).
std::vector<std::pair<std::string, std::string>> event_facts(const Guide_event& event, int64_t now);

// "Movie/Drama: Comedy; Romance": each genre once, with what the second level says of it.
std::vector<std::string> genre_facts(const Guide_event& event);
