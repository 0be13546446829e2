// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// Events of the guide in words.

// A time of the event in the zone of its multiplex, where that is asked for and known, else in the reader's; `format`
// is strftime's.
std::string time_text(const Guide_event& event, int64_t seconds, const char* format);

// "20:15-21:00".
std::string hours_text(const Guide_event& event);

// The text in the language that was asked for, or the first one; an empty one where there is none.
const Event_text& best_text(const Guide_event& event);

// Description and extended text, each where it says something: many networks begin the extended text with the
// description, or repeat it whole, and some cut the description short with an ellipsis.
std::vector<std::string> paragraphs(const Event_text& text);

// These and the items in one, in a line.
std::string full_text(const Event_text& text);

// "Director: Ann; Cast: Bob, Carl".
std::string items_text(const Event_text& text);

// "Director: Ann", of a description and an item, of which either may be empty.
std::string item_text(const std::pair<std::string, std::string>& item);
