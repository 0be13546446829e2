// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

#include "tools/database/guide_db.h"

// Which episode of a series an event is, where its texts say so for certain.
struct Episode {
  std::string text;  // as broadcast: "S2 Ep3/6", "(3/6)", "Folge 3"
  int season = 0;    // from 1; 0: not said
  int number = 0;    // from 1; 0: not said for certain
  int of = 0;        // so many in the season; 0: not said
  bool operator==(const Episode&) const = default;
};

// By items ("Season", "Episode number"), else by title and description: a season with an episode anywhere ("Series 2,
// episode 3 of 6"); an episode alone where the description begins with it, the title has it, or it says of how many;
// and
// "(3/6)" at the end of either, or "3/6." where the description begins.
std::optional<Episode> find_episode(const Guide_event& event);
