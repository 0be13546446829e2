// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/database/channel_db.h"

// The family that a CA_system_id belongs to, one word ("Conax"); empty for those that are not public knowledge.
std::string ca_name(int system);

// The systems of a service, each once: hexadecimal numbers, and names where there are any, else numbers.
std::vector<std::string> ca_numbers(const Service& service);
std::vector<std::string> ca_names(const Service& service);

// "audio 258 est eng"; where the database has the stream in words "audio 258 E-AC-3 est (audio description)", and of
// teletext "teletext 260 cze (index 100, subtitles 888)".
std::string stream_text(const Stream& stream);
std::string streams_text(const Service& service);
