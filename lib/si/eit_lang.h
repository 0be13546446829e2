// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <utility>
#include <vector>

// The texts of one event in one language, collected from its descriptors. Owned by the parser's list. Worker-only.
struct EIT_lang {
  std::string lang;      // ISO 639 code
  std::string ev_name;   // UTF-8, as all that follow
  std::string ev_desc;   // text of the short event descriptor
  std::string ext_desc;  // texts of the extended event descriptors, joined
  // Their items: the description twice, ":", the item, "," for each. With Receiver_profile::Texts::STANDARD a line for
  // each: the description, ":", the item, a line feed.
  std::string ext_list;
  bool complete;  // the last extended event descriptor has been seen
  bool started;   // one has been seen
  // The items again, as pairs of description ("Director") and item, each once and in the order of their sending. With
  // Receiver_profile::Texts::STANDARD an item that goes on in the next descriptor is one pair.
  std::vector<std::pair<std::string, std::string>> items;
};
