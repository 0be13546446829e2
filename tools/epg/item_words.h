// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/database/guide_db.h"

// What the items of extended descriptions mean. Broadcasters name them freely, in their languages; a name that is not
// known for certain is Item_kind::OTHER and stays a text.
enum class Item_kind {
  OTHER,
  // People, in the order in which XMLTV lists them.
  DIRECTOR,
  ACTOR,
  WRITER,
  PRODUCER,
  COMPOSER,
  PRESENTER,
  COMMENTATOR,
  GUEST,
  YEAR,
  COUNTRY,
  EPISODE_TITLE,
  EPISODE_NUMBER,
  SEASON,
};

// By the description of an item, such as "Director"; small and capital letters are the same.
Item_kind item_kind(const std::string& name);

inline bool is_person(Item_kind kind) {
  return kind >= Item_kind::DIRECTOR && kind <= Item_kind::GUEST;
}

// "director", "actor", ...; REQUIRES: is_person(kind).
const char* person_word(Item_kind kind);

struct Person {
  Item_kind kind = Item_kind::OTHER;
  std::string name;
  std::string part;  // of actors: who is played, where it is said
  bool operator==(const Person&) const = default;
};

// The people of an item: "Ann Lee (Mary), John Oak". Nothing where the text looks like a sentence.
std::optional<std::vector<Person>> people_in(Item_kind kind, const std::string& text);

// Those of all languages, each once, by kind.
std::vector<Person> people_of(const Guide_event& event);

// "1994" of a text that is a year and nothing else.
std::string year_in(const std::string& text);

// Whether something else than a text has been made of the item.
bool is_understood(const std::pair<std::string, std::string>& item);
