// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// The texts of one event in one language, collected from its descriptors. Owned by the parser's list. Worker-only.
struct EIT_lang {
  std::string lang;      // ISO 639 code
  std::string ev_name;   // UTF-8, as all that follow
  std::string ev_desc;   // text of the short event descriptor
  std::string ext_desc;  // texts of the extended event descriptors, joined
  std::string ext_list;  // their items: the description twice, ":", the item, "," for each
  bool complete;         // the last extended event descriptor has been seen
  bool started;          // one has been seen
};
