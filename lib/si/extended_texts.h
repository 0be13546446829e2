// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

// What is kept of an event's extended event descriptors (EN 300 468, 6.2.15) of one language until the next of them has
// come, because characters and items may go on there. All as broadcast. Dvb_text::add_extended() fills it.
struct Extended_texts {
  struct Part {
    std::vector<std::pair<std::string, std::string>> items;
    std::string text;
  };

  std::string lang;
  // By descriptor_number. Texts::STANDARD.
  std::map<int, Part> parts;
  // The last text, if half a character is at its end, and where it stands in the long text. Texts::PLAIN.
  std::string torn;
  size_t torn_at = 0;
};
